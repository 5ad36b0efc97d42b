// What sections and the model that they make mean to the analysis of a stream.
#include <algorithm>

#include "analyser/streamAnalysis.h"

namespace meter {

namespace {

// Tables whose CRC_32 is looked at (ETSI TR 101 290, 5.2.2, 2.2): PAT, CAT, NIT, SDT, BAT, EIT, TOT.
bool isCheckedTable(uint8_t table) {
    switch (table) {
        case kPatTable:
        case kCatTable:
        case kPmtTable:
        case kNitActualTable:
        case kNitOtherTable:
        case kSdtActualTable:
        case kSdtOtherTable:
        case kBatTable:
        case kTotTable:
            return true;
        default:
            return table >= kEitActualPfTable && table <= kEitLastTable;
    }
}

}  // namespace

void StreamAnalysis::checkCrc(const Section& section) {
    const uint8_t table = sectionTableId(section.bytes);
    const bool checked = section.pid <= kLastReservedPid ? isCheckedTable(table) : table == kPmtTable;
    if (checked && (section.pid <= kLastReservedPid || pids_.find(section.pid).record->tables)) {
        book_.hit(Check::kCrcError, section.pid, section.moment.arrival);
    }
}

void StreamAnalysis::section(const Section& section) {
    const uint8_t table = sectionTableId(section.bytes);
    const Moment& moment = section.moment;
    if (pids_.find(section.pid).record->cues && table == kSpliceInfoTable) {
        const PidRecord* clock = pids_.find(section.pid).record->clockRecord;
        cues_->section(
            section,
            clock != nullptr && clock->pcr ? std::optional(clock->pcr->valueAt(moment.stream)) : std::nullopt,
            newCues_);
        for (CueReport& cue : newCues_) {
            tell(std::move(cue));
        }
        newCues_.clear();
        return;
    }
    if (!section.crcOk) {
        checkCrc(section);
        return;
    }
    if (section.pid == kPatPid) {
        if (table == kPatTable) {
            presence_->pat(moment);
        } else {
            book_.hit(Check::kPatError2, section.pid, moment.arrival);
        }
    } else if (section.pid == kCatPid) {
        if (table == kCatTable) {
            presence_->cat(moment);
        } else {
            book_.hit(Check::kCatError, section.pid, moment.arrival);
        }
    } else if (section.pid <= kLastReservedPid) {
        information_->section(section);
    } else if (table == kPmtTable) {
        presence_->pmt(section.pid, sectionTableIdExtension(section.bytes), moment);
    }
    services_->section(section, newChanges_);
    for (ChangeReport& change : newChanges_) {
        if (changes_.size() == kChangesLimit) {
            changes_.erase(changes_.begin());
        }
        changes_.push_back(change);
        tell(std::move(change));
    }
    newChanges_.clear();
    modelChanged_ = modelChanged_ || services_->model().revision != modelRevision_;
}

const PidRecord* StreamAnalysis::clockRecordOf(const ProgramModel& program) {
    if (program.pcrPid == kNullPid) {  // it has none
        return nullptr;
    }
    const PidRecord& record = pids_.obtain(program.pcrPid);
    return (record.state->roles & kOverflowPid) == 0 ? &record : nullptr;
}

// PIDs that the analysis reads, each once: tables first, then clocks, then streams.
std::vector<uint16_t> StreamAnalysis::wantedPids(const ServiceModel& model) const {
    std::vector<uint16_t> wanted;
    std::bitset<kPidCount> listed;
    const auto want = [&](uint16_t pid) {
        if (!listed.test(pid & (kPidCount - 1))) {
            listed.set(pid & (kPidCount - 1));
            wanted.push_back(pid);
        }
    };
    std::ranges::for_each(model.programs, [&](const ProgramModel& program) { want(program.pmtPid); });
    for (const ProgramModel& program : model.programs) {
        if (program.pcrPid != kNullPid) {  // else it has none
            want(program.pcrPid);
        }
    }
    for (const ProgramModel& program : model.programs) {
        std::ranges::for_each(program.streams, [&](const StreamModel& stream) { want(stream.pid); });
    }
    return wanted;
}

// Those that are wanted take places of others: of what nothing refers to before conditional access, and of
// those what is longest silent.
void StreamAnalysis::makeRoom(const std::vector<uint16_t>& wanted) {
    pids_.forgetRefused();
    std::bitset<kPidCount> kept;
    std::size_t missing = 0;
    for (const uint16_t pid : wanted) {
        kept.set(pid & (kPidCount - 1));
        missing += hasKeptPlace(pid) || pids_.known(pid) != nullptr ? 0 : 1;
    }
    if (missing <= pids_.room()) {
        return;
    }
    std::vector<PidRecord*> others;
    for (PidRecord* const record : pids_.all()) {
        if (!hasKeptPlace(record->pid) && !kept.test(record->pid)) {
            others.push_back(record);
        }
    }
    std::ranges::sort(others, {}, [this](const PidRecord* record) {
        return std::pair(referenced_.test(record->pid), record->state->lastSeen);
    });
    others.resize(std::min(others.size(), missing - pids_.room()));
    std::ranges::for_each(others, [this](PidRecord* record) { release(*record); });
}

void StreamAnalysis::giveBackSilent() {
    roomWanted_ = false;
    std::vector<PidRecord*> silent;
    for (PidRecord* const record : pids_.all()) {
        if (!referenced_.test(record->pid) && time_.now() - record->state->lastSeen > kSilentLimit) {
            silent.push_back(record);
        }
    }
    std::ranges::for_each(silent, [this](PidRecord* record) { release(*record); });
    pids_.forgetRefused();
}

void StreamAnalysis::release(PidRecord& record) {
    notTracked_ += record.state->packets;
    presence_->forget(record, momentAt(time_.now()));
    std::erase(clocks_, &record);
    pids_.release(record);
}

// Not from within a section: what reads it may go.
void StreamAnalysis::applyModel() {
    const ServiceModel& model = services_->model();
    modelChanged_ = false;
    modelRevision_ = model.revision;
    if (excerpt_ != nullptr) {
        excerpt_->setModel(model);
    }
    referenced_.reset();
    std::bitset<kPidCount> pmtPids;
    std::bitset<kPidCount> cuePids;
    for (uint16_t pid = 0; pid <= kLastReservedPid; ++pid) {
        refer(pid);
    }
    refer(kNullPid);
    if (model.networkPid) {
        refer(*model.networkPid);
    }
    std::ranges::for_each(model.emmPids, [this](uint16_t pid) { refer(pid); });
    for (PidRecord* const one : pids_.all()) {
        PidRecord& record = *one;
        record.stream = false;
        record.stillPicture = false;
        record.clockRecord = nullptr;
    }
    for (const ProgramModel& program : model.programs) {
        refer(program.pmtPid);
        pmtPids.set(program.pmtPid & (kPidCount - 1));
        refer(program.pcrPid);
        std::ranges::for_each(program.ecmPids, [this](uint16_t pid) { refer(pid); });
        for (const StreamModel& stream : program.streams) {
            refer(stream.pid);
            std::ranges::for_each(stream.ecmPids, [this](uint16_t pid) { refer(pid); });
        }
    }
    const std::vector<uint16_t> wanted = wantedPids(model);
    makeRoom(wanted);
    std::ranges::for_each(wanted, [this](uint16_t pid) { pids_.obtain(pid); });
    for (const ProgramModel& program : model.programs) {
        const PidRecord* const clock = clockRecordOf(program);
        for (const StreamModel& stream : program.streams) {
            PidRecord& record = pids_.obtain(stream.pid);
            if ((record.state->roles & kOverflowPid) == 0) {
                record.stream = true;
                record.kind = stream.kind;
                record.stillPicture = stream.stillPicture;
                record.clockRecord = clock;
            }
            if (stream.kind == StreamKind::kCue) {
                cuePids.set(stream.pid & (kPidCount - 1));
            }
        }
    }
    media_->setModel(model);
    const std::bitset<kPidCount> tables = pmtPids | cuePids;
    for (PidRecord* const one : pids_.all()) {
        PidRecord& record = *one;
        record.referenced = referenced_.test(record.pid);
        record.tables = pmtPids.test(record.pid);
        record.cues = cuePids.test(record.pid);
        record.state->media = record.stream && !tables.test(record.pid) ? media_->find(record.pid) : nullptr;
        record.state->roles &= static_cast<uint8_t>(~kMediaWanted);
        if (record.pid <= kLastReservedPid) {
            continue;
        }
        if (tables.test(record.pid) && !record.sections) {
            record.sections = std::make_unique<SectionAssembler>(record.pid);
            record.state->roles |= kSectionsPid;
        } else if (!tables.test(record.pid)) {
            record.sections.reset();
            record.state->roles &= static_cast<uint8_t>(~kSectionsPid);
        }
    }
    information_->setModel(model);
    presence_->setModel(model, referenced_, momentAt(time_.now()));
}

}  // namespace meter
