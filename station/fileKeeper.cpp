#include "fileKeeper.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <utility>

#include "channels/fileWatch.h"
#include "channels/textFile.h"
#include "common/log.h"

namespace station {

namespace {

using namespace std::chrono_literals;

constexpr auto kSavesAgain = 10s;
constexpr int kLongestWaitMs = 1000;

}  // namespace

struct FileKeeper::Implementation {
    const Options options;
    int signals = -1;
    const int wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    FileWatch watch;

    std::shared_ptr<const Configuration> configuration;  // the last good one
    std::map<std::filesystem::path, Playlist> lastGood;  // playlists as they were last read
    std::filesystem::path stateDirectory;                // another one needs a restart
    LogOnChange saveTrouble;
    LogOnChange openTrouble;  // that everybody can read
    std::map<std::filesystem::path, LogOnChange> playlistTrouble;
    SteadyTime saveAgain{};

    std::mutex mutex;  // guards what follows
    std::vector<std::function<void(const LoadedFiles&)>> reloads;
    std::optional<RuntimeChannels> toSave;
    std::vector<std::function<void(const std::string&)>> saved;

    explicit Implementation(Options options_) : options(std::move(options_)) {}

    LoadedFiles load() {
        LoadedFiles files;
        watchFiles();  // before reading: what changes meanwhile is read again
        loadConfiguration(files);
        if (configuration) {
            watchFiles();
            loadPlaylists(files);
        }
        return files;
    }

    void loadConfiguration(LoadedFiles& files) {
        ConfigurationResult result;
        if (options.configuration.empty()) {
            result = parseConfiguration("", "station.toml");
        } else {
            result = readConfiguration(options.configuration);
        }
        if (!result.mistakes.empty()) {
            for (const Mistake& mistake : result.mistakes) {
                files.refusals.push_back(mistake.message());
                if (configuration) {
                    log(LogLevel::kWarning, mistake.message() + "; the last good configuration holds");
                }
            }
            return;
        }
        options.override(result.configuration);
        configuration = std::make_shared<const Configuration>(std::move(result.configuration));
        files.configuration = configuration;
        if (const std::string note = openToAll(*configuration); !note.empty()) {
            files.notes.push_back(note);
            openTrouble.say(LogLevel::kWarning, note);
        } else {
            openTrouble.over();
        }
        if (stateDirectory.empty()) {
            stateDirectory = configuration->state;
        }
    }

    void loadPlaylists(LoadedFiles& files) {
        for (const PlaylistSource& source : configuration->playlists) {
            std::string problem;
            if (std::optional<Playlist> playlist = readPlaylist(source.file, problem)) {
                playlistTrouble[source.file].over("playlist " + source.file.string() + ": read, " +
                                                  std::to_string(playlist->channels.size()) + " channels");
                for (const PlaylistNote& note : playlist->notes) {
                    files.notes.push_back(source.file.filename().string() + ":" + std::to_string(note.line) +
                                          ": " + note.text);
                }
                keepCopy(source.file);
                lastGood[source.file] = std::move(*playlist);
            } else {
                files.refusals.push_back(whatHolds(source.file, problem));
                playlistTrouble[source.file].say(LogLevel::kWarning, files.refusals.back());
            }
            if (const auto good = lastGood.find(source.file); good != lastGood.end()) {
                files.playlists.emplace_back(source, good->second);
            }
        }
    }

    // Where a copy of a playlist is kept for a start at which the playlist itself cannot be read: a share
    // that is not mounted yet must not end the watching of its channels.
    std::filesystem::path copyOf(const std::filesystem::path& file) const {
        std::string name = file.string();
        std::ranges::replace(name, '/', '-');
        constexpr std::size_t kLongest = 200;  // the end of a path tells it best
        return stateDirectory / "playlists" / name.substr(name.size() - std::min(name.size(), kLongest));
    }

    void keepCopy(const std::filesystem::path& file) {
        std::error_code error;
        const std::filesystem::path copy = copyOf(file);
        std::filesystem::create_directories(copy.parent_path(), error);
        std::string problem;
        const std::string bytes = readTextFile(file, kPlaylistLimit, problem);
        std::string noCopy;
        if (problem.empty() && readTextFile(copy, kPlaylistLimit, noCopy) != bytes) {
            problem = replaceTextFile(copy, bytes);
        }
        if (!problem.empty()) {
            log(LogLevel::kWarning, "no copy of " + file.string() + " is kept: " + problem);
        }
    }

