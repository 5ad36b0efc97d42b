#include "sarnDvbPsi/sectionGuard.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <iterator>
#include <optional>
#include <span>
#include <variant>

#include "sarn/dvbpsiHeaders.h"
#include "sarn/tsStream.h"
#include "sarnDvbPsi/contextInternals.h"

namespace {

using Bytes = std::span<const uint8_t>;

// What the library makes of a descriptor that leads out of its loop.
enum class Loop : uint8_t {
    none,
    checked,  // was looked at before, so its length is enough
    whole,    // as bounded; the loop is all that is left and has no length in front
    bounded,  // leaves it out and stays inside the section, so only the loop itself must fit
    filled,   // reads on where it claims to end, even behind the section, so descriptors must fill the loop
};

// How the payload of a table's section is made up: fixed fields, a descriptor loop behind its 12-bit length,
// the 16-bit length of the entries, then entries of fixed fields and a descriptor loop each. Loop lengths
// stand in the last two bytes of the fixed fields in front of them.
struct SectionLayout {
    const char* name;
    uint8_t firstTableId;
    uint8_t lastTableId;
    uint8_t headSize;
    Loop headLoop;
    bool entriesLength;
    uint8_t entrySize;  // 0: no entries
    Loop entryLoop;
};

// ISO/IEC 13818-1 2.4.4 and ETSI EN 300 468 clause 5.2.
constexpr SectionLayout kLayouts[] = {
    {"PAT", 0x00, 0x00, 0, Loop::none, false, 4, Loop::none},
    {"CAT", 0x01, 0x01, 0, Loop::whole, false, 0, Loop::none},
    {"PMT", 0x02, 0x02, 4, Loop::bounded, false, 5, Loop::bounded},
    {"NIT", 0x40, 0x41, 2, Loop::filled, true, 6, Loop::filled},
    {"SDT", 0x42, 0x42, 3, Loop::none, false, 5, Loop::bounded},
    {"BAT", 0x4A, 0x4A, 2, Loop::filled, true, 6, Loop::filled},
    {"EIT", 0x4E, 0x6F, 6, Loop::none, false, 12, Loop::filled},
    {"TDT", 0x70, 0x70, 5, Loop::none, false, 0, Loop::none},
    {"TOT", 0x73, 0x73, 7, Loop::bounded, false, 0, Loop::none},
};
constexpr std::size_t kOtherTables = std::size(kLayouts);
static_assert(kOtherTables + 1 == kGuardedTables);

constexpr std::size_t kLengthSize = 2;

// What the library puts into one list each, walking the list for every element.
struct Lists {
    uint32_t entries = 0;
    uint32_t headDescriptors = 0;  // in the loop in front of the entries
    std::size_t size = 0;          // payload bytes up to the end of the last whole entry
};

// The number of descriptors in a loop, or nothing for one that the library must not get.
std::optional<uint32_t> countDescriptors(Bytes loop, Loop kind) {
    uint32_t count = 0;
    while (loop.size() >= 2 && loop[1] <= loop.size() - 2) {
        loop = loop.subspan(std::size_t{2} + loop[1]);
        ++count;
    }
    if (count > kMaxLoopDescriptors || (kind == Loop::filled && !loop.empty())) {
        return std::nullopt;
    }
    return count;
}

// Takes `size` bytes off the front of `rest`, and with a loop as many more as their last two say. Returns the
// number of descriptors in it.
std::optional<uint32_t> take(Bytes& rest, std::size_t size, Loop loop) {
    if (rest.size() < size) {
        return std::nullopt;
    }
    std::size_t loopSize = 0;
    if (loop == Loop::whole) {
        loopSize = rest.size() - size;
    } else if (loop != Loop::none) {
        loopSize = static_cast<std::size_t>((rest[size - 2] & 0x0F) << 8 | rest[size - 1]);
    }
    rest = rest.subspan(size);
    if (rest.size() < loopSize) {
        return std::nullopt;
    }
    const Bytes descriptors = rest.first(loopSize);
    rest = rest.subspan(loopSize);
    return loop == Loop::checked ? 0 : countDescriptors(descriptors, loop);
}

// Nothing where a length leads out of the payload. `entryLoop` is the layout's; or checked, for a section
// that was measured before and may have lost its end since.
std::optional<Lists> measure(const SectionLayout& layout, Bytes payload, Loop entryLoop) {
    const Bytes whole = payload;
    Lists lists;
    const auto head = take(payload, layout.headSize, layout.headLoop);
    if (!head) {
        return std::nullopt;
    }
    lists.headDescriptors = *head;
    if (layout.entriesLength) {
        if (payload.size() < kLengthSize) {
            return std::nullopt;
        }
        const auto length = static_cast<std::size_t>((payload[0] & 0x0F) << 8 | payload[1]);
        payload = payload.subspan(kLengthSize);
        if (payload.size() < length && entryLoop != Loop::checked) {
            return std::nullopt;
        }
        payload = payload.first(std::min(length, payload.size()));
    }
    if (layout.entrySize == 0) {
        lists.size = whole.size();
        return lists;
    }
    for (; payload.size() >= layout.entrySize; ++lists.entries) {
        if (!take(payload, layout.entrySize, entryLoop)) {
            return std::nullopt;
        }
    }
    lists.size = static_cast<std::size_t>(payload.data() - whole.data());
    return lists;
}

bool hasShortForm(uint8_t tableId) {
    constexpr uint8_t kTdt = 0x70;
    constexpr uint8_t kTot = 0x73;
    return tableId == kTdt || tableId == kTot;
}

Bytes payloadOf(const dvbpsi_psi_section_t& section) {
    return {section.p_payload_start, section.p_payload_end};
}

// Index in kLayouts, or kOtherTables.
std::size_t tableIndex(uint8_t tableId) {
    const auto* layout = std::ranges::find_if(kLayouts, [tableId](const SectionLayout& row) {
        return tableId >= row.firstTableId && tableId <= row.lastTableId;
    });
    return static_cast<std::size_t>(layout - std::begin(kLayouts));
}

// Null for a section that needs no check. What should have the long form and has not, the library refuses
// with an error message, which counts.
const SectionLayout* layoutOf(const dvbpsi_psi_section_t& section) {
    const std::size_t table = tableIndex(section.i_table_id);
    const bool fitsForm = section.b_syntax_indicator || hasShortForm(section.i_table_id);
    return fitsForm && table != kOtherTables ? &kLayouts[table] : nullptr;
}

// What the table has with this section, of which the sections `held` came before; or why the section must not
// reach the decoder.
using Examined = std::variant<Lists, SectionDrop>;

Examined examine(const dvbpsi_psi_section_t& section, const dvbpsi_psi_section_t* held) {
    if (section.p_payload_end < section.p_payload_start) {
        return SectionDrop::badLength;
    }
    if (section.i_number > section.i_last_number) {
        return SectionDrop::badNumber;
    }
    const SectionLayout* layout = layoutOf(section);
    if (layout == nullptr) {
        return Lists{.size = payloadOf(section).size()};
    }
    std::optional<Lists> table = measure(*layout, payloadOf(section), layout->entryLoop);
    if (!table) {
        return SectionDrop::badLength;
    }
    const Loop entryLoop = layout->entryLoop == Loop::none ? Loop::none : Loop::checked;
    for (; held != nullptr; held = held->p_next) {
        if (held->i_version == section.i_version && held->i_number != section.i_number) {
            const Lists lists = measure(*layout, payloadOf(*held), entryLoop).value_or(Lists{});
            table->entries += lists.entries;
            table->headDescriptors += lists.headDescriptors;
        }
    }
    if (table->entries > kMaxTableEntries || table->headDescriptors > kMaxLoopDescriptors) {
        return SectionDrop::tooLarge;
    }
    return *table;
}

// Whether the section may go on to its decoder, with its stray bytes cut off; it is deleted otherwise.
bool admit(ts_stream_t& stream, dvbpsi_psi_section_t* section, const Examined& examined) {
    if (const auto* drop = std::get_if<SectionDrop>(&examined)) {
        countSectionDrop(stream, section->i_table_id, *drop);
        dvbpsi_DeletePSISections(section);
        return false;
    }
    uint8_t* end = section->p_payload_start + std::get<Lists>(examined).size;
    if (end != section->p_payload_end) {
        countSectionDrop(stream, section->i_table_id, SectionDrop::strayBytes);
        section->p_payload_end = end;
    }
    return true;
}

// The gather functions of the library's decoders, which it sets but does not declare.
enum Kind : std::size_t { kPat, kCat, kPmt, kKindCount };
using Gathers = std::array<dvbpsi_callback_gather_t, kKindCount>;

template <typename Attach>
dvbpsi_callback_gather_t gatherOf(Attach attach, void (*detach)(dvbpsi_t*)) {
    dvbpsi_callback_gather_t gather = nullptr;
    dvbpsi_t* handle = dvbpsi_new(nullptr, DVBPSI_MSG_NONE);
    if (handle != nullptr && attach(handle)) {
        gather = handle->p_decoder->pf_gather;
        detach(handle);
    }
    dvbpsi_delete(handle);
    return gather;
}

const Gathers& gathers() {
    static const Gathers learned = {gatherOf(
                                        [](dvbpsi_t* handle) {
                                            return dvbpsi_pat_attach(
                                                handle, [](void*, dvbpsi_pat_t*) {}, nullptr);
                                        },
                                        dvbpsi_pat_detach),
                                    gatherOf(
                                        [](dvbpsi_t* handle) {
                                            return dvbpsi_cat_attach(
                                                handle, [](void*, dvbpsi_cat_t*) {}, nullptr);
                                        },
                                        dvbpsi_cat_detach),
                                    gatherOf(
                                        [](dvbpsi_t* handle) {
                                            return dvbpsi_pmt_attach(
                                                handle, 1, [](void*, dvbpsi_pmt_t*) {}, nullptr);
                                        },
                                        dvbpsi_pmt_detach)};
    return learned;
}

// Whether a PMT section keeps within the bounds that all PMTs of the context share.
bool fitsAmongPmts(const ts_stream_t& stream, const dvbpsi_psi_section_t& section, const Lists& table) {
    const ts_pmt_t* pmt = indexedPmt(&stream, section.i_extension);
    const uint32_t elsewhere = stream.listed_streams - (pmt != nullptr ? pmt->i_listed_streams : 0);
    return section.i_last_number < kMaxPmtSections && elsewhere + table.entries <= kMaxTableEntries;
}

template <Kind kind>
void gatherGuarded(dvbpsi_t* handle, dvbpsi_psi_section_t* section) {
    auto& stream = *static_cast<ts_stream_t*>(handle->p_sys);
    Examined examined = examine(*section, handle->p_decoder->p_sections);
    if constexpr (kind == kPmt) {
        const auto* table = std::get_if<Lists>(&examined);
        if (table != nullptr && !fitsAmongPmts(stream, *section, *table)) {
            examined = SectionDrop::tooLarge;
        }
    }
    if (admit(stream, section, examined)) {
        gathers()[kind](handle, section);
    }
}

// The sections of an unfinished sub-table that came so far, or null.
const dvbpsi_psi_section_t* heldSections(dvbpsi_demux_t* demux, uint8_t tableId, uint16_t extension) {
    const dvbpsi_demux_subdec_t* subtable = dvbpsi_demuxGetSubDec(demux, tableId, extension);
    return subtable != nullptr && subtable->p_decoder != nullptr ? subtable->p_decoder->p_sections : nullptr;
}

uint32_t sectionsHeld(dvbpsi_demux_t* demux, uint8_t tableId, uint16_t extension) {
    uint32_t count = 0;
    for (const auto* section = heldSections(demux, tableId, extension); section != nullptr;
         section = section->p_next) {
        ++count;
    }
    return count;
}

// Tables of up to two sections, as most are, and present/following EITs, always get through: there is room
// for kMaxSubtables of them besides.
bool isLarge(const dvbpsi_psi_section_t& section) {
    return section.i_last_number > 1;
}

uint32_t& heldCount(ts_stream_t& stream, const dvbpsi_t* handle) {
    return stream.si_sections[handle == stream.sdt_handle ? 0 : handle == stream.eit_handle ? 1 : 2];
}

void demuxGuarded(dvbpsi_t* handle, dvbpsi_psi_section_t* section) {
    auto* demux = reinterpret_cast<dvbpsi_demux_t*>(handle->p_decoder);
    auto& stream = *static_cast<ts_stream_t*>(demux->p_new_cb_data);
    uint32_t& held = heldCount(stream, handle);
    const uint8_t tableId = section->i_table_id;
    const uint16_t extension = section->i_extension;
    Examined examined = examine(*section, heldSections(demux, tableId, extension));
    if (std::holds_alternative<Lists>(examined) && isLarge(*section) && held >= kMaxHeldSections) {
        examined = SectionDrop::tooLarge;
    }
    if (!admit(stream, section, examined)) {
        return;
    }
    const uint32_t before = sectionsHeld(demux, tableId, extension);
    dvbpsi_Demux(handle, section);
    held += sectionsHeld(demux, tableId, extension) - before;
}

}  // namespace

