#include "sections/sectionAssembler.h"

#include <algorithm>
#include <cstring>

#include "sections/crc32.h"

namespace meter {
namespace {

constexpr uint8_t kStuffingByte = 0xFF;  // in place of a table_id: no section follows in this packet

bool isEit(uint8_t table) {
    return table >= kEitActualPfTable && table <= kEitLastTable;
}

// Tables that have a CRC_32 whatever their section_syntax_indicator says, and those that never have one.
bool hasCrc32(Bytes section) {
    switch (const uint8_t table = sectionTableId(section)) {
        case kPatTable:
        case kCatTable:
        case kPmtTable:
        case kNitActualTable:
        case kNitOtherTable:
        case kSdtActualTable:
        case kSdtOtherTable:
        case kBatTable:
        case kTotTable:
        case kSpliceInfoTable:
            return true;
        case kTdtTable:
        case kRstTable:
        case kStuffingTable:
            return false;
        default:
            return isEit(table) || sectionSyntaxIndicator(section);
    }
}

// Table, extension, section number and, where a sub-table is told by more (ETSI EN 300 468, 5.1.1), the
// original network and for events the transport stream.
uint64_t sectionKey(Bytes section) {
    const uint8_t table = sectionTableId(section);
    const uint64_t key = uint64_t{table} << 56;
    if (!sectionSyntaxIndicator(section))
        return key;
    uint32_t origin = 0;
    if (isEit(table))
        origin = u32At(section, kLongSectionHeaderSize);
    else if (table == kSdtActualTable || table == kSdtOtherTable)
        origin = u16At(section, kLongSectionHeaderSize);
    return key | uint64_t{sectionNumber(section)} << 48 | uint64_t{sectionTableIdExtension(section)} << 32 |
           origin;
}

// A day's schedule of a multiplex would take megabytes, and nothing is read of it.
bool isWorthKeeping(uint8_t table) {
    return table <= kEitOtherPfTable || table > kEitLastTable;
}

std::size_t sectionSize(Bytes header) {
    return kSectionHeaderSize + sectionLength(header);
}

}  // namespace

void SectionAssembler::feed(Bytes payload, bool unitStart, const Moment& moment, SectionSink& sink) {
    if (!unitStart) {
        if (!open_.empty())
            append(payload, moment, sink);
        return;
    }
    const std::size_t pointer = u8At(payload, 0);
    payload = bytesAt(payload, 1);
    if (pointer > payload.size()) {
        open_.clear();
        return;
    }
    if (!open_.empty()) {
        append(payload.first(pointer), moment, sink);
        open_.clear();
    }
    payload = payload.subspan(pointer);
    while (!payload.empty() && payload[0] != kStuffingByte) {
        if (payload.size() < kSectionHeaderSize || sectionSize(payload) > payload.size()) {
            append(payload, moment, sink);
            return;
        }
        const std::size_t size = sectionSize(payload);
        deliver(payload.first(size), moment, sink);
        payload = payload.subspan(size);
    }
}

void SectionAssembler::append(Bytes payload, const Moment& moment, SectionSink& sink) {
    const auto take = [this, &payload](std::size_t upTo) {
        const std::size_t count = std::min(payload.size(), upTo - open_.size());
        open_.insert(open_.end(), payload.begin(), payload.begin() + static_cast<std::ptrdiff_t>(count));
        payload = payload.subspan(count);
        return open_.size() == upTo;
    };
    if (open_.size() < kSectionHeaderSize && !take(kSectionHeaderSize))
        return;
    const std::size_t size = sectionSize(open_);
    open_.reserve(size);
    if (!take(size))
        return;
    deliver(open_, moment, sink);
    open_.clear();
}

void SectionAssembler::deliver(Bytes bytes, const Moment& moment, SectionSink& sink) {
    Section section{.pid = pid_, .bytes = bytes, .hasCrc = hasCrc32(bytes), .moment = moment};
    const uint64_t key = sectionKey(bytes);
    section.repeated = cameBefore(key, bytes);
    if (!section.repeated) {
        section.crcOk = !section.hasCrc || crc32(bytes) == 0;
        if (section.crcOk && isWorthKeeping(sectionTableId(bytes)))
            keep(key, bytes);
    }
    sink.section(section);
}

bool SectionAssembler::cameBefore(uint64_t key, Bytes bytes) const {
    const auto found = std::ranges::lower_bound(kept_, key, {}, &Kept::key);
    return found != kept_.end() && found->key == key && found->bytes.size() == bytes.size() &&
           std::memcmp(found->bytes.data(), bytes.data(), bytes.size()) == 0;
}

void SectionAssembler::keep(uint64_t key, Bytes bytes) {
    auto place = std::ranges::lower_bound(kept_, key, {}, &Kept::key);
    const bool known = place != kept_.end() && place->key == key;
    const std::size_t before = known ? place->bytes.size() : 0;
    if (keptBytes_ - before + bytes.size() > kKeptBytesLimit ||
        (!known && kept_.size() == kKeptSectionsLimit)) {
        kept_.clear();
        keptBytes_ = bytes.size();
        kept_.push_back({key, {bytes.begin(), bytes.end()}});
        return;
    }
    keptBytes_ += bytes.size() - before;
    if (known)
        place->bytes.assign(bytes.begin(), bytes.end());
    else
        kept_.insert(place, {key, {bytes.begin(), bytes.end()}});
}

std::size_t SectionAssembler::heldBytes() const {
    std::size_t held = open_.capacity() + kept_.capacity() * sizeof(Kept);
    for (const Kept& kept : kept_)
        held += kept.bytes.capacity();
    return held;
}

}  // namespace meter
