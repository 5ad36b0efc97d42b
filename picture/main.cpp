// kestor-picture: shows what the channels show, and says whether it is frozen, black or silent.
#include <systemd/sd-daemon.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <csignal>
#include <cstdio>

#include "completion.h"
#include "service.h"
#include "trial.h"
#include "usage.h"
#include "workerLoop.h"

namespace {

// Of this program whatever has become of its file: workers and who started them are of one version.
constexpr const char* kThisProgram = "/proc/self/exe";
constexpr double kCoresLimit = pictured::StationSession::kCoresLimit;

volatile std::sig_atomic_t ending = 0;

void serve(pictured::Settings settings) {
    struct sigaction action {};
    action.sa_handler = [](int) { ending = 1; };
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
    signal(SIGPIPE, SIG_IGN);
    pictured::Service service(std::move(settings));
    sd_notify(0, "READY=1");
    pictured::Time nextTelling{};
    service.run(ending, [&nextTelling] {
        const pictured::Time now = pictured::Clock::now();
        if (now >= nextTelling) {
            nextTelling = now + std::chrono::seconds(1);
            sd_notify(0, "WATCHDOG=1");
        }
    });
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app(
        "Decodes a picture of each channel in turn, and two seconds of its sound, for the station's wall and "
        "its "
        "alarms. What to show comes from kestor-station, the coded pictures from kestor-meter.",
        "kestor-picture");
    shapeHelp(app);
    pictured::Settings settings;
    settings.program = kThisProgram;
    settings.version = KESTOR_VERSION;
    pictured::Trial trial;
    trial.program = kThisProgram;
    bool worker = false;
    double cores = 0;
    app.add_option("--coded", settings.codedSocket, "Where the meter connects.")->capture_default_str();
    app.add_option("--station", settings.pictureSocket, "The station's socket.")->capture_default_str();
    const auto* coresOption =
        app.add_option("--cores", cores,
                       "Take so many processors' time at most, in place of what the station says.")
            ->check(CLI::Range(0.0, kCoresLimit));
    app.add_option("--workers", settings.workers, "Decode at most so many pictures at once.")
        ->check(CLI::Range(1U, pictured::Settings::kWorkersLimit))
        ->capture_default_str();
    app.add_option(
           "--try", trial.picture,
           "Decode this picture (.m2v, .h264, .h265: an elementary stream with one I picture), print its "
           "figures and exit.")
        ->type_name("FILE");
    app.add_option("--sound", trial.sound, "Likewise this sound (.mp2, .mp3, .aac, .latm, .ac3, .eac3).")
        ->type_name("FILE");
    app.add_option("--jpeg", trial.jpeg, "With --try: write what people would see there.")->type_name("FILE");
    app.add_flag("--worker", worker)->group("");  // how it runs itself
    app.set_version_flag("--version", std::string("kestor-picture ") + KESTOR_VERSION,
                         "Print the version and exit.");
    addCompletion(app);
    app.footer(
        "Exit status: 0 when ended by a signal, 1 when it cannot run or what is tried is damaged, 2 for a "
        "wrong "
        "command line.");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return reportUsage(app, error);
    }
    if (coresOption->count() > 0) {
        settings.cores = cores;
    }
    try {
        if (worker) {
            return pictured::runWorker(pictured::kWorkerSocket);
        }
        if (!trial.picture.empty() || !trial.sound.empty()) {
            return pictured::tryFiles(trial) ? 0 : 1;
        }
        serve(settings);
    } catch (const std::exception& error) {
        fprintf(stderr, "kestor-picture: %s\n", error.what());
        return 1;
    }
    return 0;
}
