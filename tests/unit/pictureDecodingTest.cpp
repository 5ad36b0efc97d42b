// What becomes of ffmpeg's encodes, and what a locked-up process may do.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fcntl.h>
#include <csignal>
#include <cstring>
#include <functional>
#include <vector>

#include "lockUp.h"
#include "loudness.h"
#include "picture.pb.h"
#include "shotFigures.h"
#include "support/scratch.h"
#include "videoDecoder.h"
#include "workerLoop.h"

namespace pictured {
namespace {

class PictureDecoding : public testing::Test {
  protected:
    void SetUp() override {
        if (std::system("command -v ffmpeg >/dev/null") != 0) {
            GTEST_SKIP() << "ffmpeg is not installed";
        }
    }
};

std::vector<uint8_t> encoded(const std::string& options, const std::string& format) {
    const station::ScratchDirectory scratch;
    const std::string file = scratch.path() / "encoded";
    const std::string command = "ffmpeg -nostdin -v error -y " + options + " -f " + format + " " + file;
    EXPECT_EQ(std::system(command.c_str()), 0) << command;
    const std::string content = station::contentOf(file);
    return {content.begin(), content.end()};
}

struct Codec {
    uint32_t codec;
    const char* encoder;
    const char* format;
};
const Codec kCodecs[] = {
    {picturing::VIDEO_MPEG2, "mpeg2video -q:v 2", "mpeg2video"},
    {picturing::VIDEO_H264, "libx264 -preset ultrafast", "h264"},
    {picturing::VIDEO_H265, "libx265 -preset ultrafast -x265-params log-level=none", "hevc"}};

std::vector<uint8_t> pictureBy(const Codec& codec, const std::string& source,
                               const std::string& options = {}) {
    return encoded(
        "-f lavfi -i " + source + " -frames:v 1 -pix_fmt yuv420p " + options + " -c:v " + codec.encoder,
        codec.format);
}

const uint8_t* sampleAt(const SmallPicture& picture, int x, int y) {
    return &picture.samples[static_cast<std::size_t>(3 * (y * picture.width + x))];
}

TEST_F(PictureDecoding, KeepsColoursAndShape) {
    struct Case {
        const char* what;
        const char* source;
        const char* options;
        uint32_t width, height;
        int shownWidth, shownHeight;
    };
    const Case cases[] = {
        {"wide pixels", "color=red:s=720x576", "-aspect 16:9", 720, 576, 320, 180},
        {"4:3", "color=red:s=720x576", "-aspect 4:3", 720, 576, 240, 180},
        {"high definition, cropped from 1088", "color=red:s=1920x1080", "-aspect 16:9", 1920, 1080, 320, 180},
        {"upright", "color=red:s=360x640", "-aspect 9:16", 360, 640, 102, 180},
        {"interlaced", "color=red:s=720x576", "-flags +ilme+ildct -aspect 16:9", 720, 576, 320, 180},
    };
    for (const Codec& codec : kCodecs) {
        for (const Case& given : cases) {
            SCOPED_TRACE(std::string(codec.encoder) + ": " + given.what);
            const DecodedPicture decoded =
                decodePicture(codec.codec, pictureBy(codec, given.source, given.options));
            ASSERT_EQ(decoded.verdict, PictureVerdict::kDecoded);
            EXPECT_TRUE(decoded.whole);
            EXPECT_EQ(decoded.width, given.width);
            EXPECT_EQ(decoded.height, given.height);
            EXPECT_EQ(decoded.small.width, given.shownWidth);
            EXPECT_EQ(decoded.small.height, given.shownHeight);
            // Red is red from edge to edge.
            for (const auto& [x, y] : {std::pair(1, 1), {given.shownWidth - 2, given.shownHeight - 2}}) {
                const uint8_t* sample = sampleAt(decoded.small, x, y);
                EXPECT_GT(sample[0], 225);
                EXPECT_LT(sample[1], 40);
                EXPECT_LT(sample[2], 40);
            }
        }
    }
}

TEST_F(PictureDecoding, ShowsAFieldThatIsAPictureInItsFramesShape) {
    const struct {
        const char* source;
        const char* samples;  // their shape as the stream has it
        uint32_t width, height;
        int shownWidth;
    } cases[] = {{"1920x540", "1/1", 1920, 1080, 320},
                 {"1440x540", "4/3", 1440, 1080, 320},
                 {"720x288", "16/15", 720, 576, 240},
                 // Of the field's, not the frame's.
                 {"1920x540", "1/2", 1920, 1080, 320},
                 {"720x288", "8/15", 720, 576, 240}};
    for (const auto& [source, samples, width, height, shownWidth] : cases) {
        SCOPED_TRACE(std::string(source) + " " + samples);
        const DecodedPicture decoded = decodePicture(
            picturing::VIDEO_H265,
            encoded("-f lavfi -i color=red:s=" + std::string(source) + " -vf setsar=" + samples +
                        " -frames:v 1 -pix_fmt yuv420p -c:v libx265 -preset ultrafast "
                        "-x265-params log-level=none:interlace=tff",
                    "hevc"));
        ASSERT_EQ(decoded.verdict, PictureVerdict::kDecoded);
        EXPECT_TRUE(decoded.whole);
        EXPECT_EQ(decoded.width, width);
        EXPECT_EQ(decoded.height, height);
        EXPECT_EQ(decoded.small.width, shownWidth);
        EXPECT_EQ(decoded.small.height, 180);
    }
}

TEST_F(PictureDecoding, TellsWhatLacksParts) {
    const std::pair<Codec, const char*> cases[] = {
        {kCodecs[0], ""}, {kCodecs[1], ""}, {kCodecs[2], ""}, {kCodecs[2], "-pix_fmt yuv420p10le"}};
    for (const auto& [codec, options] : cases) {
        SCOPED_TRACE(std::string(codec.encoder) + " " + options);
        const auto whole = pictureBy(codec, "testsrc2=s=640x360", options);
        EXPECT_TRUE(decodePicture(codec.codec, whole).whole);
        // As many packets missing as a continuity counter does not tell, or the end of the picture.
        constexpr std::ptrdiff_t kGap = std::ptrdiff_t{16} * 184;
        auto holed = whole;
        const auto begin = holed.begin() + static_cast<std::ptrdiff_t>(holed.size() / 3);
        holed.erase(begin, begin + kGap);
        for (const auto& damaged :
             {std::span<const uint8_t>(holed), std::span(whole).first(whole.size() - 500)}) {
            const DecodedPicture decoded = decodePicture(codec.codec, damaged);
            EXPECT_EQ(decoded.verdict, PictureVerdict::kDecoded);
            EXPECT_FALSE(decoded.whole);
        }
    }
}

TEST_F(PictureDecoding, MeasuresLumaFromBlackToWhite) {
    const auto figures = [](const std::string& source, const std::string& options = {}) {
        return measureLuma(
            decodePicture(picturing::VIDEO_H264, pictureBy(kCodecs[1], source, options)).small);
    };
    const Luma black = figures("color=black:s=720x576");
    EXPECT_LT(black.mean, 1);
    EXPECT_LT(black.spread, 1);
    const Luma white = figures("color=white:s=720x576");
    EXPECT_GT(white.mean, 251);
    // Whatever the range in the stream.
    EXPECT_GT(figures("color=white:s=720x576", "-vf scale=out_range=full -color_range pc").mean, 251);
    const Luma halves = figures("color=black:s=360x576,pad=720:576:0:0:white");
    EXPECT_NEAR(halves.mean, 127.5, 2);
    EXPECT_NEAR(halves.spread, 127.5, 2);
    EXPECT_LT(halves.raster[0], 3);
    EXPECT_GT(halves.raster[kRasterWidth - 1], 252);
    EXPECT_GT(halves.raster[std::size_t{kRasterWidth} * kRasterHeight - 1], 252);
}

// From the second sequence parameter set to the first slice behind it.
std::vector<uint8_t> secondRandomAccess(const std::vector<uint8_t>& stream) {
    constexpr int kSlice = 1, kSequence = 7;
    std::vector<uint8_t> cut;
    int sequences = 0;
    bool slice = false;
    for (std::size_t i = 0; i < stream.size(); ++i) {
        if (i + 3 < stream.size() && stream[i] == 0 && stream[i + 1] == 0 && stream[i + 2] == 1) {
            if (slice) {
                break;
            }
            const int type = stream[i + 3] & 0x1F;
            sequences += type == kSequence;
            slice = sequences == 2 && type == kSlice;
        }
        if (sequences == 2) {
            cut.push_back(stream[i]);
        }
    }
    return cut;
}

TEST_F(PictureDecoding, TakesTenBitsAndRecoveryPoints) {
    const auto tenBits = encoded(
        "-f lavfi -i color=white:s=1280x720 -frames:v 1 -pix_fmt yuv420p10le -c:v libx265 -preset ultrafast "
        "-x265-params log-level=none",
        "hevc");
    const DecodedPicture deep = decodePicture(picturing::VIDEO_H265, tenBits);
    ASSERT_EQ(deep.verdict, PictureVerdict::kDecoded);
    EXPECT_TRUE(deep.whole);
    EXPECT_GT(measureLuma(deep.small).mean, 251);
    // An I picture of an open group, which is no IDR.
    const auto open = secondRandomAccess(encoded(
        "-f lavfi -i color=white:s=640x360 -frames:v 60 -pix_fmt yuv420p -c:v libx264 -preset ultrafast "
        "-x264-params open-gop=1:keyint=20:min-keyint=20:bframes=2:repeat-headers=1:scenecut=0",
        "h264"));
    ASSERT_FALSE(open.empty());
    const DecodedPicture recovered = decodePicture(picturing::VIDEO_H264, open);
    ASSERT_EQ(recovered.verdict, PictureVerdict::kDecoded);
    EXPECT_TRUE(recovered.whole);
    EXPECT_GT(measureLuma(recovered.small).mean, 251);
}

TEST_F(PictureDecoding, SaysWhatIsWrong) {
    const auto whole = pictureBy(kCodecs[1], "testsrc2=s=640x360");
    const auto verdict = [](uint32_t codec, std::span<const uint8_t> stream) {
        return decodePicture(codec, stream).verdict;
    };
    EXPECT_EQ(verdict(picturing::VIDEO_H264, std::span(whole).first(40)), PictureVerdict::kDamaged);
    EXPECT_EQ(verdict(picturing::VIDEO_H265, whole), PictureVerdict::kDamaged);
    EXPECT_EQ(verdict(picturing::VIDEO_UNKNOWN, whole), PictureVerdict::kUnknownKind);
    EXPECT_EQ(verdict(99, whole), PictureVerdict::kUnknownKind);
    EXPECT_EQ(verdict(picturing::VIDEO_H264, pictureBy(kCodecs[1], "color=gray:s=4100x2400")),
              PictureVerdict::kTooLarge);
    // Absurd pixels do not make absurd pictures.
    for (const auto& [width, height] : {std::pair(1, 65535), {65535, 1}, {-3, 0}, {2'000'000'000, 1}}) {
        const Size size = fitShot(720, 576, width, height);
        EXPECT_GE(size.width, 16);
        EXPECT_GE(size.height, 16);
        EXPECT_LE(size.width, picturing::kShotWidth);
        EXPECT_LE(size.height, picturing::kShotHeight);
    }
}

TEST(PictureJpeg, KeepsItsLimit) {
    SmallPicture noise{picturing::kShotWidth, picturing::kShotHeight, {}};
    uint32_t state = 1;
    for (int i = 0; i < 3 * noise.width * noise.height; ++i) {
        state = state * 1664525 + 1013904223;
        noise.samples.push_back(static_cast<uint8_t>(state >> 24));
    }
    const std::string jpeg = makeJpeg(noise);
    EXPECT_LE(jpeg.size(), picturing::kJpegBytes);
    EXPECT_GT(jpeg.size(), picturing::kJpegBytes / 4) << "no worse than it has to be";
    EXPECT_TRUE(isPlainJpeg(jpeg));
}

TEST_F(PictureDecoding, MeasuresLoudness) {
    // EBU Tech 3341, test 1: a sine of 1 kHz at -23 dBFS in both channels is -23 LUFS.
    const std::string sine =
        "-f lavfi -i \"aevalsrc='pow(10,-23/20)*sin(2*PI*1000*t)|pow(10,-23/20)*sin(2*PI*1000*t)'"
        ":s=48000:d=2\" -c:a ";
    struct Case {
        uint32_t codec;
        const char* encoder;
        const char* format;
    };
    for (const Case& given :
         {Case{picturing::AUDIO_MPEG, "mp2 -b:a 192k", "mp2"},
          Case{picturing::AUDIO_MPEG, "libmp3lame -b:a 192k", "mp3"},
          Case{picturing::AUDIO_AAC_ADTS, "aac -b:a 192k", "adts"},
          Case{picturing::AUDIO_AAC_LATM, "aac -b:a 192k", "latm"}, Case{picturing::AUDIO_AC3, "ac3", "ac3"},
          Case{picturing::AUDIO_EAC3, "eac3", "eac3"}}) {
        SCOPED_TRACE(given.encoder);
        std::vector<uint8_t> stream = encoded(sine + given.encoder, given.format);
        const Loudness whole = measureLoudness(given.codec, stream);
        ASSERT_EQ(whole.verdict, SoundVerdict::kMeasured);
        EXPECT_NEAR(whole.lufs, -23, 0.5);
        // As it is cut out of a stream: in the midst of frames.
        const Loudness cut =
            measureLoudness(given.codec, std::span(stream).subspan(777, stream.size() - 1000));
        ASSERT_EQ(cut.verdict, SoundVerdict::kMeasured);
        EXPECT_NEAR(cut.lufs, -23, 1);
        EXPECT_NE(measureLoudness(given.codec, std::span(stream).first(60)).verdict, SoundVerdict::kMeasured);
        EXPECT_NE(measureLoudness(given.codec, std::vector<uint8_t>(5000, 0xFF)).verdict,
                  SoundVerdict::kMeasured);
    }
    const Loudness silence = measureLoudness(
        picturing::AUDIO_AC3, encoded("-f lavfi -i anullsrc=r=48000:cl=5.1 -t 2 -c:a ac3", "ac3"));
    ASSERT_EQ(silence.verdict, SoundVerdict::kMeasured);
    EXPECT_LT(silence.lufs, -100);
    EXPECT_GE(silence.lufs, picturing::kSilenceLufs);
    // The channel of low frequency effects does not count.
    const Loudness low = measureLoudness(
        picturing::AUDIO_AC3,
        encoded(
            "-f lavfi -i \"aevalsrc='0|0|0|0.5*sin(2*PI*60*t)|0|0':c=5.1:s=48000:d=2\" -c:a ac3 -b:a 448k",
            "ac3"));
    EXPECT_LT(low.lufs, -60);
}

// Status of a process that locks itself up with a socket, and then does this.
int lockedUp(const std::function<void(int socket)>& act) {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    const pid_t child = fork();
    if (child == 0) {
        try {
            lockUp(ends[1]);
        } catch (const std::exception&) {
            _exit(kCannotLockUp);
        }
        act(ends[1]);
        _exit(0);
    }
    close(ends[0]);
    close(ends[1]);
    int status = 0;
    waitpid(child, &status, 0);
    return status;
}

TEST(PictureWorker, MayComputeAndNothingElse) {
    const int harmless = lockedUp([](int) {
        // Memory in all sizes, and as much as the largest picture takes.
        for (std::size_t size = 16; size < 100'000'000; size *= 3) {
            std::vector<char> memory(size, 1);
            if (memory[size / 2] != 1) {
                _exit(1);
            }
        }
    });
    if (WIFEXITED(harmless) && WEXITSTATUS(harmless) == kCannotLockUp)
        GTEST_SKIP() << "this kernel, or emulator, takes no filter of system calls";
    ASSERT_TRUE(WIFEXITED(harmless) && WEXITSTATUS(harmless) == 0) << harmless;
    const std::pair<const char*, std::function<void(int)>> deeds[] = {
        {"opens a file", [](int) { open("/etc/passwd", O_RDONLY); }},
        {"makes a file", [](int) { open("/tmp/taken-over", O_CREAT | O_WRONLY, 0600); }},
        {"opens a network socket", [](int) { socket(AF_INET, SOCK_STREAM, 0); }},
        {"opens a Unix socket", [](int) { socket(AF_UNIX, SOCK_STREAM, 0); }},
        {"passes descriptors",
         [](int socket) {
             msghdr message{};
             sendmsg(socket, &message, 0);
         }},
        {"forks", [](int) { fork(); }},
        {"runs a program", [](int) { execl("/bin/true", "true", nullptr); }},
        {"signals others", [](int) { kill(getppid(), 0); }},
        {"writes elsewhere", [](int) { [[maybe_unused]] auto count = write(STDOUT_FILENO, "x", 1); }},
        {"makes memory that runs",
         [](int) { mmap(nullptr, 4096, PROT_READ | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0); }},
        {"shares memory", [](int) { mmap(nullptr, 4096, PROT_READ, MAP_SHARED | MAP_ANONYMOUS, -1, 0); }},
        {"limits itself anew", [](int) { setuid(0); }},
    };
    for (const auto& [what, deed] : deeds) {
        const int status = lockedUp(deed);
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGSYS) << what << ": " << status;
    }
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    const int greedy = lockedUp([](int) {
        void* memory =
            mmap(nullptr, kWorkerDataBytes + 1, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        _exit(memory == MAP_FAILED ? 7 : 0);
    });
    EXPECT_TRUE(WIFEXITED(greedy) && WEXITSTATUS(greedy) == 7) << greedy;
#endif
}

TEST_F(PictureDecoding, IsAnsweredWithWhatTheReaderTakes) {
    const auto video = pictureBy(kCodecs[1], "testsrc2=s=640x360");
    const auto audio = encoded("-f lavfi -i sine -t 2 -c:a mp2", "mp2");
    for (const bool withVideo : {false, true}) {
        for (const bool withAudio : {false, true}) {
            RequestHead head;
            head.videoCodec = picturing::VIDEO_H264;
            head.audioCodec = picturing::AUDIO_MPEG;
            const auto answer =
                AnswerReader().add(answerTo(head, withVideo ? std::span(video) : std::span<const uint8_t>(),
                                            withAudio ? std::span(audio) : std::span<const uint8_t>()));
            ASSERT_TRUE(answer);
            EXPECT_EQ(answer->head.picture, withVideo ? PictureVerdict::kDecoded : PictureVerdict::kNone);
            EXPECT_EQ(answer->head.sound, withAudio ? SoundVerdict::kMeasured : SoundVerdict::kNone);
        }
    }
}

}  // namespace
}  // namespace pictured
