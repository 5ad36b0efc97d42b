// The tables of history.db. Failures are DatabaseErrors.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <vector>

#include "channels/channel.h"
#include "measures/historyRecords.h"
#include "store/minuteLayout.h"
#include "store/sqlite.h"

namespace station {

using Minutes = std::vector<past::MinuteRecord>;

// Ten minutes of a channel are a row; rows are in the order of time, then of groups. One thread.
class MinuteDatabase {
  public:
    static constexpr int64_t kRowSeconds = 600;
    static int64_t rowOf(int64_t wall) {  // seconds since the epoch
        return wall / kRowSeconds;
    }

    // `patience` says how long it waits for another program that holds the file.
    MinuteDatabase(const std::filesystem::path& file, const Patience& patience);

    // Adds them to what the row has.
    void write(int64_t row, const std::map<Group, Minutes>& channels);
    // Appends what a row has of a channel, in the order in which it was written.
    void read(int64_t row, const Group& group, Minutes& into);
    // What a row has, channel after channel: `visit` gets each group's address (in
    // host byte order) with its minutes, and is not to keep them.
    void readAll(int64_t row, const std::function<void(uint32_t, const Minutes&)>& visit);
    std::optional<int64_t> oldestRow();
    // Deletes some of what is older than the row, or in it where `orIn`; whether there may be more.
    bool deleteSome(int64_t row, bool orIn);
    uint64_t bytesInUse();  // of the file, pages that are free left out

  private:
    Database database_;
    std::map<int64_t, std::optional<MinuteLayout>> layouts_;
    int64_t ownLayout_ = 0;
    Statement write_, read_, readAll_, delete_;
};

}  // namespace station
