#include "probe/pipeReader.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "basics/descriptor.h"
#include "common/log.h"

namespace station {

namespace {

using basics::Descriptor;
using namespace std::chrono_literals;
using std::chrono::microseconds;
using std::chrono::steady_clock;

constexpr std::chrono::milliseconds kRetry = 200ms;  // while there is no pipe
constexpr std::chrono::milliseconds kLookAgain =
    500ms;                           // whether the pipe was made anew, while nothing comes
constexpr int kPipeBytes = 1 << 20;  // what an unprivileged process may ask for; 64 KiB without
constexpr std::size_t kReadBytes = std::size_t{1} << 20;

}  // namespace

struct PipeReader::Implementation {
    const std::filesystem::path path;
    const std::function<void(RawSnapshot&&)> deliver;
    const std::size_t limit;
    const Descriptor wake{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};

    mutable std::mutex mutex;  // guards `shared`
    Statistics shared;

    // Below: the reader's thread alone.
    Descriptor pipe;
    struct stat identity {};
    std::size_t capacity = 0;
    std::vector<char> buffer = std::vector<char>(kReadBytes);
    std::string text;
    std::size_t lastSize = 0;
    bool begun = false;
    bool overLimit = false;
    std::size_t leftOut = 0;  // bytes of it since that was told
    Now began{};
    steady_clock::time_point lastRead;
    LogOnChange trouble;
    LogOnChange sizeTrouble;
    std::jthread thread;

    Implementation(std::filesystem::path path_, std::function<void(RawSnapshot&&)> deliver_,
                   std::size_t limit_)
        : path(std::move(path_)), deliver(std::move(deliver_)), limit(limit_) {}

    void run(const std::stop_token& stop) {
        while (!stop.stop_requested()) {
            if (pipe.number() < 0 && !openPipe()) {
                sleepFor(kRetry);
                continue;
            }
            pollfd items[2] = {{pipe.number(), POLLIN, 0}, {wake.number(), POLLIN, 0}};
            const int ready = poll(items, 2, static_cast<int>(kLookAgain.count()));
            if (ready == 0) {
                replaceIfMadeAnew();
            } else if (items[0].revents != 0) {
                readOnce();
            }
        }
    }

    void sleepFor(std::chrono::milliseconds time) const {
        pollfd item = {wake.number(), POLLIN, 0};
        poll(&item, 1, static_cast<int>(time.count()));
    }

    void fail(const std::string& problem) {
        trouble.say(LogLevel::kWarning, problem);
        const std::lock_guard lock(mutex);
        shared.problem = problem;
    }

    // Opens the pipe, and only then leaves the one that was open.
    bool openPipe() {
        Descriptor opened(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
        struct stat status {};
        if (opened.number() < 0 || fstat(opened.number(), &status) != 0) {
            fail("cannot read " + path.string() + ": " + strerror(errno) +
                 "; waiting for kestor -s to make it");
            pipe = Descriptor();
            return false;
        }
        if (!S_ISFIFO(status.st_mode)) {
            fail(path.string() + " is not a pipe; remove it and start kestor -s again");
            pipe = Descriptor();
            return false;
        }
        // A larger pipe lets the probe go on while this thread waits for a processor. The kernel may refuse.
        fcntl(opened.number(), F_SETPIPE_SZ, kPipeBytes);
        capacity = static_cast<std::size_t>(std::max(fcntl(opened.number(), F_GETPIPE_SZ), 1));
        identity = status;
        pipe = std::move(opened);
        trouble.resolved("reading " + path.string());
        const std::lock_guard lock(mutex);
        shared.problem.clear();
        return true;
    }

    void replaceIfMadeAnew() {
        struct stat status {};
        if (stat(path.c_str(), &status) != 0 || status.st_ino != identity.st_ino ||
            status.st_dev != identity.st_dev) {
            dropCut();
            openPipe();
        }
    }

    void readOnce() {
        int waiting = 0;
        const bool full = ioctl(pipe.number(), FIONREAD, &waiting) == 0 && begun &&
                          static_cast<std::size_t>(waiting) >= capacity;
        const ssize_t size = read(pipe.number(), buffer.data(), buffer.size());
        const auto now = steady_clock::now();
        if (full) {
            const std::lock_guard lock(mutex);
            shared.longestFull =
                std::max(shared.longestFull, std::chrono::duration_cast<microseconds>(now - lastRead));
        }
        lastRead = now;
        if (size > 0) {
            append({buffer.data(), static_cast<std::size_t>(size)});
        } else if (size == 0) {
            handOver();
            openPipe();
        } else if (errno != EAGAIN && errno != EINTR) {
            fail("cannot read " + path.string() + ": " + strerror(errno));
            dropCut();
            pipe = Descriptor();
        }
    }

    void append(std::string_view part) {
        if (!begun) {
            begun = true;
            began = systemNow();
            text.reserve(lastSize + lastSize / 8);
        }
        if (!overLimit && text.size() + part.size() <= limit) {
            text += part;
            return;
        }
        // Told before its end comes: a writer that never closes the pipe gives none.
        leftOut += part.size();
        if (!overLimit || leftOut > limit) {
            tellTooLarge();
        }
        text = {};
    }

    // The writer is gone: what it sent is a snapshot if its last line is whole.
    void handOver() {
        if (overLimit) {
            begun = false;  // it is not counted as cut as well
            dropCut();
            return;
        }
        if (!text.empty() && text.back() != '\n') {
            dropCut();
            return;
        }
        const Now ended = systemNow();
        if (!text.empty()) {
            sizeTrouble.resolved("snapshots of the probe are small enough again");
        }
        lastSize = text.size();
        deliver({std::exchange(text, {}), begun ? began : ended, ended});
        begun = false;
    }

    void tellTooLarge() {
        sizeTrouble.say(
            LogLevel::kError,
            "a snapshot of the probe is larger than " + std::to_string(limit) +
                " bytes and is dropped, as all like it will be: watch fewer channels, or find out which "
                "has thousands of PIDs");
        leftOut = 0;
        const std::lock_guard lock(mutex);
        shared.tooLarge += overLimit ? 0 : 1;
        shared.lastTooLarge = steady_clock::now();
        overLimit = true;
    }

    void dropCut() {
        if (begun) {
            const std::lock_guard lock(mutex);
            ++shared.cut;
        }
        text.clear();
        begun = false;
        overLimit = false;
    }
};

PipeReader::PipeReader(std::filesystem::path pipe, std::function<void(RawSnapshot&&)> deliver,
                       std::size_t snapshotLimit)
    : implementation_(std::make_unique<Implementation>(std::move(pipe), std::move(deliver), snapshotLimit)) {
    implementation_->thread =
        std::jthread([this](const std::stop_token& stop) { implementation_->run(stop); });
}

PipeReader::~PipeReader() {
    implementation_->thread.request_stop();
    eventfd_write(implementation_->wake.number(), 1);
    implementation_->thread.join();
}

PipeReader::Statistics PipeReader::statistics() const {
    const std::lock_guard lock(implementation_->mutex);
    return implementation_->shared;
}

}  // namespace station
