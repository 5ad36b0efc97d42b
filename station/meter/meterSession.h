// One meter's connection: what it sends.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

#include "common/clock.h"
#include "framing.h"
#include "meter.pb.h"
#include "meter/meterBook.h"

namespace station {

// What came makes no sense, or its sender speaks another version; what() is a sentence for an operator about
// the meter: "sent a message that cannot be read".
struct MeterRefused : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Takes bytes as they come and keeps what they say in the book. Does no input or output. Whatever comes, it
// holds no more than a message (16 MiB) and, of one report at a time, what 256 KiB of them become; a larger
// report is skipped and counted. One thread.
class MeterSession {
  public:
    // The head of a second, without its reports.
    static constexpr std::size_t kHeadBytes = 64 * 1024;

    // `book` has to outlive it.
    explicit MeterSession(MeterBook& book) : book_(book) {}

    // Throws MeterRefused; nothing more is to be given to it then.
    void received(std::string_view bytes, const Now& now);
    // The meter said who it is, and speaks this version.
    bool agreed() const {
        return agreed_;
    }

  private:
    void take(std::string_view message, const Now& now);
    void takeHello(std::string_view bytes, const Now& now);
    void takeSecond(std::string_view bytes, const Now& now);
    void takeReport(std::string_view bytes, bool disturbed, const Now& now);
    void takeHappened(std::string_view bytes);

    MeterBook& book_;
    metering::Unframer unframer_;
    bool agreed_ = false;
    metering::GroupReport report_;  // its room is used again
};

}  // namespace station
