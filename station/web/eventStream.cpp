#include "web/eventStream.h"

#include "web/apiJson.h"

namespace station {

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
        text.append(kKinds[i].name).append("\nid: ").append(std::to_string(++update.lastNumber));
        text.append("\ndata: ").append(kKinds[i].json(state)).append("\n\n");
        update.payloads[i] = std::make_shared<Payload>(std::move(text), std::string(), budget);
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
}

void EventStream::forget() {
    newest_ = {};
}

PayloadPointer EventStream::next(Client& client, SteadyTime now) const {
    static const auto greeting = std::make_shared<const Payload>("retry: 2000\n\n");
    static const auto comment = std::make_shared<const Payload>(": still here\n\n");
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
