// Encodes made here, held against what ffprobe says of them.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "meter/channelAnalyser.h"
#include "support/meterStream.h"

namespace meter {
namespace {

using nlohmann::json;

std::string outputOf(const std::string& command) {
    const std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
    std::string text;
    for (int c = std::fgetc(pipe.get()); c != EOF; c = std::fgetc(pipe.get()))
        text += static_cast<char>(c);
    return text;
}

// A file that goes with the test.
class Encode {
  public:
    explicit Encode(const std::string& options)
        : path_(std::filesystem::temp_directory_path() / ("meterMedia-" + std::to_string(getpid()) + ".ts")) {
        done_ = std::system(("ffmpeg -v error -y " + options + " -f mpegts " + path_.string()).c_str()) == 0;
    }
    ~Encode() {
        std::filesystem::remove(path_);
    }
    Encode(const Encode&) = delete;
    Encode& operator=(const Encode&) = delete;

    bool done() const {
        return done_;
    }
    Report measure() const {
        std::ifstream file(path_, std::ios::binary);
        const std::vector<char> bytes((std::istreambuf_iterator<char>(file)), {});
        Settings settings;
        settings.bare = true;
        ChannelAnalyser analyser(settings);
        analyser.feedPackets({reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()});
        analyser.finish();
        return analyser.report();
    }
    // As datagrams of seven packets, at the bit rate.
    Report measureDatagrams(int64_t bitrate) const {
        constexpr std::size_t kDatagram = 7 * 188;
        std::ifstream file(path_, std::ios::binary);
        const std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(file)), {});
        ChannelAnalyser analyser({});
        for (std::size_t at = 0; at < bytes.size(); at += kDatagram) {
            const auto arrival = static_cast<int64_t>(at) * 8 * 1'000'000'000 / bitrate;
            analyser.feed(test::datagram(
                arrival, std::span(bytes).subspan(at, std::min(kDatagram, bytes.size() - at))));
        }
        analyser.finish();
        return analyser.report();
    }
    json probe() const {
        return json::parse(outputOf("ffprobe -v error -of json -show_streams " + path_.string()))
            .at("streams");
    }
    // Picture types in the order in which pictures come.
    std::string pictures() const {
        const json frames = json::parse(outputOf("ffprobe -v error -of json -select_streams v -show_entries "
                                                 "frame=pict_type,pkt_pos " +
                                                 path_.string()))
                                .at("frames");
        std::vector<std::pair<int64_t, std::string>> byPlace;
        for (const json& frame : frames)
            byPlace.emplace_back(std::stoll(frame.at("pkt_pos").get<std::string>()), frame.at("pict_type"));
        std::ranges::sort(byPlace);
        std::string types;
        for (const auto& [place, type] : byPlace)
            types += type;
        return types;
    }

  private:
    std::filesystem::path path_;
    bool done_ = false;
};

struct Row {
    const char* name;
    const char* options;
    const char* transfer;  // empty: not known
};

#define PICTURES(size, rate) "-f lavfi -i testsrc2=duration=3:size=" size ":rate=" rate " "
#define TONE "-f lavfi -i sine=frequency=440:duration=3 "
#define X264 "-c:v libx264 -preset veryfast "
#define X265 "-c:v libx265 -preset ultrafast -x265-params log-level=none:"

