#include "pictures/pictureBook.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <utility>

#include "common/text.h"
#include "pictureLimits.h"

namespace station {

namespace {

struct OutcomeRow {
    std::string_view name;
    std::string_view why;
};
// By PictureOutcome.
constexpr auto kOutcomes = std::to_array<OutcomeRow>({
    {"unknown", "No picture"},
    {"taken", ""},
    {"no_packets", "Nothing arrives"},
    {"scrambled", "Scrambled"},
    {"no_video", "No video"},
    {"no_random_access", "No picture to begin with"},
    {"too_large", "Picture too large"},
    {"unsupported_codec", "Codec not supported"},
    {"damaged", "Picture damaged"},
    {"gave_up", "Decoder gave up"},
    {"no_answer", "Meter does not answer"},
});

constexpr std::size_t kShownBytes = 200;
constexpr double kLumaLimit = 255;
constexpr double kLoudestLufs = 50;
constexpr uint32_t kSizeLimit = 16384;
constexpr double kIntervalLimit = 1e6;

PictureOutcome outcomeOf(picturing::Outcome outcome) {
    switch (outcome) {
        case picturing::OUTCOME_TAKEN:
            return PictureOutcome::kTaken;
        case picturing::OUTCOME_UNKNOWN_GROUP:
        case picturing::OUTCOME_NO_PACKETS:
            return PictureOutcome::kNoPackets;
        case picturing::OUTCOME_SCRAMBLED:
            return PictureOutcome::kScrambled;
        case picturing::OUTCOME_NO_VIDEO:
            return PictureOutcome::kNoVideo;
        case picturing::OUTCOME_NO_RANDOM_ACCESS:
            return PictureOutcome::kNoRandomAccess;
        case picturing::OUTCOME_TOO_LARGE:
            return PictureOutcome::kTooLarge;
        case picturing::OUTCOME_UNSUPPORTED_CODEC:
            return PictureOutcome::kUnsupportedCodec;
        case picturing::OUTCOME_DAMAGED:
            return PictureOutcome::kDamaged;
        case picturing::OUTCOME_GAVE_UP:
            return PictureOutcome::kGaveUp;
        case picturing::OUTCOME_NO_ANSWER:
            return PictureOutcome::kNoAnswer;
        default:
            return PictureOutcome::kUnknown;
    }
}

std::optional<double> within(bool there, double value, double least, double most) {
    return there && value >= least && value <= most ? std::optional(value) : std::nullopt;
}

// A time that this machine's clock can have had; else none.
std::optional<WallTime> wallTime(int64_t ns, WallTime now) {
    const WallTime time(std::chrono::milliseconds(ns / 1'000'000));
    return ns > 0 && time <= now + std::chrono::hours(24) ? std::optional(time) : std::nullopt;
}

}  // namespace

std::string_view pictureOutcomeName(PictureOutcome outcome) {
    return kOutcomes.at(static_cast<std::size_t>(outcome)).name;
}
std::string_view whyNoPicture(PictureOutcome outcome) {
    return kOutcomes.at(static_cast<std::size_t>(outcome)).why;
}

bool isJpeg(std::string_view bytes) {
    return bytes.size() > 4 && bytes.size() <= picturing::kJpegBytes && bytes.starts_with("\xFF\xD8\xFF") &&
           bytes.ends_with("\xFF\xD9");
}

PicturePointer PictureBook::find(const Group& group) const {
    const std::lock_guard lock(mutex_);
    const auto found = channels_.find(group.hostOrder());
    return found == channels_.end() ? nullptr : found->second.picture;
}

PictureBriefs PictureBook::briefs() const {
    const std::lock_guard lock(mutex_);
    PictureBriefs all;
    for (const auto& [group, channel] : channels_) {
        all.emplace_hint(all.end(), group,
                         PictureBrief{channel.picture ? channel.picture->taken : WallTime(), channel.last,
                                      channel.problem, WallTime()});
    }
    for (const PictureState::LeftOut& one : state_.leftOut) {
        if (const auto brief = all.find(one.group); brief != all.end()) {
            brief->second.leftOutUntil = one.until;
            brief->second.problem = one.why;
        }
    }
    return all;
}

PictureState PictureBook::state(SteadyTime now) const {
    const std::lock_guard lock(mutex_);
    PictureState state = state_;
    state.silent = state.connected && now - lastStatus_ > kSilence;
    return state;
}

void PictureBook::look(const Group& group, SteadyTime now) {
    const std::lock_guard lock(mutex_);
    if (watched_.contains(group.hostOrder())) {
        looks_[group.hostOrder()] = now;
    }
}

std::set<uint32_t> PictureBook::lookedAt(SteadyTime now) {
    const std::lock_guard lock(mutex_);
    std::erase_if(looks_, [now](const auto& look) { return now - look.second > kLookTime; });
    std::set<uint32_t> groups;
    for (const auto& [group, when] : looks_) {
        groups.insert(groups.end(), group);
    }
    return groups;
}

void PictureBook::setReady(std::function<void()> ready) {
    const std::lock_guard lock(mutex_);
    ready_ = std::move(ready);
}

std::map<uint32_t, PictureFigures> PictureBook::takeFigures() {
    const std::lock_guard lock(mutex_);
    return std::exchange(figures_, {});
}

void PictureBook::drop(Channel& channel) {
    if (channel.picture) {
        state_.bytes -= channel.picture->jpeg.size();
        --state_.held;
        channel.picture.reset();
    }
}

void PictureBook::watch(std::set<uint32_t> groups) {
    const std::lock_guard lock(mutex_);
    watched_ = std::move(groups);
    const auto gone = [this](const auto& entry) { return !watched_.contains(entry.first); };
    for (auto& entry : channels_) {
        if (gone(entry)) {
            drop(entry.second);
        }
    }
    std::erase_if(channels_, gone);
    std::erase_if(figures_, gone);
    std::erase_if(looks_, gone);
}

void PictureBook::setConfigured(bool configured) {
    const std::lock_guard lock(mutex_);
    state_.configured = configured;
}

void PictureBook::setProblem(const std::string& problem) {
    const std::lock_guard lock(mutex_);
    state_.problem = problem;
}

void PictureBook::connected(const std::string& version, const Now& now) {
    const std::lock_guard lock(mutex_);
    state_.connected = true;
    state_.version = version;
    state_.since = now.wall;
    state_.problem.clear();
    ++state_.connections;
    lastStatus_ = now.steady;
}

// What was taken stays, with its time.
void PictureBook::disconnected(const Now& now) {
    const std::lock_guard lock(mutex_);
    if (std::exchange(state_.connected, false)) {
        state_.since = now.wall;
    }
    state_.leftOut.clear();
    state_.intervalSeconds.reset();
    state_.meter = false;
}

void PictureBook::shot(picturing::Shot&& shot, const Now& now) {
    PictureFigures figures;
    figures.group = shot.group();
    figures.outcome = outcomeOf(shot.outcome());
    figures.time = wallTime(shot.taken_ns(), now.wall).value_or(now.wall);
    figures.loudness =
        within(shot.has_loudness_lufs(), shot.loudness_lufs(), picturing::kSilenceLufs, kLoudestLufs);
    const bool taken = figures.outcome == PictureOutcome::kTaken;
    const bool sound = !taken || (isJpeg(shot.jpeg()) && shot.width() > 0 && shot.width() <= kSizeLimit &&
                                  shot.height() > 0 && shot.height() <= kSizeLimit);
    if (taken && sound) {
        figures.width = shot.width();
        figures.height = shot.height();
        figures.luma = within(shot.has_luma_mean(), shot.luma_mean(), 0, kLumaLimit);
        figures.spread = within(shot.has_luma_spread(), shot.luma_spread(), 0, kLumaLimit);
        figures.difference = within(shot.has_difference(), shot.difference(), 0, kLumaLimit);
        figures.change = within(shot.has_difference_peak(), shot.difference_peak(), 0, kLumaLimit);
        figures.since =
            shot.has_difference_since_ns() ? wallTime(shot.difference_since_ns(), now.wall) : std::nullopt;
    } else if (taken) {
        figures.outcome = PictureOutcome::kDamaged;
    }
    std::function<void()> ready;
    {
        const std::lock_guard lock(mutex_);
        if (!sound) {
            ++state_.refused;
        }
        if (!watched_.contains(figures.group)) {
            return;
        }
        Channel& channel = channels_[figures.group];
        channel.last = figures;
        channel.problem = printable(shot.problem(), kShownBytes);
        if (figures.outcome == PictureOutcome::kTaken) {
            drop(channel);
            const std::string tag =
                std::to_string(shot.taken_ns()) + "-" + std::to_string(shot.jpeg().size());
            channel.picture = std::make_shared<const StoredPicture>(
                StoredPicture{figures.time, std::move(*shot.mutable_jpeg()), tag});
            state_.bytes += channel.picture->jpeg.size();
            ++state_.held;
        }
        // The newest of each group, which may be one without a picture.
        figures_.insert_or_assign(figures.group, figures);
        ready = ready_;
    }
    if (ready) {
        ready();
    }
}

void PictureBook::status(const picturing::Status& status, const Now& now) {
    const std::lock_guard lock(mutex_);
    lastStatus_ = now.steady;
    state_.meter = status.meter();
    state_.problem = printable(status.problem(), kShownBytes);
    state_.pictures = status.pictures();
    state_.failures = status.failures();
    state_.workersKilled = status.workers_killed();
    state_.dropped = status.dropped();
    state_.cpuSeconds = static_cast<double>(status.processor_us()) / 1e6;
    state_.intervalSeconds = within(status.has_interval_s(), status.interval_s(), 0, kIntervalLimit);
    state_.leftOut.clear();
    for (const picturing::LeftOutChannel& one : status.left_out()) {
        const auto until = wallTime(one.until_ns(), now.wall);
        if (state_.leftOut.size() < kLeftOutLimit && watched_.contains(one.group()) && until) {
            state_.leftOut.push_back({one.group(), *until, printable(one.why(), kShownBytes)});
        }
    }
}

}  // namespace station
