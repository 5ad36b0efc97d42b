// What PAT, PMT, SDT and EIT sections hold (ISO/IEC 13818-1 2.4.4, ETSI EN 300 468 5.2), and the collecting
// of tables of several sections. Sections come with a right CRC; lengths inside of them are bounded by the
// section.
#pragma once

#include <bitset>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "fields/sectionFields.h"
#include "meter/report.h"
#include "services/descriptors.h"
#include "services/serviceModel.h"

namespace meter {

struct ProgramEntry {
    uint16_t number = 0;  // 0: the network PID
    uint16_t pid = 0;

    bool operator==(const ProgramEntry&) const = default;
};
std::vector<ProgramEntry> readPat(Bytes section);

struct StreamEntry {
    uint16_t pid = 0;
    uint8_t streamType = 0;
    Codec codec = Codec::kNone;
    StreamKind kind = StreamKind::kData;
    StreamDetails details;
    std::vector<CaReport> ca;
};
struct Pmt {
    uint8_t version = 0;
    uint16_t pcrPid = 0;
    std::vector<CaReport> ca;
    std::vector<StreamEntry> streams;  // at most kStreamsPerProgramLimit
};
// Nothing of a section that is too short for one.
std::optional<Pmt> readPmt(Bytes section);

struct ServiceEntry {
    uint16_t id = 0;
    std::optional<std::string> name;
    std::optional<std::string> provider;
    std::optional<uint8_t> type;
    uint8_t runningStatus = 0;

    bool operator==(const ServiceEntry&) const = default;
};
std::vector<ServiceEntry> readSdt(Bytes section);

// The first event of a section of EIT present/following, if it has one.
std::optional<ProgrammeReport> readEvent(Bytes section);

// The section between the fields up to last_section_number and the CRC_32; empty of one that is too short.
Bytes sectionBody(Bytes section);

// Entries of a table from its sections, until each of one version came. Sections of another version, number
// of sections or extension begin it anew; another content of the same section takes its entries' place.
template <typename Entry>
class SectionedTable {
  public:
    // Returns whether the table is whole then. At most `limit` entries are kept.
    bool take(Bytes section, const std::vector<Entry>& entries, std::size_t limit) {
        const Head head{sectionTableIdExtension(section), sectionVersionNumber(section),
                        sectionLastNumber(section)};
        if (head_ != head) {
            head_ = head;
            seen_.reset();
            entries_.clear();
        }
        const uint8_t number = sectionNumber(section);
        if (number > head.last)
            return whole();
        std::erase_if(entries_, [number](const auto& kept) { return kept.first == number; });
        for (const Entry& entry : entries)
            if (entries_.size() < limit)
                entries_.emplace_back(number, entry);
        seen_.set(number);
        return whole();
    }
    bool whole() const {
        return head_ && seen_.count() == head_->last + 1U;
    }
    uint16_t extension() const {
        return head_ ? head_->extension : uint16_t{0};
    }
    uint8_t version() const {
        return head_ ? head_->version : uint8_t{0};
    }
    std::vector<Entry> entries() const {
        std::vector<Entry> all;
        all.reserve(entries_.size());
        for (const auto& [number, entry] : entries_)
            all.push_back(entry);
        return all;
    }

  private:
    struct Head {
        uint16_t extension;
        uint8_t version;
        uint8_t last;

        bool operator==(const Head&) const = default;
    };
    std::optional<Head> head_;
    std::bitset<256> seen_;
    std::vector<std::pair<uint8_t, Entry>> entries_;  // with the number of their section
};

}  // namespace meter