constexpr Row kRows[] = {
    {"Mpeg2", PICTURES("720x576", "25") TONE "-c:v mpeg2video -g 12 -bf 2 -b:v 4M -c:a mp2 -b:a 192k", ""},
    {"Mpeg2Interlaced",
     PICTURES("704x480", "30000/1001") TONE
     "-c:v mpeg2video -flags +ildct+ilme -g 15 -bf 2 -aspect 16:9 -b:v 4M -c:a mp2 -ac 1 -b:a 96k -ar 32000",
     ""},
    {"Mpeg2Professional", PICTURES("720x576", "25") "-c:v mpeg2video -pix_fmt yuv422p -g 2 -b:v 9M", ""},
    {"H264WithoutB",
     PICTURES("1920x1080", "25") TONE
     "-c:v libx264 -preset ultrafast -g 25 -bf 0 -colorspace bt709 -color_primaries bt709 -color_trc bt709 "
     "-c:a aac -ac 2 -b:a 128k",
     "BT.709"},
    {"H264OpenGroups",
     PICTURES("640x360", "50") TONE X264
     "-g 48 -bf 3 -x264opts open-gop=1 -c:a ac3 -ac 6 -b:a 384k -ar 48000",
     ""},
    {"H264Interlaced",
     PICTURES("720x576", "25") TONE X264
     "-flags +ilme+ildct -x264opts tff=1 -g 25 -aspect 16:9 -c:a eac3 -ar 48000",
     ""},
    {"H264TenBits",
     PICTURES("642x362", "24000/1001") TONE X264
     "-pix_fmt yuv422p10le -color_primaries bt2020 -color_trc arib-std-b67 -colorspace bt2020nc -g 25 "
     "-c:a libmp3lame",
     "HLG"},
    {"H265", PICTURES("642x362", "50") TONE X265 "keyint=48:bframes=3 -c:a aac -mpegts_flags +latm", ""},
    {"H265TenBits",
     PICTURES("640x360", "25") X265
     "keyint=24:open-gop=0:hdr10=1 -pix_fmt yuv420p10le -color_primaries bt2020 -color_trc smpte2084 "
     "-colorspace bt2020nc",
     "PQ"},
    {"H265Rich", PICTURES("320x240", "25") X265 "keyint=24:scaling-list=default:slices=2 -pix_fmt yuv444p",
     ""},
};

std::string profileOf(const json& stream) {
    const std::string profile = stream.value("profile", "");
    return profile == "unknown" ? "" : profile;
}

double ratio(const std::string& text) {
    return std::stod(text) / std::stod(text.substr(text.find('/') + 1));
}

void compareVideo(const StreamReport& stream, const json& expected, const char* transfer) {
    ASSERT_TRUE(stream.video);
    const VideoReport& video = *stream.video;
    EXPECT_EQ(video.width, expected.at("width"));
    EXPECT_EQ(video.height, expected.at("height"));
    EXPECT_EQ(video.pixelAspect, expected.at("sample_aspect_ratio").get<std::string>());
    EXPECT_NEAR(video.frameRate.value_or(0), ratio(expected.at("r_frame_rate")), 0.001);
    EXPECT_NEAR(video.picturesPerSecond.value_or(0), ratio(expected.at("r_frame_rate")), 0.01);
    EXPECT_EQ(video.interlaced, expected.value("field_order", "progressive") != "progressive");
    EXPECT_EQ(video.profile, profileOf(expected));
    EXPECT_EQ(video.level, expected.at("level"));
    const std::string format = expected.at("pix_fmt");  // yuv422p10le
    const std::string chroma = {format[3], ':', format[4], ':', format[5]};
    EXPECT_EQ(video.chroma, chroma);
    EXPECT_EQ(video.bitDepth, format.size() > 7 ? std::stoul(format.substr(7)) : 8UL);
    EXPECT_EQ(video.transfer.value_or(""), transfer);
}

void compareAudio(const StreamReport& stream, const json& expected) {
    ASSERT_TRUE(stream.audio);
    EXPECT_EQ(std::to_string(stream.audio->sampleRate.value_or(0)),
              expected.at("sample_rate").get<std::string>());
    EXPECT_EQ(stream.audio->channels, expected.at("channels"));
    EXPECT_EQ(stream.audio->profile.value_or(""), profileOf(expected));
    if (expected.contains("bit_rate")) {
        const double rate = std::stod(expected.at("bit_rate").get<std::string>());
        EXPECT_NEAR(static_cast<double>(stream.audio->bitrate.value_or(0)), rate, rate / 10);
    }
}

