// A station with made-up states, for what serves them.
#pragma once

#include <cmath>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "measures/probeSample.h"
#include "state/commands.h"
#include "support/recordLine.h"

namespace station {

// Group 239.1.x.y of the channel with that number.
inline Group fakeGroup(std::size_t number) {
    return *Group::parse("239.1." + std::to_string(number / 250) + '.' + std::to_string(number % 250 + 1));
}

inline std::string fakeLine(records::Kind kind, const std::string& group, int pid) {
    const auto other = [](const records::Column& column) {
        return column.type == records::Type::kFraction ? "4.500000"
               : column.maximum < 7                    ? std::to_string(column.maximum)
                                                       : "7";
    };
    return recordLine(kind,
                      {{"group", group},
                       {"pid", std::to_string(pid)},
                       {"kind", pid < 0 ? "0" : "1"},
                       {"sourceAddress", "33554442"},
                       {"packetsReceived", "18446744073709551615"},
                       {"mdiDelayFactor", "nan"},
                       {"descriptorCount", "2"}},
                      other) +
           (pid < 0 ? "\n" : ";10;82\n");
}

// Answers on threads of its own, as the real one does.
class FakeStation : public StationInterface {
  public:
    explicit FakeStation(std::size_t channels, std::size_t pids = 2) {
        auto first = std::make_shared<StationState>();
        first->started = first->now.wall = kStart;
        first->configuration = std::make_shared<Configuration>();
        first->probe.connected = true;
        first->probe.lastRequest = first->probe.lastSnapshot = kStart;
        first->probe.sequence = 12;
        first->snapshot = std::make_shared<const records::Snapshot>();
        Alarm alarm;
        alarm.id = 7;
        alarm.type = *findAlarmType("continuity");
        alarm.raised = kStart;
        alarm.value = alarm.peak = 3;
        for (std::size_t i = 0; i < channels; ++i) {
            alarm.about = fakeGroup(i);
            first->channels.push_back(channel(i, pids, i == 0 ? std::vector{alarm} : std::vector<Alarm>{}));
        }
        alarm.about = fakeGroup(0);
        first->alarms.push_back(alarm);
        first->maintenance.push_back({.id = 8,
                                      .from = kStart,
                                      .until = kStart + std::chrono::hours(1),
                                      .group = {},
                                      .remark = "",
                                      .by = ""});
        first->notes = {"239.1.1.1 stands there twice"};
        publish(first);
    }

    StatePointer state() const override {
        const std::lock_guard lock(mutex_);
        return state_;
    }
    // The next state: the last one, changed, with the next numbers.
    void change(const std::function<void(StationState&)>& how) {
        auto next = std::make_shared<StationState>(*state());
        how(*next);
        publish(next);
    }
    void publish(const std::shared_ptr<StationState>& next) {
        const std::lock_guard lock(mutex_);
        next->number = ++number_;
        state_ = next;
    }

    bool command(Command&& command) override {
        return take([this, command = std::move(command)] {
            if (!mute) {
                command.answer(act(command.action));
            }
        });
    }
    bool queryEvents(const EventFilter& filter, EventStore::QueryAnswer answer) override {
        Event event;
        event.id = 7;
        event.time = kStart;
        event.group = fakeGroup(0);
        event.channel = "=HYPERLINK(\"x\")";
        event.alarm = "continuity";
        event.alarmId = 7;
        event.severity = Severity::kWarning;
        event.text = "12 packets lost, \"quoted\"\n";
        event.value = 12;
        std::vector<Event> events(std::min<std::size_t>(filter.limit, 3), event);
        return take([events, answer] { answer(std::vector(events), ""); });
    }
    bool queryReport(const ReportQuestion& question, EventStore::ReportAnswer answer) override {
        ReportRows rows;
        rows.observed = {question.time};
        if (!question.group || question.group == fakeGroup(0)) {
            rows.watched[fakeGroup(0)] = {question.time};
            rows.alarms = {{.type = *findAlarmType("no_signal"),
                            .group = fakeGroup(0),
                            .raised = question.time.from,
                            .cleared = question.time.from + std::chrono::seconds(36)}};
        }
        return take([rows, answer] { answer(ReportRows(rows), ""); });
    }
    bool queryLosses(LossQuestion&& question, LossAnswer answer) override {
        LossSums sums;
        if (question.counted.contains(fakeGroup(0))) {
            sums[fakeGroup(0)].add(kStart, 10, 990);
            sums[fakeGroup(0)].add(kStart + std::chrono::minutes(1), 0, 1000);
        }
        return take([sums, answer] { answer(LossSums(sums), ""); });
    }
    bool queryMinutes(const Group& /*group*/, WallTime since, WallTime until,
                      MinuteStore::Answer answer) override {
        Minutes minutes;
        for (WallTime time = std::max(since, until - std::chrono::minutes(3)); time < until;
             time += std::chrono::minutes(1)) {
            minutes.push_back({});
            minutes.back().wall = static_cast<uint32_t>(
                std::chrono::floor<std::chrono::seconds>(time.time_since_epoch()).count());
        }
        return take([minutes, answer] { answer(Minutes(minutes), ""); });
    }
    MinuteStore::Statistics historyStatistics() const override {
        return {};
    }
    std::optional<MeterReport> meterReport(const Group& group) const override {
        const std::lock_guard lock(mutex_);
        return group == fakeGroup(0) ? meterReport_ : std::nullopt;
    }
    MeterReports meterReports() const override {
        const std::lock_guard lock(mutex_);
        return meterReport_ ? MeterReports{{fakeGroup(0).hostOrder(), *meterReport_}} : MeterReports{};
    }
    std::vector<MeterCue> meterCues(const Group& group) const override {
        const std::lock_guard lock(mutex_);
        return group == fakeGroup(0) ? meterCues_ : std::vector<MeterCue>();
    }
    PicturePointer picture(const Group& group) const override {
        const std::lock_guard lock(mutex_);
        return group == fakeGroup(0) ? picture_ : nullptr;
    }
    void look(const Group& /*group*/) override {}
    void setMeterCues(std::vector<MeterCue> cues) {
        const std::lock_guard lock(mutex_);
        meterCues_ = std::move(cues);
    }
    void setMeterReport(std::optional<MeterReport> report) {
        const std::lock_guard lock(mutex_);
        meterReport_ = std::move(report);
    }
    EventStore::Statistics storeStatistics() const override {
        return {};
    }
    std::vector<Delivery::ReceiverStatistics> deliveryStatistics() const override {
        Delivery::ReceiverStatistics receiver;
        receiver.url = "http://127.0.0.1:9093";
        return {receiver};
    }

