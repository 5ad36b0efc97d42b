#include "meter/meterPort.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <thread>
#include <utility>

#include "basics/descriptor.h"
#include "common/log.h"
#include "common/unixListener.h"
#include "meter/meterSession.h"

namespace station {

namespace {

using namespace std::chrono_literals;
using basics::Descriptor;

constexpr std::size_t kReadBytes = std::size_t{256} * 1024;
constexpr int kReadsAtOnce = 16;  // before what is to be sent is looked at
constexpr auto kLooks = 50ms;     // for the end of the thread and for channels that changed
constexpr auto kListensAgain = 1s;
constexpr auto kQuiet = 60s;
constexpr const char* kOneAlready = "another meter is connected already: stop one of them";

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

struct MeterPort::Implementation {
    const std::filesystem::path path;
    const std::string version;
    MeterBook& book;

    std::optional<std::vector<MeteredChannel>> watched;  // of who calls watch()

    std::mutex mutex;       // guards the next two; no lock is taken while it is held
    std::string groups;     // the framed message of what is watched
    uint64_t revision = 0;  // its; 0: nothing is known of what is to be watched

    // The thread alone.
    struct Meter {
        Descriptor connection;
        MeterSession session;
        SteadyTime since;
        SteadyTime lastRead;
        std::string writing{};  // with what of it was written
        std::size_t written = 0;
        uint64_t told = 0;  // revision
        bool reads = true;
    };
    Descriptor listener;
    FileId file;
    SteadyTime nextListen;
    std::optional<Meter> meter;
    LogOnChange trouble;
    SteadyTime quietUntil;  // one that sends nonsense connects again each second, and is told once
    std::vector<char> buffer = std::vector<char>(kReadBytes);
    std::jthread thread;

    Implementation(std::filesystem::path path_, std::string version_, MeterBook& book_)
        : path(std::move(path_)), version(std::move(version_)), book(book_) {}

    void run(const std::stop_token& stop) {
        pthread_setname_np(pthread_self(), "meter");
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
            listener = Descriptor(listenUnix(path));
            file = FileId::of(path);
            book.setProblem({});
            trouble.over("listening for the meter at " + path.string());
        } catch (const std::runtime_error& error) {
            tell(LogLevel::kWarning,
                 std::string(error.what()) +
                     "; tried again every second. Without a meter set meter_socket = \"\"");
        }
    }

    // Into the log, once, and the status.
    void tell(LogLevel level, const std::string& text) {
        book.setProblem(text);
        trouble.say(level, text);
    }

    void serve() {
        const bool writes = meter && !meter->writing.empty();
        std::array<pollfd, 2> polls{{{listener.number(), POLLIN, 0},
                                     {meter ? meter->connection.number() : -1,
                                      static_cast<short>(POLLIN | (writes ? POLLOUT : 0)), 0}}};
        const int ready = poll(polls.data(), polls.size(), static_cast<int>(kLooks.count()));
        const Now now = systemNow();
        // What has ended makes room for who waits.
        if (meter && ready > 0 && polls[1].revents != 0) {
            readMeter(now);
        }
        if (meter && !meter->session.agreed() && now.steady - meter->since > kHelloTime) {
            end(now, "something connected to " + path.string() + " and did not say who it is: not a meter?",
                LogLevel::kWarning);
        }
        if (ready > 0 && polls[0].revents != 0) {
            accept(now);
        }
        if (meter && meter->session.agreed()) {
            writeMeter();
        }
    }

