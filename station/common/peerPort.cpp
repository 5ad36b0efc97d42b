#include "common/peerPort.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <new>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "basics/descriptor.h"
#include "basics/unixListener.h"
#include "common/log.h"

namespace station {

namespace {

using namespace std::chrono_literals;
using basics::Descriptor;

constexpr std::size_t kReadBytes = std::size_t{256} * 1024;
constexpr int kReadsAtOnce = 16;     // before what is to be sent is looked at
constexpr auto kLooksForEnd = 50ms;  // for the end of the thread and for what is to be told
constexpr auto kListensAgain = 1s;
constexpr auto kQuiet = 60s;

// Which file a path leads to.
struct FileId {
    dev_t device = 0;
    ino_t node = 0;

    static FileId of(const std::filesystem::path& path) {
        struct stat status {};
        return lstat(path.c_str(), &status) == 0 ? FileId{status.st_dev, status.st_ino} : FileId{};
    }
    bool operator==(const FileId&) const = default;
};

}  // namespace

struct PeerPort::Implementation {
    const std::filesystem::path path;
    const Words words;
    const std::string hello;
    const std::string refusal;
    const Handlers handlers;

    std::mutex mutex;       // guards the next two; no lock is taken while it is held
    std::string newest;     // what is to be told
    uint64_t revision = 0;  // its; 0: nothing is known of that

    // The thread alone.
    struct Peer {
        Descriptor connection;
        std::unique_ptr<PeerReader> reader;
        SteadyTime since;
        SteadyTime lastRead;
        std::string writing{};  // with what of it was written
        std::size_t written = 0;
        uint64_t sentRevision = 0;
        bool reads = true;

        bool agreed() const {
            return reader->agreed();
        }
    };
    Descriptor listener;
    FileId file;
    SteadyTime nextListen;
    SteadyTime nextAccept;
    std::optional<Peer> peer;
    LogOnChange trouble;
    SteadyTime quietUntil;  // one that sends nonsense connects again each second, and is told once
    std::vector<char> buffer = std::vector<char>(kReadBytes);
    std::jthread thread;

    Implementation(std::filesystem::path path_, const Words& words_, std::string hello_, std::string refusal_,
                   Handlers handlers_)
        : path(std::move(path_)),
          words(words_),
          hello(std::move(hello_)),
          refusal(std::move(refusal_)),
          handlers(std::move(handlers_)) {}

    void run(const std::stop_token& stop) {
        pthread_setname_np(pthread_self(), words.thread);
        while (!stop.stop_requested()) {
            const SteadyTime now = std::chrono::steady_clock::now();
            if (now >= nextListen) {
                nextListen = now + kListensAgain;
                keepListening();
            }
            serve();
        }
        if (listener.isOpen() && FileId::of(path) == file) {
            unlink(path.c_str());
        }
    }

    void keepListening() {
        if (listener.isOpen() && FileId::of(path) == file) {
            return;
        }
        listener = Descriptor();
        try {
            listener = Descriptor(basics::listenUnix(path));
            file = FileId::of(path);
            handlers.problem({});
            trouble.resolved("listening for " + std::string(words.name) + " at " + path.string());
        } catch (const std::runtime_error& error) {
            say(LogLevel::kWarning,
                std::string(error.what()) + "; tried again every second. " + words.without);
        }
    }

    // Into the log, once, and the status.
    void say(LogLevel level, const std::string& text) {
        handlers.problem(text);
        trouble.say(level, text);
    }

    void serve() {
        const bool writes = peer && !peer->writing.empty();
        const bool accepts = std::chrono::steady_clock::now() >= nextAccept;
        std::array<pollfd, 2> polls{{{accepts ? listener.number() : -1, POLLIN, 0},
                                     {peer ? peer->connection.number() : -1,
                                      static_cast<short>(POLLIN | (writes ? POLLOUT : 0)), 0}}};
        const int ready = poll(polls.data(), polls.size(), static_cast<int>(kLooksForEnd.count()));
        const Now now = systemNow();
        // What has ended makes room for who waits.
        if (peer && ready > 0 && polls[1].revents != 0) {
            read(now);
        }
        if (peer && !peer->agreed() && now.steady - peer->since > kHelloTime) {
            end(now,
                "something connected to " + path.string() + " and did not say who it is: not " + words.kind +
                    "?",
                LogLevel::kWarning);
        }
        if (ready > 0 && polls[0].revents != 0) {
            accept(now);
        }
        if (peer && peer->agreed()) {
            write();
        }
    }