    std::atomic<bool> full = false;  // takes no commands
    std::atomic<bool> mute = false;  // takes them and never answers
    bool inlineAnswers = false;      // on the thread of the caller

    static constexpr WallTime kStart{std::chrono::hours(24 * 365 * 50)};

  private:
    // Whether there is room for it.
    bool take(const std::function<void()>& run) {
        if (full) {
            return false;
        }
        const std::lock_guard lock(mutex_);
        inlineAnswers ? run() : static_cast<void>(threads_.emplace_back(run));
        return true;
    }
    static std::shared_ptr<const ChannelState> channel(std::size_t number, std::size_t pids,
                                                       std::vector<Alarm> alarms) {
        const Group group = fakeGroup(number);
        std::string text = fakeLine(records::Kind::kStream, group.text(), -1);
        for (std::size_t i = 0; i < pids; ++i) {
            const auto kind = i == 0 ? records::Kind::kPat : records::Kind::kKnownPid;
            text += fakeLine(kind, group.text(), static_cast<int>(i * 16));
        }
        const auto snapshot = std::make_shared<records::Snapshot>(
            records::parseSnapshot(std::move(text), [](std::size_t, const std::string&) { std::abort(); }));
        const auto made = std::make_shared<ChannelState>(ChannelState{.channel = {.group = group}});
        made->alarms = std::move(alarms);
        made->snapshot = snapshot;
        made->lastSeen = kStart;
        made->channel.name = "Channel \"" + std::to_string(number) + "\" <script>";
        made->channel.labels = {{"site", "north"}, {"tvg-id", "a.b"}};
        made->status = made->alarms.empty() ? ChannelStatus::kOk : ChannelStatus::kAlarm;
        Measured& measured = made->measured[Source::kProbe];
        measured.shown = true;
        made->stream = &(*snapshot)[0];
        made->pids = {&*snapshot->begin() + 1, snapshot->size() - 1};
        measured.sample = makeSample(*made->stream, made->pids, nullptr, {});
        measured.sample.level(measureOf("bitRate")) = 4'000'000;
        measured.sample.level(measureOf("transportQualityIndex")) = 4.875;
        measured.sample.signal = true;
        for (Count& count : measured.sample.counts) {
            count.total = (uint64_t{1} << 53) + 1;
        }
        return made;
    }

    Answer act(const Action& action) {
        Answer answer;
        if (const auto* put = std::get_if<PutChannel>(&action)) {
            if (put->channel.profile == "unknown") {
                answer.refusal = Refusal{Refusal::Why::kInvalid, "profile", "no such profile"};
            } else {
                change([&](StationState& next) { addChannel(next, *put); });
            }
        } else if (std::holds_alternative<SetMaintenance>(action)) {
            answer.id = 8;
        } else if (std::holds_alternative<QueryHistory>(action)) {
            answer.series.assign(std::get<QueryHistory>(action).metrics.size(),
                                 {{kStart, 1, 2, 3}, {kStart, NAN, NAN, NAN}});
        } else if (const auto* asked = std::get_if<QueryOverview>(&action)) {
            for (const auto& one : state()->channels) {
                answer.overview.push_back(
                    {one->channel.group, std::vector<float>(asked->sparkCells, NAN), {}});
            }
        } else if (const auto* acknowledged = std::get_if<AcknowledgeAlarm>(&action)) {
            change([&](StationState& next) {
                next.alarms[0].acknowledged = Acknowledgement{kStart, acknowledged->by, acknowledged->remark};
            });
        }
        return answer;
    }
    static void addChannel(StationState& next, const PutChannel& put) {
        const auto made =
            std::make_shared<ChannelState>(ChannelState{.channel = {.group = put.channel.group}});
        made->channel.name = put.given.contains("name") ? put.channel.name : put.channel.group.text();
        std::erase_if(next.channels,
                      [&](const auto& one) { return one->channel.group == put.channel.group; });
        next.channels.push_back(made);
        std::ranges::sort(next.channels, {}, [](const auto& one) { return one->channel.group; });
        ++next.channelsVersion;
    }

    mutable std::recursive_mutex mutex_;  // guards everything below
    StatePointer state_;
    std::optional<MeterReport> meterReport_;
    std::vector<MeterCue> meterCues_;
    PicturePointer picture_ = std::make_shared<const StoredPicture>(
        StoredPicture{WallTime(std::chrono::seconds(1)), "\xFF\xD8\xFFx\xFF\xD9", "1-6"});
    uint64_t number_ = 0;
    std::vector<std::jthread> threads_;
};

}  // namespace station
