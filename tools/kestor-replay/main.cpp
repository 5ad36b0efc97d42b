// kestor-replay: the probe's analysis and records over a capture file.
#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "completion.h"
#include "replay.h"
#include "usage.h"

namespace {

constexpr int kExitFailed = 1;

struct Arguments {
    std::vector<std::string> groups;
    std::string output;
    std::string capture;
    bool verbose = false;
};

// The program's own outputs. The analysis prints its diagnostics on the process's standard output and
// standard error, so these two are turned away from records and messages.
struct Outputs {
    FILE* records;
    FILE* messages;

    explicit Outputs(bool verbose)
        : records(fdopen(dup(STDOUT_FILENO), "w")), messages(fdopen(dup(STDERR_FILENO), "w")) {
        if (records == nullptr || messages == nullptr) {
            perror("kestor-replay");
            _exit(kExitFailed);
        }
        const int nowhere = open("/dev/null", O_WRONLY);
        dup2(verbose ? STDERR_FILENO : nowhere, STDOUT_FILENO);
        if (!verbose) {
            dup2(nowhere, STDERR_FILENO);
        }
        close(nowhere);
        setvbuf(stdout, nullptr, _IOLBF, 0);
    }
};

void declare(CLI::App& app, Arguments& arguments) {
    shapeHelp(app);
    app.set_version_flag("--version", "kestor-replay " KESTOR_VERSION, "Print the version and exit.");
    app.add_option(
           "-g", arguments.groups,
           "Analyse only this multicast group. May be repeated; the default is all groups in the file.")
        ->type_name("GROUP")
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    app.add_option("-o", arguments.output, "Write the records to this file instead of standard output.")
        ->type_name("FILE");
    app.add_flag("-v", arguments.verbose, "Print the analysis's diagnostics on standard error.");
    app.add_option("CAPTURE", arguments.capture, "A pcap or pcapng file with Ethernet frames.")
        ->type_name("CAPTURE")
        ->required();
    addCompletion(app);
    app.footer(
        "Examples:\n"
        "  kestor-replay fault.pcap | less                all groups in the file\n"
        "  kestor-replay -g 239.1.1.1 -o records.txt -v fault.pcap\n"
        "\n"
        "Exit status: 0 on success, 1 when the file cannot be read to its end or the\n"
        "records cannot be written, 2 for a wrong command line. See kestor-replay(1).");
}

void replay(const Arguments& arguments, FILE* standardOutput) {
    Replay replay(arguments.capture, parseGroups(arguments.groups));
    FILE* records = arguments.output.empty() ? standardOutput : fopen(arguments.output.c_str(), "w");
    if (records == nullptr) {
        throw std::runtime_error(arguments.output + ": " + strerror(errno));
    }
    replay.run(records);
    if (fclose(records) != 0) {
        throw std::runtime_error("cannot write the records");
    }
}

int run(int argc, char* argv[]) {
    CLI::App app("Analyses the multicast transport streams in a capture file as the probe does.",
                 "kestor-replay");
    Arguments arguments;
    declare(app, arguments);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return reportUsage(app, error);
    }
    const Outputs outputs(arguments.verbose);
    try {
        replay(arguments, outputs.records);
    } catch (const std::exception& error) {
        fprintf(outputs.messages, "kestor-replay: %s\n", error.what());
        fflush(outputs.messages);
        return kExitFailed;
    }
    return 0;
}

}  // namespace

int main(int argc, char* argv[]) {
    try {
        return run(argc, argv);
    } catch (const std::exception& error) {
        fprintf(stderr, "kestor-replay: %s\n", error.what());
        return kExitFailed;
    }
}
