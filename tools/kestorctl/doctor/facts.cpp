#include "facts.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <fstream>
#include <sstream>

namespace doctor {

namespace {

constexpr std::size_t kTextLimit = std::size_t{1} << 20;
constexpr std::size_t kPackagesLimit = std::size_t{64} << 20;  // dpkg's list
constexpr const char* kStateDirectory = "/var/lib/kestor";
constexpr const char* kListen = "0A";  // of the kernel's TCP states

std::optional<std::string> readAtMost(const fs::path& file, std::size_t limit) {
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        return std::nullopt;
    }
    std::string text;
    for (char block[4096]; text.size() < limit && (in.read(block, sizeof block), in.gcount() > 0);) {
        text.append(block, static_cast<std::size_t>(in.gcount()));
    }
    return in.bad() ? std::nullopt : std::optional(std::move(text));
}

template <typename Number>
std::optional<Number> number(std::string_view text, int base = 10) {
    Number value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    return error == std::errc() && end == text.data() + text.size() ? std::optional(value) : std::nullopt;
}

std::vector<std::string> words(const std::string& line) {
    std::istringstream in(line);
    std::vector<std::string> result;
    for (std::string word; in >> word;) {
        result.push_back(word);
    }
    return result;
}

std::vector<std::string> parts(std::string_view line, char separator) {
    std::vector<std::string> result;
    for (std::size_t from = 0; from <= line.size();) {
        const std::size_t to = std::min(line.find(separator, from), line.size());
        result.emplace_back(line.substr(from, to - from));
        from = to + 1;
    }
    return result;
}

// "PORT" of "ADDRESS:PORT", both as the kernel writes them.
std::optional<uint16_t> portOf(const std::string& end) {
    return number<uint16_t>(std::string_view(end).substr(std::min(end.rfind(':') + 1, end.size())), 16);
}

void lookAtConnections(const fs::path& file, uint16_t port, PortUse& use) {
    const auto text = readText(file);
    use.seen = use.seen || text.has_value();
    for (const std::string& line : linesOf(text.value_or(""))) {
        // sl local remote state queues timer retransmits uid timeout inode
        const auto columns = words(line);
        if (columns.size() < 10 || (portOf(columns[1]) != port && portOf(columns[2]) != port)) {
            continue;
        }
        if (columns[3] != kListen) {
            use.asked = true;
        } else if (portOf(columns[1]) == port) {
            use.listener = number<uid_t>(columns[7]);
            use.inode = number<uint64_t>(columns[9]).value_or(0);
        }
    }
}

}  // namespace

std::optional<std::string> readText(const fs::path& file) {
    return readAtMost(file, kTextLimit);
}

std::vector<std::string> linesOf(std::string_view text) {
    auto lines = parts(text, '\n');
    if (!lines.empty() && lines.back().empty()) {
        lines.pop_back();
    }
    return lines;
}

std::vector<Process> Processes::named(std::string_view name) const {
    std::vector<Process> found;
    std::ranges::copy_if(all, std::back_inserter(found),
                         [&](const Process& one) { return one.name == name; });
    return found;
}

Processes readProcesses(const fs::path& root) {
    Processes processes;
    std::error_code error;
    for (fs::directory_iterator entry(root / "proc", error), end; !error && entry != end;
         entry.increment(error)) {
        const auto pid = number<pid_t>(entry->path().filename().string());
        const auto name = pid ? readText(entry->path() / "comm") : std::nullopt;
        if (!name || name->empty()) {
            continue;
        }
        Process process{*pid, name->substr(0, name->find('\n'))};
        struct stat status {};
        if (stat(entry->path().c_str(), &status) == 0) {
            process.user = status.st_uid;
        }
        std::error_code hidden;
        process.replaced = fs::read_symlink(entry->path() / "exe", hidden).string().ends_with(" (deleted)");
        // Under hidepid the first process is among those that are not shown.
        processes.whole = processes.whole || *pid == 1;
        processes.all.push_back(std::move(process));
    }
    return processes;
}

std::optional<std::set<uint64_t>> readSockets(const fs::path& root, const Processes& processes,
                                              std::string_view name) {
    std::set<uint64_t> inodes;
    for (const Process& process : processes.named(name)) {
        std::error_code error;
        for (fs::directory_iterator entry(root / "proc" / std::to_string(process.pid) / "fd", error), end;
             !error && entry != end; entry.increment(error)) {
            std::error_code closed;
            const std::string target = fs::read_symlink(entry->path(), closed).string();
            constexpr std::string_view kSocket = "socket:[";
            if (target.starts_with(kSocket)) {
                inodes.insert(
                    number<uint64_t>(target.substr(kSocket.size(), target.size() - kSocket.size() - 1))
                        .value_or(0));
            }
        }
        if (error == std::errc::permission_denied) {
            return std::nullopt;
        }
    }
    return inodes;
}

PortUse readPort(const fs::path& root, uint16_t port) {
    PortUse use;
    lookAtConnections(root / "proc/self/net/tcp6", port, use);
    lookAtConnections(root / "proc/self/net/tcp", port, use);
    return use;
}

