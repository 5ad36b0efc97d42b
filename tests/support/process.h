// Programs under test as child processes.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace test {

using namespace std::chrono_literals;

inline constexpr std::chrono::milliseconds kPatience = 15s;

// The source tree, and where the build puts programs.
std::string sourceDir();
std::string binDir();

// True as soon as the condition holds, false when it did not within the time.
bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds timeout = kPatience);

std::size_t occurrences(std::string_view text, std::string_view part);

// One child. Its standard input is empty; what it prints goes through pipes, as with a supervisor. A child
// that still runs at the end is killed.
class Process {
  public:
    // arguments[0] is a program of this build or one found by PATH.
    explicit Process(std::vector<std::string> arguments);
    ~Process();
    Process(const Process&) = delete;

    std::string out() const;
    std::string err() const;
    bool waitForOut(std::string_view text, std::size_t times = 1,
                    std::chrono::milliseconds timeout = kPatience) const;

    bool running();
    void kill(int signal);
    // Exit status, minus the signal's number for a child ended by a signal, nothing for one that still runs.
    // Once it has ended, out() and err() are complete.
    std::optional<int> wait(std::chrono::milliseconds timeout = kPatience);

    pid_t pid() const {
        return pid_;
    }

  private:
    void collect();

    pid_t pid_ = -1;
    int outPipe_ = -1;
    int errPipe_ = -1;
    std::optional<int> status_;
    mutable std::mutex mutex_;  // guards out_ and err_
    std::string out_;
    std::string err_;
    std::thread collector_;
};

}  // namespace test
