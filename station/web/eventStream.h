// Server-sent events (HTML, clause 9.2): what is sent to whom, without the connections.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "state/state.h"
#include "web/message.h"

namespace station {

// Builds each event once for all clients and keeps the newest of each kind. There is no queue: a client that
// is not done with one gets the newest of the kinds that are due when it is. For the I/O thread, but for
// make().
class EventStream {
  public:
    static constexpr std::chrono::seconds kCommentEvery{15};
    // A snapshot that says of channels what the last one said is made so long after it at the earliest: the
    // station publishes a state between two of the probe.
    static constexpr std::chrono::milliseconds kUnchangedEvery{1500};

    // What a client is still owed, by kind of event.
    class Client {
        friend class EventStream;
        std::array<uint64_t, 3> sent_{};  // numbers of the payloads; 0 for none
        bool greeted_ = false;
        SteadyTime comment_{};  // when one is due
    };

    // The kinds that differ from what was built last, made anew.
    struct Update {
        std::array<PayloadPointer, 3> payloads;  // null: as it was
        std::array<uint64_t, 3> versions{};
        uint64_t lastNumber = 0;
        std::string probe;  // of the snapshot, where there is one
        SteadyTime snapshotMade{};
    };
    // What make() needs to know, taken on the I/O thread.
    struct Known {
        std::array<uint64_t, 3> versions{};
        std::array<bool, 3> there{};
        uint64_t lastNumber = 0;
        PayloadPointer snapshot;  // that was made last
        std::string probe;        // what mattered of the probe then
        SteadyTime snapshotMade{};
    };
    Known known() const;
    // Any thread: it takes as long as there are channels. Payloads are compressed as pieces (gzip.h) as well.
    static Update make(const StationState& state, const Known& known, const BudgetPointer& budget);
    void adopt(Update&& update);
    // When nobody listens: what is old is not to be sent to who comes next.
    void forget();
    // The next thing to send, which counts as sent; null when nothing is due.
    PayloadPointer next(Client& client, SteadyTime now) const;

  private:
    struct Kind {
        std::string_view name;
        std::string (*json)(const StationState& state);
        uint64_t (*version)(const StationState& state);
    };
    static const std::array<Kind, 3> kKinds;  // in the order in which they are sent

    struct Newest {
        PayloadPointer payload;
        uint64_t version = 0;
        uint64_t number = 0;  // of the payload, which is its id
    };
    std::array<Newest, 3> newest_;
    uint64_t lastNumber_ = 0;
    std::string probe_;
    SteadyTime snapshotMade_{};
};

}  // namespace station
