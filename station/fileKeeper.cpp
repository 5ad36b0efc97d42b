#include "fileKeeper.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>
#include <stdexcept>
#include <utility>

#include "basics/descriptor.h"
#include "channelSaver.h"
#include "common/log.h"

namespace station {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr int kLooksMs = 1000;       // how often the main thread looks whether a reading takes long
constexpr int kLooksAtStartMs = 50;  // and at the start

}  // namespace

struct FileKeeper::Implementation {
    Mailbox& mailbox;
    basics::Descriptor signals;
    std::optional<FileReader> reader;  // made when the signals are blocked
    std::optional<ChannelSaver> saver;
    LogOnChange slow;

    explicit Implementation(Mailbox& mailbox_) : mailbox(mailbox_) {}
    ~Implementation() {
        reader.reset();
        saver.reset();
    }

    // The signal that came, or 0.
    uint32_t takeSignal() const {
        signalfd_siginfo information{};
        return read(signals.number(), &information, sizeof information) == sizeof information
                   ? information.ssi_signo
                   : 0;
    }

    // False when the station is to end.
    bool takeSignals() {
        while (const uint32_t signal = takeSignal()) {
            if (signal != SIGHUP) {
                log(LogLevel::kNotice, std::string(signal == SIGTERM ? "SIGTERM" : "SIGINT") +
                                           ": kestor-station ends; the probe keeps running");
                return false;
            }
            log(LogLevel::kInfo, "SIGHUP: reading the configuration and the playlists again");
            reader->readAll(nullptr);
        }
        return true;
    }

    void tellSlow() {
        const auto busy = reader->busy();
        if (busy && steady_clock::now() - busy->since > kSlow) {
            slow.say(LogLevel::kWarning,
                     "reading " + busy->file.string() +
                         " takes long: what was read before stays in force, and no other file is read "
                         "meanwhile");
        } else if (!busy) {
            slow.resolved("files are read again");
        }
    }
};

FileKeeper::FileKeeper(FileReader::Options options, Mailbox& mailbox)
    : implementation_(std::make_unique<Implementation>(mailbox)) {
    sigset_t taken;
    sigemptyset(&taken);
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
        sigaddset(&taken, signal);
    }
    pthread_sigmask(SIG_BLOCK, &taken, nullptr);
    implementation_->signals = basics::Descriptor(signalfd(-1, &taken, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!implementation_->signals.isOpen()) {
        throw std::runtime_error("no descriptor for signals: is the limit of open files reached?");
    }
    implementation_->reader.emplace(std::move(options),
                                    [&mailbox](LoadedFiles&& files) { mailbox.send(std::move(files)); });
}

FileKeeper::~FileKeeper() = default;

std::optional<LoadedFiles> FileKeeper::load() {
    FileReader& reader = *implementation_->reader;
    for (;;) {
        pollfd items[2] = {{implementation_->signals.number(), POLLIN, 0}, {reader.firstDone(), POLLIN, 0}};
        poll(items, 2, kLooksAtStartMs);
        if (!implementation_->takeSignals()) {
            return std::nullopt;
        }
        const auto read = reader.configurationRead();
        if ((items[1].revents & POLLIN) != 0 || (read && steady_clock::now() - *read > kStartWait)) {
            return reader.first();
        }
    }
}

LoadedRuntime FileKeeper::loadRuntime(const std::filesystem::path& stateDirectory) {
    Mailbox& mailbox = implementation_->mailbox;
    implementation_->saver.emplace(stateDirectory,
                                   [&mailbox](LoadedRuntime&& loaded) { mailbox.send(std::move(loaded)); });
    implementation_->reader->keepCopies();
    return implementation_->saver->load(kStartWait);
}

void FileKeeper::run() {
    for (;;) {
        pollfd item{implementation_->signals.number(), POLLIN, 0};
        poll(&item, 1, kLooksMs);
        if (!implementation_->takeSignals()) {
            implementation_->saver->mute();
            return;
        }
        implementation_->tellSlow();
    }
}

bool FileKeeper::end() {
    // Asked together: the reader ends while the last change is saved.
    implementation_->reader->end(milliseconds(0));
    const bool saved = !implementation_->saver || implementation_->saver->end(kEndWait);
    if (!saved) {
        log(LogLevel::kError, "the disk of the state directory hangs: the last change may not be saved");
    }
    return implementation_->reader->end(milliseconds(100)) && saved;
}

bool FileKeeper::reload(std::function<void(const ReadResult&)> done) {
    if (implementation_->reader->askers() >= kAskers) {
        return false;
    }
    implementation_->reader->readAll(std::move(done));
    return true;
}

void FileKeeper::save(RuntimeChannels channels, std::function<void(const std::string& problem)> done) {
    implementation_->saver->save(std::move(channels), std::move(done));
}

}  // namespace station
