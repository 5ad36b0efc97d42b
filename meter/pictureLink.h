// The meter's end of the socket to kestor-picture: connects, and again when it is lost.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "pictureSession.h"

namespace meterd {

// One thread uses it, but for what Begin hands on to the threads that measure. These wait for nothing here.
class PictureLink {
  public:
    // Has an excerpt taken by the thread whose group it is.
    using Hand = std::function<void(ExcerptWanted)>;
    // Throws std::system_error when the kernel has no descriptor for it.
    PictureLink(std::string path, std::string version, Hand hand);
    ~PictureLink();
    PictureLink(const PictureLink&) = delete;

    // Connects, reads, writes for at most about `milliseconds`.
    void serve(int milliseconds);

  private:
    void connect();
    void disconnect(const std::string& why);
    void takeExcerpts();
    void readAll();
    void write();
    void tell(const std::string& text);

    static constexpr int kReconnectMs = 1000;
    static constexpr int kLostMs = 10'000;  // after what made no sense
    // For its first word, and for the next bytes of an answer to be taken.
    static constexpr int kStalledMs = 10'000;

    const std::string path_;
    const Hand hand_;
    const int wake_;  // readable while excerpts wait in taken_
    PictureSession session_;
    int socket_ = -1;
    bool told_ = false;  // that it is there
    int64_t nextConnect_ = 0;
    int64_t progress_ = 0;     // ms: something was sent, or there was nothing to send
    std::size_t written_ = 0;  // of the session's front
    std::string last_;         // line of the log

    std::mutex mutex_;                 // guards taken_; no lock is taken while it is held
    std::vector<ExcerptTaken> taken_;  // at most picturing::kWantedLimit: as many are begun
};

}  // namespace meterd
