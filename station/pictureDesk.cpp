#include "pictureDesk.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <span>
#include <utility>

namespace station {

namespace {

constexpr const Measure& kLuma = measureOf("picture.luma");
constexpr const Measure& kLight = measureOf("picture.light");
constexpr const Measure& kDifference = measureOf("picture.difference");
constexpr const Measure& kChange = measureOf("picture.change");
constexpr const Measure& kLoudness = measureOf("picture.loudness");

// Of a picture below it nobody could say whether it moves: that it is black is told.
constexpr double kBlackLight = 10;
constexpr double kRounds = 3;
// There while systemd starts kestor-picture with the others.
constexpr const char* kServiceEnabled = "/etc/systemd/system/kestor.target.wants/kestor-picture.service";
constexpr const char* kNoneWanted = "no pictures are wanted: cores = 0 in [pictures]";

double orUnknown(const std::optional<double>& value) {
    return value.value_or(std::numeric_limits<double>::quiet_NaN());
}

// What stands still between two pictures is known of these two alone: how far they are apart.
void sayInterval(std::span<AlarmChange> changes, const PictureFigures& figures) {
    static const std::size_t frozen = *findAlarmType("frozen");
    for (AlarmChange& change : changes) {
        if (change.what == AlarmChange::What::kRaised && change.alarm.type == frozen && figures.since) {
            const auto apart = std::chrono::round<std::chrono::seconds>(figures.time - *figures.since);
            change.text += "; the last two pictures are " + std::to_string(apart.count()) + " s apart";
        }
    }
}

std::string whyNone(const PictureState& state, bool seen) {
    if (state.connected && state.silent) {
        return "kestor-picture is connected and tells nothing";
    }
    if (!state.problem.empty()) {
        return state.problem;
    }
    if (state.connected) {
        return "kestor-picture gets no packets: is kestor-meter running?";
    }
    return std::string(seen ? "kestor-picture is not connected"
                            : "kestor-picture has not come since the station's start") +
           ": systemctl status kestor-picture; without pictures for good set socket = \"\" in [pictures]";
}

}  // namespace

ChannelSample sampleOf(const PictureFigures& figures) {
    ChannelSample sample;
    sample.source = Source::kPicture;
    sample.came = figures.time;
    sample.signal = figures.outcome == PictureOutcome::kTaken || figures.loudness.has_value();
    sample.level(kLuma) = orUnknown(figures.luma);
    sample.level(kDifference) = orUnknown(figures.difference);
    sample.level(kLoudness) = orUnknown(figures.loudness);
    if (figures.luma && figures.spread) {
        sample.level(kLight) = *figures.luma + 2 * *figures.spread;
    }
    if (!(sample.level(kLight) < kBlackLight)) {
        sample.level(kChange) = orUnknown(figures.change ? figures.change : figures.difference);
    }
    return sample;
}

void PictureDesk::start(const Configuration& configuration, std::string_view version,
                        std::function<void()> ready) {
    book_.setReady(std::move(ready));
    std::error_code error;
    enabled_ = configuration.pictures.socket == Configuration::Pictures().socket &&
               std::filesystem::is_symlink(kServiceEnabled, error);
    port_ = std::make_unique<PicturePort>(configuration.pictures.socket, std::string(version), book_);
}

void PictureDesk::tell(const ChannelMap& channels, const AlarmEngine& engine, double cores, const Now& now) {
    if (!port_) {
        return;
    }
    const std::set<uint32_t> lookedAt = book_.lookedAt(now.steady);
    std::vector<PicturedChannel> wanted;
    for (const auto& [group, channel] : channels) {
        if (channel.enabled) {
            wanted.push_back({group.hostOrder(), engine.status(group) == ChannelStatus::kAlarm,
                              lookedAt.contains(group.hostOrder())});
        }
    }
    port_->tell(std::move(wanted), cores);
}

void PictureDesk::take(const PictureFigures& figures, WatchedChannel& channel, ChannelWatch& watch,
                       AlarmEngine& engine, const Now& now, std::vector<AlarmChange>& changes) {
    static const auto ofPictures = {*findAlarmType("frozen"), *findAlarmType("black")};
    static const auto ofSound = {*findAlarmType("silent"), *findAlarmType("loudness_high")};
    const std::size_t before = changes.size();
    watch.observe(channel, sampleOf(figures), now, changes);
    sayInterval(std::span(changes).subspan(before), figures);
    const Group& group = channel.channel.group;
    Had& had = had_.try_emplace(group, Had{now.steady, now.steady}).first->second;
    if (figures.luma) {
        had.picture = now.steady;
    }
    if (figures.loudness) {
        had.sound = now.steady;
    }
    const auto hope = std::max<std::chrono::steady_clock::duration>(kLastHope, holds_);
    const auto giveUp = [&](std::span<const std::size_t> types, SteadyTime last, std::string_view what,
                            std::string_view why) {
        if (now.steady - last <= hope) {
            return;
        }
        const auto minutes = std::chrono::floor<std::chrono::minutes>(now.steady - last).count();
        for (const std::size_t type : types) {
            engine.giveUp(type, group,
                          "no " + std::string(what) + " for " + std::to_string(minutes) + " min" +
                              (why.empty() ? "" : " (" + std::string(why) + ")"),
                          now, changes);
        }
    };
    const std::string_view why = whyNoPicture(figures.outcome);
    giveUp(ofPictures, had.picture, "whole picture of the channel",
           why.empty() ? "Parts of them are lost" : why);
    giveUp(ofSound, had.sound, "sound that could be decoded", why);
}

std::vector<AlarmChange> PictureDesk::apply(ChannelWatch& watch, AlarmEngine& engine, const Now& now) {
    std::vector<AlarmChange> changes;
    const auto all = book_.takeFigures();
    auto next = all.begin();
    for (auto& [group, channel] : watch.channels()) {  // both in the order of addresses
        while (next != all.end() && next->first < group.hostOrder()) {
            ++next;
        }
        if (next != all.end() && next->first == group.hostOrder()) {
            take(next->second, channel, watch, engine, now, changes);
        }
    }
    if (had_.size() > watch.channels().size()) {
        std::erase_if(had_, [&watch](const auto& had) { return !watch.channels().contains(had.first); });
    }
    return changes;
}

bool PictureDesk::fresh(SteadyTime sample, SteadyTime now) const {
    return there_ && now - sample <= holds_;
}

std::vector<AlarmChange> PictureDesk::judgePresence(AlarmEngine& engine,
                                                    const Configuration::Pictures& settings, const Now& now) {
    const PictureState state = book_.state(now.steady);
    const bool wanted = settings.cores > 0;
    began_ = began_.value_or(now.steady);
    there_ = wanted && state.connected && !state.silent && state.meter;
    seen_ = seen_ || state.connected;
    holds_ = std::max<std::chrono::steady_clock::duration>(
        kFresh, std::chrono::milliseconds(std::llround(state.intervalSeconds.value_or(0) * kRounds * 1000)));
    std::vector<AlarmChange> changes;
    ConditionLook look{std::nullopt, now.steady, 0};
    if (there_) {
        silentSince_.reset();
        look.wrong = false;
    } else {
        silentSince_ = silentSince_.value_or(now.steady);
        const bool awaited = seen_ || ((settings.expected || enabled_) && now.steady - *began_ >= kFirst);
        if (!wanted) {
            look.wrong = false;
        } else if (state.configured && awaited) {
            look = {true, *silentSince_, 1};
        }
        if (now.steady - *silentSince_ > kLastHope) {
            engine.giveUpPictures(now, changes);
        }
    }
    const std::size_t given = changes.size();
    engine.judge(*findAlarmType("picture_silent"), Source::kPicture, look, now, changes);
    for (std::size_t i = given; i < changes.size(); ++i) {
        if (changes[i].what == AlarmChange::What::kRaised) {
            changes[i].text = whyNone(state, seen_);
        } else if (changes[i].what == AlarmChange::What::kCleared && !wanted) {
            changes[i].text = kNoneWanted;
        }
    }
    return changes;
}

}  // namespace station
