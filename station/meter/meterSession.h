// One meter's connection: what it sends.
#pragma once

#include <map>
#include <string>
#include <string_view>

#include "common/peerPort.h"
#include "framing.h"
#include "meter.pb.h"
#include "meter/meterBook.h"
#include "meter/ownLoss.h"

namespace station {

// Takes bytes as they come, keeps what they say in the book and makes of each report what is for the owner.
// Does no input or output. Whatever comes, it holds no more than a message (16 MiB) and, of one report at a
// time, what 256 KiB of them become; a larger report is skipped and counted. One thread.
class MeterSession : public PeerReader {
  public:
    // The head of a second, without its reports.
    static constexpr std::size_t kHeadBytes = 64 * 1024;

    // `book` has to outlive it.
    explicit MeterSession(MeterBook& book) : book_(book) {}

    void received(std::string_view bytes, const Now& now) override;
    bool agreed() const override {
        return agreed_;
    }

  private:
    void handle(std::string_view message, const Now& now);
    void handleHello(std::string_view bytes, const Now& now);
    void handleSecond(std::string_view bytes, const Now& now);
    void handleReport(std::string_view bytes, const metering::Capture& capture, const OwnLoss& own,
                      const Now& now);
    ReportReader& readerOf(uint32_t group);
    void handleHappened(std::string_view bytes, const Now& now);

    MeterBook& book_;
    metering::Unframer unframer_;
    bool agreed_ = false;
    metering::GroupReport report_;              // its room is used again
    std::map<uint32_t, OwnLossWatch> ownLoss_;  // by thread: MeterBook::kThreadsLimit at most
    std::map<uint32_t, ReportReader> readers_;  // of groups that are watched: kGroupsLimit at most
};

}  // namespace station
