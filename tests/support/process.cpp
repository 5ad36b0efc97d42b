#include "support/process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <stdexcept>

namespace test {

std::string sourceDir() {
    return KESTOR_SOURCE_DIR;
}

std::string binDir() {
    return KESTOR_BIN_DIR;
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

Process::Process(std::vector<std::string> arguments) {
    const std::string own = binDir() + "/" + arguments.at(0);
    if (std::filesystem::exists(own))
        arguments[0] = own;
    std::vector<char*> argv;
    for (std::string& argument : arguments)
        argv.push_back(argument.data());
    argv.push_back(nullptr);

    std::array<int, 2> out{};
    std::array<int, 2> err{};
    if (pipe2(out.data(), O_CLOEXEC) != 0 || pipe2(err.data(), O_CLOEXEC) != 0)
        throw std::runtime_error("no pipe");
    pid_ = fork();
    if (pid_ < 0)
        throw std::runtime_error("no child process");
    if (pid_ == 0) {
        dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);
        dup2(out[1], STDOUT_FILENO);
        dup2(err[1], STDERR_FILENO);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    close(out[1]);
    close(err[1]);
    outPipe_ = out[0];
    errPipe_ = err[0];
    collector_ = std::thread(&Process::collect, this);
}

Process::~Process() {
    if (running())
        kill(SIGKILL);
    wait();
    close(outPipe_);
    close(errPipe_);
}

void Process::collect() {
    std::array<pollfd, 2> pipes = {pollfd{outPipe_, POLLIN, 0}, pollfd{errPipe_, POLLIN, 0}};
    while (pipes[0].fd >= 0 || pipes[1].fd >= 0) {
        poll(pipes.data(), pipes.size(), -1);
        for (std::size_t i = 0; i < pipes.size(); ++i) {
            if (pipes[i].fd < 0 || pipes[i].revents == 0)
                continue;
            std::array<char, 65536> buffer;
            const ssize_t count = read(pipes[i].fd, buffer.data(), buffer.size());
            if (count <= 0) {
                pipes[i].fd = -1;
                continue;
            }
            const std::lock_guard guard(mutex_);
            (i == 0 ? out_ : err_).append(buffer.data(), static_cast<std::size_t>(count));
        }
    }
}

std::string Process::out() const {
    const std::lock_guard guard(mutex_);
    return out_;
}

std::string Process::err() const {
    const std::lock_guard guard(mutex_);
    return err_;
}

bool Process::waitForOut(std::string_view text, std::size_t times, std::chrono::milliseconds timeout) const {
    return eventually([&] { return occurrences(out(), text) >= times; }, timeout);
}

bool Process::running() {
    return !wait(0ms);
}

void Process::kill(int signal) {
    if (!status_)
        ::kill(pid_, signal);
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
    if (status_ && collector_.joinable())
        collector_.join();
    return status_;
}

}  // namespace test
