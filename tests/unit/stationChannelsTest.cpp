// What the station is told to watch: configuration, playlists, the set that they make, and the files they
// come from.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <thread>

#include "channels/playlist.h"
#include "common/fileWatch.h"
#include "configuration/channelSet.h"
#include "configuration/configuration.h"
#include "support/inScratch.h"

using namespace std::chrono_literals;
using namespace station;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
namespace fs = std::filesystem;

namespace {

using StationChannels = InScratch;

Group group(const std::string& text) {
    return *Group::parse(text);
}

Channel channel(const std::string& text, const std::string& name, Origin origin = Origin::kConfig) {
    return {.group = group(text), .name = name, .origin = origin};
}

constexpr const char* kExample = R"(listen = "0.0.0.0:9427"
allowed_hosts = ["probe1.example.net"]
passive = false
igmp_latency_ms = 1000
[[channel]]
group = "239.1.1.1"
name = "News \"HD\" \u00e9 \\"
labels = { site = "north", "odd name" = "x" }
profile = "h d"
enabled = false
[[channel]]
group = "239.1.1.2"
[[playlist]]
file = "channels.m3u"
profile = "h d"
[profile."h d".bitrate_low]
enabled = true
severity = "minor"
raise_level = 4_000_000
clear_level = 4_500_000.25
raise_delay_s = 0.25
[profile."h d".service_information]
enabled = true
tables = "required"
[profile.default.continuity]
count = 3
window_s = 20
meter.window_s = 30
[profile.default.pcr_repetition]
count = 7
[profile.default.cue_missing]
window_s = 7200
[alarms]
source = "probe"
[[webhook]]
url = "http://127.0.0.1:9093/"
format = "alertmanager"
minimum_severity = "minor"
authorization_file = "secret"
[events]
keep_rows = 1_000
[metrics]
pids = "all"
[influx]
url = "https://db.example.net/write?db=tv"
)";

}  // namespace

TEST_F(StationChannels, ConfigurationIsReadAndItsEffectiveFormReadsBackEqual) {
    write("secret", "Bearer abc\n");
    const ConfigurationResult result = readConfiguration(write("station.toml", kExample));
    ASSERT_THAT(result.mistakes, IsEmpty()) << result.mistakes[0].message();
    const Configuration& read = result.configuration;
    EXPECT_THAT(result.notes, SizeIs(1)) << "everybody can read, nobody can change";
    ASSERT_THAT(read.channels, SizeIs(2));
    EXPECT_EQ(read.channels[0].name, "News \"HD\" é \\");
    EXPECT_EQ(read.channels[0].place.line, 6u);
    EXPECT_EQ(read.channels[1].name, "239.1.1.2");
    EXPECT_EQ(read.playlists[0].file, directory / "channels.m3u");
    EXPECT_EQ(read.webhooks[0].authorization, "Bearer abc");
    EXPECT_EQ(read.webhooks[0].url, "http://127.0.0.1:9093");
    const std::size_t bitrate = *findAlarmType("bitrate_low");
    const std::size_t continuity = *findAlarmType("continuity");
    EXPECT_EQ(read.profiles.at("h d")[bitrate].raiseDelay, 250ms);
    EXPECT_FALSE(read.profiles.at("default")[bitrate].enabled);
    EXPECT_EQ(read.profiles.at("h d")[continuity].count, 3u) << "profiles start from the default one";

    EXPECT_EQ(read.profiles.at("h d")[continuity].window, 20s);
    EXPECT_EQ(read.profiles.at("h d")[continuity].meter.window, 30s);
    EXPECT_EQ(read.profiles.at("h d")[continuity].meter.count, 3u) << "what is said holds whoever judges";
    const AlarmRules& repetition = read.profiles.at("default")[*findAlarmType("pcr_repetition")];
    EXPECT_EQ(repetition.count, 7u);
    EXPECT_EQ(repetition.meter.count, 7u);
    EXPECT_FALSE(repetition.enabled);
    EXPECT_TRUE(repetition.meter.enabled);
    EXPECT_EQ(read.measureRules.at("h d").serviceInformation, ServiceInformation::kRequired);
    EXPECT_EQ(parseConfiguration("[profile.default]\nservice_information = \"required\"", "x")
                  .configuration.measureRules.at("default")
                  .serviceInformation,
              ServiceInformation::kRequired);

    std::ostringstream out;
    std::ostringstream errors;
    ASSERT_EQ(reportConfiguration(result, out, errors), 0);
    EXPECT_THAT(out.str(), Not(HasSubstr("abc")));
    const ConfigurationResult again = parseConfiguration(out.str(), "/elsewhere/station.toml");
    ASSERT_THAT(again.mistakes, IsEmpty()) << again.mistakes[0].message();
    EXPECT_FALSE(read.meterExpected);
    EXPECT_FALSE(parseConfiguration("meter_socket = \"\"", "x").configuration.meterExpected);
    Configuration named = read;
    // The effective form names the sockets, as it does everything.
    named.meterExpected = named.pictures.expected = true;
    EXPECT_TRUE(again.configuration == named);
    EXPECT_FALSE(again.configuration == Configuration{});
}