std::optional<Process> ownerOf(const fs::path& root, uint64_t inode, const Processes& processes) {
    const std::string socket = "socket:[" + std::to_string(inode) + "]";
    for (const Process& process : processes.all) {
        std::error_code error;
        for (fs::directory_iterator entry(root / "proc" / std::to_string(process.pid) / "fd", error), end;
             !error && entry != end; entry.increment(error)) {
            std::error_code gone;
            if (fs::read_symlink(entry->path(), gone) == socket) {
                return process;
            }
        }
    }
    return std::nullopt;
}

std::optional<Account> findUser(const fs::path& root, std::string_view name) {
    for (const std::string& line : linesOf(readText(root / "etc/passwd").value_or(""))) {
        const auto columns = parts(line, ':');
        if (columns.size() > 2 && columns[0] == name) {
            return Account{columns[0], number<uid_t>(columns[2]).value_or(0)};
        }
    }
    return std::nullopt;
}

std::string userName(const fs::path& root, uid_t id) {
    for (const std::string& line : linesOf(readText(root / "etc/passwd").value_or(""))) {
        const auto columns = parts(line, ':');
        if (columns.size() > 2 && number<uid_t>(columns[2]) == id) {
            return columns[0];
        }
    }
    return "user " + std::to_string(id);
}

std::optional<Group> findGroup(const fs::path& root, std::string_view name) {
    for (const std::string& line : linesOf(readText(root / "etc/group").value_or(""))) {
        const auto columns = parts(line, ':');
        if (columns.size() > 3 && columns[0] == name) {
            return Group{number<gid_t>(columns[2]).value_or(0), parts(columns[3], ',')};
        }
    }
    return std::nullopt;
}

std::map<std::string, std::string> readPackages(const fs::path& root, const std::vector<std::string>& names) {
    std::map<std::string, std::string> versions;
    std::string name;
    bool installed = false;
    const auto valueOf = [](const std::string& line, std::string_view field) {
        return line.starts_with(field) ? std::optional(line.substr(field.size())) : std::nullopt;
    };
    const auto text = readAtMost(root / "var/lib/dpkg/status", kPackagesLimit);
    for (const std::string& line : linesOf(text.value_or(""))) {
        if (const auto value = valueOf(line, "Package: ")) {
            name = *value;
            installed = false;
        } else if (const auto status = valueOf(line, "Status: ")) {
            installed = status->ends_with(" installed");
        } else if (const auto version = valueOf(line, "Version: ");
                   version && installed && std::ranges::find(names, name) != names.end()) {
            versions[name] = *version;
        }
    }
    return versions;
}

namespace {

// What a process was started with.
std::vector<std::string> argumentsOf(const fs::path& root, const Process& process) {
    return parts(readText(root / "proc" / std::to_string(process.pid) / "cmdline").value_or(""), '\0');
}

// The value of the last such option; nothing where there is none.
std::optional<fs::path> valueOf(const std::vector<std::string>& arguments, const std::string& option) {
    std::optional<fs::path> value;
    for (std::size_t i = 1; i < arguments.size(); ++i) {
        if (arguments[i] == option && i + 1 < arguments.size()) {
            value = arguments[++i];
        } else if (arguments[i].starts_with(option + "=")) {
            value = arguments[i].substr(option.size() + 1);
        }
    }
    return value;
}

// What a configuration's text says; nothing where it leaves the default.
std::optional<fs::path> configuredState(const std::string& text) {
    // A line of the file's first table; whoever writes it in another way gets the default's disk checked.
    for (const std::string& line : linesOf(text)) {
        const auto columns = parts(line, '"');
        const auto key = words(columns[0]);
        if (columns.size() == 3 && key.size() == 2 && key[0] == "state_dir" && key[1] == "=") {
            return columns[1];
        }
        if (line.starts_with('[')) {
            break;
        }
    }
    return std::nullopt;
}

}  // namespace

std::optional<fs::path> readStateDirectory(const fs::path& root, const Processes& processes) {
    fs::path configuration = "/etc/kestor/station.toml";
    fs::path place = "/";  // of the station, where relative paths of its command line count from
    if (const auto stations = processes.named("kestor-station"); !stations.empty()) {
        const auto arguments = argumentsOf(root, stations.front());
        std::error_code hidden;
        place = fs::read_symlink(root / "proc" / std::to_string(stations.front().pid) / "cwd", hidden);
        if (const auto state = valueOf(arguments, "--state"); state && !state->empty()) {
            return place / *state;
        }
        configuration = place / valueOf(arguments, "--config").value_or(configuration);
    }
    const fs::path file = root / configuration.relative_path();
    if (access(file.c_str(), R_OK) != 0 && errno == EACCES) {
        return std::nullopt;
    }
    const auto state = configuredState(readText(file).value_or(""));
    return state ? configuration.parent_path() / *state : fs::path(kStateDirectory);
}

std::optional<int64_t> readSysctl(const fs::path& root, std::string_view key) {
    std::string path(key);
    std::ranges::replace(path, '.', '/');
    const auto text = readText(root / "proc/sys" / path);
    return text ? number<int64_t>(text->substr(0, text->find_first_of(" \t\n"))) : std::nullopt;
}

}  // namespace doctor