    // Says why a playlist cannot be read, and takes up its copy where nothing was read before.
    std::string whatHolds(const std::filesystem::path& file, const std::string& problem) {
        std::string noCopy;
        if (!lastGood.contains(file)) {
            if (std::optional<Playlist> copy = readPlaylist(copyOf(file), noCopy)) {
                lastGood[file] = std::move(*copy);
            }
        }
        const std::string text = "playlist " + file.string() + " " + problem;
        const auto known = lastGood.find(file);
        return known == lastGood.end()
                   ? text
                   : text + "; its last good list of " + std::to_string(known->second.channels.size()) +
                         " channels holds";
    }

    void watchFiles() {
        std::vector<std::filesystem::path> paths;
        if (!options.configuration.empty()) {
            paths.push_back(options.configuration);
        }
        if (configuration) {
            for (const PlaylistSource& source : configuration->playlists) {
                paths.push_back(source.file);
            }
        }
        watch.watch(paths);
    }

    void reloadNow(Mailbox& mailbox) {
        std::vector<std::function<void(const LoadedFiles&)>> askers;
        {
            const std::lock_guard lock(mutex);
            askers.swap(reloads);
        }
        LoadedFiles files = load();
        files.askers = std::move(askers);
        mailbox.send(std::move(files));
    }

    void saveNow(bool last) {
        std::optional<RuntimeChannels> channels;
        std::vector<std::function<void(const std::string&)>> askers;
        {
            const std::lock_guard lock(mutex);
            if (!toSave || (!last && saved.empty() && std::chrono::steady_clock::now() < saveAgain)) {
                return;
            }
            channels.swap(toSave);
            askers.swap(saved);
        }
        const std::string problem = RuntimeChannelFile(stateDirectory).save(*channels);
        if (problem.empty()) {
            saveTrouble.over("the channels added at run time are on the disk again");
        } else {
            saveTrouble.say(LogLevel::kError,
                            "the channels added at run time are only in memory: " + problem);
            saveAgain = std::chrono::steady_clock::now() + kSavesAgain;
            const std::lock_guard lock(mutex);
            if (!toSave) {
                toSave = std::move(channels);
            }
        }
        for (const auto& asker : last ? decltype(askers){} : askers) {
            asker(problem);
        }
    }

    // The signal that came, or 0.
    uint32_t takeSignal() const {
        signalfd_siginfo information{};
        return read(signals, &information, sizeof information) == sizeof information ? information.ssi_signo
                                                                                     : 0;
    }

    void run(Mailbox& mailbox) {
        for (;;) {
            pollfd items[3] = {{signals, POLLIN, 0}, {wake, POLLIN, 0}, {watch.descriptor(), POLLIN, 0}};
            poll(items, 3, kLongestWaitMs);
            eventfd_t count = 0;
            eventfd_read(wake, &count);
            bool reload = !watch.changed().empty();
            while (const uint32_t signal = takeSignal()) {
                if (signal != SIGHUP) {
                    return;
                }
                log(LogLevel::kInfo, "SIGHUP: reading the configuration and the playlists again");
                reload = true;
            }
            {
                const std::lock_guard lock(mutex);
                reload = reload || !reloads.empty();
            }
            if (reload) {
                reloadNow(mailbox);
            }
            saveNow(false);
        }
    }
};

FileKeeper::FileKeeper(Options options)
    : implementation_(std::make_unique<Implementation>(std::move(options))) {
    sigset_t taken;
    sigemptyset(&taken);
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
        sigaddset(&taken, signal);
    }
    pthread_sigmask(SIG_BLOCK, &taken, nullptr);
    implementation_->signals = signalfd(-1, &taken, SFD_CLOEXEC | SFD_NONBLOCK);
    if (implementation_->signals < 0 || implementation_->wake < 0) {
        throw std::runtime_error("no descriptor for signals: is the limit of open files reached?");
    }
}

FileKeeper::~FileKeeper() {
    close(implementation_->signals);
    close(implementation_->wake);
}

LoadedFiles FileKeeper::load() {
    return implementation_->load();
}

void FileKeeper::run(Mailbox& mailbox) {
    implementation_->run(mailbox);
}

void FileKeeper::saveLast() {
    implementation_->saveNow(true);
}

bool FileKeeper::reload(std::function<void(const LoadedFiles&)> done) {
    {
        const std::lock_guard lock(implementation_->mutex);
        if (implementation_->reloads.size() >= kAskers) {
            return false;
        }
        implementation_->reloads.push_back(std::move(done));
    }
    eventfd_write(implementation_->wake, 1);
    return true;
}

void FileKeeper::save(RuntimeChannels channels, std::function<void(const std::string& problem)> done) {
    {
        const std::lock_guard lock(implementation_->mutex);
        implementation_->toSave = std::move(channels);
        if (implementation_->saved.size() < kAskers) {
            implementation_->saved.push_back(std::exchange(done, nullptr));
        }
    }
    eventfd_write(implementation_->wake, 1);
    if (done) {
        done("the disk is slow, and too many changes wait for it");
    }
}

}  // namespace station
