#include "common/fileWatch.h"

#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <thread>

#include "basics/descriptor.h"
#include "common/clock.h"

namespace station {

namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;

constexpr milliseconds kPollInterval{2000};
constexpr milliseconds kRestStep{50};
constexpr int kLinksLimit = 40;  // links followed for one file, as the kernel does
constexpr int kReadsLimit = 16;  // of the event queue in one call
constexpr uint32_t kNameEvents = IN_CREATE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE;
constexpr uint32_t kFileEvents = kNameEvents | IN_MODIFY | IN_CLOSE_WRITE | IN_ATTRIB;

// What tells one state of a file from another; all zero when it is not there.
struct Signature {
    uint64_t device = 0, inode = 0, size = 0;
    nanoseconds modified{0}, statusChanged{0};
    bool operator==(const Signature&) const = default;
};

nanoseconds timeOf(const timespec& time) {
    return std::chrono::seconds(time.tv_sec) + nanoseconds(time.tv_nsec);
}

Signature signatureOf(const std::filesystem::path& file) {
    struct stat status {};
    if (stat(file.c_str(), &status) != 0) {
        return {};
    }
    return {status.st_dev, status.st_ino, static_cast<uint64_t>(status.st_size), timeOf(status.st_mtim),
            timeOf(status.st_ctim)};
}

// A change that is waited on until it is over.
struct Pending {
    SteadyTime due;
    Signature seen;
    milliseconds quiet;
};

struct File {
    std::filesystem::path path;      // as the caller named it
    std::filesystem::path absolute;  // without "." and ".."
    Signature known;                 // when it was last told, or first watched
    std::optional<Pending> pending;
    bool maybeOpen = false;       // made, and not seen closed since
    bool writing = false;         // written to, and not seen closed since
    bool checkRequested = false;  // to be told once it rests
};

}  // namespace

struct FileWatch::Implementation {
    explicit Implementation(std::function<void(const std::filesystem::path&)> looks_)
        : looks(std::move(looks_)) {
        for (const int descriptor : {inotify.number(), timer.number()}) {
            epoll_event event{};
            event.events = EPOLLIN;
            if (descriptor >= 0) {
                epoll_ctl(epoll.number(), EPOLL_CTL_ADD, descriptor, &event);
            }
        }
    }

    void look(const std::filesystem::path& file) const {
        if (looks) {
            looks(file);
        }
    }

    // Adds a watch of a directory for what happens to one name in it, for the sake of one file.
    void watchName(const std::filesystem::path& directory, const std::string& name, std::size_t file,
                   bool last) {
        const uint32_t events = (last ? kFileEvents : kNameEvents) | IN_ONLYDIR | IN_MASK_ADD;
        const int watch =
            !inotify.isOpen() ? -1 : inotify_add_watch(inotify.number(), directory.c_str(), events);
        if (watch >= 0) {
            watches[watch].emplace(name, file);
        }
        // A directory that went away is seen from the one above; for any other without a watch its files are
        // polled as all are.
    }

    // Watches every directory that the way to a file leads through, links and all. Each is watched before the
    // next is looked for, so that what comes meanwhile is seen.
    void watchWay(std::size_t file) {
        const auto parts = [](const std::filesystem::path& path) {
            const std::filesystem::path way = path.relative_path();
            return std::deque<std::filesystem::path>(way.begin(), way.end());
        };
        std::filesystem::path directory = "/";
        std::deque<std::filesystem::path> left = parts(files[file].absolute);
        for (int links = 0; !left.empty();) {
            const std::filesystem::path name = left.front();
            left.pop_front();
            if (name == ".." || name == "." || name.empty()) {
                directory = name == ".." ? directory.parent_path() : directory;
                continue;
            }
            watchName(directory, name.string(), file, left.empty());
            std::error_code error;
            const auto kind = std::filesystem::symlink_status(directory / name, error).type();
            if (kind == std::filesystem::file_type::symlink) {
                const auto target = std::filesystem::read_symlink(directory / name, error);
                if (error || ++links > kLinksLimit) {
                    return;
                }
                directory = target.is_absolute() ? "/" : directory;
                const auto more = parts(target);
                left.insert(left.begin(), more.begin(), more.end());
            } else if (kind == std::filesystem::file_type::directory) {
                directory /= name;
            } else {
                return;
            }
        }
    }

