// The newest picture of each channel, and what is known of who takes them.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "channels/channel.h"
#include "common/clock.h"
#include "picture.pb.h"
#include "pictures/pictureState.h"

namespace station {

// A JPEG, never changed.
struct StoredPicture {
    WallTime taken;
    std::string jpeg;
    std::string tag;  // another one for each picture: an ETag's text without quotes
};
using PicturePointer = std::shared_ptr<const StoredPicture>;

// Whether it begins and ends as a JPEG does, and is no larger than one may be (picturing::kJpegBytes).
bool isJpeg(std::string_view bytes);

// All calls from any thread; at once. Holds one picture of each group that is watched, of at most
// picturing::kJpegBytes.
class PictureBook {
  public:
    static constexpr std::chrono::seconds kSilence{5};
    static constexpr std::size_t kLeftOutLimit = 1000;
    // How long somebody who asked for a picture or a channel is said to look at it.
    static constexpr std::chrono::seconds kLookTime{60};

    PictureBook() = default;
    PictureBook(const PictureBook&) = delete;

    // For readers.
    PicturePointer find(const Group& group) const;  // null: there is none
    PictureBriefs briefs() const;
    PictureState state(SteadyTime now) const;
    // Somebody looks at the group.
    void look(const Group& group, SteadyTime now);

    // For the owner.
    // `ready` is called by the port's thread when there are figures.
    void setReady(std::function<void()> ready);
    // What turns found since the last call, the newest of each group.
    std::map<uint32_t, PictureFigures> takeFigures();
    // What may be told from here on; what is kept of others is dropped.
    void watch(std::set<uint32_t> groups);
    std::set<uint32_t> lookedAt(SteadyTime now);

    // For the port.
    void setConfigured(bool configured);
    void setProblem(const std::string& problem);
    void connected(const std::string& version, const Now& now);
    void disconnected(const Now& now);
    // Of a group that is not watched it is passed over; what makes no sense in it is left out, and counted.
    void shot(picturing::Shot&& shot, const Now& now);
    void status(const picturing::Status& status, const Now& now);

  private:
    struct Channel {
        PicturePointer picture;
        std::optional<PictureFigures> last;
        std::string problem;
    };
    void drop(Channel& channel);

    mutable std::mutex mutex_;  // guards what follows; no lock is taken while it is held
    PictureState state_;
    SteadyTime lastStatus_;
    std::set<uint32_t> watched_;
    std::map<uint32_t, Channel> channels_;        // of those
    std::map<uint32_t, PictureFigures> figures_;  // likewise
    std::map<uint32_t, SteadyTime> looks_;        // likewise
    std::function<void()> ready_;
};

}  // namespace station