    void accept(const Now& now) {
        Descriptor connection(accept4(listener.number(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (!connection.isOpen()) {
            return;
        }
        if (meter && now.steady - meter->lastRead > kHung) {
            end(now, "the meter was silent for " + std::to_string(kHung.count()) +
                         " s, and another one takes its place");
        }
        if (meter) {
            metering::FromStation message;
            message.mutable_refused()->set_reason(kOneAlready);
            const std::string bytes = metering::framed(message);
            send(connection.number(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
            trouble.say(LogLevel::kWarning, "a second meter was refused at " + path.string());
            return;
        }
        meter.emplace(Meter{std::move(connection), MeterSession(book), now.steady, now.steady});
        metering::FromStation message;
        metering::Hello& hello = *message.mutable_hello();
        hello.set_major(metering::kMajor);
        hello.set_minor(metering::kMinor);
        hello.set_version(version);
        meter->writing = metering::framed(message);
        // A new socket has room for it; one of another version is to hear it too.
        writeMeter();
    }

    void readMeter(const Now& now) {
        const bool before = meter->session.agreed();
        for (int i = 0; i < kReadsAtOnce; ++i) {
            const ssize_t count = recv(meter->connection.number(), buffer.data(), buffer.size(), 0);
            if (count < 0 && (errno == EAGAIN || errno == EINTR)) {
                break;
            }
            if (count <= 0) {
                return end(now, meter->session.agreed() ? "the meter went away" : std::string());
            }
            meter->lastRead = now.steady;
            try {
                meter->session.received({buffer.data(), static_cast<std::size_t>(count)}, now);
            } catch (const MeterRefused& error) {
                return end(now, std::string("the meter ") + error.what() + "; its connection was closed",
                           LogLevel::kWarning);
            } catch (const std::bad_alloc&) {
                return end(now, "there is no memory for what the meter sent; its connection was closed",
                           LogLevel::kError);
            }
        }
        if (!before && meter->session.agreed()) {
            if (now.steady >= quietUntil) {
                trouble.over();
                log(LogLevel::kNotice, "the meter " + book.state(now.steady).version + " is connected");
            }
        }
    }

    // What is written is never waited for: a meter that does not read gets the newest groups when it does.
    void writeMeter() {
        while (meter->reads) {
            if (meter->writing.empty()) {
                meter->written = 0;
                const std::lock_guard lock(mutex);
                if (!meter->session.agreed() || meter->told == revision) {
                    return;
                }
                meter->told = revision;
                meter->writing = groups;
            }
            const ssize_t count = send(meter->connection.number(), meter->writing.data() + meter->written,
                                       meter->writing.size() - meter->written, MSG_NOSIGNAL);
            if (count < 0) {
                if (errno != EAGAIN && errno != EINTR) {
                    // What it sent before it went is read, and its end seen, at the next look.
                    meter->writing.clear();
                    meter->reads = false;
                }
                return;
            }
            meter->written += static_cast<std::size_t>(count);
            if (meter->written == meter->writing.size()) {
                meter->writing.clear();
            }
        }
    }

    void end(const Now& now, const std::string& why, LogLevel level = LogLevel::kNotice) {
        meter.reset();
        book.disconnected(now);
        if (level != LogLevel::kNotice) {
            quietUntil = now.steady + kQuiet;
        }
        if (!why.empty()) {
            tell(level, why);
        }
    }
};

MeterPort::MeterPort(std::filesystem::path path, std::string version, MeterBook& book)
    : implementation_(std::make_unique<Implementation>(std::move(path), std::move(version), book)) {
    metering::quietParser();
    book.setConfigured(!implementation_->path.empty());
    if (!implementation_->path.empty()) {
        implementation_->thread =
            std::jthread([this](const std::stop_token& stop) { implementation_->run(stop); });
    }
}

MeterPort::~MeterPort() = default;

std::size_t chooseMetered(std::vector<MeteredChannel>& channels) {
    if (channels.size() <= metering::kGroupsLimit) {
        return 0;
    }
    const std::size_t leftOut = channels.size() - metering::kGroupsLimit;
    std::ranges::stable_partition(channels, &MeteredChannel::join);
    channels.resize(metering::kGroupsLimit);
    return leftOut;
}

std::set<uint32_t> MeterPort::watch(std::vector<MeteredChannel> channels) {
    const std::size_t leftOut = chooseMetered(channels);
    std::set<uint32_t> joins;
    for (const MeteredChannel& channel : channels) {
        if (channel.join) {
            joins.insert(channel.group);
        }
    }
    if (implementation_->watched && channels == *implementation_->watched) {
        return joins;
    }
    metering::FromStation message;
    metering::Groups& groups = *message.mutable_groups();
    std::set<uint32_t> watched;
    for (const MeteredChannel& channel : channels) {
        metering::Group& group = *groups.add_group();
        group.set_group(channel.group);
        group.set_join(channel.join);
        if (channel.source) {
            group.set_source(*channel.source);
        }
        if (channel.port) {
            group.set_port(*channel.port);
        }
        group.set_pid_absence_ms(channel.rules.pidAbsenceMs);
        group.set_pcr_repetition_ms(channel.rules.pcrRepetitionMs);
        group.set_service_information_required(channel.rules.serviceInformation ==
                                               ServiceInformation::kRequired);
        watched.insert(channel.group);
    }
    implementation_->watched = std::move(channels);
    // First: reports of what is new may come at once.
    implementation_->book.watch(std::move(watched), leftOut, joins.size());
    const std::lock_guard lock(implementation_->mutex);
    groups.set_revision(++implementation_->revision);
    implementation_->groups = metering::framed(message);
    return joins;
}

}  // namespace station
