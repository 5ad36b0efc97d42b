#include "common/log.h"

#include <poll.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cinttypes>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

namespace station {

namespace {

constexpr std::chrono::milliseconds kFlushAtExit{300};

std::string oneLine(std::string_view text) {
    std::string line(text.substr(0, kLogLine));
    for (char& character : line) {
        if (static_cast<unsigned char>(character) < 0x20 || character == 0x7F) {
            character = ' ';
        }
    }
    return line;
}

// Whether standard error is the journal's stream, as sd_journal_stream_fd(3) says how to tell.
bool underJournal() {
    const char* stream = getenv("JOURNAL_STREAM");
    uint64_t device = 0;
    uint64_t inode = 0;
    struct stat status {};
    return stream != nullptr && sscanf(stream, "%" SCNu64 ":%" SCNu64, &device, &inode) == 2 &&
           fstat(STDERR_FILENO, &status) == 0 && status.st_dev == device && status.st_ino == inode;
}

struct Line {
    LogLevel level = LogLevel::kInfo;
    std::string text;
    std::vector<std::string> fields;  // "NAME=value", for the journal
};

void sendToJournal(const Line& line) {
    std::vector<std::string> entries = {"MESSAGE=" + line.text,
                                        "PRIORITY=" + std::to_string(static_cast<int>(line.level)),
                                        "SYSLOG_IDENTIFIER=kestor-station"};
    entries.insert(entries.end(), line.fields.begin(), line.fields.end());
    std::vector<iovec> parts;
    parts.reserve(entries.size());
    for (std::string& entry : entries) {
        parts.push_back({entry.data(), entry.size()});
    }
    sd_journal_sendv(parts.data(), static_cast<int>(parts.size()));
}

std::string prefixForJournal(LogLevel level) {
    return "<" + std::to_string(static_cast<int>(level)) + ">";
}

std::string prefixForPeople(LogLevel level) {
    return level <= LogLevel::kError ? "error: " : level == LogLevel::kWarning ? "warning: " : "";
}

void writeLine(const Line& line) {
    static const bool journal = underJournal();
    if (journal && !line.fields.empty()) {
        sendToJournal(line);
        return;
    }
    static const bool terminal = isatty(STDERR_FILENO) == 1;
    const std::string whole =
        (terminal ? prefixForPeople(line.level) : prefixForJournal(line.level)) + line.text + "\n";
    for (std::string_view left = whole; !left.empty();) {
        const ssize_t written = write(STDERR_FILENO, left.data(), left.size());
        if (written < 0 && errno == EAGAIN) {
            pollfd item = {STDERR_FILENO, POLLOUT, 0};  // whoever shares it made it so
            poll(&item, 1, -1);
        } else if (written < 0 && errno != EINTR) {
            return;  // whoever read it is gone
        }
        left.remove_prefix(written < 0 ? 0 : static_cast<std::size_t>(written));
    }
}

// Whoever has to read standard error may not: a full pipe, a terminal that is held, a journal that hangs. So
// one thread alone waits for it. It is never joined, since it may never come back.
class Writer {
  public:
    Writer() {
        // Signals are for the threads that expect them.
        sigset_t all;
        sigset_t before;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before);
        std::thread([this] { run(); }).detach();
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
    }
    Writer(const Writer&) = delete;

    void push(Line&& line) {
        const std::lock_guard lock(mutex_);
        if (lines_.size() >= kLogQueue) {
            ++dropped_;
            return;
        }
        lines_.push_back(std::move(line));
        ready_.notify_one();
    }

    uint64_t dropped() {
        const std::lock_guard lock(mutex_);
        return dropped_;
    }

    bool flush(std::chrono::milliseconds atMost) {
        std::unique_lock lock(mutex_);
        return written_.wait_for(lock, atMost, [this] { return lines_.empty() && !writing_; });
    }

  private:
    [[noreturn]] void run() {
        uint64_t droppedLogged = 0;
        std::unique_lock lock(mutex_);
        for (;;) {
            ready_.wait(lock, [this] { return !lines_.empty(); });
            Line line = std::move(lines_.front());
            lines_.pop_front();
            writing_ = true;
            lock.unlock();
            writeLine(line);
            lock.lock();
            if (lines_.empty() && dropped_ != droppedLogged) {
                lines_.push_back({LogLevel::kWarning,
                                  std::to_string(dropped_ - droppedLogged) +
                                      " lines of the log were dropped: standard error took none",
                                  {}});
                droppedLogged = dropped_;
            }
            writing_ = false;
            if (lines_.empty()) {
                written_.notify_all();
            }
        }
    }

    std::mutex mutex_;  // guards everything below; no lock is taken and nothing waits while it is held
    std::condition_variable ready_;
    std::condition_variable written_;
    std::deque<Line> lines_;
    uint64_t dropped_ = 0;
    bool writing_ = false;
};

// Never destroyed: its thread may outlive everything else.
Writer& writer() {
    static Writer* const one = [] {
        auto* made = new Writer;
        std::atexit([] { flushLog(kFlushAtExit); });
        return made;
    }();
    return *one;
}

}  // namespace

void log(LogLevel level, std::string_view text, std::initializer_list<LogField> fields) {
    Line line{level, oneLine(text), {}};
    for (const auto& [name, value] : fields) {
        line.fields.push_back(std::string(name) + "=" + oneLine(value));
    }
    writer().push(std::move(line));
}

uint64_t droppedLogLines() {
    return writer().dropped();
}

bool flushLog(std::chrono::milliseconds atMost) {
    return writer().flush(atMost);
}

bool LogOnChange::say(LogLevel level, std::string_view text) {
    if (text == last_) {
        return false;
    }
    last_ = text;
    log(level, text);
    return true;
}

void LogOnChange::resolved(std::string_view recovered) {
    if (!last_.empty() && !recovered.empty()) {
        log(LogLevel::kNotice, recovered);
    }
    last_.clear();
}

}  // namespace station
