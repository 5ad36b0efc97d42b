// Processes that decode, each locked up (worker/lockUp.h).
#pragma once

#include <poll.h>
#include <sys/types.h>

#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "basics/descriptor.h"
#include "exchange.h"
#include "share.h"

namespace pictured {

struct Job {
    uint64_t id = 0;
    uint32_t videoCodec = 0;  // picturing::VideoCodec
    std::string video{};      // at most picturing::kVideoBytes; empty: none
    uint32_t audioCodec = 0;  // picturing::AudioCodec
    std::string audio{};      // at most picturing::kAudioBytes; empty: none

    std::size_t bytes() const {
        return video.size() + audio.size();
    }
};

// Long-lived workers, started when there is something for them to do. One that takes more than
// kProcessorLimit or kTimeLimit for a job, dies, or says what no worker says is killed and replaced, and its
// job is over. After kJobsOfWorker one is replaced as well: what the libraries may leak does not add up. Time
// is given in; nothing here waits. One thread.
class WorkerPool {
  public:
    static constexpr std::chrono::seconds kProcessorLimit{5};  // of the processor's time for a job
    static constexpr std::chrono::seconds kTimeLimit{
        20};  // that passes: on a busy machine much more than it takes
    static constexpr int kJobsOfWorker = 5000;
    static constexpr std::size_t kQueuedBytes = std::size_t{16} * 1024 * 1024;
    static constexpr std::chrono::seconds kLongestPause{
        30};  // before another one is started, when none comes up

    struct Handlers {
        std::function<void(uint64_t id, Answer&& answer, microseconds cost)> done;
        std::function<void(uint64_t id, const std::string& why, microseconds cost)> died;  // why: for people
    };
    // `program`: what is run as `PROGRAM --worker`, with the socket as descriptor kWorkerSocket.
    WorkerPool(std::string program, unsigned workers, Handlers handlers);
    ~WorkerPool();
    WorkerPool(const WorkerPool&) = delete;

    // Jobs wait in a queue. It is full beyond kQueuedBytes: whoever submits is to wait then.
    void submit(Job job);
    bool full() const {
        return queuedBytes_ > kQueuedBytes;
    }
    // Drops the job, if it waits.
    void drop(uint64_t id);

    // What is to be polled for, behind what is there; the next call of serve() gets the same, polled.
    void addPolls(std::vector<pollfd>& polls);
    // Reads, writes, kills, reaps, starts. `polls`: those of addPolls.
    void serve(std::span<const pollfd> polls, Time now);
    // When serve() has to be called though nothing is readable; absent: not before.
    std::optional<Time> nextAt(Time now) const;

    // Processor time of all workers there were.
    microseconds taken() const;
    // That hung, took too much, died or could not be believed.
    uint64_t killed() const {
        return killed_;
    }
    // Why no worker comes up, for people; empty: they do.
    const std::string& problem() const {
        return problem_;
    }
    unsigned running() const;
    // For tests: who they are.
    std::vector<pid_t> processes() const;

  private:
    struct Worker {
        pid_t process = -1;  // there is none
        basics::Descriptor socket{};
        std::optional<uint64_t> job{};
        bool ending = false;  // it is to be reaped
        std::string why{};    // it was killed; empty: it ended by itself
        std::string sending{};
        std::size_t sent = 0;
        AnswerReader reader{};
        Time began{};                // the job
        microseconds takenBefore{};  // by the worker, before the job
        int jobs = 0;
    };

    void assign(Time now);
    bool start(Worker& worker, Time now);
    void write(Worker& worker);
    void read(Worker& worker, Time now);
    void checkLimits(Worker& worker, Time now);
    void kill(Worker& worker, const std::string& why);
    void reap(Worker& worker, Time now);
    static microseconds takenBy(const Worker& worker);

    const std::string program_;
    const Handlers handlers_;
    std::vector<Worker> workers_;
    std::deque<Job> queue_;
    std::size_t queuedBytes_ = 0;
    microseconds takenByEnded_{};
    uint64_t killed_ = 0;
    std::string problem_;
    int failures_ = 0;  // workers in a row that ended before they answered anything
    Time nextStart_{};
};

}  // namespace pictured
