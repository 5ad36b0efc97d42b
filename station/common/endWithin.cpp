#include "common/endWithin.h"

#include <signal.h>

#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <thread>

#include "common/log.h"

namespace station {

namespace {

constexpr std::chrono::milliseconds kFlush{100};

}  // namespace

void endWithin(std::chrono::milliseconds time, int status) {
    std::thread([time, status] {
        std::this_thread::sleep_for(time);
        log(LogLevel::kError, "a disk hangs: the station ends without what could not be written to it");
        flushLog(kFlush);
        _Exit(status);
    }).detach();
}

namespace {

constexpr std::chrono::milliseconds kLooks{50};

bool endIsAsked() {
    sigset_t waiting;
    return sigpending(&waiting) == 0 &&
           (sigismember(&waiting, SIGTERM) == 1 || sigismember(&waiting, SIGINT) == 1);
}

}  // namespace

EndOnSignal::EndOnSignal(std::chrono::milliseconds time)
    : thread_([time](const std::stop_token& stop) {
          std::mutex mutex;
          std::condition_variable_any never;
          std::unique_lock lock(mutex);
          while (!stop.stop_requested() && !endIsAsked()) {
              never.wait_for(lock, stop, kLooks, [] { return false; });
          }
          if (!stop.stop_requested()) {
              endWithin(time, 0);
          }
      }) {}

EndOnSignal::~EndOnSignal() = default;

}  // namespace station
