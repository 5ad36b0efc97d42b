// kestor-measure: what is in recordings of transport streams, and what is wrong with them.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "address.h"
#include "completion.h"
#include "measure.h"
#include "meter/reportText.h"
#include "usage.h"

namespace {

constexpr int kExitUnreadable = 1;
constexpr int kExitErrors = 3;  // of the first two priorities

struct Arguments {
    std::vector<std::string> groups;
    std::vector<std::string> files;
    uint64_t bitrate = 0;
    bool json = false;
    bool quiet = false;
};

// The line that shows how far a file is read: on a terminal alone, and gone afterwards.
class ProgressLine {
  public:
    explicit ProgressLine(bool shown) : shown_(shown) {}
    ~ProgressLine() {
        clear();
    }
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;

    void show(const std::string& path, uint64_t read, uint64_t size) {
        const auto now = std::chrono::steady_clock::now();
        if (!shown_ || now - last_ < std::chrono::milliseconds(200)) {
            return;
        }
        last_ = now;
        const double megabytes = static_cast<double>(read) / 1e6;
        if (size > 0) {
            const double share =
                100.0 * static_cast<double>(std::min(read, size)) / static_cast<double>(size);
            fprintf(stderr, "\r\033[K%s: %.0f MB, %.0f %%", path.c_str(), megabytes, share);
        } else {
            fprintf(stderr, "\r\033[K%s: %.0f MB", path.c_str(), megabytes);
        }
        fflush(stderr);
        dirty_ = true;
    }
    void clear() {
        if (dirty_) {
            fputs("\r\033[K", stderr);
            dirty_ = false;
        }
    }

  private:
    bool shown_;
    bool dirty_ = false;
    std::chrono::steady_clock::time_point last_ = std::chrono::steady_clock::now();
};

void declare(CLI::App& app, Arguments& arguments) {
    shapeHelp(app);
    app.set_version_flag("--version", "kestor-measure " KESTOR_VERSION, "Print the version and exit.");
    app.add_flag("--json", arguments.json, "Print one JSON document per channel, each on a line of its own.");
    app.add_option("--bitrate", arguments.bitrate,
                   "The constant bit rate of a bare transport stream in bit/s, for one without PCRs.")
        ->type_name("BPS")
        ->check(CLI::Range(uint64_t{1}, uint64_t{100'000'000'000}));
    app.add_option(
           "--group", arguments.groups,
           "Measure only this multicast group of a capture. May be repeated; the default is all groups.")
        ->type_name("GROUP")
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
        ->check([](const std::string& text) {
            return readGroup(text)
                       ? std::string()
                       : "\"" + text + "\" is no IPv4 multicast address (224.0.0.0 to 239.255.255.255)";
        });
    app.add_flag("--quiet", arguments.quiet, "Print neither progress nor notes.");
    app.add_option("FILE", arguments.files,
                   "Transport stream (packets of 188, 192 or 204 bytes) or capture (pcap, pcapng); - for a "
                   "transport stream on standard input.")
        ->type_name("FILE")
        ->required();
    addCompletion(app);
    app.footer(
        "Examples:\n"
        "  kestor-measure recording.ts\n"
        "  kestor-measure --group 239.1.1.1 fault.pcap\n"
        "  kestor-measure --json fault.pcap | jq '.checks[] | select(.count > 0)'\n"
        "\n"
        "Exit status: 0 without errors of priority 1 or 2 (ETSI TR 101 290), 3 with such\n"
        "errors, 1 when a file cannot be read or has no stream, 2 for a wrong command\n"
        "line. See kestor-measure(1).");
}

bool hasErrors(const meter::Report& report) {
    return std::any_of(report.checks.begin(), report.checks.end(), [](const meter::CheckReport& check) {
        return check.priority <= 2 && check.count > 0;
    });
}

// The exit status of one file.
int measure(const std::string& path, const Arguments& arguments, const MeasureOptions& options) {
    ProgressLine line(!arguments.quiet && isatty(STDERR_FILENO) == 1);
    const MeasuredFile measured =
        measureFile(path, options, [&](uint64_t read, uint64_t size) { line.show(path, read, size); });
    line.clear();
    int status = 0;
    bool first = true;
    for (const meter::Report& report : measured.reports) {
        const std::string text = arguments.json ? meter::toJson(report) + "\n"
                                                : (first ? "" : "\n") + meter::reportText(report, path);
        fwrite(text.data(), 1, text.size(), stdout);
        first = false;
        status = hasErrors(report) ? kExitErrors : status;
    }
    fflush(stdout);
    if (!arguments.quiet) {
        for (const std::string& note : measured.notes) {
            fprintf(stderr, "kestor-measure: %s\n", note.c_str());
        }
    }
    if (!measured.failure.empty()) {
        fprintf(stderr, "kestor-measure: %s\n", measured.failure.c_str());
        status = kExitUnreadable;
    }
    return status;
}

int run(int argc, char* argv[]) {
    CLI::App app("Measures recordings of MPEG-2 transport streams by the letter of the standards.",
                 "kestor-measure");
    Arguments arguments;
    declare(app, arguments);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return reportUsage(app, error);
    }
    MeasureOptions options;
    for (const std::string& group : arguments.groups) {
        options.groups.push_back(*readGroup(group));
    }
    if (arguments.bitrate > 0) {
        options.bitrate = arguments.bitrate;
    }
    // A file that cannot be read counts more than errors found in another.
    int status = 0;
    bool unreadable = false;
    for (size_t i = 0; i < arguments.files.size(); ++i) {
        if (i > 0 && !arguments.json) {
            putchar('\n');
        }
        const int one = measure(arguments.files[i], arguments, options);
        unreadable |= one == kExitUnreadable;
        status = std::max(status, one);
    }
    if (ferror(stdout) != 0) {
        fputs("kestor-measure: cannot write the results\n", stderr);
        return kExitUnreadable;
    }
    return unreadable ? kExitUnreadable : status;
}

}  // namespace

int main(int argc, char* argv[]) {
    try {
        return run(argc, argv);
    } catch (const std::exception& error) {
        fprintf(stderr, "kestor-measure: %s\n", error.what());
        return kExitUnreadable;
    }
}