TEST_F(StationChannels, EveryMistakeIsToldWithItsPlace) {
    const std::pair<const char*, const char*> cases[] = {
        {"a = \"x\nb = 1", "1:7: "},
        {"keep_days = 3", "1:1: \"keep_days\" is no key"},
        {"passive = 0\n\nlisten = \"localhost:1\"",
         "1:11: \"passive\" must be true|3:10: \"listen\" must be"},
        {"[events]\nkeep_days = 0\nkeep_rows = 1.5",
         "2:13: \"keep_days\" must be|3:13: \"keep_rows\" must be"},
        {"[channel]\ngroup = \"239.1.1.1\"", "1:1: this must be a list"},
        {"[[channel]]\nname = \"x\"\n[[channel]]\ngroup = \"10.0.0.1\"",
         "1:1: [[channel]] has no|4:9: \"group\" must be an IPv4"},
        {"[[channel]]\ngroup = \"udp://10.1.1.1@239.1.1.9:5000\"",
         "2:9: \"group\" must be the group alone, without scheme and port: \"239.1.1.9\""},
        {"[[channel]]\ngroup = \"239.1.1.1\"\nnane = \"x\"\n[[channel]]\ngroup = \"239.1.1.1\"",
         "3:1: \"nane\" is no key|5:9: group 239.1.1.1 is already in line 2"},
        {"[[channel]]\ngroup = \"239.1.1.1\"\nname = \"a\\u0007\"\nprofile = \"sd\"\nlabels = { a = 1 }",
         "3:8: \"name\" must be|4:11: no [profile.sd]|5:16: \"a\" must be a string"},
        {"[profile.x.continuty]\n[profile.y]\ncrc = 1",
         "1:12: there is no alarm \"continuty\"|3:7: this must be a table"},
        {"[profile.x.jitter]\nraise_level = nan\ncount = 3\nseverity = \"bad\"",
         "2:15: \"raise_level\" must be|3:1: \"count\" is no key of alarm jitter|4:12: \"severity\" must be "
         "one of"},
        {"[profile.x.jitter]\nraise_level = 1\n[profile.x.mos]\nraise_level = 4",
         "1:1: clear_level 2000 must not be above|3:1: clear_level 3.5 must not be below"},
        {"[alarms]\nsource = \"meter\"\n[profile.x.crc]\nmeter = 1\nwindow_s = "
         "700\n[profile.x.mos]\nmeter.enabled = "
         "true\n[profile.x.pat]\nmeter.count = 0\nmeter.error_seconds = 0\n[profile.x.cue_missing]\nwindow_s "
         "= 0",
         "2:10: \"source\" must be one of|3:1: window_s of a counter must be at most 600|4:9: this must be a "
         "table|7:1: alarm mos is judged by one source alone|9:1: count and error_seconds|12:12: "
         "\"window_s\""},
        {"[[webhook]]\nurl = \"http://a\"\nformat = \"alertmanager\"\ncues = true",
         "4:8: \"cues\" is for webhooks of format \"json\""},
        {"[profile.x.crc]\ncount = 0\n[profile.x.pat]\nerror_seconds = 30",
         "1:1: count and error_seconds are both 0|3:1: error_seconds 30 can never"},
        {"[[webhook]]\nurl = \"http://me:pw@h/\"\ntimeout_s = 0\nauthorization_file = \"none\"",
         "2:7: \"url\" must not carry a password|3:13: \"timeout_s\" must be|4:22: "},
        {"[[webhook]]\nurl = \"http://a\"\nname = \"2\"\n[[webhook]]\nurl = \"http://b\"",
         "4:1: \"name\": another [[webhook]] has the name \"2\""},
    };
    for (const auto& [text, wanted] : cases) {
        std::string found;
        for (const Mistake& mistake : parseConfiguration(text, directory / "s.toml").mistakes) {
            found += mistake.message() + "\n";
        }
        std::istringstream parts(wanted);
        std::size_t count = 0;
        for (std::string part; std::getline(parts, part, '|'); ++count) {
            EXPECT_THAT(found, HasSubstr((directory / "s.toml").string() + ":" + part)) << text;
        }
        EXPECT_EQ(static_cast<std::size_t>(std::count(found.begin(), found.end(), '\n')), count) << found;
    }
    mkfifo((directory / "pipe").c_str(), 0600);
    for (const char* name : {"none", ".", "pipe"}) {
        EXPECT_THAT(readConfiguration(directory / name).mistakes, SizeIs(1)) << name;
    }
}

