// An analysis context that a test feeds and looks into.
#pragma once

#include "sarn/metrics.h"
#include "sarn/sarnDvbPsi.h"
#include "support/streamBuilder.h"

namespace test {

inline constexpr int64_t kStartMs = 1'700'000'000'000;

class AnalysisContext {
  public:
    AnalysisContext() : stream_(sarnDvbPsi_init(0)) {}
    ~AnalysisContext() {
        sarnDvbPsi_exit(stream_);
    }
    AnalysisContext(const AnalysisContext&) = delete;
    AnalysisContext& operator=(const AnalysisContext&) = delete;

    // One datagram that arrives `ms` after the start.
    void feed(std::span<const uint8_t> datagram, int64_t ms = 0) {
        const int64_t now = kStartMs + ms;
        sarnDvbPsi_process(stream_, datagram.data(), static_cast<int32_t>(datagram.size()), now,
                           static_cast<uint64_t>(now) * 54000);
    }
    // Everything the builder holds, in datagrams that arrive together.
    void feed(TsStream& packets, int64_t ms = 0) {
        for (const Bytes& datagram : packets.takeDatagrams())
            feed(datagram, ms);
    }

    ts_stream_t* operator->() {
        return stream_;
    }
    ts_stream_t* get() {
        return stream_;
    }
    uint64_t errors(Tr101290 counter) const {
        return stream_->tr101290[counter];
    }
    uint64_t errors(Tr101290 counter, uint16_t pid) const {
        return stream_->pid[pid].tr101290[counter];
    }

  private:
    ts_stream_t* stream_;
};

}  // namespace test
