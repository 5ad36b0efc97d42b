#include "workerLoop.h"

extern "C" {
#include <libavutil/log.h>
}
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "lockUp.h"
#include "loudness.h"
#include "shotFigures.h"
#include "videoDecoder.h"

namespace pictured {

namespace {

// False: the other side closed it before the first byte. Throws std::runtime_error when it did later.
bool readAll(int socket, void* into, std::size_t size) {
    auto* bytes = static_cast<char*>(into);
    std::size_t taken = 0;
    while (taken < size) {
        const ssize_t count = read(socket, bytes + taken, size - taken);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            if (count == 0 && taken == 0) {
                return false;
            }
            throw std::runtime_error("a request was cut");
        }
        taken += static_cast<std::size_t>(count);
    }
    return true;
}

void writeAll(int socket, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t count = write(socket, bytes.data(), bytes.size());
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            throw std::runtime_error("nobody takes the answer");
        }
        bytes.remove_prefix(static_cast<std::size_t>(count));
    }
}

}  // namespace

std::string answerTo(const RequestHead& request, std::span<const uint8_t> video,
                     std::span<const uint8_t> audio) {
    AnswerHead head;
    Luma luma;
    std::string jpeg;
    if (!video.empty()) {
        const DecodedPicture decoded = decodePicture(request.videoCodec, video);
        head.picture = decoded.verdict;
        if (decoded.verdict == PictureVerdict::kDecoded) {
            head.width = decoded.width;
            head.height = decoded.height;
            head.whole = decoded.whole ? 1 : 0;
            luma = measureLuma(decoded.small);
            head.lumaMean = luma.mean;
            head.lumaSpread = luma.spread;
            jpeg = makeJpeg(decoded.small);
            head.jpegBytes = static_cast<uint32_t>(jpeg.size());
        }
    }
    if (!audio.empty()) {
        const Loudness loudness = measureLoudness(request.audioCodec, audio);
        head.sound = loudness.verdict;
        head.loudness = loudness.lufs;
    }
    std::string answer(reinterpret_cast<const char*>(&head), sizeof head);
    if (head.picture == PictureVerdict::kDecoded) {
        answer.append(reinterpret_cast<const char*>(luma.raster.data()), luma.raster.size());
        answer += jpeg;
    }
    return answer;
}

int runWorker(int socket) {
    try {
        // What damaged streams make decoders say is nobody's to read, and may not be written here.
        av_log_set_level(AV_LOG_QUIET);
        // It was started by way of /proc/self/exe: "exe" is what lists of processes would show.
        prctl(PR_SET_NAME, "picture-worker");
        lockUp(socket);
    } catch (const std::exception& error) {
        fprintf(stderr, "kestor-picture: a worker ends, since it would not be locked up: %s\n", error.what());
        return kCannotLockUp;
    }
    try {
        std::vector<uint8_t> content;
        RequestHead head;
        while (readAll(socket, &head, sizeof head)) {
            if (head.mark != kRequestMark || head.videoBytes > picturing::kVideoBytes ||
                head.audioBytes > picturing::kAudioBytes) {
                return 1;
            }
            content.resize(std::size_t{head.videoBytes} + head.audioBytes);
            if (!content.empty() && !readAll(socket, content.data(), content.size())) {
                return 1;
            }
            const std::span<const uint8_t> whole(content);
            writeAll(socket, answerTo(head, whole.first(head.videoBytes), whole.subspan(head.videoBytes)));
        }
    } catch (const std::exception&) {
        return 1;  // who started it sees that it ended
    }
    return 0;
}

}  // namespace pictured