TEST_F(StationChannels, ManualHasEveryKeyAndAlarm) {
    std::ostringstream manual;
    manual << std::ifstream(KESTOR_SOURCE_DIR "/docs/station.md").rdbuf();
    std::size_t rows = 0;
    for (const KeyDescription& key : describeKeys()) {
        std::ostringstream row;
        row << "| `" << key.name << "` | " << key.type << " | " << key.unit << " | " << key.defaultValue
            << " | " << key.meaning << " |\n";
        EXPECT_NE(manual.str().find(row.str()), std::string::npos) << "docs/station.md lacks: " << row.str();
        ++rows;
    }
    // As the effective configuration has them, without line ends.
    const std::string effective = effectiveConfiguration({});
    for (const AlarmType& type : alarmTypes()) {
        const std::string header = "[profile.default." + std::string(type.name) + "]\n";
        std::istringstream block(effective.substr(effective.find(header) + header.size()));
        std::string defaults;
        for (std::string line; std::getline(block, line) && !line.empty();) {
            defaults += (defaults.empty() ? "" : ", ") + line;
        }
        std::ostringstream row;
        row << "| `" << type.name << "` | " << alarmKindName(type.kind) << " | " << type.unit << " | "
            << type.meaning << " | " << defaults << " |\n";
        EXPECT_NE(manual.str().find(row.str()), std::string::npos) << "docs/station.md lacks: " << row.str();
        ++rows;
    }
    const std::string text = manual.str().substr(0, manual.str().find("\n## Events on disk"));
    std::size_t written = 0;
    for (std::size_t at = text.find("\n## Configuration"); (at = text.find("\n| `", at)) != std::string::npos;
         ++at) {
        ++written;
    }
    EXPECT_EQ(written, rows) << "rows of keys or alarms that there are not";
}

// Every key stands in the example that is shipped, and what is commented out are the defaults.
TEST_F(StationChannels, ShippedConfigurationSaysTheDefaults) {
    std::ostringstream shipped;
    shipped << std::ifstream(KESTOR_COMMENTED_CONFIGURATION).rdbuf();
    std::string all;
    std::istringstream lines(shipped.str());
    for (std::string line; std::getline(lines, line);) {
        const bool isDefault = line.size() > 1 && line[0] == '#' && line[1] != ' ';
        all += line.substr(isDefault ? 1 : 0) + "\n";
    }
    Configuration expected;
    expected.playlists.emplace_back().file = "/etc/kestor/channels.m3u";
    for (const std::string& text : {shipped.str(), all}) {
        const ConfigurationResult result = parseConfiguration(text, "/etc/kestor/station.toml");
        EXPECT_THAT(result.mistakes, IsEmpty()) << result.mistakes.front().message();
        EXPECT_EQ(effectiveConfiguration(result.configuration), effectiveConfiguration(expected));
    }
    for (const KeyDescription& key : describeKeys()) {
        EXPECT_NE(shipped.str().find(std::string(key.name) + " = "), std::string::npos) << key.name;
    }
    // All lines of the effective configuration but those that say that a key is not set.
    std::istringstream effective(effectiveConfiguration({}));
    for (std::string line; std::getline(effective, line);) {
        if (!line.empty() && line[0] != '#' && !line.starts_with("instance")) {
            EXPECT_NE(shipped.str().find("\n#" + line + "\n"), std::string::npos) << line;
        }
    }
}

