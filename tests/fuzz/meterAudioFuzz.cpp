// Elementary streams of the audio codecs, cut into packets anywhere.
#include <vector>

#include "fuzz/fuzzing.h"
#include "media/audioStream.h"

using namespace meter;

// A byte with the codec, then records of a byte of length and payload.
int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    if (size < 2)
        return 0;
    constexpr Codec kCodecs[] = {Codec::kMpegAudio, Codec::kAac, Codec::kAacLatm, Codec::kAc3};
    AudioStream stream(kCodecs[data[0] & 3], data[0] >> 2);
    Bytes input(data + 1, size - 1);
    while (!input.empty()) {
        const uint8_t control = input[0];
        const std::vector<uint8_t> payload = fuzzing::exactly(input, 1, control);
        stream.feed(payload);
        if (control % 16 == 0)
            stream.secondEnded();
        input = input.subspan(1 + payload.size());
    }
    AudioReport report;
    stream.fill(report);
    return 0;
}
