#include "service.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <ctime>

#include "basics/address.h"

namespace pictured {

namespace {

constexpr std::chrono::seconds kStatusInterval{1};
constexpr std::size_t kLeftOutTold = 1000;

int64_t wallNs() {
    return std::chrono::system_clock::now().time_since_epoch() / std::chrono::nanoseconds(1);
}

microseconds ownTime() {
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return std::chrono::duration_cast<microseconds>(std::chrono::seconds(time.tv_sec) +
                                                    std::chrono::nanoseconds(time.tv_nsec));
}

const char* problemOf(PictureVerdict verdict) {
    switch (verdict) {
        case PictureVerdict::kDamaged:
            return "the decoder made no picture of it";
        case PictureVerdict::kTooLarge:
            return "larger than 4096 by 2304";
        case PictureVerdict::kUnknownKind:
            return "a kind of picture that cannot be shown";
        default:
            return "";
    }
}

}  // namespace

Service::Service(Settings settings)
    : settings_(std::move(settings)),
      pool_(settings_.program, std::clamp(settings_.workers, 1U, Settings::kWorkersLimit),
            {[this](uint64_t id, Answer&& answer, microseconds cost) {
                 takeAnswer(id, std::move(answer), cost);
             },
             [this](uint64_t id, const std::string& why, microseconds cost) { takeDeath(id, why, cost); }}),
      meter_(settings_.codedSocket, settings_.version,
             {[this](picturing::Coded&& coded) { takeCoded(std::move(coded)); },
              [this] {
                  for (auto turn = underway_.begin(); turn != underway_.end();) {
                      if (turn->second.decodes) {
                          ++turn;
                      } else {
                          turns_.abandoned(turn->first);
                          turn = underway_.erase(turn);
                      }
                  }
              }}),
      station_(settings_.pictureSocket, settings_.version,
               {[this](ChannelList&& list) { takeChannels(std::move(list)); }, [] {}}) {
    metering::quietParser();
}

void Service::run(const volatile std::sig_atomic_t& ending, const std::function<void()>& alive) {
    while (ending == 0) {
        step();
        alive();
    }
}

void Service::step() {
    now_ = Clock::now();
    polls_.clear();
    meter_.addPolls(polls_, !pool_.full());
    station_.addPolls(polls_);
    pool_.addPolls(polls_);
    Time wake = std::min(now_ + kStatusInterval, turns_.nextAt(now_));
    if (const auto next = pool_.nextAt(now_)) {
        wake = std::min(wake, *next);
    }
    const auto wait = std::chrono::ceil<std::chrono::milliseconds>(std::max(wake - now_, Clock::duration(0)));
    if (poll(polls_.data(), polls_.size(), static_cast<int>(wait.count())) < 0) {
        for (pollfd& polled : polls_) {
            polled.revents = 0;
        }
    }
    now_ = Clock::now();
    const std::span<const pollfd> polls(polls_);
    meter_.serve(polls.first(MeterLink::kPolls), now_, turns_.openTurns() > 0);
    station_.serve(polls.subspan(MeterLink::kPolls, StationLink::kPolls), now_);
    pool_.serve(polls.subspan(MeterLink::kPolls + StationLink::kPolls), now_);
    expire(now_);
    ask(now_);
    if (now_ >= nextStatus_) {
        nextStatus_ = now_ + kStatusInterval;
        tellStatus(now_);
    }
}

microseconds Service::taken() const {
    return pool_.taken() + ownTime();
}

void Service::ask(Time now) {
    const microseconds all = taken();
    while (meter_.connected() && station_.connected() && !pool_.full()) {
        const auto turn = turns_.next(now, all);
        if (!turn) {
            return;
        }
        if (!meter_.ask(turn->group, turn->id, turn->audio)) {
            turns_.refused(turn->id, now);
            return;
        }
        underway_[turn->id] = Underway();
    }
}

void Service::expire(Time now) {
    for (const Turns::Turn& turn : turns_.begunBefore(now - picturing::kAnswerTime)) {
        const auto found = underway_.find(turn.id);
        if (found == underway_.end() || found->second.decodes) {
            continue;
        }
        picturing::Shot shot;
        shot.set_group(turn.group);
        shot.set_taken_ns(wallNs());
        shot.set_outcome(picturing::OUTCOME_NO_ANSWER);
        underway_.erase(found);
        turns_.finished(turn.id, now, {});
        tellShot(std::move(shot));
    }
}

void Service::takeChannels(ChannelList&& list) {
    listed_ = true;
    turns_.setChannels(list.channels, settings_.cores.value_or(list.cores));
    history_.keep([this](uint32_t group) { return turns_.has(group); });
    std::erase_if(underway_, [this](const auto& entry) {
        if (turns_.open(entry.first)) {
            return false;
        }
        pool_.drop(entry.first);
        return true;
    });
}

void Service::takeCoded(picturing::Coded&& coded) {
    const auto turn = turns_.open(coded.id());
    const auto found = underway_.find(coded.id());
    // Late, or about a channel that is gone.
    if (!turn || turn->group != coded.group() || found == underway_.end() || found->second.decodes) {
        return;
    }
    if (coded.outcome() == picturing::OUTCOME_BUSY) {
        underway_.erase(found);
        turns_.refused(turn->id, now_);
        return;
    }
    Underway& underway = found->second;
    underway = {true, coded.arrived_ns(), coded.outcome(), coded.video().codec()};
    if (coded.video().data().empty() && coded.audio().data().empty()) {
        picturing::Shot shot;
        shot.set_group(turn->group);
        shot.set_taken_ns(underway.takenNs);
        shot.set_outcome(underway.outcome);
        underway_.erase(found);
        turns_.finished(turn->id, now_, {});
        return tellShot(std::move(shot));
    }
    Job job;
    job.id = turn->id;
    job.videoCodec = static_cast<uint32_t>(coded.video().codec());
    job.video = std::move(*coded.mutable_video()->mutable_data());
    job.audioCodec = static_cast<uint32_t>(coded.audio().codec());
    job.audio = std::move(*coded.mutable_audio()->mutable_data());
    pool_.submit(std::move(job));
}

void Service::takeAnswer(uint64_t id, Answer&& answer, microseconds cost) {
    const auto turn = turns_.open(id);
    const auto found = underway_.find(id);
    if (!turn || found == underway_.end()) {
        return;
    }
    const Underway underway = found->second;
    underway_.erase(found);
    turns_.finished(id, now_, cost);
    picturing::Shot shot;
    shot.set_group(turn->group);
    shot.set_taken_ns(underway.takenNs);
    shot.set_outcome(underway.outcome);
    if (answer.head.sound == SoundVerdict::kMeasured) {
        shot.set_loudness_lufs(answer.head.loudness);
    }
    if (underway.outcome == picturing::OUTCOME_TAKEN) {
        if (answer.head.picture == PictureVerdict::kDecoded) {
            shot.set_jpeg(std::move(answer.jpeg));
            shot.set_width(answer.head.width);
            shot.set_height(answer.head.height);
            shot.set_codec(underway.codec);
            if (answer.head.whole != 0) {
                measure(shot, answer);
            } else {
                shot.set_problem("parts of it are lost, so that it is not measured");
            }
        } else {
            shot.set_outcome(picturing::OUTCOME_DAMAGED);
            shot.set_problem(problemOf(answer.head.picture));
        }
    }
    tellShot(std::move(shot));
}

void Service::measure(picturing::Shot& shot, const Answer& answer) {
    shot.set_luma_mean(answer.head.lumaMean);
    shot.set_luma_spread(answer.head.lumaSpread);
    if (const auto difference = history_.take(shot.group(), shot.taken_ns(), answer.head.width,
                                              answer.head.height, answer.raster)) {
        shot.set_difference(difference->mean);
        shot.set_difference_peak(difference->peak);
        shot.set_difference_since_ns(difference->since);
    }
}

void Service::takeDeath(uint64_t id, const std::string& why, microseconds cost) {
    const auto turn = turns_.open(id);
    underway_.erase(id);
    if (!turn) {
        return;
    }
    if (why.empty()) {  // no picture's fault
        turns_.finished(id, now_, {});
    } else {
        const std::size_t before = turns_.leftOut(now_).size();
        turns_.killed(id, now_, "its decoder " + why, cost);
        const bool leftOut = turns_.leftOut(now_).size() > before;
        fprintf(
            stderr, "%s: its decoder %s, and was replaced%s\n", basics::dotted(turn->group).c_str(),
            why.c_str(),
            leftOut ? "; that was the third time within an hour: no picture of it is taken for an hour" : "");
    }
    picturing::Shot shot;
    shot.set_group(turn->group);
    shot.set_taken_ns(wallNs());
    shot.set_outcome(picturing::OUTCOME_GAVE_UP);
    shot.set_problem(why.empty() ? pool_.problem() : "its decoder " + why);
    tellShot(std::move(shot));
}

void Service::tellShot(picturing::Shot&& shot) {
    ++(shot.outcome() == picturing::OUTCOME_TAKEN ? pictures_ : failures_);
    picturing::ToStation message;
    *message.mutable_shot() = std::move(shot);
    if (!station_.tell(message)) {
        ++dropped_;
    }
}

std::string Service::problem() const {
    if (listed_ && turns_.cores() <= 0) {
        return "no share of the machine is given to pictures (cores = 0)";
    }
    const std::string meter = meter_.problem();
    return meter.empty() ? pool_.problem() : meter;
}

void Service::tellStatus(Time now) {
    picturing::ToStation message;
    picturing::Status& status = *message.mutable_status();
    status.set_pictures(pictures_);
    status.set_failures(failures_);
    status.set_workers_killed(pool_.killed());
    status.set_processor_us(static_cast<uint64_t>(taken().count()));
    if (const auto interval = turns_.intervalSeconds()) {
        status.set_interval_s(*interval);
    }
    const int64_t wall = wallNs();
    for (const Turns::LeftOut& leftOut : turns_.leftOut(now)) {
        if (status.left_out_size() == static_cast<int>(kLeftOutTold)) {
            break;
        }
        picturing::LeftOutChannel& told = *status.add_left_out();
        told.set_group(leftOut.group);
        told.set_until_ns(wall + (leftOut.until - now) / std::chrono::nanoseconds(1));
        told.set_why(leftOut.why);
    }
    status.set_meter(meter_.connected());
    status.set_problem(problem());
    status.set_workers(pool_.running());
    status.set_dropped(dropped_);
    status.set_waiting(static_cast<uint32_t>(turns_.openTurns()));
    station_.tell(message);
}

}  // namespace pictured
