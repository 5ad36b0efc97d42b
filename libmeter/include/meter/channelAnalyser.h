// Measures one channel. Time is given in, never asked for.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "meter/datagram.h"
#include "meter/excerpt.h"
#include "meter/report.h"
#include "meter/settings.h"

namespace meter {

// Nothing that arrives does harm: what is not understood is counted or left out, and what is kept is bounded.
// One thread at a time may use an analyser; different ones know nothing of each other.
class ChannelAnalyser {
  public:
    explicit ChannelAnalyser(const Settings& settings);
    ~ChannelAnalyser();
    ChannelAnalyser(ChannelAnalyser&&) noexcept;
    ChannelAnalyser& operator=(ChannelAnalyser&&) noexcept;

    // A datagram to the group, of whatever flow, in the order of arrival.
    void feed(const Datagram& datagram);
    // Packets of a bare file (Settings::bare), in the file's order; what is beyond a multiple of 188 bytes is
    // left out.
    void feedPackets(std::span<const uint8_t> packets);
    // Nothing arrived until `now` (ns, the clock of arrivals): seconds end, absences go on. Live alone, about
    // ten times a second; a recording ends with its last datagram.
    void tick(int64_t now);
    // The end of a recording: what was held or open is accounted for. Nothing is fed after it.
    void finish();

    Report report() const;
    // What happened since the last call, oldest first. At most kEventsLimit are kept, the oldest ones are
    // dropped then.
    static constexpr std::size_t kEventsLimit = 256;
    std::vector<Event> takeEvents();

    // From the next datagram on an excerpt is taken, with sound or without; one that was open is given up.
    // Without one nothing is kept for it, and datagrams cost nothing more.
    void beginExcerpt(bool audio);
    // It is as good as it gets.
    bool excerptIsEnded() const;
    // What it holds.
    std::size_t excerptBytes() const;
    // As far as it came, and its memory with it; nothing where none was begun.
    std::optional<Excerpt> takeExcerpt();

  private:
    class Channel;
    std::unique_ptr<Channel> channel_;
};

}  // namespace meter
