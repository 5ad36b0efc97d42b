#include "channelSaver.h"

#include <condition_variable>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "common/log.h"

namespace station {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

}  // namespace

struct ChannelSaver::Implementation {
    RuntimeChannelFile file;  // the saver's thread alone
    const std::filesystem::path name;
    const std::function<void(LoadedRuntime&&)> loaded;

    // Below: the saver's thread alone.
    LogOnChange trouble;
    steady_clock::time_point saveAgain;

    // Held while askers are told, so that none is behind mute(); taken before `mutex`.
    std::mutex tellMutex;
    bool muted = false;

    std::mutex mutex;  // guards what follows
    std::condition_variable news;
    std::optional<LoadedRuntime> first;
    bool firstTaken = false;
    bool known = false;  // what is on the disk was taken up
    std::optional<RuntimeChannels> toSave;
    std::vector<std::function<void(const std::string&)>> askers;
    bool ending = false;
    bool ended = false;

    std::thread thread;

    Implementation(const std::filesystem::path& stateDirectory, std::function<void(LoadedRuntime&&)> loaded_)
        : file(stateDirectory),
          name(stateDirectory / "channels.json"),
          loaded(std::move(loaded_)),
          thread([this] { run(); }) {}
    ~Implementation() {
        end(milliseconds(0));
        thread.join();
    }

    void run() {
        bool last = false;
        while (!last) {
            if (!known) {
                load();
            }
            saveNow();
            std::unique_lock lock(mutex);
            news.wait_for(lock, known ? kSavesAgain : kLoadsAgain,
                          [this] { return ending || (known && !askers.empty()); });
            last = ending;
        }
        saveAgain = {};
        saveNow();
        const std::lock_guard lock(mutex);
        ended = true;
        news.notify_all();
    }

    void load() {
        LoadedRuntime read = file.load();
        if (!read.problem.empty()) {
            trouble.say(read.channels ? LogLevel::kWarning : LogLevel::kError, read.problem);
        }
        std::unique_lock lock(mutex);
        known = read.channels.has_value();
        if (read.unsaved) {
            toSave = read.channels;
        }
        if (!firstTaken) {
            first = std::move(read);
            news.notify_all();
            return;
        }
        lock.unlock();
        if (read.channels && read.problem.empty()) {
            trouble.resolved(name.string() + " could be read: the channels of the run time are there again");
        }
        if (read.channels) {
            loaded(std::move(read));
        }
    }

    void saveNow() {
        std::optional<RuntimeChannels> channels;
        std::vector<std::function<void(const std::string&)>> callbacks;
        {
            const std::lock_guard lock(mutex);
            if (!known || !toSave || (askers.empty() && steady_clock::now() < saveAgain)) {
                return;
            }
            channels.swap(toSave);
            callbacks.swap(askers);
        }
        const std::string problem = file.save(*channels);
        if (problem.empty()) {
            trouble.resolved("the channels added at run time are on the disk again");
        } else {
            trouble.say(LogLevel::kError, "the channels added at run time are only in memory: " + problem);
            saveAgain = steady_clock::now() + kSavesAgain;
            const std::lock_guard lock(mutex);
            if (!toSave) {
                toSave = std::move(channels);
            }
        }
        const std::lock_guard lock(tellMutex);
        for (const auto& asker : muted ? decltype(callbacks){} : callbacks) {
            asker(problem);
        }
    }

    bool end(milliseconds time) {
        std::unique_lock lock(mutex);
        ending = true;
        news.notify_all();
        return news.wait_for(lock, time, [this] { return ended; });
    }
};

ChannelSaver::ChannelSaver(const std::filesystem::path& stateDirectory,
                           std::function<void(LoadedRuntime&&)> loaded)
    : implementation_(std::make_unique<Implementation>(stateDirectory, std::move(loaded))) {}

ChannelSaver::~ChannelSaver() = default;

LoadedRuntime ChannelSaver::load(std::chrono::milliseconds time) {
    Implementation& own = *implementation_;
    std::unique_lock lock(own.mutex);
    own.news.wait_for(lock, time, [&] { return own.first.has_value(); });
    own.firstTaken = true;
    return own.first ? std::move(*own.first)
                     : LoadedRuntime{std::nullopt, own.name.string() + " is not read yet: the disk is slow"};
}

void ChannelSaver::save(RuntimeChannels channels, std::function<void(const std::string& problem)> done) {
    Implementation& own = *implementation_;
    bool known = false;
    {
        const std::lock_guard lock(own.mutex);
        known = own.known;
        if (known) {
            own.toSave = std::move(channels);
        }
        if (known && own.askers.size() < kAskers) {
            own.askers.push_back(std::exchange(done, nullptr));
        }
    }
    own.news.notify_all();
    if (done) {
        done(known ? "the disk is slow, and too many changes wait for it"
                   : own.name.string() + " could not be read yet, and is not written over");
    }
}

void ChannelSaver::mute() {
    const std::lock_guard lock(implementation_->tellMutex);
    implementation_->muted = true;
}

bool ChannelSaver::end(std::chrono::milliseconds time) {
    return implementation_->end(time);
}

}  // namespace station
