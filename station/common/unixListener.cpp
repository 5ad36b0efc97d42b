#include "common/unixListener.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

namespace station {

namespace {

constexpr mode_t kMode = 0660;

class Socket {
  public:
    Socket() : descriptor_(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {}
    ~Socket() {
        if (descriptor_ >= 0) {
            close(descriptor_);
        }
    }
    Socket(const Socket&) = delete;

    int get() const {
        return descriptor_;
    }
    int release() {
        return std::exchange(descriptor_, -1);
    }

  private:
    int descriptor_;
};

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
    const Socket probe;
    const int result = connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
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
    Socket socket;
    // Nobody can connect before it listens, so that its mode is never wider than it should be.
    if (socket.get() < 0 ||
        bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        chmod(text.c_str(), kMode) != 0 || listen(socket.get(), SOMAXCONN) != 0) {
        cannotListen(path, std::strerror(errno));
    }
    return socket.release();
}

}  // namespace station
