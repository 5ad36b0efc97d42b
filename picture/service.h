// kestor-picture between meter and station: asks for coded pictures, has them decoded, tells what became of
// them.
#pragma once

#include <csignal>
#include <functional>
#include <map>
#include <string>

#include "history.h"
#include "links.h"
#include "turns.h"
#include "workerPool.h"

namespace pictured {

struct Settings {
    std::string program;  // for workers: of this program
    std::string version;
    std::string codedSocket = picturing::kCodedSocket;
    std::string pictureSocket = picturing::kPictureSocket;
    std::optional<double> cores;  // in place of the station's
    // Started as they are needed: a share below one keeps one busy, and others come up while it is held up.
    unsigned workers = 4;
    static constexpr unsigned kWorkersLimit = 8;
};

// One loop on one thread owns everything; nothing in it waits but poll().
class Service {
  public:
    explicit Service(Settings settings);
    // Serves until `ending` is set. `alive` is called at least once a second.
    void run(const volatile std::sig_atomic_t& ending, const std::function<void()>& alive);

  private:
    // A turn between its request and its end.
    struct Underway {
        bool decodes = false;  // the meter has answered
        int64_t takenNs = 0;
        picturing::Outcome outcome = picturing::OUTCOME_UNKNOWN;
        picturing::VideoCodec codec = picturing::VIDEO_UNKNOWN;
    };

    void step();
    void ask(Time now);
    void expire(Time now);
    void takeChannels(ChannelList&& list);
    void takeCoded(picturing::Coded&& coded);
    void takeAnswer(uint64_t id, Answer&& answer, microseconds cost);
    void takeDeath(uint64_t id, const std::string& why, microseconds cost);
    // Of a picture that is whole.
    void measure(picturing::Shot& shot, const Answer& answer);
    void tellShot(picturing::Shot&& shot);
    void tellStatus(Time now);
    std::string problem() const;
    microseconds taken() const;

    const Settings settings_;
    Turns turns_;
    History history_;
    std::map<uint64_t, Underway> underway_;
    WorkerPool pool_;
    MeterLink meter_;
    StationLink station_;
    bool listed_ = false;  // a station said what is wanted
    std::vector<pollfd> polls_;
    Time now_{};  // of this step
    Time nextStatus_{};
    uint64_t pictures_ = 0;
    uint64_t failures_ = 0;
    uint64_t dropped_ = 0;
};

}  // namespace pictured
