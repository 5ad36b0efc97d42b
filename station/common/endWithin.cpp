#include "common/endWithin.h"

#include <cstdlib>
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

}  // namespace station
