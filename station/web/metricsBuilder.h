// Builds the answers to scrapes on a thread of its own, so that neither the I/O thread nor anybody else waits
// for them.
#pragma once

#include <functional>
#include <thread>

#include "common/boundedQueue.h"
#include "web/message.h"
#include "web/metrics.h"

namespace station {

class MetricsBuilder {
  public:
    static constexpr std::size_t kWaiting = 64;  // scrapes; beyond, they are refused
    // How long a payload is kept for others who scrape the same state.
    static constexpr std::chrono::seconds kKept{2};
    // A larger text is refused; compressed it is never whole in memory, and has a twentieth of the size.
    static constexpr std::size_t kLargestText = AnswerBudget::kBytes / 2;

    struct Scrape {
        StatePointer state;
        MetricsExtras extras;
        bool compressed;  // what is built is gzip() alone, else text() alone
        // Called on the builder's thread, with null when there is no room for it. Must not wait.
        std::function<void(PayloadPointer)> built;
    };

    explicit MetricsBuilder(BudgetPointer budget);
    ~MetricsBuilder();  // scrapes that still wait are never answered
    MetricsBuilder(const MetricsBuilder&) = delete;

    // False when too many wait; then nothing is ever built. Any thread.
    bool ask(Scrape&& scrape) {
        return scrapes_.push(std::move(scrape));
    }

  private:
    void run(const std::stop_token& stop);
    PayloadPointer payload(const Scrape& scrape, const std::stop_token& stop);
    PayloadPointer build(const Scrape& scrape, const std::stop_token& stop);

    const BudgetPointer budget_;
    BoundedQueue<Scrape> scrapes_{kWaiting};
    // For the thread alone.
    MetricsWriter writer_;
    struct Last {
        PayloadPointer payload;  // of the state `number`; null when it was too long ago
        uint64_t number = 0;
    };
    Last text_;
    Last compressed_;

    std::jthread thread_;  // the last member: it uses the others
};

}  // namespace station
