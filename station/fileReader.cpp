#include "fileReader.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <map>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <utility>

#include "basics/descriptor.h"
#include "common/fileWatch.h"
#include "common/log.h"
#include "common/textFile.h"
#include "configurationCopy.h"
#include "knownFiles.h"
#include "playlistCopies.h"

namespace station {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr int kLongestWaitMs = 1000;
constexpr int kWaitForRestMs = 50;
constexpr const char* kAllFiles = "the directories of configuration and playlists";  // which one: unknown

}  // namespace

struct FileReader::Implementation {
    const Options options;
    const Deliver deliver;
    const basics::Descriptor wake{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
    const basics::Descriptor done{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};

    // Below: the reader's thread alone, once it runs.
    FileWatch watch{[this](const std::filesystem::path& file) { looksAt(file); }};
    KnownFiles known;
    LogOnChange openTrouble;               // that everybody can read
    std::optional<PlaylistCopies> copies;  // in the first state directory: another one needs a restart
    std::filesystem::path copiesIn;        // that one
    std::optional<std::string> toCopy;     // the configuration's text, until the copy holds it
    LogOnChange copyTrouble;
    steady_clock::time_point readAgain;
    std::optional<steady_clock::time_point> askedSince;  // a reading that waits for files to rest

    mutable std::mutex mutex;  // guards what follows; no lock is taken while it is held
    std::condition_variable endedNow;
    bool ending = false;
    bool ended = false;
    bool allAsked = false;
    bool mayCopy = false;
    std::vector<std::function<void(const ReadResult&)>> askers;
    std::optional<Busy> busy;
    LoadedFiles begun;  // the first reading, as far as it is
    std::optional<steady_clock::time_point> configurationRead;
    bool firstOver = false;
    bool firstTaken = false;

    std::thread thread;

    Implementation(Options options_, Deliver deliver_)
        : options(std::move(options_)), deliver(std::move(deliver_)) {
        if (!wake.isOpen() || !done.isOpen()) {
            throw std::runtime_error("no descriptor for reading files: is the limit of open files reached?");
        }
        known.configurationFile = options.configuration;
        thread = std::thread([this] { run(); });
    }
    ~Implementation() {
        end(milliseconds(0));
        thread.join();
    }

    bool end(milliseconds time) {
        std::unique_lock lock(mutex);
        ending = true;
        eventfd_write(wake.number(), 1);
        return endedNow.wait_for(lock, time, [this] { return ended; });
    }

    // The file system may hang with each.
    void looksAt(const std::filesystem::path& file) {
        const std::lock_guard lock(mutex);
        if (busy) {
            busy->file = file;
        }
    }

    // Says what is read for as long as it lives.
    class Reading {
      public:
        Reading(Implementation& own, const std::filesystem::path& file) : own_(own) {
            const std::lock_guard lock(own.mutex);
            own.busy = Busy{file, steady_clock::now()};
        }
        ~Reading() {
            const std::lock_guard lock(own_.mutex);
            own_.busy.reset();
        }
        Reading(const Reading&) = delete;

      private:
        Implementation& own_;
    };

    // The thread.

    void run() {
        readFirst();
        while (!isEnding()) {
            writeCopies();
            pollfd items[2] = {{wake.number(), POLLIN, 0}, {watch.descriptor(), POLLIN, 0}};
            poll(items, 2, askedSince ? kWaitForRestMs : kLongestWaitMs);
            eventfd_t count = 0;
            eventfd_read(wake.number(), &count);
            std::vector<std::filesystem::path> changed;
            {
                const Reading reading(*this, kAllFiles);
                changed = watch.changed();
            }
            addUnread(changed);
            const bool all = takeAsked();
            // What changes while a reading of all is waited for is read with it.
            if (all || (!askedSince && !changed.empty())) {
                readChanged(changed, all);
            }
        }
        const std::lock_guard lock(mutex);
        ended = true;
        endedNow.notify_all();
    }

    bool isEnding() const {
        const std::lock_guard lock(mutex);
        return ending;
    }

    void readFirst() {
        const auto restBy = steady_clock::now() + kReloadWait;
        watchFiles();  // before reading: what changes meanwhile is read again
        std::vector<std::string> refused;
        awaitRest(options.configuration, restBy);
        readConfiguration(refused);
        {
            const std::lock_guard lock(mutex);
            configurationRead = steady_clock::now();
        }
        if (known.configuration) {
            watchFiles();
            loadCopies();
            begin();
            for (const PlaylistSource& source : known.configuration->playlists) {
                awaitRest(source.file, restBy);
                readList(source.file, refused);
                begin();
            }
        }
        begin();
        {
            const std::lock_guard lock(mutex);
            firstOver = true;
            eventfd_write(done.number(), 1);
            if (!firstTaken) {
                return;
            }
        }
        tell({}, std::move(refused));
    }

    // For a while: its copy holds then, and where there is none what it has by then.
    void awaitRest(const std::filesystem::path& file, steady_clock::time_point until) {
        const Reading reading(*this, file);
        watch.awaitRest(file, until, [this] { return isEnding(); });
    }

    // Shows the first reading as far as it is.
    void begin() {
        LoadedFiles files = known.collect();
        const std::lock_guard lock(mutex);
        begun = std::move(files);
    }

    void loadCopies() {
        for (const PlaylistSource& source : known.configuration->playlists) {
            KnownPlaylist& list = known.lists[source.file];
            if (list.tried || list.good) {
                continue;
            }
            std::string problem;
            const std::string bytes = copies->read(source.file, known.configuration->playlists, problem);
            if (problem.empty()) {
                list.good = playlistOf(bytes, source.file, problem);
            }
        }
    }

    // Whether all files are to be read now: somebody asked, and they rest or have been waited for.
    bool takeAsked() {
        {
            const std::lock_guard lock(mutex);
            if (std::exchange(allAsked, false) && !askedSince) {
                askedSince = steady_clock::now();
            }
        }
        if (!askedSince || (steady_clock::now() - *askedSince < kReloadWait && !allRest())) {
            return false;
        }
        askedSince.reset();
        return true;
    }

    bool allRest() {
        const Reading reading(*this, kAllFiles);
        return std::ranges::all_of(watched(), [this](const auto& file) { return watch.rests(file); });
    }

    // Adds the playlists that could not be read, every now and then: the trouble may be over without a trace.
    void addUnread(std::vector<std::filesystem::path>& changed) {
        if (steady_clock::now() < readAgain) {
            return;
        }
        readAgain = steady_clock::now() + kReadsAgain;
        for (const auto& [file, list] : known.lists) {
            std::error_code error;
            if (!list.refusal.empty() && std::ranges::find(changed, file) == changed.end() &&
                std::filesystem::exists(file, error)) {
                changed.push_back(file);
            }
        }
    }

    void readChanged(const std::vector<std::filesystem::path>& changed, bool all) {
        const auto wanted = [&](const std::filesystem::path& file) {
            return all || std::ranges::find(changed, file) != changed.end();
        };
        std::vector<std::function<void(const ReadResult&)>> repliesDue;
        {
            const std::lock_guard lock(mutex);
            if (all) {
                repliesDue.swap(askers);
            }
        }
        std::vector<std::string> refused;
        bool news = all;
        if (wanted(options.configuration)) {
            known.configurationWaits = !watch.rests(options.configuration);
            if (!known.configurationWaits) {
                readConfiguration(refused);
                watchFiles();
                loadCopies();
                news = true;
            }
        }
        for (const auto& file : known.playlistFiles()) {
            KnownPlaylist& list = known.lists[file];
            if (!wanted(file) && list.tried) {
                continue;
            }
            list.waits = list.tried && !watch.rests(file);
            const std::string refusal = list.refusal;
            if (!list.waits) {
                news = readList(file, refused) || list.refusal != refusal || news;
            }
        }
        if (news) {
            tell(std::move(repliesDue), std::move(refused));
        }
    }

    // Files.

    std::vector<std::filesystem::path> watched() const {
        std::vector<std::filesystem::path> files = known.playlistFiles();
        if (!options.configuration.empty()) {
            files.insert(files.begin(), options.configuration);
        }
        return files;
    }

    void watchFiles() {
        const std::vector<std::filesystem::path> files = watched();
        const Reading reading(*this, kAllFiles);
        watch.watch(files);
        std::erase_if(known.lists,
                      [&](const auto& list) { return std::ranges::find(files, list.first) == files.end(); });
    }

    ConfigurationResult readWithText(std::string& text) const {
        if (options.configuration.empty()) {
            return parseConfiguration("", "station.toml");
        }
        std::string problem;
        text = readTextFile(options.configuration, kConfigurationCopyLimit, problem);
        if (problem.empty()) {
            return parseConfiguration(text, options.configuration);
        }
        ConfigurationResult unread;
        unread.mistakes.push_back({options.configuration.string(), 0, 0, problem});
        return unread;
    }

    void readConfiguration(std::vector<std::string>& refused) {
        const Reading reading(*this, options.configuration);
        std::string text;
        ConfigurationResult read = readWithText(text);
        // Somebody writes it, or has begun to.
        const bool rests = watch.rests(options.configuration);
        if (!rests && !known.configuration) {
            useConfigurationCopy(read, text);
        }
        known.configurationWaits = known.configuration && !rests;
        if (known.configurationWaits) {
            return;
        }
        known.mistakes.clear();
        for (const Mistake& mistake : read.mistakes) {
            known.mistakes.push_back(mistake.message());
        }
        refused.insert(refused.end(), known.mistakes.begin(), known.mistakes.end());
        if (!known.mistakes.empty()) {
            if (!known.configuration) {
                useConfigurationCopy(read, text);
            }
            for (const std::string& mistake :
                 known.configuration ? known.mistakes : decltype(known.mistakes){}) {
                log(LogLevel::kWarning, mistake + known.whatStays());
            }
            return;
        }
        options.override(read.configuration);
        known.copyOf.reset();
        toCopy = options.configuration.empty() ? std::nullopt : std::optional(std::move(text));
        hold(std::move(read.configuration));
    }

    void hold(Configuration&& good) {
        known.configuration = std::make_shared<const Configuration>(std::move(good));
        tell(openTrouble, openToAll(*known.configuration));
        if (!copies) {
            copiesIn = known.configuration->state;
            copies.emplace(copiesIn);
        }
    }

    // A start with a configuration that is broken or half written, which may well say where the copy is.
    void useConfigurationCopy(ConfigurationResult broken, std::string_view text) {
        if (broken.configuration.state == Configuration{}.state && !broken.mistakes.empty()) {
            broken.configuration.state =
                stateDirectoryAbove(text, broken.mistakes.front().line, options.configuration);
        }
        options.override(broken.configuration);
        auto copy = readConfigurationCopy(broken.configuration.state, options.configuration);
        if (copy) {
            options.override(copy->configuration);
            known.copyOf = copy->written;
            hold(std::move(copy->configuration));
        }
    }

    // True when the list was read.
    bool readList(const std::filesystem::path& file, std::vector<std::string>& refused) {
        const Reading reading(*this, file);
        KnownPlaylist& list = known.lists[file];
        std::string problem;
        std::string bytes = options.read(file, kPlaylistLimit, problem);
        std::optional<Playlist> playlist = problem.empty() ? playlistOf(bytes, file, problem) : std::nullopt;
        // Somebody has begun to write it.
        if (list.good && !watch.rests(file)) {
            list.waits = true;
            list.tried = true;
            return false;
        }
        list.tried = true;
        list.waits = false;
        if (playlist) {
            list.refusal.clear();
            list.trouble.resolved();
            log(playlist->skipped > 0 ? LogLevel::kWarning : LogLevel::kInfo, whatWasRead(file, *playlist));
            list.good = std::move(*playlist);
            list.toCopy = std::move(bytes);
            return true;
        }
        list.refusal = "playlist " + file.string() + " " + problem + list.whatStays();
        refused.push_back(list.refusal);
        list.trouble.say(LogLevel::kWarning, list.refusal);
        return false;
    }

    void writeCopies() {
        {
            const std::lock_guard lock(mutex);
            if (!mayCopy) {
                return;
            }
        }
        if (toCopy) {
            const Reading reading(*this, "the copy of " + options.configuration.string());
            const std::string problem = keepConfigurationCopy(copiesIn, options.configuration, *toCopy);
            toCopy.reset();
            tell(copyTrouble, problem, "no copy of " + options.configuration.string() + " is kept: ");
        }
        for (auto& [file, list] : known.lists) {
            if (!list.toCopy || !copies) {
                continue;
            }
            const Reading reading(*this, "the copy of " + file.string());
            const std::string problem = copies->keep(file, *list.toCopy);
            list.toCopy.reset();
            tell(list.copyTrouble, problem, "no copy of " + file.string() + " is kept: ");
        }
    }

    // What is told.

    static void tell(LogOnChange& trouble, const std::string& problem, const std::string& before = {}) {
        if (problem.empty()) {
            trouble.resolved();
        } else {
            trouble.say(LogLevel::kWarning, before + problem);
        }
    }

    void tell(std::vector<std::function<void(const ReadResult&)>> repliesDue,
              std::vector<std::string> refused) {
        LoadedFiles files = known.collect();
        files.refused = std::move(refused);
        const auto shared = std::make_shared<const ReadResult>(files.result);
        for (auto& asker : repliesDue) {
            files.askers.emplace_back([asker = std::move(asker), shared] { asker(*shared); });
        }
        deliver(std::move(files));
    }
};

FileReader::FileReader(Options options, Deliver deliver)
    : implementation_(std::make_unique<Implementation>(std::move(options), std::move(deliver))) {}

FileReader::~FileReader() = default;

int FileReader::firstDone() const {
    return implementation_->done.number();
}

LoadedFiles FileReader::first() {
    Implementation& own = *implementation_;
    const std::lock_guard lock(own.mutex);
    own.firstTaken = true;
    if (!own.firstOver && own.busy) {
        own.begun.result.refusals.push_back("reading " + own.busy->file.string() +
                                            " takes long; what was last read stays in force until then");
    }
    return std::move(own.begun);
}

std::optional<steady_clock::time_point> FileReader::configurationRead() const {
    const std::lock_guard lock(implementation_->mutex);
    return implementation_->configurationRead;
}

void FileReader::keepCopies() {
    {
        const std::lock_guard lock(implementation_->mutex);
        implementation_->mayCopy = true;
    }
    eventfd_write(implementation_->wake.number(), 1);
}

void FileReader::readAll(std::function<void(const ReadResult&)> asker) {
    {
        const std::lock_guard lock(implementation_->mutex);
        implementation_->allAsked = true;
        if (asker) {
            implementation_->askers.push_back(std::move(asker));
        }
    }
    eventfd_write(implementation_->wake.number(), 1);
}

std::size_t FileReader::askers() const {
    const std::lock_guard lock(implementation_->mutex);
    return implementation_->askers.size();
}

std::optional<FileReader::Busy> FileReader::busy() const {
    const std::lock_guard lock(implementation_->mutex);
    return implementation_->busy;
}

bool FileReader::end(std::chrono::milliseconds time) {
    return implementation_->end(time);
}

}  // namespace station
