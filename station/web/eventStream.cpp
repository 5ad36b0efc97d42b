#include "web/eventStream.h"

#include "web/apiJson.h"
#include "web/gzip.h"

namespace station {

namespace {

constexpr std::size_t kSnapshot = 2;  // in kKinds

// What of the probe is told at once, whatever channels do.
std::string probeKey(const StationState& state) {
    const ProbeState& probe = state.probe;
    std::string key;
    for (const bool flag : {probe.connected, probe.asks, probe.secondAsker, probe.otherController}) {
        key += flag ? '1' : '0';
    }
    for (const std::string& text : {probe.problem, probe.pipeProblem, state.machine.worst()}) {
        key.append("\n").append(text);
    }
    return key;
}

// Counts of alarms and all rows: what stands behind the probe. A quote within a text is escaped, so that
// nothing else looks like this member.
std::string_view rowsOf(std::string_view text) {
    const std::size_t begin = text.find(",\"alarms\":");
    return begin == std::string_view::npos ? text : text.substr(begin);
}

PayloadPointer made(std::string&& text, const BudgetPointer& budget) {
    std::string piece = gzipPiece(text);
    return std::make_shared<Payload>(std::move(text), std::move(piece), budget);
}

// What a client gets first: also the head of what is compressed.
PayloadPointer greetingOf(std::string text) {
    std::string compressed = gzipStreamHead() + gzipPiece(text);
    return std::make_shared<Payload>(std::move(text), std::move(compressed));
}

}  // namespace

const std::array<EventStream::Kind, 3> EventStream::kKinds = {{
    {"channels", streamChannelsJson, [](const StationState& state) { return state.channelsVersion; }},
    {"alarm", streamAlarmJson, [](const StationState& state) { return state.alarmsVersion; }},
    {"snapshot", streamSnapshotJson, [](const StationState& state) { return state.number; }},
}};

EventStream::Known EventStream::known() const {
    Known known;
    known.lastNumber = lastNumber_;
    for (std::size_t i = 0; i < kKinds.size(); ++i) {
        known.versions[i] = newest_[i].version;
        known.there[i] = newest_[i].payload != nullptr;
    }
    known.snapshot = newest_[kSnapshot].payload;
    known.probe = probe_;
    known.snapshotMade = snapshotMade_;
    return known;
}

EventStream::Update EventStream::make(const StationState& state, const Known& known,
                                      const BudgetPointer& budget) {
    Update update;
    update.lastNumber = known.lastNumber;
    for (std::size_t i = 0; i < kKinds.size(); ++i) {
        update.versions[i] = kKinds[i].version(state);
        if (known.there[i] && known.versions[i] == update.versions[i]) {
            continue;
        }
        std::string text = "event: ";
        text.append(kKinds[i].name).append("\nid: ").append(std::to_string(update.lastNumber + 1));
        text.append("\ndata: ").append(kKinds[i].json(state)).append("\n\n");
        if (i == kSnapshot) {
            update.probe = probeKey(state);
            update.snapshotMade = state.now.steady;
            if (known.there[i] && state.now.steady - known.snapshotMade < kUnchangedEvery &&
                update.probe == known.probe && rowsOf(text) == rowsOf(known.snapshot->text())) {
                continue;
            }
        }
        ++update.lastNumber;
        update.payloads[i] = made(std::move(text), budget);
    }
    return update;
}

void EventStream::adopt(Update&& update) {
    for (std::size_t i = 0; i < kKinds.size(); ++i) {
        if (update.payloads[i] != nullptr) {
            newest_[i] = {std::move(update.payloads[i]), update.versions[i], ++lastNumber_};
        }
    }
    lastNumber_ = update.lastNumber;
    if (newest_[kSnapshot].version == update.versions[kSnapshot] && !update.probe.empty()) {
        probe_ = std::move(update.probe);
        snapshotMade_ = update.snapshotMade;
    }
}

void EventStream::forget() {
    newest_ = {};
}

PayloadPointer EventStream::next(Client& client, SteadyTime now) const {
    static const auto greeting = greetingOf("retry: 2000\n\n");
    static const auto comment = made(": still here\n\n", nullptr);
    if (!client.greeted_) {
        client.greeted_ = true;
        client.comment_ = now + kCommentEvery;
        return greeting;
    }
    if (now >= client.comment_) {
        client.comment_ = now + kCommentEvery;
        return comment;
    }
    for (std::size_t i = 0; i < kKinds.size(); ++i) {
        if (newest_[i].payload != nullptr && client.sent_[i] != newest_[i].number) {
            client.sent_[i] = newest_[i].number;
            return newest_[i].payload;
        }
    }
    return nullptr;
}

}  // namespace station
