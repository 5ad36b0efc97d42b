// How answers are built, shared and bounded.
#include <gmock/gmock.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <semaphore>

#include "support/fakeStation.h"
#include "support/scratch.h"
#include "web/answerBuilder.h"
#include "web/metricsBuilder.h"
#include "web/routes.h"

namespace station {
namespace {

using std::chrono::seconds;

// Holds up a thread of the builder until it is let go.
class Gate {
  public:
    AnswerText operator()() {
        entered.release();
        open.acquire();
        return {"x"};
    }
    std::counting_semaphore<> entered{0};
    std::counting_semaphore<> open{0};
};

class StationAnswers : public testing::Test {
  protected:
    // Both threads busy until open().
    void block() {
        for (std::size_t i = 0; i < AnswerBuilder::kThreads; ++i) {
            ASSERT_TRUE(builder->ask({}, false, std::ref(gate), [](const PayloadPointer&) {}));
            gate.entered.acquire();
        }
    }
    void open() {
        gate.open.release(AnswerBuilder::kThreads);
    }
    PayloadPointer ask(const std::optional<AnswerKey>& key, bool gzip, const AnswerBuilder::Build& build) {
        std::promise<PayloadPointer> promise;
        EXPECT_TRUE(builder->ask(key, gzip, build,
                                 [&](const PayloadPointer& payload) { promise.set_value(payload); }));
        return promise.get_future().get();
    }
    // In the end: a thread lets go of what it built after it has told.
    bool holds(std::size_t bytes) const {
        return eventually([&] { return budget->held() == bytes; });
    }
    AnswerBuilder::Build counted(std::string text = "text") {
        return [this, text = std::move(text)] {
            ++builds;
            return AnswerText{text};
        };
    }

