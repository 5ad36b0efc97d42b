#include "checks/checkBook.h"

#include <algorithm>

namespace meter {

void CheckBook::countPid(Entry& entry, uint16_t pid) {
    if (pid == kNoPid) {
        return;
    }
    const auto at = std::ranges::lower_bound(entry.pids, pid, {}, &std::pair<uint16_t, uint64_t>::first);
    if (at != entry.pids.end() && at->first == pid) {
        ++at->second;
    } else if (entry.pids.size() < kPidsLimit) {
        entry.pids.insert(at, {pid, 1});
    }
}

void CheckBook::countSeconds(Entry& entry, Nanoseconds from, Nanoseconds to) {
    const int64_t last = std::max<Nanoseconds>(to, 0) / kNsPerSecond;
    int64_t first = std::clamp<int64_t>(std::max<Nanoseconds>(from, 0) / kNsPerSecond, 0, last);
    const int64_t told = entry.newestSecond;
    if (last > told) {
        const int64_t ahead = last - told;
        entry.recent = ahead < kSecondsTold ? entry.recent << ahead : 0;
        entry.newestSecond = last;
    }
    // What lies before the window counts where it is newer than all that was told.
    const int64_t oldest = entry.newestSecond - kSecondsTold + 1;
    entry.seconds += static_cast<uint64_t>(std::max<int64_t>(oldest - std::max(first, told + 1), 0));
    first = std::max(first, oldest);
    for (int64_t second = first; second <= last; ++second) {
        const uint64_t bit = uint64_t{1} << (entry.newestSecond - second);
        entry.seconds += (entry.recent & bit) == 0 ? 1 : 0;
        entry.recent |= bit;
    }
    entry.first = std::min(entry.first.value_or(to), from);
    entry.last = std::max(entry.last.value_or(0), to);
}

void CheckBook::holdFor(Check check, uint16_t pid, Nanoseconds from, Nanoseconds to) {
    Entry& found = entry(check);
    ++found.count;
    countPid(found, pid);
    countSeconds(found, from, to);
}

void CheckBook::begin(Check check, uint16_t pid, Nanoseconds from, Nanoseconds now) {
    holdFor(check, pid, from, now);
    ++entry(check).active;
    ++active_;
}

void CheckBook::end(Check check, Nanoseconds now) {
    Entry& ended = entry(check);
    if (ended.active == 0) {
        return;
    }
    advance(now);
    --ended.active;
    --active_;
}

void CheckBook::advance(Nanoseconds now) {
    if (active_ == 0) {
        return;
    }
    for (Entry& held : entries_) {
        if (held.active > 0 && now >= held.last.value_or(0)) {
            countSeconds(held, *held.last, now);
        }
    }
}

void CheckBook::endAll(Nanoseconds now) {
    advance(now);
    for (Entry& held : entries_) {
        held.active = 0;
    }
    active_ = 0;
}

void CheckBook::fill(std::vector<CheckReport>& reports) const {
    reports.clear();
    reports.reserve(kCheckCount);
    for (std::size_t i = 0; i < kCheckCount; ++i) {
        const Entry& from = entries_[i];
        CheckReport& to = reports.emplace_back();
        to.id = basics::kChecks[i].id.data();
        to.name = basics::kChecks[i].name.data();
        to.priority = basics::kChecks[i].priority;
        to.count = from.count;
        to.seconds = from.seconds;
        to.active = from.active > 0;
        to.pids = from.pids;
        if (from.first && from.last) {
            to.first = static_cast<double>(*from.first) / static_cast<double>(kNsPerSecond);
            to.last = static_cast<double>(*from.last) / static_cast<double>(kNsPerSecond);
        }
    }
}

std::vector<CheckReport> allChecks() {
    std::vector<CheckReport> reports;
    CheckBook().fill(reports);
    return reports;
}

}  // namespace meter
