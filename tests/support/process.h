// Programs under test as child processes.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace test {

using namespace std::chrono_literals;

inline constexpr std::chrono::milliseconds kPatience = 40s;

// The source tree.
std::string sourceDir();

// True as soon as the condition holds, false when it did not within the time.
bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds timeout = kPatience);

std::size_t occurrences(std::string_view text, std::string_view part);

// One child, with an empty standard input. One that still runs at the end is killed; in builds with the
// address sanitizer a daemon has to pass a leak check first.
class Process {
  public:
    // arguments[0] is a program of this build or one found by PATH.
    explicit Process(std::vector<std::string> arguments);
    ~Process();
    Process(const Process&) = delete;

    // What it printed so far. Neither is a terminal, so only what it flushes shows before its end.
    std::string out() const;
    std::string err() const;
    bool waitForOut(std::string_view text, std::size_t times = 1) const;

    // Its directory below /proc.
    std::string proc() const {
        return "/proc/" + std::to_string(pid_);
    }
    // After SIGKILL it has ended on return.
    void kill(int signal);
    // Exit status, minus the signal's number for a child ended by a signal, nothing for one that still runs.
    std::optional<int> wait(std::chrono::milliseconds timeout = kPatience);
    bool running() {
        return !wait(0ms);
    }

  private:
    [[maybe_unused]] const bool isDaemon_;
    pid_t pid_ = -1;
    int outFile_;
    int errFile_;
    std::optional<int> status_;
};

}  // namespace test
