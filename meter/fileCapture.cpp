#include <algorithm>
#include <chrono>
#include <optional>

#include "capture.h"
#include "captureFile.h"

namespace meterd {

namespace {

class FileCapture final : public Capture {
  public:
    FileCapture(const std::string& path, Share share) : path_(path), share_(share), file_(path) {}

    int descriptor() const override {
        return -1;
    }

    std::size_t read(std::size_t limit, const DatagramSink& sink) override {
        const int64_t now = std::chrono::steady_clock::now().time_since_epoch() / std::chrono::nanoseconds(1);
        std::size_t count = 0;
        while (count < limit) {
            if (!next_) {
                next_ = file_.next();
            }
            if (!next_) {
                ended_ = true;
                break;
            }
            // Where the time leaps it is damaged, or another recording's behind it: what follows comes at
            // once.
            const int64_t step = next_->time - last_;  // neither is negative
            if (!begin_ || step > kLeap || step < -kLeap) {
                begin_ = now - next_->time;
            }
            last_ = next_->time;
            const int64_t arrival = next_->time + *begin_;
            if (arrival > now) {
                break;
            }
            take(arrival, sink);
            next_.reset();
            ++count;
        }
        frames_ += count;
        return count;
    }

    bool ended() const override {
        return ended_;
    }
    CaptureCounts counts() override {
        return {.frames = frames_};
    }
    std::string interface() const override {
        return path_;
    }

  private:
    static constexpr int64_t kLeap = 3'600'000'000'000;  // ns

    void take(int64_t arrival, const DatagramSink& sink) {
        if (next_->cut ||
            meter::readFrame(file_.link(), next_->bytes, datagram_) == meter::FrameContent::kOther ||
            !share_.takes(datagram_.destination)) {
            return;
        }
        datagram_.wall = next_->time;
        datagram_.arrival = arrival;
        sink(datagram_);
    }

    const std::string path_;
    const Share share_;
    CaptureFile file_;
    std::optional<CaptureFile::Frame> next_;  // that is not due yet
    std::optional<int64_t> begin_;            // from its times to arrivals
    int64_t last_ = 0;                        // its time
    meter::Datagram datagram_;
    uint64_t frames_ = 0;
    bool ended_ = false;
};

}  // namespace

std::unique_ptr<Capture> openFile(const std::string& path, Share share) {
    return std::make_unique<FileCapture>(path, share);
}

}  // namespace meterd
