// kestor-station: the probe's standing controller and reader, and everybody's place to ask.
#include <fcntl.h>
#include <malloc.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <iostream>

#include "basics/descriptor.h"
#include "common/endWithin.h"
#include "common/log.h"
#include "common/textFile.h"
#include "completion.h"
#include "configuration/configurationValues.h"
#include "serviceUser.h"
#include "station.h"
#include "usage.h"

namespace {

using station::Configuration;

constexpr int kExitFailed = 1;
// What is larger goes back to the kernel when it is freed. Snapshots are, some 15 MiB a second with a
// thousand channels, and the allocator would otherwise learn to keep two or three of them.
constexpr int kKeepsFreed = 1 << 20;
constexpr const char* kDefaultConfiguration = "/etc/kestor/station.toml";
constexpr mode_t kNothingForOthers = 0027;  // of what the station writes
// From a signal to the end, whatever hangs: a little below what is promised.
constexpr std::chrono::milliseconds kEndTime{1800};
constexpr std::chrono::milliseconds kLastLines{100};  // for the log

struct Arguments {
    std::string configuration;
    std::string state;
    std::string listen;
    std::string socket;
    std::string meterSocket;
    std::string pictureSocket;
    std::string pipe;
    std::string endpoint;
    std::string page;
    bool check = false;
};

// What an option says has to pass as the key of the same meaning would.
template <std::string_view (*problem)(std::string_view)>
std::string optionProblem(const std::string& text) {
    return text.empty() ? "" : std::string(problem(text));
}

void declare(CLI::App& app, Arguments& arguments) {
    shapeHelp(app);
    app.set_version_flag("--version", "kestor-station " KESTOR_VERSION, "Print the version and exit.");
    app.add_option("--config", arguments.configuration,
                   std::string("Read this configuration file. Without the option, ") + kDefaultConfiguration +
                       " is read if it exists; otherwise defaults apply.")
        ->type_name("FILE");
    app.add_flag("--check", arguments.check,
                 "Print the effective configuration, or every mistake in it, and exit.");
    app.add_option("--state", arguments.state, "Keep what survives a restart in this directory.")
        ->type_name("DIRECTORY");
    app.add_option("--listen", arguments.listen,
                   "Serve HTTP at this address and port, such as 127.0.0.1:9427; \"\" for none.")
        ->type_name("ADDRESS")
        ->check(optionProblem<station::checkListen>);
    app.add_option("--socket", arguments.socket,
                   "Serve HTTP on this Unix socket. Whoever may open it may change everything.")
        ->type_name("PATH")
        ->check(optionProblem<station::checkSocketPath>);
    app.add_option(
           "--meter-socket", arguments.meterSocket,
           "Let kestor-meter connect at this Unix socket; \"\" for no meter. With --socket it is by default "
           "meter.sock beside that one.")
        ->type_name("PATH")
        ->check(optionProblem<station::checkSocketPath>);
    app.add_option(
           "--picture-socket", arguments.pictureSocket,
           "Let kestor-picture connect at this Unix socket; \"\" for no pictures. With --socket it is by "
           "default picture.sock beside that one.")
        ->type_name("PATH")
        ->check(optionProblem<station::checkSocketPath>);
    app.add_option("--pipe", arguments.pipe, "Read the probe's results from this pipe.")->type_name("PATH");
    app.add_option("--controller-endpoint", arguments.endpoint,
                   "Answer the probe at this endpoint, tcp://ADDRESS:PORT.")
        ->type_name("ENDPOINT")
        ->check([](const std::string& text) { return std::string(station::checkEndpoint(text)); });
    app.add_option("--page", arguments.page, "Serve the page from this directory.")->type_name("DIRECTORY");
    addCompletion(app);
    app.footer(
        "Examples:\n"
        "  kestor-station                                     run with /etc/kestor/station.toml\n"
        "  kestor-station --config station.toml --check       check a configuration\n"
        "  kestor-station --config station.toml --state /tmp/state --listen 127.0.0.1:8080\n"
        "\n"
        "Options override the configuration. Exit status: 0 after SIGTERM or SIGINT, or\n"
        "when a check finds no mistakes; 1 with a message that says why; 2 for a wrong\n"
        "command line. See kestor-station(8), station.toml(5).");
}

// The page's files: where the package puts them, or in the tree that the program was built in.
std::filesystem::path findPage() {
    std::error_code error;
    const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe", error);
    for (const std::filesystem::path& candidate :
         {program.parent_path() / "../../../station/page", std::filesystem::path("/usr/share/kestor/page")}) {
        if (std::filesystem::exists(candidate / "index.html", error)) {
            return candidate.lexically_normal();
        }
    }
    return "/usr/share/kestor/page";
}

void override(const CLI::App& app, const Arguments& arguments, Configuration& configuration) {
    const auto given = [&](const char* option) { return app.count(option) > 0; };
    if (given("--state")) {
        configuration.state = arguments.state;
    }
    if (given("--listen")) {
        configuration.listen = arguments.listen;
    }
    if (given("--socket")) {
        configuration.socket = arguments.socket;
        // Not that of the service, unless somebody says so.
        if (configuration.meterSocket == Configuration().meterSocket) {
            configuration.meterSocket = configuration.socket.parent_path() / "meter.sock";
        }
        if (configuration.pictures.socket == Configuration().pictures.socket) {
            configuration.pictures.socket = configuration.socket.parent_path() / "picture.sock";
        }
    }
    if (given("--picture-socket")) {
        configuration.pictures.socket = arguments.pictureSocket;
        configuration.pictures.expected = !arguments.pictureSocket.empty();
    }
    if (given("--meter-socket")) {
        configuration.meterSocket = arguments.meterSocket;
        configuration.meterExpected = !arguments.meterSocket.empty();
    }
    if (given("--pipe")) {
        configuration.pipe = arguments.pipe;
    }
    if (given("--controller-endpoint")) {
        configuration.controllerEndpoint = arguments.endpoint;
    }
    if (given("--page")) {
        configuration.page = arguments.page;
    }
    if (configuration.page.empty()) {
        configuration.page = findPage();
    }
}

std::filesystem::path configurationFile(const Arguments& arguments) {
    std::error_code error;
    if (arguments.configuration.empty() && std::filesystem::exists(kDefaultConfiguration, error)) {
        return kDefaultConfiguration;
    }
    return arguments.configuration;
}

// Root may read everything; what matters is whether the service can, which reads the file at its own place.
void checkAsService(const std::filesystem::path& file, station::ConfigurationResult& result) {
    const std::optional<std::string> user = station::serviceUser();
    if (!user || geteuid() != 0) {
        return;
    }
    std::error_code error;
    const bool own = std::filesystem::equivalent(file, kDefaultConfiguration, error);
    for (station::Mistake& mistake : station::unreadableFor(*user, file)) {
        (own ? result.mistakes : result.notes).push_back(std::move(mistake));
    }
}

int check(const std::filesystem::path& file, const CLI::App& app, const Arguments& arguments) {
    auto result =
        file.empty() ? station::parseConfiguration("", "station.toml") : station::readConfiguration(file);
    if (result.mistakes.empty() && !file.empty()) {
        checkAsService(file, result);
    }
    override(app, arguments, result.configuration);
    const std::string note = station::openToAll(result.configuration);
    if (!note.empty() && app.count("--listen") > 0) {
        result.notes.push_back({.file = "--listen", .text = note});
    }
    return station::reportConfiguration(result, std::cout, std::cerr);
}

void makeDirectory(const std::filesystem::path& directory) {
    std::error_code error;
    if (!directory.empty()) {
        std::filesystem::create_directories(directory, error);
    }
    if (error) {
        throw std::runtime_error("cannot make the directory " + directory.string() + ": " + error.message());
    }
}

// Keeps a second station from writing where one does. The kernel gives the lock up when the process ends.
class DirectoryLock {
  public:
    // Throws std::runtime_error with a sentence for an operator when another process has it.
    explicit DirectoryLock(const std::filesystem::path& directory)
        : descriptor_(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
        // A file system that knows no locks keeps nobody out.
        if (descriptor_.isOpen() && flock(descriptor_.number(), LOCK_EX | LOCK_NB) != 0 &&
            errno == EWOULDBLOCK) {
            throw std::runtime_error("another kestor-station works in " + directory.string() +
                                     ": stop that one, or give this one a directory of its own (--state)");
        }
    }

