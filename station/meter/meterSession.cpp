#include "meter/meterSession.h"

#include <algorithm>
#include <vector>

#include "common/text.h"
#include "fieldWalk.h"
#include "meter/cueText.h"

namespace station {

namespace {

using metering::forEachField;
using metering::parse;

constexpr std::size_t kShownBytes = 100;
constexpr double kMostSeconds = 1e15;  // what is beyond is nonsense, and fits no whole number

}  // namespace

void MeterSession::received(std::string_view bytes, const Now& now) {
    try {
        unframer_.add(bytes);
        while (const auto message = unframer_.next()) {
            handle(*message, now);
        }
    } catch (const metering::Unreadable& error) {
        throw PeerRefused(std::string("sent ") + error.what());
    }
}

void MeterSession::handle(std::string_view message, const Now& now) {
    forEachField(message, [&](int number, std::string_view content, std::string_view) {
        if (number == metering::FromMeter::kHelloFieldNumber) {
            return handleHello(content, now);
        }
        if (!agreed_) {
            throw PeerRefused("sent something before it said who it is");
        }
        if (number == metering::FromMeter::kSecondFieldNumber) {
            handleSecond(content, now);
        } else if (number == metering::FromMeter::kHappenedFieldNumber) {
            handleHappened(content, now);
        }
    });
}

void MeterSession::handleHello(std::string_view bytes, const Now& now) {
    metering::Hello hello;
    parse(bytes, kHeadBytes, hello);
    const std::string version = printable(hello.version(), kShownBytes);
    if (agreed_) {
        throw PeerRefused("said twice who it is");
    }
    if (hello.major() != metering::kMajor) {
        throw PeerRefused("(" + version + ") speaks version " + std::to_string(hello.major()) +
                          " of the messages, this station " + std::to_string(metering::kMajor) +
                          ": install both from one release");
    }
    agreed_ = true;
    book_.connected(version, now);
}

void MeterSession::handleSecond(std::string_view bytes, const Now& now) {
    std::string head;
    std::vector<std::string_view> reports;
    forEachField(bytes, [&](int number, std::string_view content, std::string_view whole) {
        if (number != metering::Second::kReportFieldNumber) {
            head.append(whole.size() + head.size() <= kHeadBytes
                            ? whole
                            : throw PeerRefused("sent a second that is too long"));
        } else if (reports.size() == metering::kGroupsLimit) {
            throw PeerRefused("sent reports of more groups than a meter watches");
        } else {
            reports.push_back(content);
        }
    });
    metering::Second second;
    parse(head, kHeadBytes, second);
    metering::Capture& capture = *second.mutable_capture();
    for (std::string* text :
         {capture.mutable_interface(), capture.mutable_problem(), capture.mutable_join_problem()}) {
        *text = printable(*text, kNameLimit);
    }
    if (!book_.second(second, reports.size(), now)) {
        throw PeerRefused("sent a second of thread " + std::to_string(second.thread()) + " of " +
                          std::to_string(second.threads()));
    }
    const OwnLoss& own = ownLoss_[second.thread()].second(second);
    for (const std::string_view report : reports) {
        handleReport(report, capture, own, now);
    }
    book_.mail().tell();
}

void MeterSession::handleReport(std::string_view bytes, const metering::Capture& capture, const OwnLoss& own,
                                const Now& now) {
    if (bytes.size() > metering::kReportLimit) {
        return book_.skipped();  // of one channel; the others are well
    }
    parse(bytes, metering::kReportLimit, report_);
    MeterReport report;
    report.time = now;
    report.disturbed = capture.disturbed();
    report.capturing = capture.problem().empty();
    report.loss = lossOf(report_, capture.disturbed() || !report.capturing);
    report.second =
        report_.seconds() > 0 ? static_cast<uint64_t>(std::min(report_.seconds(), kMostSeconds)) : 0;
    report.lossRate = report_.network().loss_rate();
    if (report_.has_description()) {
        report.description = std::make_shared<const std::string>(report_.description().SerializeAsString());
        report.facts = std::make_shared<const MeterFacts>(factsOf(report_.description()));
        report_.clear_description();
        report.levels = std::make_shared<const std::string>(report_.SerializeAsString());
    } else {
        report.levels = std::make_shared<const std::string>(bytes);
    }
    const bool capturing = report.capturing;
    book_.report(report_.group(), std::move(report));
    // A meter that captures nothing knows nothing of channels.
    if (book_.watches(report_.group()) && capturing) {
        book_.mail().put(readerOf(report_.group()).read(report_, own, now));
    }
}

ReportReader& MeterSession::readerOf(uint32_t group) {
    if (readers_.size() >= metering::kGroupsLimit && !readers_.contains(group)) {
        std::erase_if(readers_, [this](const auto& entry) { return !book_.watches(entry.first); });
    }
    return readers_[group];
}

void MeterSession::handleHappened(std::string_view bytes, const Now& now) {
    metering::Happened happened;
    parse(bytes, metering::kHappenedLimit, happened);
    if (happened.has_cue()) {
        book_.cue(happened.group(), happened.cue(), now);
    } else {
        book_.happened(happened.group());
    }
    if (!book_.watches(happened.group())) {
        return;
    }
    const auto shortened = [](const std::string& text) {
        return printable(toUtf8(text), MeterHappened::kTextBytes);
    };
    if (happened.has_cue()) {
        readerOf(happened.group()).cue();
        book_.mail().put(MeterHappened{happened.group(), {}, shortened(cueText(happened.cue()))});
    } else if (happened.has_change() && !happened.change().what().empty()) {
        book_.mail().put(MeterHappened{happened.group(), shortened(happened.change().what()),
                                       shortened(happened.change().text())});
    }
    book_.mail().tell();
}

}  // namespace station
