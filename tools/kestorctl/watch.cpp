#include "watch.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "kestor.h"
#include "recordParser.h"
#include "table.h"

namespace {

using Clock = std::chrono::steady_clock;

// A writer that never ends its snapshot must not fill the memory.
constexpr std::size_t kSnapshotLimit = std::size_t{64} << 20;

struct FileDescriptor {
    int number;
    ~FileDescriptor() {
        if (number >= 0) {
            close(number);
        }
    }
};

// The text of one snapshot: what a writer sends between opening and closing the pipe. Opened without
// waiting, so that the time can be limited; the writer waits for a reader anyway. Nothing when the time has
// passed or the pipe cannot be read, which is said on standard error.
std::optional<std::string> readSnapshot(std::optional<Clock::time_point> deadline) {
    const FileDescriptor pipe{open(RESULTS_FIFO_PATH, O_RDONLY | O_NONBLOCK | O_CLOEXEC)};
    if (pipe.number < 0) {
        fprintf(stderr, "kestorctl: cannot read %s: %s (is kestor running?)\n", RESULTS_FIFO_PATH,
                strerror(errno));
        return std::nullopt;
    }
    std::string text;
    std::array<char, 65536> buffer;
    for (;;) {
        int wait = -1;
        if (deadline) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - Clock::now());
            wait = static_cast<int>(std::max<int64_t>(left.count(), 0));
        }
        pollfd item = {pipe.number, POLLIN, 0};
        if (const int ready = poll(&item, 1, wait); ready == 0) {
            fputs("kestorctl: no snapshot in time (is kestor running, as kestor -s?)\n", stderr);
            return std::nullopt;
        }
        const ssize_t size = read(pipe.number, buffer.data(), buffer.size());
        if (size == 0) {
            return text;
        }
        if (size > 0) {
            text.append(buffer.data(), static_cast<std::size_t>(size));
        } else if (errno != EAGAIN && errno != EINTR) {
            fprintf(stderr, "kestorctl: cannot read %s: %s\n", RESULTS_FIFO_PATH, strerror(errno));
            return std::nullopt;
        }
        if (text.size() > kSnapshotLimit) {
            fprintf(stderr, "kestorctl: a snapshot without end in %s\n", RESULTS_FIFO_PATH);
            return std::nullopt;
        }
    }
}

// The records of a snapshot; lines that are none are named on standard error and left out.
std::vector<Record> parseSnapshot(std::string_view text) {
    std::vector<Record> parsed;
    for (std::size_t number = 1; !text.empty(); ++number) {
        const std::size_t end = text.find('\n');
        const std::string_view line = text.substr(0, end);
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        auto result = parseRecord(line);
        if (auto* record = std::get_if<Record>(&result)) {
            parsed.push_back(std::move(*record));
        } else {
            fprintf(stderr, "kestorctl: line %zu skipped: %s\n", number,
                    std::get<std::string>(result).c_str());
        }
    }
    return parsed;
}

nlohmann::ordered_json toJson(const Record& record) {
    const auto columns = records::columnsOf(record.kind());
    const auto value = [](records::Type type, const std::string& text) -> nlohmann::ordered_json {
        switch (type) {
            case records::Type::kText:
                return text;
            case records::Type::kSigned:
                return std::stoll(text);
            case records::Type::kUnsigned:
                return std::stoull(text);
            default:
                return std::stod(text);
        }
    };
    nlohmann::ordered_json object;
    for (std::size_t i = 0; i < columns.size(); ++i) {
        object[std::string(columns[i].name)] = value(columns[i].type, record.fields()[i]);
    }
    if (record.kind() != records::Kind::kStream) {
        auto& tags = object[std::string(records::kDescriptorTagsColumn.name)];
        tags = nlohmann::ordered_json::array();
        for (std::size_t i = columns.size(); i < record.fields().size(); ++i) {
            tags.push_back(value(records::kDescriptorTagsColumn.type, record.fields()[i]));
        }
    }
    return object;
}

}  // namespace

int runWatch(const WatchOptions& options) {
    const bool redraw = !options.once && !options.json && isatty(STDOUT_FILENO) == 1;
    for (;;) {
        const auto text =
            readSnapshot(options.once ? std::optional(Clock::now() + options.timeout) : std::nullopt);
        if (!text) {
            return 1;
        }
        const std::vector<Record> snapshot = parseSnapshot(*text);
        if (options.json) {
            for (const Record& record : snapshot) {
                // Text that is not UTF-8 can only come from a foreign writer.
                puts(toJson(record).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
            }
        } else {
            printf("%s%s%s", redraw ? "\033[H\033[J" : "", renderTable(snapshot).c_str(),
                   options.once || redraw ? "" : "\n");
        }
        fflush(stdout);
        if (options.once) {
            return 0;
        }
    }
}
