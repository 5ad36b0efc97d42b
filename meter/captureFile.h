// A recording of the network: pcap or pcapng, read by libpcap.
#pragma once

#include <pcap/pcap.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "meter/frame.h"

class CaptureFile {
  public:
    struct Frame {
        int64_t time = 0;  // ns since the Unix epoch
        std::span<const uint8_t> bytes;
        bool cut = false;  // not all of it was captured
    };

    // Whether `begin`, a file's first bytes, is that of a capture.
    static bool fits(std::span<const uint8_t> begin);

    // Throws std::runtime_error with the path and the reason, also for link layers that are not read.
    explicit CaptureFile(const std::string& path);

    // The next frame, valid until the next call; none at the end. Throws std::runtime_error where the file
    // breaks off.
    std::optional<Frame> next();

    meter::LinkLayer link() const {
        return link_;
    }
    // Bytes read so far, about.
    uint64_t position() const;

  private:
    struct Closer {
        void operator()(pcap_t* handle) const {
            pcap_close(handle);
        }
    };

    std::string path_;
    std::unique_ptr<pcap_t, Closer> handle_;
    meter::LinkLayer link_;
};