    void watchAll() {
        const auto before = std::move(watches);
        watches.clear();
        for (std::size_t file = 0; file < files.size(); ++file) {
            look(files[file].path);
            watchWay(file);
        }
        for (const auto& [watch, names] : before) {
            if (!watches.contains(watch)) {
                inotify_rm_watch(inotify.number(), watch);
            }
        }
    }

    static void touched(File& file, SteadyTime now, milliseconds quiet = kFileQuiet) {
        file.pending = {now + quiet, signatureOf(file.absolute), quiet};
    }

    // True when the ways to the files have to be looked at anew.
    bool handle(const inotify_event& event, std::string_view name, SteadyTime now) {
        const auto watch = watches.find(event.wd);
        if ((event.mask & IN_Q_OVERFLOW) != 0 || (watch != watches.end() && (event.mask & IN_IGNORED) != 0)) {
            for (File& file : files) {  // closing it may be among what was missed
                file.maybeOpen = file.maybeOpen || file.writing;
                file.writing = false;
                touched(file, now);
            }
            return true;
        }
        if (watch == watches.end()) {
            return false;
        }
        const auto [from, to] = watch->second.equal_range(std::string(name));
        for (auto entry = from; entry != to; ++entry) {
            File& file = files[entry->second];
            if ((event.mask & IN_MODIFY) != 0) {
                file.writing = !file.maybeOpen;
                continue;
            }
            touched(file, now);
            if ((event.mask & (kNameEvents | IN_CLOSE_WRITE)) != 0) {
                file.writing = false;
                file.maybeOpen = (event.mask & IN_CREATE) != 0;
            }
        }
        return from != to && (event.mask & kNameEvents) != 0;
    }

    void takeEvents(SteadyTime now) {
        bool rebuild = false;
        alignas(inotify_event) std::array<char, 16384> buffer;
        for (int reads = 0; inotify.isOpen() && reads < kReadsLimit; ++reads) {
            const ssize_t got = read(inotify.number(), buffer.data(), buffer.size());
            if (got <= 0) {
                break;
            }
            for (std::size_t at = 0; at < static_cast<std::size_t>(got);) {
                inotify_event event{};
                std::memcpy(&event, buffer.data() + at, sizeof(event));
                const char* const name = buffer.data() + at + sizeof(event);
                rebuild |= handle(event, {name, strnlen(name, event.len)}, now);
                at += sizeof(event) + event.len;
            }
        }
        if (rebuild) {
            watchAll();
        }
    }

    // Whether the change that is waited on is over and really was one.
    bool settle(File& file, SteadyTime now) {
        if (!file.pending || file.pending->due > now || file.writing) {
            return false;
        }
        look(file.path);
        const Signature signature = signatureOf(file.absolute);
        if (signature != file.pending->seen) {
            touched(file, now, file.pending->quiet);
            return false;
        }
        const nanoseconds age = std::chrono::system_clock::now().time_since_epoch() - signature.modified;
        if (file.maybeOpen && signature != file.known && age >= nanoseconds(0) && age < kOpenFileQuiet) {
            file.pending->due = now + std::chrono::ceil<milliseconds>(kOpenFileQuiet - age);
            return false;
        }
        const bool changed = signature != file.known || file.checkRequested;
        file.known = signature;
        file.pending.reset();
        file.maybeOpen = false;
        file.checkRequested = false;
        return changed;
    }

    void setTimer(SteadyTime now) {
        SteadyTime next = nextPoll;
        for (const File& file : files) {
            if (file.pending && !file.writing) {
                next = std::min(next, file.pending->due);
            }
        }
        const nanoseconds wait = std::max<nanoseconds>(next - now, milliseconds(1));
        itimerspec setting{};
        setting.it_value.tv_sec = static_cast<time_t>(std::chrono::floor<std::chrono::seconds>(wait).count());
        setting.it_value.tv_nsec = static_cast<long>((wait % std::chrono::seconds(1)).count());
        timerfd_settime(timer.number(), 0, &setting, nullptr);  // which also takes what it has told
    }

