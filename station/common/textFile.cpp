#include "common/textFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <system_error>

#include "basics/descriptor.h"

namespace station {

namespace {

using basics::Descriptor;

Descriptor opened(const std::filesystem::path& path, int flags, mode_t mode = 0) {
    return Descriptor(open(path.c_str(), flags | O_CLOEXEC, mode));
}

// "cannot be read: No such file or directory"
std::string problemBeing(std::string_view what) {
    const int error = errno;
    return "cannot be " + std::string(what) + ": " + std::system_category().message(error);
}

// Empty when all is written and on the disk.
std::string writeNewFile(const std::filesystem::path& file, std::string_view bytes) {
    constexpr mode_t kMode = 0640;
    const Descriptor descriptor = opened(file, O_WRONLY | O_CREAT | O_TRUNC, kMode);
    if (descriptor.number() < 0) {
        return problemBeing("created");
    }
    while (!bytes.empty()) {
        const ssize_t written = write(descriptor.number(), bytes.data(), bytes.size());
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return problemBeing("written");
        }
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    return fsync(descriptor.number()) == 0 ? "" : problemBeing("written");
}

}  // namespace

std::string readTextFile(const std::filesystem::path& file, std::size_t limit, std::string& problem) {
    problem.clear();
    struct stat status {};
    if (stat(file.c_str(), &status) != 0) {
        problem = problemBeing("read");
        return {};
    }
    // Opening a device may do something to it. What takes the file's place meanwhile is seen below.
    if (!S_ISREG(status.st_mode)) {
        problem = "is no regular file";
        return {};
    }
    const Descriptor descriptor = opened(file, O_RDONLY | O_NONBLOCK);
    if (descriptor.number() < 0 || fstat(descriptor.number(), &status) != 0 || !S_ISREG(status.st_mode)) {
        problem = problemBeing("read");
        return {};
    }
    std::string bytes;
    constexpr std::size_t kStep = std::size_t{64} << 10;
    for (;;) {
        const std::size_t before = bytes.size();
        bytes.resize(before + kStep);
        const ssize_t got = read(descriptor.number(), bytes.data() + before, kStep);
        if (got < 0 && errno != EINTR) {
            problem = problemBeing("read");
            return {};
        }
        bytes.resize(before + static_cast<std::size_t>(got > 0 ? got : 0));
        if (bytes.size() > limit) {
            problem = "is larger than " + std::to_string(limit) + " bytes";
            return {};
        }
        if (got == 0) {
            return bytes;
        }
    }
}

std::string replaceTextFile(const std::filesystem::path& file, std::string_view bytes) {
    std::filesystem::path fresh = file;
    fresh += ".new";
    std::string problem = writeNewFile(fresh, bytes);
    if (problem.empty() && std::rename(fresh.c_str(), file.c_str()) != 0) {
        problem = problemBeing("replaced");
    }
    if (!problem.empty()) {
        unlink(fresh.c_str());
        return problem;
    }
    // The new name is on the disk when the directory is.
    const std::filesystem::path parent = file.has_parent_path() ? file.parent_path() : ".";
    const Descriptor directory = opened(parent, O_RDONLY | O_DIRECTORY);
    if (directory.number() < 0 || fsync(directory.number()) != 0) {
        return problemBeing("synced");
    }
    return {};
}

}  // namespace station
