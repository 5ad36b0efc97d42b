// A capture file through kestor-replay.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include "fuzz/fuzzing.h"
#include "replay.h"

namespace {

// Brings a capture's stamps close together, or hours apart: every second of them means a snapshot.
void tameStamps(std::vector<uint8_t>& capture) {
    constexpr std::size_t kFileHead = 24;
    constexpr std::size_t kFrameHead = 16;
    for (std::size_t at = kFileHead; at + kFrameHead <= capture.size();) {
        capture[at] &= 7;
        capture[at + 1] = 0;
        at += kFrameHead + capture[at + 8] + capture[at + 9] * 256U;
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    fuzzing::silenceOutput();
    std::vector<uint8_t> capture(data, data + size);
    if (size > 4 && data[0] == 0xD4 && data[3] == 0xA1)  // little-endian, microseconds
        tameStamps(capture);
    const int file = memfd_create("capture", MFD_CLOEXEC);
    if (write(file, capture.data(), size) != static_cast<ssize_t>(size))
        __builtin_trap();
    // Kept reachable: a run that is abandoned never destroys it.
    static Replay* replay;
    fuzzing::runToItsEnd([&] {
        try {
            replay = new Replay("/proc/self/fd/" + std::to_string(file), {});
            replay->run(stdout);
        } catch (const std::runtime_error&) {
        }
        delete replay;
        replay = nullptr;
    });
    close(file);
    return 0;
}
