#include "web/eventStream.h"

#include "web/apiJson.h"

namespace station {

const std::array<EventStream::Kind, 3> EventStream::kKinds = {{
    {"channels", streamChannelsJson, [](const StationState& state) { return state.channelsVersion; }},
    {"alarm", streamAlarmJson, [](const StationState& state) { return state.alarmsVersion; }},
    {"snapshot", streamSnapshotJson, [](const StationState& state) { return state.number; }},
}};

void EventStream::update(const StationState& state) {
    for (std::size_t i = 0; i < kKinds.size(); ++i) {
        const uint64_t version = kKinds[i].version(state);
        Newest& newest = newest_[i];
        if (newest.payload != nullptr && newest.version == version) {
            continue;
        }
        newest.version = version;
        newest.number = ++lastNumber_;
        std::string text = "event: ";
        text.append(kKinds[i].name).append("\nid: ").append(std::to_string(newest.number));
        text.append("\ndata: ").append(kKinds[i].json(state)).append("\n\n");
        newest.payload = std::make_shared<Payload>(std::move(text));
    }
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
        if (client.sent_[i] != newest_[i].number) {
            client.sent_[i] = newest_[i].number;
            return newest_[i].payload;
        }
    }
    return nullptr;
}

}  // namespace station
