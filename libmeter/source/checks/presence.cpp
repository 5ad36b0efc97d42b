#include "checks/presence.h"

#include <algorithm>

#include "fields/sectionFields.h"

namespace meter {

Presence::Presence(const Settings& settings, PidTable& pids, CheckBook& book, Ticks begin)
    : pidLimit_(settings.pidAbsenceMs * kTicksPerMs), pids_(pids), book_(book), pat_{begin} {}

void Presence::pat(const Moment& moment) {
    pat_.came(moment.stream, Check::kPatError2, moment.arrival, book_);
}

void Presence::pmt(uint16_t pid, uint16_t program, const Moment& moment) {
    for (Program& known : programs_) {
        if (known.pid == pid && known.number == program) {
            known.absence.came(moment.stream, Check::kPmtError2, moment.arrival, book_);
        }
    }
}

void Presence::cat(const Moment& moment) {
    catCame_ = true;
    if (catHeld_) {
        catHeld_ = false;
        book_.end(Check::kCatError, moment.arrival);
    }
}

void Presence::scrambled(const Moment& moment) {
    if (catCame_ || catHeld_) {
        return;
    }
    if (!scrambledFrom_ || moment.stream - scrambledLast_ > kCatLimit) {
        scrambledFrom_ = moment.stream;
    }
    scrambledLast_ = moment.stream;
    if (moment.stream - *scrambledFrom_ > kCatLimit) {
        catHeld_ = true;
        book_.begin(Check::kCatError, kCatPid, moment.arrival, moment.arrival);
    }
}

void Presence::appeared(PidRecord& record, const Moment& moment) {
    record.state->roles &= static_cast<uint8_t>(~kUnknownPid);
    for (Listed& listed : listed_) {
        if (listed.record == &record) {
            listed.absence.came(moment.stream, Check::kPidError, moment.arrival, book_);
        }
    }
    if (const auto known = std::ranges::lower_bound(forgotten_, record.pid);
        known != forgotten_.end() && *known == record.pid) {
        forgotten_.erase(known);
        record.unreferencedHeld = true;
        record.unreferencedFrom = moment.stream;
    }
    if (!record.referenced && !record.unreferencedFrom) {
        record.unreferencedFrom = moment.stream;
        unreferenced_.push_back(&record);
    }
}

Ticks Presence::look(const Look& at) {
    Ticks next =
        std::min(at.now + kLookInterval, pat_.look(at, kPatLimit, Check::kPatError2, kPatPid, book_));
    if (pat_.held) {
        next = at.now + kLookInterval;
    }
    const auto consider = [&](const Absence& absence, Ticks limit) {
        if (!absence.held) {
            next = std::min(next, limit);
        }
    };
    for (Program& program : programs_) {
        consider(program.absence, program.absence.look(at, kPmtLimit, Check::kPmtError2, program.pid, book_));
    }
    for (Listed& listed : listed_) {
        Absence& absence = listed.absence;
        absence.last = std::max(absence.last, listed.record->state->lastSeen);
        consider(absence, absence.look(at, pidLimit_, Check::kPidError, listed.record->pid, book_));
        if (absence.held) {
            listed.record->state->roles |= kUnknownPid;
        }
    }
    std::erase_if(unreferenced_, [&](PidRecord* record) {
        const Ticks limit = *record->unreferencedFrom + kUnreferencedLimit;
        if (at.now <= limit) {
            next = std::min(next, limit + 1);
            return false;
        }
        record->unreferencedHeld = true;
        book_.begin(Check::kUnreferencedPid, record->pid, at.passingOf(limit), at.arrival);
        return true;
    });
    return next;
}

void Presence::forget(const PidRecord& record, const Moment& moment) {
    std::erase_if(listed_, [&](const Listed& listed) {
        if (listed.record == &record && listed.absence.held) {
            book_.end(Check::kPidError, moment.arrival);
        }
        return listed.record == &record;
    });
    std::erase(unreferenced_, &record);
    if (record.unreferencedHeld) {
        forgotten_.insert(std::ranges::lower_bound(forgotten_, record.pid), record.pid);
    }
}

void Presence::setModel(const ServiceModel& model, const std::bitset<kPidCount>& referenced,
                        const Moment& moment) {
    std::vector<Program> programs;
    std::vector<Listed> listed;
    for (const ProgramModel& program : model.programs) {
        const auto same = std::ranges::find_if(programs_, [&](const Program& known) {
            return known.number == program.number && known.pid == program.pmtPid;
        });
        if (pids_.known(program.pmtPid) != nullptr) {  // else nobody reads what comes there
            programs.push_back(
                same != programs_.end() ? *same : Program{program.number, program.pmtPid, {moment.stream}});
            if (same != programs_.end()) {
                same->absence.held = false;  // which goes on
            }
        }
        for (const StreamModel& stream : program.streams) {
            const bool watched = stream.kind == StreamKind::kVideo ||
                                 (stream.kind == StreamKind::kAudio && stream.audioType == 0);
            PidRecord& record = pids_.obtain(stream.pid);
            const auto is = [&](const Listed& known) { return known.record == &record; };
            if (!watched || (record.state->roles & kOverflowPid) != 0 ||
                std::ranges::find_if(listed, is) != listed.end()) {
                continue;
            }
            const auto before = std::ranges::find_if(listed_, is);
            listed.push_back(before != listed_.end() ? *before : Listed{&record, {moment.stream}});
            if (before != listed_.end()) {
                before->absence.held = false;
            }
        }
    }
    for (const Program& gone : programs_) {
        if (gone.absence.held) {
            book_.end(Check::kPmtError2, moment.arrival);
        }
    }
    for (const Listed& gone : listed_) {
        if (gone.absence.held) {
            book_.end(Check::kPidError, moment.arrival);
        }
    }
    programs_ = std::move(programs);
    listed_ = std::move(listed);

    for (PidRecord* const one : pids_.all()) {
        PidRecord& record = *one;
        if (!record.referenced) {
            if (!record.unreferencedFrom) {
                record.state->roles |= kUnknownPid;
            }
            continue;
        }
        if (record.unreferencedHeld) {
            record.unreferencedHeld = false;
            book_.end(Check::kUnreferencedPid, moment.arrival);
        }
        record.unreferencedFrom.reset();
    }
    std::erase_if(forgotten_, [&](uint16_t pid) {
        if (referenced.test(pid)) {
            book_.end(Check::kUnreferencedPid, moment.arrival);
        }
        return referenced.test(pid);
    });
    std::erase_if(unreferenced_, [](const PidRecord* record) { return record->referenced; });
}

}  // namespace meter
