// Checks of the third priority for tables of ETSI EN 300 468: how often their sections come, and on which
// PIDs.
#pragma once

#include <map>
#include <vector>

#include "checks/presence.h"
#include "sections/section.h"
#include "services/serviceModel.h"

namespace meter {

// What a table's sections are held to (ETSI TR 101 290, 5.2.3). An own check for its faults;
// kSiRepetitionError counts those of repetition besides.
struct SiTable {
    uint8_t id;
    uint16_t pid;
    Ticks limit;    // longest interval; 0: none
    Check check;    // kSiRepetitionError: it has none of its own
    bool absence;   // held to the limit while nothing comes, too
    bool shortest;  // held to 25 ms between two equal sections
    bool pair;      // sections 0 and 1 belong together
};

class ServiceInformation {
  public:
    // Sections of sub-tables that are told apart; what is beyond is not held to intervals, and finds room
    // when others did not come for a minute.
    static constexpr std::size_t kSectionsLimit = 1024;
    // Of them for tables that are not held to an interval while nothing comes.
    static constexpr std::size_t kOthersLimit = 768;

    ServiceInformation(bool required, CheckBook& book, Ticks begin);

    // A section with a right CRC of PID 16 to 20.
    void section(const Section& section);
    // Returns when the next limit is passed if nothing comes.
    Ticks look(const Look& at);
    // The tables say something else: services that a PAT lists no more may go.
    void setModel(const ServiceModel& model);

  private:
    // table_id, extension, section_number and what else tells sub-tables apart, in one number.
    using Key = uint64_t;
    struct Known {
        const SiTable* table;
        Ticks last;
        bool held = false;               // the limit was passed
        std::optional<Ticks> aloneFrom;  // since when the other of a pair is missing
        bool aloneHeld = false;
    };
    struct Never {  // a required table that did not come yet
        const SiTable* table;
        Absence absence;
    };

    void repetitionFault(const SiTable& table, Nanoseconds from, Nanoseconds to);
    void beginFault(const SiTable& table, Nanoseconds from, Nanoseconds to);
    void endFault(const SiTable& table, Nanoseconds at);
    void checkPair(Key key, Known& known, const Section& section);
    bool hasRoom(const SiTable& table, Ticks now);
    bool isGone(Key key, const Known& known) const;
    void forgetBeyond(Key key, uint8_t lastNumber, Nanoseconds arrival);

    CheckBook& book_;
    std::map<Key, Known> known_;
    std::size_t others_ = 0;  // of known_, those of tables without absence
    Ticks roomLookedAt_ = 0;
    bool patKnown_ = false;
    std::vector<uint16_t> programs_;  // of the PAT, in order
    std::vector<Never> never_;
};

}  // namespace meter
