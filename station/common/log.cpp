#include "common/log.h"

#include <sys/stat.h>
#include <sys/uio.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <array>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace station {

namespace {

std::string oneLine(std::string_view text) {
    std::string line(text);
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

void sendToJournal(LogLevel level, const std::string& text, std::initializer_list<LogField> fields) {
    std::vector<std::string> entries = {"MESSAGE=" + text,
                                        "PRIORITY=" + std::to_string(static_cast<int>(level)),
                                        "SYSLOG_IDENTIFIER=kestor-station"};
    for (const auto& [name, value] : fields) {
        entries.push_back(std::string(name) + "=" + oneLine(value));
    }
    std::vector<iovec> parts;
    parts.reserve(entries.size());
    for (std::string& entry : entries) {
        parts.push_back({entry.data(), entry.size()});
    }
    sd_journal_sendv(parts.data(), static_cast<int>(parts.size()));
}

}  // namespace

void log(LogLevel level, std::string_view text, std::initializer_list<LogField> fields) {
    static const bool journal = underJournal();
    const std::string line = oneLine(text);
    if (journal && fields.size() > 0) {
        sendToJournal(level, line, fields);
        return;
    }
    // One write a line, so that lines of several threads do not mix.
    const std::string whole = "<" + std::to_string(static_cast<int>(level)) + ">" + line + "\n";
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, whole.data(), whole.size());
}

bool LogOnChange::say(LogLevel level, std::string_view text) {
    if (text == last_) {
        return false;
    }
    last_ = text;
    log(level, text);
    return true;
}

void LogOnChange::over(std::string_view recovered) {
    if (!last_.empty() && !recovered.empty()) {
        log(LogLevel::kNotice, recovered);
    }
    last_.clear();
}

}  // namespace station
