#include "watch.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "basics/descriptor.h"
#include "probeEndpoints.h"
#include "recordJson.h"
#include "stationClient.h"
#include "table.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
constexpr Clock::time_point kNoDeadline = Clock::time_point::max();

// A writer that never ends its snapshot must not fill the memory.
constexpr std::size_t kSnapshotLimit = std::size_t{64} << 20;

// The station has a new snapshot about once a second.
constexpr std::chrono::milliseconds kAsksStation = 200ms;

// The text of one snapshot: what a writer sends between opening and closing the pipe. Opened without
// waiting, so that the time can be limited; the writer waits for a reader anyway. Nothing when the time has
// passed or the pipe cannot be read, which is said on standard error.
std::optional<std::string> readSnapshot(Clock::time_point deadline) {
    const basics::Descriptor pipe{open(probelink::RESULTS_FIFO_PATH, O_RDONLY | O_NONBLOCK | O_CLOEXEC)};
    if (pipe.number() < 0) {
        fprintf(stderr, "kestorctl: cannot read %s: %s (is kestor running?)\n", probelink::RESULTS_FIFO_PATH,
                strerror(errno));
        return std::nullopt;
    }
    std::string text;
    std::array<char, 65536> buffer;
    for (;;) {
        int wait = -1;
        if (deadline != kNoDeadline) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
            wait = static_cast<int>(std::max<int64_t>(left.count(), 0));
        }
        pollfd item = {pipe.number(), POLLIN, 0};
        if (const int ready = poll(&item, 1, wait); ready == 0) {
            fputs("kestorctl: no snapshot in time (is kestor running, as kestor -s?)\n", stderr);
            return std::nullopt;
        }
        const ssize_t size = read(pipe.number(), buffer.data(), buffer.size());
        if (size == 0) {
            return text;
        }
        if (size > 0) {
            text.append(buffer.data(), static_cast<std::size_t>(size));
        } else if (errno != EAGAIN && errno != EINTR) {
            fprintf(stderr, "kestorctl: cannot read %s: %s\n", probelink::RESULTS_FIFO_PATH, strerror(errno));
            return std::nullopt;
        }
        if (text.size() > kSnapshotLimit) {
            fprintf(stderr, "kestorctl: a snapshot without end in %s\n", probelink::RESULTS_FIFO_PATH);
            return std::nullopt;
        }
    }
}

// The next snapshot from the station, or nothing at the deadline, which is said on standard error. Without a
// deadline a station that is restarted is waited for.
std::optional<std::string> askForSnapshot(StationClient& station, Clock::time_point deadline) {
    bool away = false;
    for (;;) {
        try {
            if (auto text = station.newSnapshot()) {
                return text;
            }
        } catch (const probelink::LinkError& error) {
            if (deadline != kNoDeadline) {
                throw;
            }
            if (!std::exchange(away, true)) {
                fprintf(stderr, "kestorctl: %s; waiting for it\n", error.what());
            }
        }
        if (Clock::now() > deadline) {
            fputs("kestorctl: no snapshot in time: the station has none from the probe (kestorctl status)\n",
                  stderr);
            return std::nullopt;
        }
        std::this_thread::sleep_for(kAsksStation);
    }
}

// Of the terminal; what is read by a program or from a file has all columns.
int tableWidth() {
    winsize size{};
    return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : kTableWidth;
}

void reportBadLine(std::size_t number, const std::string& problem) {
    fprintf(stderr, "kestorctl: line %zu skipped: %s\n", number, problem.c_str());
}

}  // namespace

int runWatch(const WatchOptions& options) {
    const bool redraw = !options.once && !options.json && isatty(STDOUT_FILENO) == 1;
    auto station = StationClient::find(options.station, options.timeout);
    for (;;) {
        const auto deadline = options.once ? Clock::now() + options.timeout : kNoDeadline;
        auto text = station ? askForSnapshot(*station, deadline) : readSnapshot(deadline);
        if (!text) {
            return 1;
        }
        const records::Snapshot snapshot = records::parseSnapshot(*std::move(text), reportBadLine);
        if (options.json) {
            for (const records::Record& record : snapshot) {
                // Text that is not UTF-8 can only come from a foreign writer.
                puts(toJson(record).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
            }
        } else {
            printf("%s%s%s", redraw ? "\033[H\033[J" : "", renderTable(snapshot, tableWidth()).c_str(),
                   options.once || redraw ? "" : "\n");
        }
        fflush(stdout);
        if (options.once) {
            return 0;
        }
    }
}
