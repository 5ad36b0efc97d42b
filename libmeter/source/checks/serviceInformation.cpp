#include "checks/serviceInformation.h"

#include <algorithm>
#include <array>

#include "fields/sectionFields.h"

namespace meter {

namespace {

constexpr Ticks kS = kTicksPerSecond;

// ETSI TR 101 290 V1.4.1, table 5.0c: 3.1, 3.2, 3.5 to 3.8; the intervals are those of ETSI EN 300 468 and TR
// 101 211.
constexpr std::array<SiTable, 10> kTables = {{
    {kNitActualTable, kNitPid, 10 * kS, Check::kNitActualError, true, true, false},
    {kNitOtherTable, kNitPid, 10 * kS, Check::kNitOtherError, false, false, false},
    {kSdtActualTable, kSdtPid, 2 * kS, Check::kSdtActualError, true, true, false},
    {kSdtOtherTable, kSdtPid, 10 * kS, Check::kSdtOtherError, false, false, false},
    {kBatTable, kSdtPid, 10 * kS, Check::kSiRepetitionError, false, false, false},
    {kEitActualPfTable, kEitPid, 2 * kS, Check::kEitActualError, true, true, true},
    {kEitOtherPfTable, kEitPid, 10 * kS, Check::kEitOtherError, false, false, true},
    {kTdtTable, kTdtPid, 30 * kS, Check::kTdtError, true, true, false},
    {kTotTable, kTdtPid, 30 * kS, Check::kSiRepetitionError, false, false, false},
    {kRstTable, kRstPid, 0, Check::kRstError, false, true, false},
}};

// Tables that may stand on a PID; each section of another one is a fault of the check.
struct SiPid {
    uint16_t pid;
    Check check;
    uint8_t first;  // from this table_id to that one
    uint8_t last;
    std::array<uint8_t, 3> others;  // and these
};
constexpr std::array<SiPid, 5> kPids = {{
    {kNitPid,
     Check::kNitActualError,
     kNitActualTable,
     kNitOtherTable,
     {kStuffingTable, kStuffingTable, kStuffingTable}},
    {kSdtPid,
     Check::kSdtActualError,
     kSdtActualTable,
     kSdtActualTable,
     {kSdtOtherTable, kBatTable, kStuffingTable}},
    {kEitPid,
     Check::kEitActualError,
     kEitActualPfTable,
     kEitLastTable,
     {kStuffingTable, kStuffingTable, kStuffingTable}},
    {kRstPid, Check::kRstError, kRstTable, kRstTable, {kStuffingTable, kStuffingTable, kStuffingTable}},
    {kTdtPid, Check::kTdtError, kTdtTable, kTdtTable, {kTotTable, kStuffingTable, kStuffingTable}},
}};

bool mayStand(const SiPid& pid, uint8_t table) {
    return (table >= pid.first && table <= pid.last) ||
           std::ranges::find(pid.others, table) != pid.others.end();
}

constexpr uint64_t kNumberMask = 0xFF;
constexpr int kTableShift = 56;
constexpr int kExtensionShift = 40;

// A sub-table that is absent for so long beyond its limit may be gone for good.
constexpr Ticks kGoneAfter = 60 * kS;
constexpr Ticks kRoomLooks = kS;  // between two looks for room

// The sub-table (ETSI EN 300 468, 5.1.1) and the section in it. Where the extension alone does not name the
// sub-table, the identifiers behind the header do: original_network_id of the SDT, transport_stream_id and
// original_network_id of the EIT.
uint64_t keyOf(Bytes section) {
    const uint8_t table = sectionTableId(section);
    if (!sectionSyntaxIndicator(section)) {
        return uint64_t{table} << kTableShift;
    }
    uint64_t more = 0;
    if (table == kSdtActualTable || table == kSdtOtherTable) {
        more = u16At(section, kLongSectionHeaderSize);
    } else if (table >= kEitActualPfTable && table <= kEitLastTable) {
        more = u32At(section, kLongSectionHeaderSize);
    }
    return uint64_t{table} << kTableShift | uint64_t{sectionTableIdExtension(section)} << kExtensionShift |
           more << 8 | sectionNumber(section);
}

const SiTable* tableOf(uint16_t pid, uint8_t id) {
    const auto found = std::ranges::find_if(
        kTables, [&](const SiTable& table) { return table.id == id && table.pid == pid; });
    return found != kTables.end() ? &*found : nullptr;
}

}  // namespace

ServiceInformation::ServiceInformation(bool required, CheckBook& book, Ticks begin) : book_(book) {
    for (const SiTable& table : kTables) {
        if (required && table.absence) {
            never_.push_back({&table, {begin}});
        }
    }
}

void ServiceInformation::repetitionFault(const SiTable& table, Nanoseconds from, Nanoseconds to) {
    if (table.check != Check::kSiRepetitionError) {
        book_.holdFor(table.check, table.pid, from, to);
    }
    book_.holdFor(Check::kSiRepetitionError, table.pid, from, to);
}

void ServiceInformation::beginFault(const SiTable& table, Nanoseconds from, Nanoseconds to) {
    book_.begin(table.check, table.pid, from, to);
    book_.begin(Check::kSiRepetitionError, table.pid, from, to);
}

void ServiceInformation::endFault(const SiTable& table, Nanoseconds at) {
    book_.end(table.check, at);
    book_.end(Check::kSiRepetitionError, at);
}

// A version with fewer sections: nobody waits for those that it has not.
void ServiceInformation::forgetBeyond(Key key, uint8_t lastNumber, Nanoseconds arrival) {
    const Key end = key | kNumberMask;
    for (auto at = known_.upper_bound((key & ~kNumberMask) | lastNumber);
         at != known_.end() && at->first <= end;) {
        if (at->second.held) {
            endFault(*at->second.table, arrival);
        }
        if (at->second.aloneHeld) {
            book_.end(Check::kEitPfError, arrival);
        }
        others_ -= at->second.table->absence ? 0 : 1;
        at = known_.erase(at);
    }
}

void ServiceInformation::setModel(const ServiceModel& model) {
    patKnown_ = model.patKnown;
    programs_.clear();
    for (const ProgramModel& program : model.programs) {
        programs_.push_back(program.number);
    }
    std::ranges::sort(programs_);
}

// Of a sub-table that is absent for long: another one came in its place, or its service left the stream.
// There is one network and one stream that tables call the actual one, and one sub-table of present and
// following a service.
bool ServiceInformation::isGone(Key key, const Known& known) const {
    const bool ofService = known.table->pair;
    const auto service = static_cast<uint16_t>(key >> kExtensionShift);
    if (ofService && patKnown_ && !std::ranges::binary_search(programs_, service)) {
        return true;
    }
    const Key rest = (Key{1} << (ofService ? kExtensionShift : kTableShift)) - 1;
    for (auto at = known_.lower_bound(key & ~rest); at != known_.end() && at->first <= (key | rest); ++at) {
        if ((at->first & ~kNumberMask) != (key & ~kNumberMask) && at->second.last > known.last) {
            return true;
        }
    }
    return false;
}

bool ServiceInformation::hasRoom(const SiTable& table, Ticks now) {
    const auto has = [&] {
        return known_.size() < kSectionsLimit && (table.absence || others_ < kOthersLimit);
    };
    if (!has() && now - roomLookedAt_ >= kRoomLooks) {
        roomLookedAt_ = now;
        others_ -= std::erase_if(known_, [&](const auto& one) {
            return !one.second.table->absence && now - one.second.last > kGoneAfter;
        });
    }
    return has();
}

// Either of sections 0 and 1 is there, so both have to be (3.6.c).
void ServiceInformation::checkPair(Key key, Known& known, const Section& section) {
    const auto other = known_.find(key ^ 1U);
    const Ticks now = section.moment.stream;
    if (other != known_.end()) {
        Known& waited = other->second;
        waited.aloneFrom.reset();
        if (waited.aloneHeld) {
            waited.aloneHeld = false;
            book_.end(Check::kEitPfError, section.moment.arrival);
        }
    }
    if (other != known_.end() && now - other->second.last <= known.table->limit) {
        known.aloneFrom.reset();
    } else if (!known.aloneFrom) {
        known.aloneFrom = now;
    }
}

void ServiceInformation::section(const Section& section) {
    const uint8_t id = sectionTableId(section.bytes);
    const Nanoseconds arrival = section.moment.arrival;
    const Ticks now = section.moment.stream;
    for (const SiPid& pid : kPids) {
        if (pid.pid == section.pid && !mayStand(pid, id)) {
            book_.hit(pid.check, section.pid, arrival);
        }
    }
    const SiTable* table = tableOf(section.pid, id);
    if (table == nullptr) {
        return;
    }
    std::erase_if(never_, [&](Never& never) {
        if (never.table != table) {
            return false;
        }
        if (never.absence.held) {
            endFault(*table, arrival);
        }
        return true;
    });
    const Key key = keyOf(section.bytes);
    if (sectionSyntaxIndicator(section.bytes)) {
        forgetBeyond(key, sectionLastNumber(section.bytes), arrival);
    }
    const auto at = known_.find(key);
    if (at == known_.end()) {
        if (hasRoom(*table, now)) {
            others_ += table->absence ? 0 : 1;
            Known& known = known_.emplace(key, Known{table, now, false, {}, false}).first->second;
            if (table->pair && sectionNumber(section.bytes) <= 1) {
                checkPair(key, known, section);
            }
        }
        return;
    }
    Known& known = at->second;
    const Ticks interval = now - known.last;
    if (known.held) {
        known.held = false;
        endFault(*table, arrival);
    } else if (table->limit != 0 && interval > table->limit) {
        repetitionFault(*table, std::max<Nanoseconds>(arrival - toNanoseconds(interval - table->limit), 0),
                        arrival);
    }
    if (table->shortest && interval < kShortestInterval) {
        repetitionFault(*table, arrival, arrival);
    }
    known.last = now;
    if (table->pair && sectionNumber(section.bytes) <= 1) {
        checkPair(key, known, section);
    }
}

Ticks ServiceInformation::look(const Look& at) {
    Ticks next = at.now + kLookInterval;
    const auto passed = [&](Ticks limit) {
        if (at.now > limit) {
            return true;
        }
        next = std::min(next, limit + 1);
        return false;
    };
    for (Never& never : never_) {
        const Ticks limit = never.absence.last + never.table->limit;
        if (!never.absence.held && passed(limit)) {
            never.absence.held = true;
            beginFault(*never.table, at.passingOf(limit), at.arrival);
        }
    }
    for (auto one = known_.begin(); one != known_.end();) {
        auto& [key, known] = *one;
        const Ticks limit = known.last + known.table->limit;
        const bool mayBeGone = at.now > limit + kGoneAfter;
        if (mayBeGone && known.aloneHeld) {
            known.aloneHeld = false;
            known.aloneFrom.reset();
            book_.end(Check::kEitPfError, at.arrival);
        }
        if (mayBeGone && known.held && isGone(key, known)) {
            endFault(*known.table, at.arrival);
            one = known_.erase(one);
            continue;
        }
        if (known.table->absence && !known.held && passed(limit)) {
            known.held = true;
            beginFault(*known.table, at.passingOf(limit), at.arrival);
        }
        if (known.aloneFrom && !known.aloneHeld && passed(*known.aloneFrom + known.table->limit)) {
            known.aloneHeld = true;
            book_.begin(Check::kEitPfError, known.table->pid,
                        at.passingOf(*known.aloneFrom + known.table->limit), at.arrival);
        }
        ++one;
    }
    return next;
}

}  // namespace meter
