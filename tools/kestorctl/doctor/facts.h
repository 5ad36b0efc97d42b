// What the checks go by: read from the file system below a root, so that a made-up machine is checked like a
// real one. Nothing here needs a right; what the caller may not see is told as that.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace doctor {

namespace fs = std::filesystem;

// A file's first 1 MiB, as text; nothing where it cannot be read.
std::optional<std::string> readText(const fs::path& file);
std::vector<std::string> linesOf(std::string_view text);

struct Process {
    pid_t pid = 0;
    std::string name{};  // as the kernel has it, 15 bytes at most
    uid_t user = 0;
    bool replaced = false;  // its program's file was replaced since it began, as far as that can be seen
};
struct Processes {
    std::vector<Process> all{};
    bool whole = false;  // those of other users can be seen as well

    std::vector<Process> named(std::string_view name) const;
    bool run(std::string_view name) const {
        return !named(name).empty();
    }
};
Processes readProcesses(const fs::path& root);
// Inodes of the sockets of processes with a name; nothing where one of them may not be looked at.
std::optional<std::set<uint64_t>> readSockets(const fs::path& root, const Processes& processes,
                                              std::string_view name);

// Who listens on a TCP port of this machine, and whether somebody was connected to it within a minute.
struct PortUse {
    bool seen = false;                // false: it could not be read
    std::optional<uid_t> listener{};  // its user
    uint64_t inode = 0;               // of the listener's socket
    bool asked = false;
};
PortUse readPort(const fs::path& root, uint16_t port);
// The process that has a socket, among those whose descriptors the caller may see.
std::optional<Process> ownerOf(const fs::path& root, uint64_t inode, const Processes& processes);

struct Account {
    std::string name{};
    uid_t id = 0;
};
// Of /etc/passwd.
std::optional<Account> findUser(const fs::path& root, std::string_view name);
std::string userName(const fs::path& root, uid_t id);  // "user 1000" for one without a name
struct Group {
    gid_t id = 0;
    std::vector<std::string> members{};
};
// Of /etc/group.
std::optional<Group> findGroup(const fs::path& root, std::string_view name);

// Versions of the Debian packages of these names that are installed.
std::map<std::string, std::string> readPackages(const fs::path& root, const std::vector<std::string>& names);

// The station's state directory: of the --state or the --config that the running one was started with, else
// what /etc/kestor/station.toml names, else the default. Nothing where that file may not be read.
std::optional<fs::path> readStateDirectory(const fs::path& root, const Processes& processes);

// A sysctl's number, by its name with dots.
std::optional<int64_t> readSysctl(const fs::path& root, std::string_view key);

}  // namespace doctor