void countSectionDrop(ts_stream_t& stream, uint8_t tableId, SectionDrop drop) {
    ++stream.section_drops[tableIndex(tableId)][static_cast<std::size_t>(drop)];
}

bool pushPsiPacket(dvbpsi_s* handle, const uint8_t* packet) {
    // The library follows an adaptation field and a pointer_field of up to 255 bytes each to the byte behind
    // them.
    constexpr std::size_t kReach = 4 + 1 + 255 + 1 + 255 + 1;
    if (handle == nullptr || !dvbpsi_decoder_present(handle)) {
        return false;
    }
    std::array<uint8_t, kReach> copy{};
    std::copy_n(packet, kTsPacketSize, copy.begin());
    return dvbpsi_packet_push(handle, copy.data());
}

void sarnDvbPsi_printSectionDrops(const ts_stream_t* stream, const char* name, FILE* file) {
    constexpr std::array<const char*, kSectionDropKinds> kTexts = {
        "dropped: a length leads out of the section",
        "dropped: section_number behind last_section_number",
        "dropped: a splice section in the long form",
        "dropped: the table, or all that are waited for, would grow too large",
        "decoded without the bytes behind the last whole entry",
    };
    for (std::size_t table = 0; table < kGuardedTables; ++table) {
        for (std::size_t drop = 0; drop < kSectionDropKinds; ++drop) {
            if (const uint64_t count = stream->section_drops[table][drop]; count != 0) {
                fprintf(file, "%s: %llu %s section%s %s\n", name, static_cast<unsigned long long>(count),
                        table == kOtherTables ? "other" : kLayouts[table].name, count == 1 ? "" : "s",
                        kTexts[drop]);
            }
        }
    }
}

void guardSections(dvbpsi_s* handle) {
    dvbpsi_callback_gather_t& gather = handle->p_decoder->pf_gather;
    if (gather == dvbpsi_Demux) {
        gather = demuxGuarded;
    } else if (gather == gathers()[kPat]) {
        gather = gatherGuarded<kPat>;
    } else if (gather == gathers()[kCat]) {
        gather = gatherGuarded<kCat>;
    } else if (gather == gathers()[kPmt]) {
        gather = gatherGuarded<kPmt>;
    }
}
