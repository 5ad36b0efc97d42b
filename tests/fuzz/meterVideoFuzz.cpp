// Elementary streams of the three video codecs, cut into packets anywhere.
#include <string_view>
#include <vector>

#include "excerpt/keyPicture.h"
#include "fuzz/fuzzing.h"
#include "media/videoStream.h"

using namespace meter;

// A byte with the codec and whether PES packets begin at each piece, then records of a byte of length and
// payload.
int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    if (size < 2)
        return 0;
    constexpr Codec kCodecs[] = {Codec::kMpeg2Video, Codec::kH264, Codec::kH265, Codec::kH264};
    VideoStream stream(kCodecs[data[0] & 3]);
    constexpr ExcerptVideo kExcerpts[] = {ExcerptVideo::kMpeg2, ExcerptVideo::kH264, ExcerptVideo::kH265,
                                          ExcerptVideo::kH264};
    KeyPicture picture(kExcerpts[data[0] & 3]);
    const bool whole = (data[0] & 4) != 0;
    Bytes input(data + 1, size - 1);
    Ticks dts = 0;
    bool start = true;
    while (!input.empty()) {
        const uint8_t control = input[0];
        const std::vector<uint8_t> payload = fuzzing::exactly(input, 1, whole ? 184 : control);
        start = start || control % 4 == 0;
        stream.feed(start, control % 8 == 0, payload, control % 16 == 0 ? std::nullopt : std::optional(dts));
        if (control == 1)
            picture.gap();
        if (!picture.isEnded())
            picture.feed(payload);
        start = false;
        dts += control * 512;
        if (control % 32 == 0)
            stream.secondEnded();
        input = input.subspan(1 + payload.size());
    }
    // It begins with a start code, whatever came.
    if (picture.isEnded() && !picture.isTooLarge() &&
        !picture.take().starts_with(std::string_view("\0\0\0\1", 4)))
        __builtin_trap();
    VideoReport video;
    GopReport gop;
    stream.fill(video, gop);
    if ((video.width && (*video.width == 0 || *video.width > kPictureSizeLimit)) ||
        (video.frameRate && !(*video.frameRate > 0)) ||
        (gop.structure && gop.structure->size() > kStructureLimit + 1))
        __builtin_trap();
    return 0;
}
