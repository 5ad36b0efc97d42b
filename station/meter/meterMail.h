// What the meter's thread hands to the owner.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "meter/meterFigures.h"

namespace station {

// What happened in a channel, as the meter tells it.
struct MeterHappened {
    static constexpr std::size_t kTextBytes = 500;

    uint32_t group = 0;  // host byte order
    std::string what;    // of a change, as reports name it; empty: a cue
    std::string text;    // a sentence, of at most kTextBytes
};

// Any thread; at once.
class MeterMail {
  public:
    static constexpr std::size_t kHappened = 1000;  // beyond, the oldest is dropped and counted

    struct Batch {
        std::map<uint32_t, MeterFigures> figures;  // the newest of each group: metering::kGroupsLimit at most
        std::deque<MeterHappened> happened;
    };

    // Who is told that there is something: `ready` is called by the meter's thread, after a part of a second.
    void setReady(std::function<void()> ready) {
        const std::lock_guard lock(mutex_);
        ready_ = std::move(ready);
    }
    void put(MeterFigures figures) {
        const std::lock_guard lock(mutex_);
        const auto [held, isNew] = batch_.figures.try_emplace(figures.group, figures);
        if (isNew) {
            return;
        }
        figures.cover(held->second);
        held->second = figures;
    }
    void put(MeterHappened&& happened) {
        const std::lock_guard lock(mutex_);
        if (batch_.happened.size() >= kHappened) {
            batch_.happened.pop_front();
            ++dropped_;
        }
        batch_.happened.push_back(std::move(happened));
    }
    void tell() {
        std::function<void()> ready;
        {
            const std::lock_guard lock(mutex_);
            ready = ready_;
        }
        if (ready) {
            ready();
        }
    }
    // Nothing of a meter that went, or of a group that is not watched any more.
    void forget() {
        const std::lock_guard lock(mutex_);
        batch_ = {};
    }
    Batch drain() {
        const std::lock_guard lock(mutex_);
        return std::exchange(batch_, {});
    }
    uint64_t dropped() const {
        const std::lock_guard lock(mutex_);
        return dropped_;
    }

  private:
    mutable std::mutex mutex_;  // guards what follows; no lock is taken while it is held
    Batch batch_;
    uint64_t dropped_ = 0;
    std::function<void()> ready_;
};

}  // namespace station
