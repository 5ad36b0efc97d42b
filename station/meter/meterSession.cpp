#include "meter/meterSession.h"

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/wire_format_lite.h>

#include <vector>

#include "common/text.h"

namespace station {

namespace {

using google::protobuf::internal::WireFormatLite;
using google::protobuf::io::CodedInputStream;

constexpr std::size_t kShownBytes = 100;

// Calls `take(number, content, whole)` for each field of a message: its bytes, and those with its tag. Only
// fields with a length have content. Messages are walked through before they are read, since a message takes
// up to a hundred times the room of its bytes.
template <typename Take>
void forEachField(std::string_view message, Take take) {
    CodedInputStream input(reinterpret_cast<const uint8_t*>(message.data()),
                           static_cast<int>(message.size()));
    for (;;) {
        const auto begin = static_cast<std::size_t>(input.CurrentPosition());
        const uint32_t tag = input.ReadTag();
        if (tag == 0) {
            if (begin != message.size()) {
                throw MeterRefused("sent a message that cannot be read");
            }
            return;
        }
        std::string_view content;
        bool well = false;
        if (WireFormatLite::GetTagWireType(tag) == WireFormatLite::WIRETYPE_LENGTH_DELIMITED) {
            int length = 0;
            well = input.ReadVarintSizeAsInt(&length) && input.Skip(length);
            if (well) {
                content = message.substr(static_cast<std::size_t>(input.CurrentPosition() - length),
                                         static_cast<std::size_t>(length));
            }
        } else {
            well = WireFormatLite::SkipField(&input, tag);
        }
        if (!well) {
            throw MeterRefused("sent a message that cannot be read");
        }
        const auto end = static_cast<std::size_t>(input.CurrentPosition());
        take(WireFormatLite::GetTagFieldNumber(tag), content, message.substr(begin, end - begin));
    }
}

template <typename Message>
void read(std::string_view bytes, std::size_t limit, Message& message) {
    if (bytes.size() > limit || !message.ParseFromArray(bytes.data(), static_cast<int>(bytes.size()))) {
        throw MeterRefused("sent a " + message.GetTypeName() + " that cannot be read");
    }
}

}  // namespace

void MeterSession::received(std::string_view bytes, const Now& now) {
    unframer_.add(bytes);
    try {
        while (const auto message = unframer_.next()) {
            take(*message, now);
        }
    } catch (const std::length_error& error) {
        throw MeterRefused(std::string("sent ") + error.what());
    }
}

void MeterSession::take(std::string_view message, const Now& now) {
    forEachField(message, [&](int number, std::string_view content, std::string_view) {
        if (number == metering::FromMeter::kHelloFieldNumber) {
            return takeHello(content, now);
        }
        if (!agreed_) {
            throw MeterRefused("sent something before it said who it is");
        }
        if (number == metering::FromMeter::kSecondFieldNumber) {
            takeSecond(content, now);
        } else if (number == metering::FromMeter::kHappenedFieldNumber) {
            takeHappened(content);
        }
    });
}

void MeterSession::takeHello(std::string_view bytes, const Now& now) {
    metering::Hello hello;
    read(bytes, kHeadBytes, hello);
    const std::string version = printable(hello.version(), kShownBytes);
    if (agreed_) {
        throw MeterRefused("said twice who it is");
    }
    if (hello.major() != metering::kMajor) {
        throw MeterRefused("(" + version + ") speaks version " + std::to_string(hello.major()) +
                           " of the messages, this station " + std::to_string(metering::kMajor) +
                           ": install both from one release");
    }
    agreed_ = true;
    book_.connected(version, now);
}

void MeterSession::takeSecond(std::string_view bytes, const Now& now) {
    std::string head;
    std::vector<std::string_view> reports;
    forEachField(bytes, [&](int number, std::string_view content, std::string_view whole) {
        if (number != metering::Second::kReportFieldNumber) {
            head.append(whole.size() + head.size() <= kHeadBytes
                            ? whole
                            : throw MeterRefused("sent a second that is too long"));
        } else if (reports.size() == metering::kGroupsLimit) {
            throw MeterRefused("sent reports of more groups than a meter watches");
        } else {
            reports.push_back(content);
        }
    });
    metering::Second second;
    read(head, kHeadBytes, second);
    metering::Capture& capture = *second.mutable_capture();
    for (std::string* text :
         {capture.mutable_interface(), capture.mutable_problem(), capture.mutable_join_problem()}) {
        *text = printable(*text, kNameLimit);
    }
    if (!book_.second(second, reports.size(), now)) {
        throw MeterRefused("sent a second of thread " + std::to_string(second.thread()) + " of " +
                           std::to_string(second.threads()));
    }
    for (const std::string_view report : reports) {
        takeReport(report, capture.disturbed(), now);
    }
}

void MeterSession::takeReport(std::string_view bytes, bool disturbed, const Now& now) {
    if (bytes.size() > metering::kReportLimit) {
        return book_.skipped();  // of one channel; the others are well
    }
    read(bytes, metering::kReportLimit, report_);
    MeterReport report;
    report.time = now;
    report.disturbed = disturbed;
    if (report_.has_description()) {
        report.description = std::make_shared<const std::string>(report_.description().SerializeAsString());
        report_.clear_description();
        report.levels = std::make_shared<const std::string>(report_.SerializeAsString());
    } else {
        report.levels = std::make_shared<const std::string>(bytes);
    }
    book_.report(report_.group(), std::move(report));
}

void MeterSession::takeHappened(std::string_view bytes) {
    metering::Happened happened;
    read(bytes, metering::kHappenedLimit, happened);
    book_.happened();
}

}  // namespace station
