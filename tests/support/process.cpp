#include "support/process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <thread>

namespace test {
namespace {

std::string contents(int file) {
    struct stat status {};
    fstat(file, &status);
    std::string text(static_cast<std::size_t>(status.st_size), '\0');
    text.resize(static_cast<std::size_t>(std::max<ssize_t>(0, pread(file, text.data(), text.size(), 0))));
    return text;
}

}  // namespace

std::string sourceDir() {
    return KESTOR_SOURCE_DIR;
}

bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(5ms);
    }
    return true;
}

std::size_t occurrences(std::string_view text, std::string_view part) {
    std::size_t count = 0;
    for (auto at = text.find(part); at != std::string_view::npos; at = text.find(part, at + part.size()))
        ++count;
    return count;
}

Process::Process(std::vector<std::string> arguments)
    : isDaemon_(arguments.at(0) == "kestor"),
      outFile_(memfd_create("out", MFD_CLOEXEC)),
      errFile_(memfd_create("err", MFD_CLOEXEC)) {
    const std::string own = std::string(KESTOR_BIN_DIR "/") + arguments.at(0);
    if (std::filesystem::exists(own))
        arguments[0] = own;
    std::vector<char*> argv;
    for (std::string& argument : arguments)
        argv.push_back(argument.data());
    argv.push_back(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
        dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);
        dup2(outFile_, STDOUT_FILENO);
        dup2(errFile_, STDERR_FILENO);
        execvp(argv[0], argv.data());
        _exit(127);
    }
}

Process::~Process() {
#ifdef KESTOR_LEAK_CHECK_SIGNAL
    if (isDaemon_ && running()) {
        kill(KESTOR_LEAK_CHECK_SIGNAL);
        EXPECT_EQ(wait(), 0) << "the daemon leaks memory, or does not tell";
    }
#endif
    kill(SIGKILL);
    for (const char* report : {"Sanitizer", "runtime error: "})
        EXPECT_EQ(err().find(report), std::string::npos) << err();
    close(outFile_);
    close(errFile_);
}

std::string Process::out() const {
    return contents(outFile_);
}

std::string Process::err() const {
    return contents(errFile_);
}

bool Process::waitForOut(std::string_view text, std::size_t times) const {
    return eventually([&] { return occurrences(out(), text) >= times; });
}

void Process::kill(int signal) {
    if (!running())
        return;
    ::kill(pid_, signal);
    if (signal == SIGKILL)
        wait();
}

std::optional<int> Process::wait(std::chrono::milliseconds timeout) {
    eventually(
        [this] {
            int status = 0;
            if (!status_ && waitpid(pid_, &status, WNOHANG) == pid_)
                status_ = WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
            return status_.has_value();
        },
        timeout);
    return status_;
}

}  // namespace test
