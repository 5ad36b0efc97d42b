// Every run enters a network, process space and /tmp of its own, so that the tests neither touch this
// machine's network nor each other and can run side by side.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>

#include "support/process.h"

int main(int argc, char** argv) {
    constexpr const char* kInside = "KESTOR_IN_NETNS";
    const std::vector<char*> arguments(argv, argv + argc + 1);
    testing::InitGoogleTest(&argc, argv);
    if (!testing::GTEST_FLAG(list_tests) && std::getenv(kInside) == nullptr) {
        std::string script = test::sourceDir() + "/scripts/netns.sh";
        std::vector<char*> command = {script.data()};
        command.insert(command.end(), arguments.begin(), arguments.end());
        setenv(kInside, "1", 1);
        execv(script.c_str(), command.data());
        std::perror(script.c_str());
        return 1;
    }
    setenv("KESTOR_STATION", "/tmp/station.sock", 1);  // not that of a station on this machine
    return RUN_ALL_TESTS();
}