TEST_F(StationChannels, PlaylistsAreReadInEveryDialect) {
    const std::string g = "udp://@239.1.1.1:1234\n";
    // A list, and of its channel the stream, the name and, behind a bar, the label "group".
    const std::pair<std::string, const char*> cases[] = {
        {g, "239.1.1.1:1234 239.1.1.1|"},
        {"\xEF\xBB\xBF#EXTM3U url-tvg=\"x, y\"\r\n#EXTINF:-1,A, B\r\n" + g, "239.1.1.1:1234 A, B|"},
        {"#EXTINF:0 tvg-id=\"i\" group-title=\"N, W\",Caf\xE9\r" + g, "239.1.1.1:1234 Café|N, W"},
        {"#extinf: -1.5 group-title='it\"s' tvg-name=x,\"Q\" \n" + g, "239.1.1.1:1234 \"Q\"|it\"s"},
        {"#EXTINF:-1 tvg-id= group-title=News tvg-name=\"T, N\"\n" + g, "239.1.1.1:1234 T, N|News"},
        {"#EXTINF:-1 tvg-name=\"open, x,The name\n" + g, "239.1.1.1:1234 The name|"},
        {"#EXTINF:No number\n" + g, "239.1.1.1:1234 No number|"},
        {"#EXTGRP:Sport\n#EXTINF:-1,S\n#EXTVLCOPT:x\n\n" + g, "239.1.1.1:1234 S|Sport"},
        {"udp://239.1.1.1:1", "239.1.1.1:1 239.1.1.1|"},
        {"udp:@239.1.1.1:1/", "239.1.1.1:1 239.1.1.1|"},
        {"  RTP://@239.1.1.1:1?pkt_size=1316&x=a/udp/b  ", "239.1.1.1:1 239.1.1.1|"},
        {"rtp://10.0.0.7@232.1.1.1:65535/", "10.0.0.7@232.1.1.1:65535 232.1.1.1|"},
        {"udp://@239.1.1.1", "239.1.1.1:0 239.1.1.1|"},
        {"http://proxy:4022/udp/239.1.1.1:5000/", "239.1.1.1:5000 239.1.1.1|"},
        {"HTTP://u:p@10.0.0.1:4022/a/RTP/10.9.9.9@239.1.1.1:5000?x", "10.9.9.9@239.1.1.1:5000 239.1.1.1|"},
    };
    for (const auto& [text, wanted] : cases) {
        const Playlist playlist = parsePlaylist(text);
        ASSERT_THAT(playlist.channels, SizeIs(1)) << text;
        const Channel& found = playlist.channels[0];
        EXPECT_EQ(found.source + (found.source.empty() ? "" : "@") + found.group.text() + ":" +
                      std::to_string(found.port) + " " + found.name + "|" +
                      (found.labels.contains("group") ? found.labels.at("group") : ""),
                  wanted)
            << text;
        EXPECT_EQ(found.origin, Origin::kPlaylist);
    }
    for (const char* line : {"http://cdn/live.m3u8", "udp://@10.0.0.1:5000", "udp://@[ff02::1]:5000",
                             "239.1.1.1:5000", "udp://@239.1.1.1:70000", "udp://@239.01.1.1:1",
                             "http://239.1.1.1/udp", "http://h?/udp/239.1.1.1", "/udp/"}) {
        const Playlist playlist = parsePlaylist("#EXTM3U\n#EXTINF:-1,N\n" + std::string(line) + "\n" + g);
        ASSERT_THAT(playlist.channels, SizeIs(1)) << line;
        EXPECT_EQ(playlist.channels[0].name, "239.1.1.1")
            << "the name belonged to what was skipped: " << line;
        EXPECT_EQ(playlist.skipped, 1u) << line;
        ASSERT_THAT(playlist.notes, SizeIs(1));
        EXPECT_EQ(playlist.notes[0].line, 3u);
        EXPECT_EQ(playlist.notes[0].text,
                  "no multicast group in \"" + std::string(line) + "\"; line skipped");
    }
}

