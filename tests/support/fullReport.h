// A report in which every member has a value of its own, and the messages that carry one.
#pragma once

#include "framing.h"
#include "reportMessages.h"

namespace test {

inline meter::Report fullReport(uint32_t group) {
    meter::Report report;
    report.group = group;
    report.begin = "2026-01-02T03:04:05Z";
    report.seconds = 12.5;
    report.flow = {0x0A000001, 1234, 5000, "rtp", 7, 11, 12, 13, 14, 15, {100, 200}, 16, 46, 8};
    report.packets = {21, 22, 23, 24, {-5, "clock", 25, -26, 27, 28, 29, 30.5}, 20};
    report.bitrate = {31, 32, 33, 34, true, 0.35};
    report.checks = meter::allChecks();
    for (std::size_t i = 0; i < report.checks.size(); i += 2) {
        meter::CheckReport& check = report.checks[i];
        check.applicable = i % 4 == 0;
        check.count = 1000 + i;
        check.seconds = 2000 + i;
        check.first = 0.5;
        check.last = 1.5 + static_cast<double>(i);
        check.active = i % 3 == 0;
        check.pids = {{256, i}, {8190, 9}};
    }
    report.clocks = {{257, {1, 2}, 41.5, 42.5, true, 43.5, 44.5, 45, 46, 47.5, -48.5, 49, 50}};
    report.network.emplace();
    *report.network = {
        51.5, 52.5, 53.5, 54.5, {},
        55.5, 56.5, 57,   58,   meter::RtpReport{33, 0xDEADBEEF, 61, -62, 63, 64, 65, 66, 67.5, 68, 69}};
    report.network->histogram[0] = 3;
    report.network->histogram[20] = 4;
    report.transport = {71, 72, "network", "2026-01-02T03:04:06Z", -73.5};
    meter::StreamReport video;
    video.pid = 258;
    video.streamType = 0x1B;
    video.codec = "H.264";
    video.kind = meter::StreamKind::kVideo;
    video.language = "deu";
    video.ca = {{0x0100, 0x20}};
    video.componentTag = 7;
    video.video = {1920, 1080, "1:1", 25.0, true, "High", 40, "4:2:0", 8, "bt709", "HLG", 24.5};
    video.gop = {"IBBP", 12, 480.5, 400.5, 500.5, 450.5, false, 3};
    video.ptsAheadMs = 700.5;
    meter::StreamReport audio;
    audio.pid = 259;
    audio.kind = meter::StreamKind::kAudio;
    audio.audio = {48000, 2, 192000, "LC"};
    meter::StreamReport text;
    text.pid = 260;
    text.kind = meter::StreamKind::kTeletext;
    text.pages = {"100", "888"};
    report.services.push_back({1,
                               "one",
                               "provider",
                               25,
                               4,
                               256,
                               17,
                               258,
                               true,
                               {{0x0500, 0x30}},
                               -12.5,
                               meter::ProgrammeReport{"now", "2026-01-02T03:00:00Z", 3600000.0},
                               meter::ProgrammeReport{"next", {}, {}},
                               {video, audio, text}});
    report.services.push_back({2, {}, {}, {}, {}, 300, {}, {}, {}, {}, {}, {}, {}, {}});
    report.pids = {{258, "video", 81, 82, 83, 84, 85, 86, 87, "even", 88, true, 89.0}};
    meter::CueReport cue;
    cue.pid = 500;
    cue.command = "splice_insert";
    cue.eventId = 9;
    cue.out = true;
    cue.immediate = false;
    cue.pts = 1ULL << 32;
    cue.at = "2026-01-02T03:04:09Z";
    cue.aheadMs = 4000.5;
    cue.durationMs = 30000.0;
    cue.autoReturn = true;
    cue.repetitions = 2;
    cue.segmentation = {{52, "Provider Placement Opportunity Start", 4, 9, "AB", 5.5, 1, 2}};
    report.cues = {cue};
    report.cuesEncrypted = 91;
    report.cuesMalformed = 92;
    report.changes = {{1.5, "stream_added", 1, 259, "stream 259 was added"}};
    return report;
}

inline metering::GroupReport reportMessage(const meter::Report& report, bool described = true) {
    metering::GroupReport message;
    message.set_group(*report.group);
    message.set_epoch(1);
    metering::writeLevels(report, message);
    if (described) {
        metering::writeDescription(report, *message.mutable_description());
    }
    return message;
}

}  // namespace test
