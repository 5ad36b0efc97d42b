#include "workerPool.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>

extern char** environ;

namespace pictured {

namespace {

constexpr std::chrono::milliseconds kLooksAtBusy{200};
constexpr std::chrono::milliseconds kLooksAtEnding{10};
constexpr std::size_t kReadBytes = 65536;

microseconds ofTimeval(const timeval& time) {
    return std::chrono::seconds(time.tv_sec) + microseconds(time.tv_usec);
}

// How a worker ended, continuing "its decoder ".
std::string endOf(int status) {
    if (!WIFSIGNALED(status)) {
        return "gave up (too little memory?)";
    }
    switch (const int signal = WTERMSIG(status)) {
        case SIGSYS:
            return "asked the system for what it may not do, and was stopped";
        case SIGKILL:
            return "was killed";
        default:
            return "crashed (signal " + std::to_string(signal) + ")";
    }
}

class FileActions {
  public:
    FileActions() {
        posix_spawn_file_actions_init(&actions_);
    }
    ~FileActions() {
        posix_spawn_file_actions_destroy(&actions_);
    }
    FileActions(const FileActions&) = delete;
    posix_spawn_file_actions_t* get() {
        return &actions_;
    }

  private:
    posix_spawn_file_actions_t actions_{};
};

}  // namespace

WorkerPool::WorkerPool(std::string program, unsigned workers, Handlers handlers)
    : program_(std::move(program)), handlers_(std::move(handlers)), workers_(workers) {}

WorkerPool::~WorkerPool() {
    for (Worker& worker : workers_) {
        if (worker.process > 0) {
            ::kill(worker.process, SIGKILL);
            waitpid(worker.process, nullptr, 0);
        }
    }
}

void WorkerPool::submit(Job job) {
    queuedBytes_ += job.bytes();
    queue_.push_back(std::move(job));
}

void WorkerPool::drop(uint64_t id) {
    std::erase_if(queue_, [this, id](const Job& job) {
        if (job.id != id) {
            return false;
        }
        queuedBytes_ -= job.bytes();
        return true;
    });
}

void WorkerPool::addPolls(std::vector<pollfd>& polls) {
    for (const Worker& worker : workers_) {
        const bool writes = !worker.sending.empty();
        polls.push_back({worker.socket.number(), static_cast<short>(POLLIN | (writes ? POLLOUT : 0)), 0});
    }
}

void WorkerPool::serve(std::span<const pollfd> polls, Time now) {
    for (std::size_t i = 0; i < workers_.size() && i < polls.size(); ++i) {
        Worker& worker = workers_[i];
        if (worker.socket.isOpen() && (polls[i].revents & POLLOUT) != 0) {
            write(worker);
        }
        if (worker.socket.isOpen() && (polls[i].revents & (POLLIN | POLLHUP | POLLERR)) != 0) {
            read(worker, now);
        }
    }
    for (Worker& worker : workers_) {
        checkLimits(worker, now);
        reap(worker, now);
    }
    assign(now);
}

std::optional<Time> WorkerPool::nextAt(Time now) const {
    std::optional<Time> at;
    for (const Worker& worker : workers_) {
        if (worker.ending || worker.job) {
            const Time next = now + (worker.ending ? kLooksAtEnding : kLooksAtBusy);
            at = at ? std::min(*at, next) : next;
        }
    }
    if (!queue_.empty() && running() < workers_.size()) {
        const Time next = std::max(now, nextStart_);
        at = at ? std::min(*at, next) : next;
    }
    return at;
}

void WorkerPool::assign(Time now) {
    for (Worker& worker : workers_) {
        if (queue_.empty()) {
            return;
        }
        if (worker.ending || worker.job || (worker.process < 0 && !start(worker, now))) {
            continue;
        }
        const Job job = std::move(queue_.front());
        queue_.pop_front();
        queuedBytes_ -= job.bytes();
        RequestHead head;
        head.videoCodec = job.videoCodec;
        head.videoBytes = static_cast<uint32_t>(job.video.size());
        head.audioCodec = job.audioCodec;
        head.audioBytes = static_cast<uint32_t>(job.audio.size());
        worker.sending.assign(reinterpret_cast<const char*>(&head), sizeof head);
        worker.sending += job.video;
        worker.sending += job.audio;
        worker.sent = 0;
        worker.job = job.id;
        worker.began = now;
        worker.takenBefore = takenBy(worker);
        write(worker);
    }
}

bool WorkerPool::start(Worker& worker, Time now) {
    if (now < nextStart_) {
        return false;
    }
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        problem_ = std::string("no worker can be started: ") + std::strerror(errno);
        nextStart_ = now + kLongestPause;
        return false;
    }
    basics::Descriptor ours(ends[0]);
    const basics::Descriptor theirs(ends[1]);
    fcntl(ours.number(), F_SETFL, O_NONBLOCK);
    FileActions actions;
    posix_spawn_file_actions_adddup2(actions.get(), theirs.number(), kWorkerSocket);
    std::string name = "kestor-picture";
    std::string option = "--worker";
    char* const arguments[] = {name.data(), option.data(), nullptr};
    pid_t process = -1;
    const int error = posix_spawn(&process, program_.c_str(), actions.get(), nullptr, arguments, environ);
    if (error != 0) {
        problem_ = "no worker can be started: " + program_ + ": " + std::strerror(error);
        nextStart_ = now + kLongestPause;
        return false;
    }
    worker = Worker();
    worker.process = process;
    worker.socket = std::move(ours);
    return true;
}

