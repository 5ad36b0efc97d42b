// Checks for what has to come often enough: PAT, PMTs, CAT, listed PIDs; and for PIDs that nobody refers to.
#pragma once

#include <bitset>
#include <vector>

#include "checks/checkBook.h"
#include "meter/settings.h"
#include "packets/pidTable.h"
#include "services/serviceModel.h"

namespace meter {

// A moment at which absences are looked for: stream time, the arrival that goes with it, and that of the look
// before.
struct Look {
    Ticks now = 0;
    Nanoseconds arrival = 0;
    Nanoseconds before = 0;

    // The arrival that goes with a limit that has passed since the look before.
    Nanoseconds passingOf(Ticks limit) const {
        return std::max(before, arrival - toNanoseconds(std::max<Ticks>(now - limit, 0)));
    }
};

// Something that has to come again within a limit.
struct Absence {
    Ticks last = 0;
    bool held = false;  // the limit was passed

    void came(Ticks now, Check check, Nanoseconds arrival, CheckBook& book) {
        last = now;
        if (held) {
            held = false;
            book.end(check, arrival);
        }
    }
    // Returns when the limit will be passed.
    Ticks look(const Look& at, Ticks limit, Check check, uint16_t pid, CheckBook& book) {
        if (!held && at.now - last > limit) {
            held = true;
            book.begin(check, pid, at.passingOf(last + limit), at.arrival);
        }
        return last + limit + 1;
    }
};

class Presence {
  public:
    Presence(const Settings& settings, PidTable& pids, CheckBook& book, Ticks begin);

    // Returns when the next limit is passed if nothing comes.
    Ticks look(const Look& at);
    void pat(const Moment& moment);
    void pmt(uint16_t pid, uint16_t program, const Moment& moment);
    void cat(const Moment& moment);
    // A scrambled packet of any PID.
    void scrambled(const Moment& moment);
    // A packet of a record with kUnknownPid: the first one, or the first since a limit was passed or since
    // nothing refers to the PID. Takes the role away.
    void appeared(PidRecord& record, const Moment& moment);
    // The tables say something else. The records' `referenced` and `referenced` by PID tell of it.
    void setModel(const ServiceModel& model, const std::bitset<kPidCount>& referenced, const Moment& moment);
    // The record is about to go. A PID that nothing refers to stays known as such.
    void forget(const PidRecord& record, const Moment& moment);

  private:
    struct Program {
        uint16_t number;
        uint16_t pid;
        Absence absence;
    };
    struct Listed {  // a PID of video or audio
        PidRecord* record;
        Absence absence;
    };

    Ticks pidLimit_;
    PidTable& pids_;
    CheckBook& book_;
    Absence pat_;
    std::vector<Program> programs_;  // kProgramsLimit
    std::vector<Listed> listed_;
    std::vector<PidRecord*> unreferenced_;  // seen for less than the limit
    std::vector<uint16_t> forgotten_;       // in order: 3.4.a holds for them, and they have no record
    bool catCame_ = false;
    bool catHeld_ = false;
    std::optional<Ticks> scrambledFrom_;  // packets each within the limit of the one before
    Ticks scrambledLast_ = 0;
};

}  // namespace meter
