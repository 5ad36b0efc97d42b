// How much processor time may still be taken.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>

namespace pictured {

using Clock = std::chrono::steady_clock;
using Time = Clock::time_point;
using std::chrono::microseconds;

// A share of the machine, in processors, over time: what was taken is what the kernel counted, of whomever it
// is. More than kBurst is not saved up; what was taken too much is waited for. Time is given in.
class Share {
  public:
    // What is saved up at most, at the given pace.
    static constexpr std::chrono::seconds kBurst{1};

    void setCores(double cores) {
        cores_ = cores;
        credit_ = std::min(credit_, most());
    }
    double cores() const {
        return cores_;
    }

    // `taken`: processor time since the program began. `open`: turns that have yet to take theirs, for which
    // it is kept.
    void update(Time now, microseconds taken, std::size_t open) {
        if (last_ == Time{}) {
            credit_ = most();
        } else {
            const auto passed = std::chrono::duration<double, std::micro>(now - last_).count();
            credit_ += cores_ * passed - static_cast<double>((taken - taken_).count());
        }
        credit_ = std::min(credit_, most() + cost_ * static_cast<double>(open));
        last_ = now;
        taken_ = taken;
    }

    // Whether one more turn may begin, while `open` ones that have yet to take theirs are under way.
    bool allows(std::size_t open) const {
        return cores_ > 0 && credit_ > cost_ * static_cast<double>(open);
    }

    // For how long it will not allow one more, when nothing else is taken.
    Clock::duration wait(std::size_t open) const {
        const double missing = cost_ * static_cast<double>(open) - credit_;
        if (missing < 0 || cores_ <= 0) {
            return {};
        }
        constexpr double kLongest = 3.6e9;  // an hour
        return std::chrono::duration_cast<Clock::duration>(
            std::chrono::duration<double, std::micro>(std::min(missing / cores_ + 1, kLongest)));
    }

    // What one turn took.
    void spent(microseconds time) {
        constexpr double kWeight = 1.0 / 16;
        cost_ += kWeight * (static_cast<double>(time.count()) - cost_);
    }
    // Of a turn, in microseconds, lately.
    double cost() const {
        return cost_;
    }

  private:
    double most() const {
        return cores_ * std::chrono::duration<double, std::micro>(kBurst).count();
    }

    double cores_ = 0;
    double credit_ = 0;  // microseconds
    double cost_ = 20'000;
    Time last_{};
    microseconds taken_{};
};

}  // namespace pictured