TEST_F(StationChannels, HostilePlaylistsAreBoundedAndReadBack) {
    const std::string longName(10'000, 'n');
    std::string text =
        "#EXTM3U\n#EXTINF:-1 tvg-chno=\"12.1\" tvg-logo=\"https://l/x.png\" tvg-id=\"a'b\" group-title='G "
        "\"1\"'," +
        longName +
        "\nudp://10.1.1.1@239.1.1.1:7\n#EXTINF:-1,<script>\x01\xE2\x80\xAE\nudp://@239.1.1.2\nudp://"
        "@239.1.1.1:9\n";
    text +=
        std::string(70'000, '\0') + "\n" + std::string(300, '\xFF') + "\nudp://" + std::string(100'000, '@');
    const Playlist playlist = parsePlaylist(text);
    ASSERT_THAT(playlist.channels, SizeIs(2));
    EXPECT_EQ(playlist.channels[0].name, std::string(kNameLimit, 'n'));
    EXPECT_EQ(playlist.channels[0].number, 12);
    EXPECT_EQ(playlist.channels[1].name, "<script>\xE2\x80\xAE");
    EXPECT_EQ(playlist.skipped, 4u);
    ASSERT_THAT(playlist.notes, SizeIs(5));
    EXPECT_EQ(playlist.notes[1].text, "239.1.1.1 is already in line 3; line skipped");

    ChannelMap channels;
    for (const Channel& one : playlist.channels) {
        channels.emplace(one.group, one);
    }
    const Playlist again = parsePlaylist(writePlaylist(channels));
    ASSERT_THAT(again.channels, SizeIs(2));
    channels.at(group("239.1.1.1")).labels["group"] = "G '1'";
    channels.at(group("239.1.1.2")).port = 5000;
    EXPECT_TRUE(again.channels[0] == channels.at(group("239.1.1.1")));
    EXPECT_TRUE(again.channels[1] == channels.at(group("239.1.1.2")));

    std::string many;
    for (std::size_t i = 0; i < kChannelsLimit + 5; ++i) {
        many += "udp://@239.2." + std::to_string(i / 250) + "." + std::to_string(i % 250) + ":1\n";
    }
    EXPECT_THAT(parsePlaylist(many).channels, SizeIs(kChannelsLimit));
    EXPECT_EQ(parsePlaylist(many).skipped, 5u);

    // A file that is being written, or is something else, is no empty list.
    std::string problem;
    for (const char* broken : {"", "no playlist\n", "#EXTM3U\nudp://@239.1"}) {
        EXPECT_FALSE(readPlaylist(write("p.m3u", broken), problem)) << broken;
        EXPECT_THAT(problem, HasSubstr("holds no multicast group"));
    }
    EXPECT_FALSE(readPlaylist(directory / "none.m3u", problem));
    EXPECT_TRUE(readPlaylist(write("p.m3u", "#EXTM3U\n"), problem));
}

TEST_F(StationChannels, OneSetIsMadeByPrecedence) {
    const Configuration configuration =
        parseConfiguration(
            "[[channel]]\ngroup = \"239.1.1.1\"\nname = \"c1\"\n[[channel]]\ngroup = \"239.1.1.2\"\n"
            "name = \"c2\"\n[[channel]]\ngroup = \"239.1.1.3\"\n[profile.hd]",
            "/e/station.toml")
            .configuration;
    RuntimeChannels runtime;
    runtime.emplace(group("239.1.1.2"), RuntimeChannel{channel("239.1.1.2", "r2", Origin::kRuntime)});
    runtime.at(group("239.1.1.2")).channel.profile = "gone";
    runtime.emplace(group("239.1.1.3"), RuntimeChannel{channel("239.1.1.3", "", Origin::kRuntime), true});
    const fs::path first = write("a.m3u",
                                 "#EXTINF:-1 group-title=own,p1\nudp://@239.1.1.1:1\n#EXTINF:-1 "
                                 "group-title=own,p4\nudp://@239.1.1.4:1\n");
    const fs::path second =
        write("b.m3u", "\n#EXTINF:-1,q4\nudp://@239.1.1.4:1\n#EXTINF:-1,q5\nudp://@239.1.1.5:1\n");
    std::string problem;
    const MergedChannels merged =
        mergeChannels(runtime, configuration,
                      {{{first, "hd", {{"group", "given"}, {"site", "n"}}}, *readPlaylist(first, problem)},
                       {{second, "default", {}}, *readPlaylist(second, problem)}});
    std::vector<std::string> names;
    for (const auto& [key, one] : merged.channels) {
        names.push_back(one.name + " " + std::string(originName(one.origin)) + " " + one.profile);
    }
    EXPECT_THAT(names, ElementsAre("c1 config default", "r2 runtime default", "p4 playlist hd",
                                   "q5 playlist default"));
    EXPECT_EQ(merged.channels.at(group("239.1.1.4")).labels, (Labels{{"group", "own"}, {"site", "n"}}));
    EXPECT_THAT(merged.notes,
                ElementsAre(HasSubstr("239.1.1.2 names profile \"gone\""),
                            "239.1.1.2 was changed at run time, which overrides /e/station.toml:5",
                            "239.1.1.3 was removed at run time, which overrides /e/station.toml:8",
                            "239.1.1.1 is in /e/station.toml:2 and in " + first.string() +
                                ":2; /e/station.toml:2 applies",
                            "239.1.1.4 is in " + first.string() + ":4 and in " + second.string() + ":3; " +
                                first.string() + ":4 applies"));

    ChannelMap after = merged.channels;
    EXPECT_THAT(compareChannels(merged.channels, after).changed, IsEmpty());
    after.at(group("239.1.1.4")).place.line = 99;  // an entry that only moved is the same channel
    after.at(group("239.1.1.1")).name = "other";
    after.erase(group("239.1.1.2"));
    after.emplace(group("239.1.1.9"), channel("239.1.1.9", "new"));
    const ChannelDifference difference = compareChannels(merged.channels, after);
    EXPECT_THAT(difference.added, ElementsAre(channel("239.1.1.9", "new")));
    EXPECT_THAT(difference.removed, ElementsAre(merged.channels.at(group("239.1.1.2"))));
    ASSERT_THAT(difference.changed, SizeIs(1));
    EXPECT_EQ(difference.changed[0].second.name, "other");
}

TEST_F(StationChannels, ChannelsOfTheRunTimeSurviveWhateverHappensToTheirFile) {
    RuntimeChannelFile file(directory);
    EXPECT_TRUE(file.load().channels == RuntimeChannels{});
    EXPECT_EQ(file.load().problem, "");
    RuntimeChannels channels;
    Channel full = channel("239.1.1.1", "N\xC3\xA9 \"x\"", Origin::kRuntime);
    full.labels = {{"site", "north"}};
    full.enabled = false;
    full.source = "10.0.0.1";
    full.port = 5000;
    full.number = 7;
    full.logo = "https://l/x.png";
    channels.emplace(full.group, RuntimeChannel{full});
    channels.emplace(group("239.1.1.2"),
                     RuntimeChannel{channel("239.1.1.2", "239.1.1.2", Origin::kRuntime), true});
    ASSERT_EQ(file.save(channels), "");
    EXPECT_TRUE(file.load().channels == channels);

    // What cannot be written leaves the old file whole.
    fs::create_directory(directory / "channels.json.new");
    EXPECT_THAT(file.save({}), HasSubstr("cannot be created"));
    EXPECT_TRUE(file.load().channels == channels);
    fs::remove(directory / "channels.json.new");

    // What somebody else put there was not read: it is not written over, nor is what was put aside before.
    const std::string whole = read("channels.json");
    write("other", "a backup");
    fs::rename(directory / "other", directory / "channels.json");
    ASSERT_EQ(file.save(channels), "");
    EXPECT_EQ(read("channels.json.replaced"), "a backup");
    write("channels.json", "edited");
    ASSERT_EQ(file.save(channels), "");
    EXPECT_EQ(read("channels.json.replaced.1"), "edited");
    fs::remove(directory / "channels.json");
    ASSERT_EQ(RuntimeChannelFile(directory).load().problem, "");
    RuntimeChannelFile late(directory);  // its disk is mounted late
    ASSERT_TRUE(late.load().channels->empty());
    write("channels.json", whole);
    ASSERT_EQ(late.save({}), "");
    EXPECT_EQ(read("channels.json.replaced.2"), whole);
    for (int number = 3; number < RuntimeChannelFile::kAside; ++number) {
        write("channels.json.replaced." + std::to_string(number), "older");
    }
    write("channels.json", whole);
    EXPECT_THAT(late.save({}), HasSubstr("move some away"));
    EXPECT_EQ(read("channels.json"), whole);

    struct Case {
        std::string text;
        std::size_t left;
    };
    const Case cases[] = {
        {whole.substr(0, whole.size() / 2), 0},
        {std::string(5000, '['), 0},
        {std::string(whole).replace(whole.find("\"239.1.1.2\""), 11, "\"10.1.1.2\""), 1},
        {std::string(whole).replace(whole.find("5000"), 4, "99999"), 1},
        {std::string(whole).replace(whole.find("\"north\""), 7, "[17]"), 1},
    };
    std::string aside = "channels.json.damaged";  // none is written over by the next
    int number = 0;
    for (const Case& damaged : cases) {
        write("channels.json", damaged.text);
        const LoadedRuntime loaded = file.load();
        EXPECT_THAT(*loaded.channels, SizeIs(damaged.left)) << damaged.text;
        EXPECT_THAT(loaded.problem, HasSubstr("put aside"));
        EXPECT_EQ(read(aside), damaged.text);
        EXPECT_THAT(*file.load().channels, SizeIs(damaged.left)) << "what could be read is kept";
        EXPECT_EQ(file.load().problem, "");
        aside = "channels.json.damaged." + std::to_string(++number);
    }

    // What can be neither taken up nor put aside stays as it is.
    for (; number < RuntimeChannelFile::kAside; ++number) {
        write("channels.json.damaged." + std::to_string(number), "older");
    }
    write("channels.json", "damaged");
    EXPECT_FALSE(file.load().channels);
    EXPECT_EQ(read("channels.json"), "damaged");
    fs::resize_file(directory / "channels.json", kRuntimeFileLimit + 1);
    EXPECT_THAT(file.load().problem, HasSubstr("is larger than"));
    EXPECT_FALSE(file.load().channels);
}

TEST_F(StationChannels, WhatMayBeWrittenCanBeReadAgain) {
    RuntimeChannels channels;
    const auto add = [&](std::size_t count, bool removed, std::size_t length) {
        for (std::size_t i = 0; i < count; ++i) {
            const std::string text = "239." + std::to_string(removed ? 2 : 1) + "." +
                                     std::to_string(i / 250) + "." + std::to_string(i % 250);
            channels.insert_or_assign(group(text),
                                      RuntimeChannel{channel(text, text, Origin::kRuntime), removed});
            for (int label = 0; label < (length > 0 ? 12 : 0); ++label) {
                channels.at(group(text)).channel.labels[std::to_string(label)] = std::string(length, '"');
            }
        }
    };
    RuntimeChannelFile file(directory);
    add(kAdditionsLimit, false, 200);  // quotes are written as two characters each
    add(kRemovalsLimit, true, 0);
    ASSERT_EQ(beyondRuntimeLimits(channels), "");
    ASSERT_EQ(file.save(channels), "");
    EXPECT_GT(fs::file_size(directory / "channels.json"), kRuntimeFileLimit * 3 / 4);
    EXPECT_TRUE(file.load().channels == channels);

    add(kAdditionsLimit, false, 256);
    EXPECT_THAT(beyondRuntimeLimits(channels), HasSubstr("64 MiB"));
    add(kAdditionsLimit + 1, false, 0);
    EXPECT_THAT(beyondRuntimeLimits(channels), HasSubstr("added or changed"));
    add(kRemovalsLimit + 1, true, 0);
    channels.erase(channels.begin());
    EXPECT_THAT(beyondRuntimeLimits(channels), HasSubstr("removed"));
}

TEST_F(StationChannels, FilesAreWatchedWhateverHappensToThem) {
    const fs::path list = directory / "list.m3u";
    const fs::path link = directory / "link.m3u";
    const fs::path deep = directory / "not" / "yet" / "deep.m3u";
    fs::create_directory(directory / "v1");
    fs::create_directory(directory / "v2");
    write("v1/target", "1");
    write("v2/target", "2");
    fs::create_symlink("v1", directory / "current");
    fs::create_symlink("current/target", link);
    write("list.m3u", "a");
    fs::path looked;
    FileWatch watch([&](const fs::path& file) { looked = file; });
    ASSERT_GE(watch.descriptor(), 0);
    watch.watch({list, link, deep});

    // Names of what is told within a time, which ends with the first of it.
    const auto told = [&](std::chrono::milliseconds time) {
        std::vector<std::string> names;
        const auto deadline = std::chrono::steady_clock::now() + time;
        while (names.empty() && std::chrono::steady_clock::now() < deadline) {
            pollfd ready{watch.descriptor(), POLLIN, 0};
            poll(&ready, 1, 50);
            for (const fs::path& path : watch.changed()) {
                names.push_back(path.filename());
            }
        }
        return names;
    };
    struct Step {
        const char* what;
        std::function<void()> act;
        const char* told;
    };
    const Step steps[] = {
        {"another file", [&] { write("other", "x"); }, ""},
        {"overwritten", [&] { write("list.m3u", "bb"); }, "list.m3u"},
        {"replaced", [&] { fs::rename(write("list.tmp", "cc"), list); }, "list.m3u"},
        {"removed", [&] { fs::remove(list); }, "list.m3u"},
        {"made again", [&] { write("list.m3u", "dd"); }, "list.m3u"},
        {"its directory's link moved",
         [&] {
             fs::create_symlink("v2", directory / "next");
             fs::rename(directory / "next", directory / "current");
         },
         "link.m3u"},
        {"written behind the links", [&] { write("v2/target", "22"); }, "link.m3u"},
        {"no longer behind the links", [&] { write("v1/target", "11"); }, ""},
        {"its directories made", [&] { fs::create_directories(deep.parent_path()); }, ""},
        {"made in them", [&] { write("not/yet/deep.m3u", "x"); }, "deep.m3u"},
        {"its directory moved away", [&] { fs::rename(directory / "not", directory / "gone"); }, "deep.m3u"},
    };
    for (const Step& step : steps) {
        step.act();
        const bool silent = step.told[0] == '\0';
        EXPECT_THAT(told(silent ? 500ms : 30s),
                    testing::ElementsAreArray(silent ? std::vector<std::string>{}
                                                     : std::vector<std::string>{step.told}))
            << step.what;
    }

    // Written in pieces with the file open all the while: not told before it is closed, nor to be read.
    EXPECT_TRUE(watch.rests(list));
    std::ofstream open(list, std::ios::binary);
    open << "half" << std::flush;
    EXPECT_THAT(told(500ms), IsEmpty());
    EXPECT_FALSE(watch.rests(list));
    EXPECT_TRUE(watch.rests(link));
    EXPECT_EQ(looked, link) << "where it would hang";
    EXPECT_THAT(told(4000ms), IsEmpty()) << "however long the writer takes";
    open << "whole" << std::flush;
    open.close();
    EXPECT_FALSE(watch.rests(list)) << "it has just been closed";
    EXPECT_THAT(told(30s), ElementsAre("list.m3u"));
    EXPECT_TRUE(watch.rests(list));
    fs::remove(list);
    ASSERT_THAT(told(30s), ElementsAre("list.m3u"));
    std::ofstream made(list, std::ios::binary);
    made << "half" << std::flush;
    EXPECT_THAT(told(800ms), IsEmpty());
    made.close();
    EXPECT_THAT(told(30s), ElementsAre("list.m3u"));

    // More events than the kernel queues: nothing is lost for good.
    const int flood = 40'000;
    for (int i = 0; i < flood; ++i) {
        fs::rename(i % 2 == 0 ? directory / "other" : directory / "another",
                   i % 2 == 0 ? directory / "another" : directory / "other");
    }
    write("list.m3u", "after the flood");
    EXPECT_THAT(told(30s), ElementsAre("list.m3u"));
}
