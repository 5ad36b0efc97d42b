#include "streamNameKeeper.h"

#include <algorithm>
#include <utility>

#include "common/text.h"
#include "common/textFile.h"

namespace station {

std::string streamNamesText(const StreamNames& names) {
    std::string text;
    for (const auto& [group, name] : names) {
        text += group.text() + " " + name + "\n";
    }
    return text;
}

StreamNames parseStreamNames(std::string_view text) {
    StreamNames names;
    while (!text.empty() && names.size() < kChannelsLimit) {
        const std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(line.size() + 1, text.size()));
        const std::size_t space = line.find(' ');
        const auto group = Group::parse(line.substr(0, space));
        if (!group || space == std::string_view::npos) {
            continue;
        }
        if (std::string name = printable(toUtf8(std::string(line.substr(space + 1))), kNameLimit);
            !name.empty()) {
            names.insert_or_assign(*group, std::move(name));
        }
    }
    return names;
}

StreamNameKeeper::StreamNameKeeper(const std::filesystem::path& stateDirectory)
    : file_(stateDirectory / "stream-names"), thread_([this] { run(); }) {}

StreamNameKeeper::~StreamNameKeeper() {
    {
        const std::lock_guard lock(mutex_);
        ending_ = true;
    }
    news_.notify_all();
    thread_.join();
}

std::optional<StreamNames> StreamNameKeeper::takeRead(std::chrono::milliseconds time) {
    std::unique_lock lock(mutex_);
    news_.wait_for(lock, time, [this] { return read_.has_value(); });
    return std::exchange(read_, std::nullopt);
}

void StreamNameKeeper::save(const StreamNames& names) {
    std::string text = streamNamesText(names);
    {
        const std::lock_guard lock(mutex_);
        toWrite_ = std::move(text);
    }
    news_.notify_all();
}

void StreamNameKeeper::run() {
    std::string problem;
    written_ = readTextFile(file_, kBytes, problem);
    std::unique_lock lock(mutex_);
    read_ = parseStreamNames(written_);
    news_.notify_all();
    while (!ending_ || toWrite_) {
        news_.wait(lock, [this] { return ending_ || toWrite_; });
        if (toWrite_) {
            const std::string text = *std::exchange(toWrite_, std::nullopt);
            lock.unlock();
            write(text);
            lock.lock();
            news_.wait_for(lock, kEvery, [this] { return ending_; });
        }
    }
}

void StreamNameKeeper::write(const std::string& text) {
    if (text == written_) {
        return;
    }
    const std::string problem = replaceTextFile(file_, text);
    if (problem.empty()) {
        written_ = text;
        trouble_.resolved("the names that streams have are on the disk again");
    } else {
        trouble_.say(LogLevel::kWarning, "names that streams have are forgotten with a restart: " +
                                             file_.string() + " " + problem);
    }
}

}  // namespace station
