// kestor-meter: measures what arrives, by the letter of the standards, and tells the station.
#include <net/if.h>
#include <systemd/sd-daemon.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "completion.h"
#include "joins.h"
#include "pictureLink.h"
#include "stationLink.h"
#include "usage.h"
#include "worker.h"

namespace {

constexpr unsigned kThreadsLimit = 16;
constexpr std::size_t kRingMibLeast = 8;  // libpcap takes a few blocks at least
constexpr std::size_t kRingMibLimit = 1024;
constexpr int kServeMs = 100;
constexpr int kServeSoonMs = 10;  // while joins wait for what is to see their first datagrams
// A thread that has not gone round for so long hangs: the service's watchdog is to have the program started
// anew.
constexpr int64_t kHangs = 20'000'000'000;

volatile std::sig_atomic_t ending = 0;

int64_t now() {
    return std::chrono::steady_clock::now().time_since_epoch() / std::chrono::nanoseconds(1);
}

// The interface that was named, or else the probe's, looked for until it is there, and again when it has
// gone: one that comes beside it changes nothing, and captures and joins are on the same one. Any thread.
class InterfaceChoice {
  public:
    explicit InterfaceChoice(std::string named) : named_(std::move(named)) {}

    // Empty: there is none.
    std::string name() {
        if (!named_.empty()) {
            return named_;
        }
        const std::lock_guard lock(mutex_);
        if (found_.empty() || if_nametoindex(found_.c_str()) == 0) {
            found_ = meterd::defaultInterface();
        }
        return found_;
    }

  private:
    const std::string named_;
    std::mutex mutex_;  // guards found_
    std::string found_;
};

meterd::CaptureMaker liveMaker(std::shared_ptr<InterfaceChoice> choice, const meterd::LiveOptions& options) {
    return [choice = std::move(choice), options] {
        meterd::LiveOptions chosen = options;
        chosen.interface = choice->name();
        if (chosen.interface.empty()) {
            throw std::runtime_error("no interface whose name contains eth0; --interface names another");
        }
        return meterd::openLive(chosen);
    };
}

meterd::CaptureMaker fileMaker(const std::string& file, meterd::Share share) {
    return [file, share] { return meterd::openFile(file, share); };
}

struct Arguments {
    std::string interface;
    std::string file;  // in place of an interface
    std::string socket = metering::kSocketPath;
    std::string codedSocket = picturing::kCodedSocket;  // empty: no pictures for anybody
    std::size_t ringMib = 64;
    unsigned threads = 1;
};

class Daemon {
  public:
    explicit Daemon(const Arguments& arguments)
        : choice_(std::make_shared<InterfaceChoice>(arguments.interface)),
          file_(arguments.file),
          link_(arguments.socket, KESTOR_VERSION, outbox_,
                {[this] {
                     for (const auto& worker : workers_) {
                         worker->describeAnew();
                     }
                 },
                 [this](const metering::Groups& groups) { watch(groups); }}) {
        for (unsigned i = 0; i < arguments.threads; ++i) {
            const meterd::LiveOptions options{{}, arguments.ringMib, {i, arguments.threads}};
            workers_.push_back(std::make_unique<meterd::Worker>(
                options.share, file_.empty() ? liveMaker(choice_, options) : fileMaker(file_, options.share),
                outbox_));
        }
        for (const auto& worker : workers_) {
            threads_.emplace_back([&worker](const std::stop_token& stop) { worker->run(stop); });
        }
        if (!arguments.codedSocket.empty()) {
            pictures_.emplace(arguments.codedSocket, KESTOR_VERSION,
                              [this](meterd::ExcerptWanted wanted) { hand(std::move(wanted)); });
            threads_.emplace_back([this](const std::stop_token& stop) {
                while (!stop.stop_requested()) {
                    pictures_->serve(kServeMs);
                }
            });
        }
    }

    void run() {
        while (ending == 0) {
            link_.serve(joinsWait_ ? kServeSoonMs : kServeMs);
            if ((joinsWait_ && allWatch()) || now() >= nextJoins_) {
                join();
            }
            logTrouble();
            if (now() >= nextTelling_) {
                nextTelling_ = now() + kTellingInterval;
                tellService();
            }
        }
    }

  private:
    static constexpr int64_t kJoinsInterval = 1'000'000'000;
    static constexpr int64_t kTellingInterval = 1'000'000'000;

    void watch(const metering::Groups& groups) {
        const auto list = std::make_shared<const meterd::WatchList>(meterd::watchListOf(groups));
        wanted_.clear();
        for (const meterd::Watch& watch : list->groups) {
            if (watch.join) {
                wanted_.push_back({watch.group, watch.settings.source});
            }
        }
        for (const auto& worker : workers_) {
            worker->watch(list);
        }
        joinsWait_ = true;
        nextJoins_ = now() + kJoinsInterval;
    }