    void accept(const Now& now) {
        Descriptor connection(accept4(listener.number(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (!connection.isOpen()) {
            // Who connects stays readable while there is no descriptor for it.
            nextAccept = now.steady + kListensAgain;
            if (errno != EAGAIN && errno != EINTR && errno != ECONNABORTED) {
                say(LogLevel::kError,
                    std::string(words.name) + " cannot connect: " + std::string(std::strerror(errno)));
            }
            return;
        }
        if (peer && now.steady - peer->lastRead > kHung) {
            end(now, std::string(words.name) + " was silent for " + std::to_string(kHung.count()) +
                         " s, and another one takes its place");
        }
        if (peer) {
            send(connection.number(), refusal.data(), refusal.size(), MSG_NOSIGNAL);
            trouble.say(LogLevel::kWarning, std::string(words.second) + " was refused at " + path.string());
            return;
        }
        peer.emplace(Peer{std::move(connection), handlers.connect(), now.steady, now.steady, hello});
        // A new socket has room for it; one of another version is to hear it too.
        write();
    }

    void read(const Now& now) {
        const bool before = peer->agreed();
        const std::string name = words.name;
        for (int i = 0; i < kReadsAtOnce; ++i) {
            const ssize_t count = recv(peer->connection.number(), buffer.data(), buffer.size(), 0);
            if (count < 0 && (errno == EAGAIN || errno == EINTR)) {
                break;
            }
            if (count <= 0) {
                return end(now, peer->agreed() ? name + " went away" : std::string());
            }
            peer->lastRead = now.steady;
            try {
                peer->reader->received({buffer.data(), static_cast<std::size_t>(count)}, now);
            } catch (const PeerRefused& error) {
                return end(now, name + " " + error.what() + "; its connection was closed",
                           LogLevel::kWarning);
            } catch (const std::bad_alloc&) {
                return end(now, "there is no memory for what " + name + " sent; its connection was closed",
                           LogLevel::kError);
            }
        }
        if (!before && peer->agreed() && now.steady >= quietUntil) {
            trouble.resolved();
            log(LogLevel::kNotice, name + " " + handlers.version(now.steady) + " is connected");
        }
    }

    // What is written is never waited for: one that does not read gets the newest when it does.
    void write() {
        while (peer->reads) {
            if (peer->writing.empty()) {
                peer->written = 0;
                const std::lock_guard lock(mutex);
                if (!peer->agreed() || peer->sentRevision == revision) {
                    return;
                }
                peer->sentRevision = revision;
                peer->writing = newest;
            }
            const ssize_t count = send(peer->connection.number(), peer->writing.data() + peer->written,
                                       peer->writing.size() - peer->written, MSG_NOSIGNAL);
            if (count < 0) {
                if (errno != EAGAIN && errno != EINTR) {
                    // What it sent before it went is read, and its end seen, at the next look.
                    peer->writing.clear();
                    peer->reads = false;
                }
                return;
            }
            peer->written += static_cast<std::size_t>(count);
            if (peer->written == peer->writing.size()) {
                peer->writing.clear();
            }
        }
    }

    void end(const Now& now, const std::string& why, LogLevel level = LogLevel::kNotice) {
        peer.reset();
        handlers.disconnected(now);
        if (level != LogLevel::kNotice) {
            quietUntil = now.steady + kQuiet;
        }
        if (!why.empty()) {
            say(level, why);
        }
    }
};

PeerPort::PeerPort(std::filesystem::path path, const Words& words, std::string hello, std::string refusal,
                   Handlers handlers)
    : implementation_(std::make_unique<Implementation>(std::move(path), words, std::move(hello),
                                                       std::move(refusal), std::move(handlers))) {
    if (!implementation_->path.empty()) {
        implementation_->thread =
            std::jthread([this](const std::stop_token& stop) { implementation_->run(stop); });
    }
}

PeerPort::~PeerPort() = default;

void PeerPort::tell(std::string message) {
    const std::lock_guard lock(implementation_->mutex);
    ++implementation_->revision;
    implementation_->newest = std::move(message);
}

}  // namespace station