    Gate gate;
    std::atomic<int> builds = 0;
    BudgetPointer budget = std::make_shared<AnswerBudget>();
    std::unique_ptr<AnswerBuilder> builder = std::make_unique<AnswerBuilder>(budget);
};

TEST_F(StationAnswers, AreBuiltOnceForAllWhoAskForTheSame) {
    block();
    std::atomic<int> told = 0;
    for (int i = 0; i < 10; ++i) {
        ASSERT_TRUE(
            builder->ask(AnswerKey{"a", {1}}, false, counted(), [&](const PayloadPointer&) { ++told; }));
    }
    open();
    const PayloadPointer first = ask(AnswerKey{"a", {1}}, false, counted());
    EXPECT_EQ(first, ask(AnswerKey{"a", {1}}, false, counted())) << "kept for who comes later";
    EXPECT_EQ(builds, 1);
    EXPECT_TRUE(eventually([&] { return told == 10; }));
    EXPECT_NE(first, ask(AnswerKey{"a", {2}}, false, counted()));
    ask({}, false, counted());
    ask({}, false, counted());
    EXPECT_EQ(builds, 4);
    builder->expire(std::chrono::steady_clock::now() + AnswerBuilder::kKept + seconds(1));
    EXPECT_TRUE(holds(first->text().size()));
}

TEST_F(StationAnswers, HoldOneVariantAlone) {
    const PayloadPointer compressed = ask(AnswerKey{"a"}, true, counted(std::string(100'000, 'x')));
    EXPECT_TRUE(compressed->text().empty());
    EXPECT_LT(compressed->gzip().size(), 1000U);
    EXPECT_EQ(budget->held(), compressed->gzip().size());
    const PayloadPointer text = ask(AnswerKey{"a"}, false, counted(std::string(100'000, 'x')));
    EXPECT_TRUE(text->gzip().empty());
    EXPECT_EQ(budget->held(), compressed->gzip().size() + text->text().size());
}

TEST_F(StationAnswers, AreRefusedBeyondTheirBounds) {
    block();
    std::size_t queued = AnswerBuilder::kThreads;
    while (builder->ask({}, false, counted(), [](const PayloadPointer&) {})) {
        ASSERT_LE(++queued, AnswerBuilder::kWaiting);
    }
    EXPECT_EQ(queued, AnswerBuilder::kWaiting);
    open();
    while (!builder->ask({}, false, counted(), [](const PayloadPointer&) {})) {
        std::this_thread::yield();
    }

    // Of an owner's text the bytes count as well.
    const std::string large(AnswerBudget::kBytes, 'x');
    const auto owner = std::make_shared<int>(0);
    PayloadPointer held = ask({}, false, [&] { return AnswerText{{}, owner, large}; });
    ASSERT_NE(held, nullptr);
    EXPECT_EQ(owner.use_count(), 2);
    builds = 0;
    EXPECT_EQ(ask({}, false, counted()), nullptr);
    EXPECT_EQ(builds, 0);
    EXPECT_EQ(budget->refusals(), 1U);
    held = nullptr;
    EXPECT_TRUE(holds(0));
    EXPECT_NE(ask({}, false, counted()), nullptr);
}

TEST_F(StationAnswers, AreLeftWhenTheServerEnds) {
    block();
    for (int i = 0; i < 10; ++i) {
        ASSERT_TRUE(builder->ask({}, false, counted(), [](const PayloadPointer&) {}));
    }
    std::thread opener([this, status = "/proc/self/task/" + std::to_string(gettid()) + "/stat"] {
        eventually([&] { return contentOf(status).find(") S ") != std::string::npos; });  // for the threads
        open();
    });
    builder.reset();
    opener.join();
    EXPECT_EQ(builds, 0);
}

TEST_F(StationAnswers, ReachTheOwnerForOneOverviewAtATime) {
    // Counts what the owner is asked at once, and answers when it is told to.
    class Owner : public FakeStation {
      public:
        Owner() : FakeStation(3) {}
        bool command(Command&& command) override {
            asked.push_back(std::move(command));
            return true;
        }
        void answer() {
            Command first = std::move(asked.front());
            asked.erase(asked.begin());
            first.answer({});
        }
        std::vector<Command> asked;
    } owner;
    AnswerBuilder inPlace(budget, 0);
    const StaticFiles files("/nonexistent", "/nonexistent");
    std::atomic<uint64_t> wrongTokens = 0;
    Services services{.station = owner,
                      .files = files,
                      .statistics = [] { return ServerStatistics{}; },
                      .post = [](const std::function<void()>& work) { work(); },
                      .answers = &inPlace,
                      .wrongTokens = wrongTokens};
    int good = 0;
    int refused = 0;
    const auto ask = [&](std::size_t cells) {
        services.overviews.ask(services, {.sparkCells = cells, .sparkSeconds = 1}, false,
                               [&](Response&& response) { ++(response.status == 200 ? good : refused); });
    };
    for (std::size_t cells = 1; cells <= OverviewDesk::kWaiting; ++cells) {
        ask(cells);
        ask(cells);
    }
    ask(600);
    EXPECT_EQ(refused, 1);
    for (std::size_t i = 0; i < OverviewDesk::kWaiting; ++i) {
        ASSERT_EQ(owner.asked.size(), 1U);
        owner.answer();
    }
    EXPECT_TRUE(owner.asked.empty());
    EXPECT_EQ(good, 2 * static_cast<int>(OverviewDesk::kWaiting));
    ask(OverviewDesk::kWaiting);
    EXPECT_TRUE(owner.asked.empty()) << "of the same state it is known";
}

TEST(StationMetricsBuilder, SharesAndBoundsScrapes) {
    const auto budget = std::make_shared<AnswerBudget>();
    FakeStation station(20, 20);
    MetricsBuilder builder(budget);
    const auto scrape = [&](bool compressed) {
        std::promise<PayloadPointer> promise;
        EXPECT_TRUE(builder.ask({.state = station.state(),
                                 .extras = {},
                                 .compressed = compressed,
                                 .built = [&](const PayloadPointer& built) { promise.set_value(built); }}));
        return promise.get_future().get();
    };
    const PayloadPointer text = scrape(false);
    const PayloadPointer compressed = scrape(true);
    EXPECT_EQ(text, scrape(false));
    EXPECT_EQ(compressed, scrape(true));
    EXPECT_TRUE(compressed->text().empty());
    EXPECT_LT(compressed->gzip().size() * 5, text->text().size());
    EXPECT_EQ(budget->held(), text->text().size() + compressed->gzip().size());
    std::vector<PayloadPointer> held;  // slow readers, each of another state
    while (budget->held() < AnswerBudget::kBytes) {
        station.change([](StationState&) {});
        held.push_back(scrape(false));
        ASSERT_NE(held.back(), nullptr);
    }
    station.change([](StationState&) {});
    EXPECT_EQ(scrape(false), nullptr);
    held.clear();
    EXPECT_NE(scrape(false), nullptr);
}

}  // namespace
}  // namespace station