void WorkerPool::write(Worker& worker) {
    while (worker.sent < worker.sending.size()) {
        const ssize_t count = send(worker.socket.number(), worker.sending.data() + worker.sent,
                                   worker.sending.size() - worker.sent, MSG_NOSIGNAL);
        if (count < 0) {
            return;  // one that is gone is readable
        }
        worker.sent += static_cast<std::size_t>(count);
    }
    worker.sending.clear();
}

void WorkerPool::read(Worker& worker, Time now) {
    char bytes[kReadBytes];
    const ssize_t count = recv(worker.socket.number(), bytes, sizeof bytes, 0);
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) {
        return;
    }
    if (count <= 0) {
        kill(worker, {});
        return;
    }
    try {
        if (!worker.job || !worker.sending.empty()) {
            throw Untrustworthy("spoke without being asked");
        }
        std::optional<Answer> answer = worker.reader.add({bytes, static_cast<std::size_t>(count)});
        if (!answer) {
            return;
        }
        const uint64_t id = *worker.job;
        worker.job.reset();
        failures_ = 0;
        problem_.clear();
        const microseconds cost = takenBy(worker) - worker.takenBefore;
        if (++worker.jobs >= kJobsOfWorker) {
            worker.socket = basics::Descriptor();  // it ends when it sees that
            worker.ending = true;
            worker.began = now;
        }
        handlers_.done(id, std::move(*answer), cost);
    } catch (const Untrustworthy& lie) {
        kill(worker, lie.what());
    }
}

void WorkerPool::checkLimits(Worker& worker, Time now) {
    if (worker.ending) {
        if (worker.jobs >= kJobsOfWorker && now - worker.began > kTimeLimit) {
            ::kill(worker.process, SIGKILL);
        }
        return;
    }
    if (!worker.job) {
        return;
    }
    if (takenBy(worker) - worker.takenBefore > kProcessorLimit) {
        kill(worker, "took more than " + std::to_string(kProcessorLimit.count()) + " s of processor time");
    } else if (now - worker.began > kTimeLimit) {
        kill(worker, "did not answer within " + std::to_string(kTimeLimit.count()) + " s");
    }
}

void WorkerPool::kill(Worker& worker, const std::string& why) {
    // One that has ended keeps what ended it, which it is reaped with.
    ::kill(worker.process, SIGKILL);
    worker.why = why;
    worker.socket = basics::Descriptor();
    worker.sending.clear();
    worker.ending = true;
}

void WorkerPool::reap(Worker& worker, Time now) {
    if (!worker.ending) {
        return;
    }
    int status = 0;
    rusage usage{};
    const pid_t result = wait4(worker.process, &status, WNOHANG, &usage);
    if (result == 0 || (result < 0 && errno == EINTR)) {
        return;
    }
    const microseconds taken = ofTimeval(usage.ru_utime) + ofTimeval(usage.ru_stime);
    takenByEnded_ += taken;
    const std::optional<uint64_t> job = worker.job;
    const microseconds cost = std::max(microseconds(0), taken - worker.takenBefore);
    const std::string why = worker.why.empty() ? endOf(status) : worker.why;
    const bool replaced = worker.jobs >= kJobsOfWorker;
    // It says why it cannot lock itself up, and ends without having looked at its job.
    const bool neverBegan = worker.why.empty() && WIFEXITED(status) && WEXITSTATUS(status) == kCannotLockUp;
    worker = Worker();
    if (replaced) {
        return;
    }
    ++killed_;
    if (neverBegan) {
        ++failures_;
        problem_ = "workers end at their start: the log says why";
        nextStart_ = now + std::min<std::chrono::seconds>(std::chrono::seconds(1 << std::min(failures_, 10)),
                                                          kLongestPause);
    }
    if (job) {
        handlers_.died(*job, neverBegan ? std::string() : why, cost);
    }
}

microseconds WorkerPool::takenBy(const Worker& worker) {
    clockid_t clock{};
    timespec time{};
    if (worker.process <= 0 || clock_getcpuclockid(worker.process, &clock) != 0 ||
        clock_gettime(clock, &time) != 0) {
        return microseconds(0);
    }
    return std::chrono::duration_cast<microseconds>(std::chrono::seconds(time.tv_sec) +
                                                    std::chrono::nanoseconds(time.tv_nsec));
}

microseconds WorkerPool::taken() const {
    microseconds all = takenByEnded_;
    for (const Worker& worker : workers_) {
        all += takenBy(worker);
    }
    return all;
}

unsigned WorkerPool::running() const {
    return static_cast<unsigned>(std::count_if(workers_.begin(), workers_.end(),
                                               [](const Worker& worker) { return worker.process > 0; }));
}

std::vector<pid_t> WorkerPool::processes() const {
    std::vector<pid_t> processes;
    for (const Worker& worker : workers_) {
        if (worker.process > 0) {
            processes.push_back(worker.process);
        }
    }
    return processes;
}

}  // namespace pictured
