#include "basics/unixListener.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>
#include <system_error>

#include "basics/descriptor.h"

namespace basics {

namespace {

constexpr mode_t kMode = 0660;

Descriptor makeSocket() {
    return Descriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
}

[[noreturn]] void cannotListen(const std::filesystem::path& path, const std::string& why) {
    throw std::runtime_error("cannot listen on " + path.string() + ": " + why);
}

// Makes room for a socket at the path, where that may be done.
void removeStale(const std::filesystem::path& path, const sockaddr_un& address) {
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) {
        return;
    }
    if (!S_ISSOCK(status.st_mode)) {
        cannotListen(path, "a file that is no socket is there");
    }
    const Descriptor probe = makeSocket();
    const int result = connect(probe.number(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    if (result == 0 || errno == EAGAIN || errno == EPROTOTYPE) {
        cannotListen(path, "another program listens there");
    }
    if (errno != ECONNREFUSED) {
        cannotListen(path, std::strerror(errno));
    }
    unlink(path.c_str());
}

}  // namespace

int listenUnix(const std::filesystem::path& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string text = path.string();
    if (text.size() >= sizeof address.sun_path) {
        cannotListen(path,
                     "the path is longer than " + std::to_string(sizeof address.sun_path - 1) + " bytes");
    }
    std::memcpy(address.sun_path, text.data(), text.size());
    std::error_code ignored;
    std::filesystem::create_directory(path.parent_path(), ignored);
    removeStale(path, address);
    Descriptor socket = makeSocket();
    // Nobody can connect before it listens, so that its mode is never wider than it should be.
    if (socket.number() < 0 ||
        bind(socket.number(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        chmod(text.c_str(), kMode) != 0 || listen(socket.number(), SOMAXCONN) != 0) {
        cannotListen(path, std::strerror(errno));
    }
    return socket.release();
}

}  // namespace basics