    void hand(meterd::ExcerptWanted&& wanted) {
        const uint32_t group = wanted.group;
        (*std::ranges::find_if(workers_, [group](const auto& worker) {
            return worker->takes(group);
        }))->wantExcerpt(std::move(wanted));
    }

    bool allWatch() const {
        return std::ranges::all_of(workers_, [](const auto& worker) { return worker->watches(); });
    }

    // Into the log what keeps it from measuring, once.
    void logTrouble() {
        std::string trouble = joins_.failures() > 0 ? "groups are not joined: " + joins_.problem() : "";
        for (const auto& worker : workers_) {
            if (std::string problem = worker->problem(); !problem.empty()) {
                trouble = "nothing is captured: " + problem;
                break;
            }
        }
        if (trouble != trouble_) {
            fprintf(stderr, "%s\n", trouble.empty() ? "all is well again" : trouble.c_str());
            trouble_ = trouble;
        }
    }

    void tellService() {
        const int64_t overdue = now() - kHangs;
        const bool well =
            std::ranges::all_of(workers_, [&](const auto& worker) { return worker->lastTurn() > overdue; });
        sd_notify(0, !std::exchange(ready_, true) ? "READY=1\nWATCHDOG=1"
                     : well                       ? "WATCHDOG=1"
                                                  : "STATUS=hangs");
    }

    void join() {
        joinsWait_ = false;
        nextJoins_ = now() + kJoinsInterval;
        if (!file_.empty()) {
            return;
        }
        const std::string interface = choice_->name();
        const int index = interface.empty() ? 0 : static_cast<int>(if_nametoindex(interface.c_str()));
        std::vector<std::pair<uint32_t, int64_t>> groups;
        for (const meterd::JoinedGroup& joined : joins_.apply(index, wanted_)) {
            groups.emplace_back(joined.group, joined.at);
        }
        for (const auto& worker : workers_) {
            worker->setJoined({joins_.joined(), joins_.failures(), joins_.problem()});
            if (!groups.empty()) {
                worker->joined(groups);
            }
        }
    }

    const std::shared_ptr<InterfaceChoice> choice_;
    const std::string file_;
    bool ready_ = false;
    meterd::Outbox outbox_;
    std::vector<std::unique_ptr<meterd::Worker>> workers_;
    std::vector<meterd::Membership> wanted_;
    meterd::Joins joins_;
    int64_t nextJoins_ = 0;
    bool joinsWait_ = false;   // until workers watch the groups
    std::string trouble_;      // told last
    int64_t nextTelling_ = 0;  // to the service's watchdog; joins may come at any time
    meterd::StationLink link_;
    std::optional<meterd::PictureLink> pictures_;
    std::vector<std::jthread> threads_;  // last: they use what is above
};

}  // namespace

int main(int argc, char** argv) {
    CLI::App app(
        "Measures multicast transport streams as they arrive, by the letter of the standards, beside the "
        "probe. "
        "What to watch comes from kestor-station, which takes the measures.",
        "kestor-meter");
    shapeHelp(app);
    Arguments arguments;
    app.add_option("--interface", arguments.interface,
                   "Capture there; by default where the probe does, on eth0.");
    app.add_option("--file", arguments.file,
                   "Measure this recording (pcap, pcapng) in place of an interface, at its own pace.")
        ->type_name("FILE")
        ->excludes("--interface");
    app.add_option("--ring-mib", arguments.ringMib, "Size of each thread's ring, in MiB.")
        ->check(CLI::Range(kRingMibLeast, kRingMibLimit))
        ->capture_default_str();
    app.add_option("--threads", arguments.threads, "Share the groups among so many threads.")
        ->check(CLI::Range(1U, kThreadsLimit))
        ->capture_default_str();
    app.add_option("--socket", arguments.socket, "The station's socket.")->capture_default_str();
    app.add_option("--coded-socket", arguments.codedSocket,
                   "Where kestor-picture asks for coded pictures; empty: nobody gets any.")
        ->capture_default_str();
    app.set_version_flag("--version", std::string("kestor-meter ") + KESTOR_VERSION,
                         "Print the version and exit.");
    addCompletion(app);
    app.footer("Exit status: 0 when ended by a signal, 1 when it cannot run, 2 for a wrong command line.");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return reportUsage(app, error);
    }

    struct sigaction action {};
    action.sa_handler = [](int) { ending = 1; };
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
    signal(SIGPIPE, SIG_IGN);
    try {
        Daemon(arguments).run();
    } catch (const std::exception& error) {
        fprintf(stderr, "kestor-meter: %s\n", error.what());
        return 1;
    }
    return 0;
}
