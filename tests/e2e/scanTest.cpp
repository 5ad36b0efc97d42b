// Channel-scan mode: which of the groups that the controller lists carry traffic.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>

#include "support/harness.h"
#include "support/streamBuilder.h"

namespace test {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

constexpr const char* kLive = "239.1.1.1";
constexpr const char* kAmongOthers = "239.1.1.2";
constexpr const char* kSilent = "239.1.1.3";

Envelope scan(const Groups& groups, int latencyMs) {
    Envelope envelope = response(groups);
    envelope.mutable_response()->set_igmp_latency(latencyMs);
    return envelope;
}

// What requests said so far: scan status and a result, "1 239.1.1.1=2"; of equal ones in a row only the
// first. How many results are in one is a matter of time, and so is which groups but the silent one are seen
// under scan.
std::vector<std::string> progress(const Controller& controller) {
    std::vector<std::string> all;
    const auto add = [&all](const std::string& text) {
        if (all.empty() || all.back() != text)
            all.push_back(text);
    };
    for (const auto& [time, connection, body] : controller.requests()) {
        const std::string status = body.has_scan_status() ? std::to_string(body.scan_status()) : "-";
        for (const auto& result : body.scan_results())
            if (result.status() != 2 || result.multicastgroup() == kSilent)
                add(status + " " + result.multicastgroup() + "=" + std::to_string(result.status()));
        if (body.scan_results().empty())
            add(status);
    }
    return all;
}

std::string began(const std::string& group) {
    return "Zaczynam watek dla strumienia " + group + "\n";
}

TEST(Scan, ReportsGroupByGroup) {
    // 221 attempts of at most 22 ms: the silent group is under scan for 4.9 s, and a request goes out
    // meanwhile.
    constexpr int kLatencyMs = 22;
    Controller controller;
    auto traffic = liveTraffic(kLive);
    controller.queue(scan({kLive, kAmongOthers, kSilent}, kLatencyMs));
    const auto started = std::chrono::steady_clock::now();
    const Process kestor({"kestor", "-c"});
    ASSERT_TRUE(kestor.waitForOut(began(kSilent)));
    traffic = {};
    EXPECT_TRUE(igmpMember(kSilent));
    EXPECT_FALSE(igmpMember(kLive));
    ASSERT_TRUE(eventually([&] {
        const auto all = progress(controller);
        return all.size() > 2 && all[all.size() - 2] == "0";
    }));
    EXPECT_THAT(progress(controller), ElementsAre("-", "1 239.1.1.1=1", "1 239.1.1.2=0", "1 239.1.1.3=2",
                                                  "1 239.1.1.3=0", "0", "-"));
    EXPECT_FALSE(igmpMember(kSilent));
    const auto requests = controller.requests();
    auto fastest = std::chrono::steady_clock::duration::max();
    for (std::size_t i = 1; i < requests.size(); ++i) {
        EXPECT_GE(requests[i].time - started, requests[i].body.sequence_number() * 2490ms);
        fastest = std::min(fastest, requests[i].time - requests[i - 1].time);
    }
    EXPECT_LT(fastest, 2800ms);

    const std::string out = kestor.out();
    EXPECT_THAT(
        out, HasSubstr("Packet read without problem 239.1.1.1 220\nKoncze watek dla strumienia 239.1.1.1\n"));
    // A frame of another group costs two attempts, a wait that ran out one; the group is given up beyond 220.
    const std::string among =
        out.substr(out.find(began(kAmongOthers)), out.find(began(kSilent)) - out.find(began(kAmongOthers)));
    const auto attempts = 2 * occurrences(among, "Packet read without problem 239.1.1.1 220\n") +
                          occurrences(among, "Packet read problem ");
    EXPECT_THAT(attempts, AllOf(testing::Ge(221U), testing::Le(223U)));
    EXPECT_THAT(out.substr(out.find(began(kSilent))), HasSubstr("Packet read problem 221 220\n"));
    EXPECT_THAT(out, AllOf(HasSubstr("send_all: request->scan_results_size() == 0\n"),
                           HasSubstr("packetCaptureThreadActive: request->set_scan_status(true);\n")));
}

TEST(Scan, GoesOnWhileTheControllerIsAway) {
    auto traffic = liveTraffic(kLive);
    std::optional<Controller> controller(std::in_place);
    controller->queue(scan({kLive, kSilent}, 25));
    const Process kestor({"kestor", "-c"});
    ASSERT_TRUE(kestor.waitForOut(began(kSilent)));
    traffic = {};
    controller.reset();
    ASSERT_TRUE(kestor.waitForOut(" passive monitoring 0\n", 3));
    controller.emplace();
    ASSERT_TRUE(controller->waitForRequests(1));
    EXPECT_EQ(controller->requests()[0].body.sequence_number(), 2);
    ASSERT_TRUE(eventually([&] { return progress(*controller).back() == "0"; }));
    // The live group's result went into the request that nobody received.
    EXPECT_THAT(progress(*controller), ElementsAre("1 239.1.1.3=2", "1 239.1.1.3=0", "0"));
}

TEST(Scan, AListDuringAScanAbandonsIt) {
    Controller controller;
    controller.queue(scan({kSilent}, 22));  // still under scan when the second request goes out, at 2.5 s
    Process kestor({"kestor", "-c"});
    ASSERT_TRUE(kestor.waitForOut(began(kSilent)));
    controller.answer(response({kLive}));
    ASSERT_TRUE(kestor.waitForOut("device->packetCaptureThreadShouldStop true\n"));
    ASSERT_TRUE(eventually([&] { return progress(controller).back() == "0"; }));
    EXPECT_THAT(progress(controller), ElementsAre("-", "1 239.1.1.3=0", "0"));

    const auto taken = occurrences(kestor.out(), "Przyszla jakas wiadomosc !!!\n");
    const auto heard = controller.requests().size();
    controller.answer(response({kLive, kLive}));
    ASSERT_TRUE(controller.waitForRequests(heard + 2));
    EXPECT_EQ(occurrences(kestor.out(), "Przyszla jakas wiadomosc !!!\n"), taken)
        << "later lists are ignored";
    EXPECT_THAT(kestor.out(), Not(HasSubstr(began(kLive))));
    EXPECT_TRUE(kestor.running());
}

TEST(Scan, AGroupListedTwiceEndsTheProbe) {
    Controller controller;
    controller.queue(response({kLive, kLive}));
    Process kestor({"kestor", "-c"});
    EXPECT_EQ(kestor.wait(), -SIGTERM);
}

}  // namespace
}  // namespace test
