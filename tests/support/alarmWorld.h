// A channel whose alarms are judged once a second, and scripts of what befalls it.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "alarms/alarmEngine.h"
#include "support/movedTime.h"

namespace station {

inline const Group kGroup = *Group::parse("239.1.1.1");

inline std::size_t typeOf(std::string_view alarm) {
    return findAlarmType(alarm).value();
}

// "raised continuity", and by whom where that is the meter.
inline std::string textOf(const AlarmChange& change) {
    static constexpr std::array<std::string_view, 4> kWhat = {"raised", "cleared", "happened",
                                                              "acknowledged"};
    return std::string(kWhat.at(static_cast<std::size_t>(change.what))) + " " +
           std::string(alarmTypes()[change.alarm.type].name) +
           (change.alarm.source == Source::kMeter ? " by meter" : "");
}

struct AlarmWorld {
    AlarmEngine engine;
    Profiles profiles{{"default", defaultRules()}};
    Judges judges;
    ChannelMap channels{{kGroup, Channel{.group = kGroup, .name = "News"}}};
    Now now{SteadyTime(std::chrono::seconds(1000)), WallTime(std::chrono::seconds(1'700'000'000))};
    int second = 0;
    int64_t nextId = 1;
    std::string log;  // "5:raised continuity" and so on

    AlarmWorld() {
        configure();
    }
    virtual ~AlarmWorld() = default;

    // What sources see of the channel, and what the engine makes of it.
    virtual void look() = 0;

    AlarmRules& rule(std::string_view type) {
        return profiles["default"][typeOf(type)];
    }
    void enable(std::string_view type, bool on = true) {
        rule(type).enabled = on;
        configure();
    }
    void configure() {
        tell(engine.configure(profiles, channels, now, judges));
    }
    void tell(const std::vector<AlarmChange>& changes) {
        for (const AlarmChange& change : changes) {
            log += (log.empty() ? "" : ", ") + std::to_string(second) + ':' + textOf(change);
            EXPECT_FALSE(change.text.empty() && change.what != AlarmChange::What::kAcknowledged);
            if (change.what == AlarmChange::What::kRaised) {
                engine.setRaise(change.alarm.type, change.alarm.about, nextId++, change.text);
            }
        }
    }
    void run(int seconds) {
        for (int i = 0; i < seconds; ++i) {
            now += std::chrono::seconds(1);
            ++second;
            look();
        }
    }
};

template <typename World>
struct AlarmDeed {
    int second;
    std::function<void(World&)> what;
};

template <typename World>
struct AlarmScript {
    const char* name;
    std::vector<AlarmDeed<World>> deeds;  // each before the second's look
    std::string expected;                 // the log up to the script's end: "5:raised crc, 40:end"
};

template <typename World>
void expectAlarms(const std::vector<AlarmScript<World>>& scripts) {
    for (const AlarmScript<World>& script : scripts) {
        World world;
        const int end = std::stoi(script.expected.substr(script.expected.rfind(' ') + 1));
        for (int second = 1; second <= end; ++second) {
            for (const AlarmDeed<World>& deed : script.deeds) {
                if (deed.second == second) {
                    deed.what(world);
                }
            }
            world.run(1);
        }
        world.log += (world.log.empty() ? "" : ", ") + std::to_string(end) + ":end";
        EXPECT_EQ(world.log, script.expected) << script.name;
    }
}

}  // namespace station