// The last whole group: what stands between the last two I pictures.
std::string lastGroup(const std::string& types) {
    const std::size_t end = types.rfind('I');
    const std::size_t begin = types.rfind('I', end - 1);
    return types.substr(begin, end - begin);
}

class MeterEncodes : public testing::TestWithParam<Row> {};

TEST_P(MeterEncodes, AreSeenAsFfprobeSeesThem) {
    if (std::system("command -v ffmpeg ffprobe >/dev/null") != 0)
        GTEST_SKIP() << "ffmpeg is not installed";
    const Encode encode(GetParam().options);
    ASSERT_TRUE(encode.done());
    const Report report = encode.measure();
    const json expected = encode.probe();
    ASSERT_EQ(report.services.size(), 1U);
    const std::vector<StreamReport>& streams = report.services[0].streams;
    ASSERT_EQ(streams.size(), expected.size());
    for (std::size_t i = 0; i < streams.size(); ++i) {
        EXPECT_TRUE(streams[i].ptsAheadMs);
        if (expected[i].at("codec_type") == "video") {
            compareVideo(streams[i], expected[i], GetParam().transfer);
            const std::string group = lastGroup(encode.pictures());
            ASSERT_TRUE(streams[i].gop);
            EXPECT_EQ(streams[i].gop->structure, "|" + group);
            EXPECT_EQ(streams[i].gop->pictures, group.size());
            EXPECT_NEAR(streams[i].gop->ms.value_or(0),
                        1000.0 * static_cast<double>(group.size()) / streams[i].video->frameRate.value_or(1),
                        0.1);
        } else {
            compareAudio(streams[i], expected[i]);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(All, MeterEncodes, testing::ValuesIn(kRows),
                         [](const auto& row) { return std::string(row.param.name); });

struct CleanRow {
    const char* name;
    const char* video;
    const char* audio;
};
const CleanRow kClean[] = {
    {"H264", "-c:v libx264 -preset ultrafast", "-c:a mp2 -b:a 64k"},
    {"H265", "-c:v libx265 -preset ultrafast -x265-params log-level=none", "-c:a aac -b:a 64k"},
    {"Mpeg2", "-c:v mpeg2video -bf 2", "-c:a ac3 -b:a 64k"},
};

class MeterCleanEncodes : public testing::TestWithParam<CleanRow> {};

// A minute of each: no check finds anything, of the file and of its datagrams at their pace.
TEST_P(MeterCleanEncodes, HaveNoErrorInAMinute) {
    if (std::system("command -v ffmpeg >/dev/null") != 0)
        GTEST_SKIP() << "ffmpeg is not installed";
    const Encode encode(std::string("-f lavfi -i testsrc=size=160x96:rate=25:duration=61 "
                                    "-f lavfi -i sine=sample_rate=48000:duration=61 -pix_fmt yuv420p -g 25 "
                                    "-b:v 200k -maxrate 200k -bufsize 100k ") +
                        GetParam().video + " " + GetParam().audio +
                        " -muxrate 600k -pcr_period 30 -pat_period 0.1 -sdt_period 0.5");
    ASSERT_TRUE(encode.done());
    for (const bool asDatagrams : {false, true}) {
        SCOPED_TRACE(asDatagrams ? "datagrams" : "file");
        const Report report = asDatagrams ? encode.measureDatagrams(600'000) : encode.measure();
        EXPECT_GE(report.seconds, 60);
        for (const CheckReport& check : report.checks)
            EXPECT_EQ(check.count, 0U) << check.id << " " << check.name;
        EXPECT_EQ(report.packets.lost.packets, 0);
        EXPECT_EQ(report.packets.notTracked, 0U);
    }
}

INSTANTIATE_TEST_SUITE_P(All, MeterCleanEncodes, testing::ValuesIn(kClean),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace
}  // namespace meter