  private:
    basics::Descriptor descriptor_;
};

void tell(const std::exception& error) {
    fprintf(stderr, "kestor-station: %s\n", error.what());
}

int serve(station::FileKeeper& keeper, station::Mailbox& mailbox) {
    std::optional<station::LoadedFiles> files = keeper.load();
    if (!files) {
        return 0;  // a signal came first
    }
    if (!files->configuration) {  // not even a copy of a good one
        for (const std::string& mistake : files->result.refusals) {
            fprintf(stderr, "%s\n", mistake.c_str());
        }
        return kExitFailed;
    }
    std::optional<station::EndOnSignal> starting(kEndTime);
    const std::filesystem::path state = files->configuration->state;
    makeDirectory(state);
    const DirectoryLock lock(state);
    makeDirectory(files->configuration->socket.parent_path());
    const station::Station owner(std::move(*files), keeper.loadRuntime(state), keeper, mailbox);
    starting.reset();
    keeper.run();
    station::endWithin(kEndTime, 0);
    return 0;
}

int run(const CLI::App& app, const Arguments& arguments) {
    const std::filesystem::path file = configurationFile(arguments);
    if (arguments.check) {
        return check(file, app, arguments);
    }
    umask(kNothingForOthers);
    std::signal(SIGPIPE, SIG_IGN);  // of whoever reads standard error
    station::Mailbox mailbox;
    station::FileKeeper keeper(
        {file, [&](Configuration& configuration) { override(app, arguments, configuration); },
         station::readTextFile},
        mailbox);
    int status = kExitFailed;
    try {
        status = serve(keeper, mailbox);
    } catch (const std::exception& error) {
        tell(error);
    }
    // A disk that hangs must not keep the process: its threads are left to their end then.
    if (!keeper.end()) {
        fflush(nullptr);
        station::flushLog(kLastLines);
        _Exit(status);
    }
    if (status == 0) {
        station::log(station::LogLevel::kNotice, "kestor-station has ended");
    }
    return status;
}

}  // namespace

int main(int argc, char* argv[]) {
    mallopt(M_MMAP_THRESHOLD, kKeepsFreed);
    try {
        CLI::App app("Runs a kestor probe unattended: channels, alarms, events, API and web page.",
                     "kestor-station");
        Arguments arguments;
        declare(app, arguments);
        try {
            app.parse(argc, argv);
        } catch (const CLI::ParseError& error) {
            return reportUsage(app, error);
        }
        return run(app, arguments);
    } catch (const std::exception& error) {
        tell(error);
        return kExitFailed;
    }
}