    void pollFiles(SteadyTime now) {
        if (now < nextPoll) {
            return;
        }
        nextPoll = now + kPollInterval;
        bool news = false;
        for (File& file : files) {
            look(file.path);
            if (!file.pending && !file.writing && signatureOf(file.absolute) != file.known) {
                touched(file, now, kOpenFileQuiet);
                news = true;
            }
        }
        if (news) {
            watchAll();
        }
    }

    File* find(const std::filesystem::path& path) {
        const auto found = std::ranges::find(files, path, &File::path);
        return found == files.end() ? nullptr : &*found;
    }

    bool rests(File& file, SteadyTime now) {
        takeEvents(now);
        look(file.path);
        if (!file.writing && !file.pending) {
            const Signature signature = signatureOf(file.absolute);
            const nanoseconds age = std::chrono::system_clock::now().time_since_epoch() - signature.modified;
            if (age < nanoseconds(0) || age >= kFileQuiet) {
                file.known = signature;
                return true;
            }
            touched(file, now);
        }
        file.checkRequested = true;
        setTimer(now);
        return false;
    }

    const std::function<void(const std::filesystem::path&)> looks;
    const basics::Descriptor epoll{epoll_create1(EPOLL_CLOEXEC)};
    const basics::Descriptor inotify{inotify_init1(IN_CLOEXEC | IN_NONBLOCK)};
    const basics::Descriptor timer{timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)};
    std::vector<File> files;
    // By watch descriptor: the names that matter in that directory, with the files they matter for.
    std::map<int, std::multimap<std::string, std::size_t>> watches;
    SteadyTime nextPoll = std::chrono::steady_clock::now() + kPollInterval;
};

FileWatch::FileWatch(std::function<void(const std::filesystem::path&)> looks)
    : implementation_(std::make_unique<Implementation>(std::move(looks))) {}

FileWatch::~FileWatch() = default;

void FileWatch::watch(const std::vector<std::filesystem::path>& files) {
    Implementation& own = *implementation_;
    std::vector<File> fresh;
    for (const std::filesystem::path& path : files) {
        const auto known = std::find_if(own.files.begin(), own.files.end(),
                                        [&](const File& file) { return file.path == path; });
        if (known != own.files.end()) {
            fresh.push_back(*known);
            continue;
        }
        std::error_code error;
        const std::filesystem::path absolute = std::filesystem::absolute(path, error).lexically_normal();
        own.look(path);
        fresh.push_back({path, absolute, signatureOf(absolute), {}});
    }
    own.files = std::move(fresh);
    own.watchAll();
    own.setTimer(std::chrono::steady_clock::now());
}

int FileWatch::descriptor() const {
    return implementation_->timer.isOpen() ? implementation_->epoll.number() : -1;
}

bool FileWatch::rests(const std::filesystem::path& file) {
    File* const known = implementation_->find(file);
    return known == nullptr || implementation_->rests(*known, std::chrono::steady_clock::now());
}

bool FileWatch::awaitRest(const std::filesystem::path& file, SteadyTime until,
                          const std::function<bool()>& stop) {
    while (!rests(file)) {
        const SteadyTime now = std::chrono::steady_clock::now();
        if (now >= until || stop()) {
            return false;
        }
        std::this_thread::sleep_for(kRestStep);
        implementation_->settle(*implementation_->find(file), now);
    }
    return true;
}

std::vector<std::filesystem::path> FileWatch::changed() {
    Implementation& own = *implementation_;
    const SteadyTime now = std::chrono::steady_clock::now();
    own.takeEvents(now);
    own.pollFiles(now);
    std::vector<std::filesystem::path> result;
    for (File& file : own.files) {
        if (own.settle(file, now)) {
            result.push_back(file.path);
        }
    }
    own.setTimer(now);
    return result;
}

}  // namespace station
