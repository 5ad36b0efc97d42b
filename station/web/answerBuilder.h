// Builds and compresses answers on threads of its own, so that the I/O thread never does.
#pragma once

#include <array>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "common/clock.h"
#include "web/payload.h"

namespace station {

// What an answer is of. Who asks for the same at the same time, or for what was built last under the name,
// gets the same payload.
struct AnswerKey {
    std::string_view name;  // static storage
    std::array<uint64_t, 3> version{};

    bool operator==(const AnswerKey&) const = default;
};

// A text that was made, or one that `owner` keeps.
struct AnswerText {
    std::string made{};
    std::shared_ptr<const void> owner{};
    std::string_view kept{};
};

class AnswerBuilder {
  public:
    static constexpr std::size_t kThreads = 2;
    static constexpr std::size_t kWaiting = 64;  // answers to be built; beyond, they are refused
    // How long an answer is kept for others who ask for the same.
    static constexpr std::chrono::seconds kKept{10};
    static constexpr std::size_t kSmallestToCompress = 1024;  // bytes

    using Build = std::function<AnswerText()>;
    // Gets null when there is no room for the answer. Must not wait.
    using Done = std::function<void(const PayloadPointer&)>;

    // Without threads, everything is built by who asks.
    explicit AnswerBuilder(BudgetPointer budget, std::size_t threads = kThreads);
    ~AnswerBuilder();  // what still waits is never answered
    AnswerBuilder(const AnswerBuilder&) = delete;

    // An answer, compressed when it is worth that and `gzip` is set. `build` and `done` run on another
    // thread; `done` on this one when the answer is there already. False when too much waits; then neither
    // ever runs. Without a key it is not shared. Any thread.
    bool ask(const std::optional<AnswerKey>& key, bool gzip, Build build, Done done);
    // Work of the server's own, before all answers. Never refused, so at most a few at a time. Any thread.
    void run(std::function<void()> work);
    // Forgets what was built long ago. From time to time.
    void expire(SteadyTime now);

  private:
    struct Job {
        std::optional<AnswerKey> key;
        bool gzip = false;
        Build build;
        std::vector<Done> done;
        std::function<void()> work;  // in place of all the others
        bool running = false;
    };
    struct Kept {
        AnswerKey key;
        PayloadPointer payload;
        SteadyTime since;
    };

    void serve();
    void finish(std::unique_lock<std::mutex>& lock, std::list<Job>::iterator job);
    PayloadPointer payload(const Job& job);

    const BudgetPointer budget_;
    std::mutex mutex_;  // guards what follows; nothing is called while it is held
    std::condition_variable ready_;
    std::list<Job> jobs_;  // at most kWaiting and the server's own; those that run stay in it
    std::map<std::pair<std::string_view, bool>, Kept> kept_;  // by name and gzip
    bool stopping_ = false;
    std::vector<std::thread> threads_;  // the last member: they use the others
};

}  // namespace station
