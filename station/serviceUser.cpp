#include "serviceUser.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "basics/descriptor.h"

namespace station {

namespace {

constexpr const char* kServiceUser = "kestor-station";
constexpr const char* kServiceGroup = "kestor";

// The process is another user for as long as this lives.
class AsUser {
  public:
    explicit AsUser(const std::string& user) {
        const passwd* const found = getpwnam(user.c_str());
        if (found == nullptr || geteuid() != 0) {
            return;
        }
        const uid_t id = found->pw_uid;
        const group* const service = user == kServiceUser ? getgrnam(kServiceGroup) : nullptr;
        const gid_t first = service != nullptr ? service->gr_gid : found->pw_gid;
        groups_.resize(static_cast<std::size_t>(std::max(getgroups(0, nullptr), 0)));
        const int known = getgroups(static_cast<int>(groups_.size()), groups_.data());
        if (known < 0 || initgroups(user.c_str(), first) != 0) {
            return;
        }
        changed_ = true;
        is_ = setegid(first) == 0 && seteuid(id) == 0;
    }
    ~AsUser() {
        if (changed_ &&
            (seteuid(0) != 0 || setegid(group_) != 0 || setgroups(groups_.size(), groups_.data()) != 0)) {
            _exit(1);  // going on as somebody else would be worse
        }
    }
    AsUser(const AsUser&) = delete;
    bool is() const {
        return is_;
    }

  private:
    const gid_t group_ = getegid();
    std::vector<gid_t> groups_;
    bool changed_ = false;
    bool is_ = false;
};

}  // namespace

std::optional<std::string> serviceUser() {
    return getpwnam(kServiceUser) != nullptr ? std::optional<std::string>(kServiceUser) : std::nullopt;
}

std::vector<Mistake> unreadableFor(const std::string& user, const std::filesystem::path& file) {
    const AsUser as(user);
    if (!as.is()) {
        return {};
    }
    ConfigurationResult result = readConfiguration(file);
    for (Mistake& mistake : result.mistakes) {
        mistake.text += " (as the user " + user + ", which the service runs as)";
    }
    for (const PlaylistSource& source : result.configuration.playlists) {
        const basics::Descriptor playlist(open(source.file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
        if (const int error = errno; !playlist.isOpen() && error != ENOENT) {  // it need not be there yet
            std::string why = "playlist " + source.file.string();
            why += " cannot be read by the user " + user;
            why += ", which the service runs as: " + std::system_category().message(error);
            result.mistakes.push_back({file.string(), 0, 0, std::move(why)});
        }
    }
    return result.mistakes;
}

}  // namespace station
