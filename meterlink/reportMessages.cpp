#include "reportMessages.h"

#include <algorithm>
#include <type_traits>

namespace metering {

namespace {

// The members of a structure and of its message stand once, in a function for both ways: `Write` says which.
template <bool Write, typename T>
using Report = std::conditional_t<Write, const T, T>;
template <bool Write, typename T>
using Message = std::conditional_t<Write, T, const T>;

// Accessors of messages have the field in their names, and neither a member nor a function can stand in
// parentheses. NOLINTBEGIN(cppcoreguidelines-macro-usage,bugprone-macro-parentheses)
#define MEMBER(member, field)                                                                \
    if constexpr (Write) {                                                                   \
        message.set_##field(report.member);                                                  \
    } else {                                                                                 \
        report.member = static_cast<std::decay_t<decltype(report.member)>>(message.field()); \
    }
#define MAYBE(member, field)                                                                          \
    if constexpr (Write) {                                                                            \
        if (report.member) {                                                                          \
            message.set_##field(*report.member);                                                      \
        }                                                                                             \
    } else if (message.has_##field()) {                                                               \
        report.member =                                                                               \
            static_cast<typename std::decay_t<decltype(report.member)>::value_type>(message.field()); \
    }
// A structure that may be missing, by its own function.
#define PART(member, field, fields)                                    \
    if constexpr (Write) {                                             \
        if (report.member) {                                           \
            fields<Write>(*report.member, *message.mutable_##field()); \
        }                                                              \
    } else if (message.has_##field()) {                                \
        fields<Write>(report.member.emplace(), message.field());       \
    }
#define LIST(member, field, fields)                               \
    if constexpr (Write) {                                        \
        for (const auto& element : report.member) {               \
            fields<Write>(element, *message.add_##field());       \
        }                                                         \
    } else {                                                      \
        for (const auto& element : message.field()) {             \
            fields<Write>(report.member.emplace_back(), element); \
        }                                                         \
    }
#define NUMBERS(member, field)                                                      \
    if constexpr (Write) {                                                          \
        message.mutable_##field()->Add(report.member.begin(), report.member.end()); \
    } else {                                                                        \
        report.member.assign(message.field().begin(), message.field().end());       \
    }

template <bool Write>
void flowFields(Report<Write, meter::FlowReport>& report, Message<Write, Flow>& message) {
    MAYBE(source, source)
    MAYBE(sourcePort, source_port)
    MAYBE(port, port)
    MAYBE(encapsulation, encapsulation)
    MAYBE(packetsPerDatagram, packets_per_datagram)
    MEMBER(datagrams, datagrams)
    MEMBER(malformed, malformed)
    MEMBER(fragments, fragments)
    MEMBER(otherFlows, other_flows)
    MEMBER(otherSources, other_sources)
    MEMBER(fec, fec)
    NUMBERS(vlan, vlan)
    MAYBE(ttl, ttl)
    MAYBE(dscp, dscp)
}

template <bool Write>
void lossFields(Report<Write, meter::LossReport>& report, Message<Write, Packets>& message) {
    MAYBE(packets, lost)
    MAYBE(basis, basis)
    MEMBER(byCounter, by_counter)
    MAYBE(byClock, by_clock)
    MAYBE(byRtp, by_rtp)
    MEMBER(events, events)
    MEMBER(longest, longest)
    MAYBE(longestMs, longest_ms)
    MEMBER(longestLately, longest_lately)
}

template <bool Write>
void packetsFields(Report<Write, meter::PacketsReport>& report, Message<Write, Packets>& message) {
    MEMBER(received, received)
    MEMBER(null, null)
    MEMBER(scrambled, scrambled)
    MEMBER(repeated, repeated)
    MEMBER(notTracked, not_tracked)
    lossFields<Write>(report.lost, message);
}

template <bool Write>
void bitrateFields(Report<Write, meter::BitrateReport>& report, Message<Write, Bitrate>& message) {
    MAYBE(bps, bps)
    MAYBE(lowest, lowest)
    MAYBE(highest, highest)
    MAYBE(byClock, by_clock)
    MAYBE(constant, constant)
    MAYBE(nullShare, null_share)
}

template <bool Write>
void checkFields(Report<Write, meter::CheckReport>& report, Message<Write, Check>& message) {
    MEMBER(count, count)
    MEMBER(seconds, seconds)
    MAYBE(first, first)
    MAYBE(last, last)
    MEMBER(active, active)
    if constexpr (Write) {
        message.set_inapplicable(!report.applicable);
        for (const auto& [pid, count] : report.pids) {
            PidCount& added = *message.add_pid();
            added.set_pid(pid);
            added.set_count(count);
        }
    } else {
        report.applicable = !message.inapplicable();
        for (const PidCount& pid : message.pid()) {
            report.pids.emplace_back(static_cast<uint16_t>(pid.pid()), pid.count());
        }
    }
}

template <bool Write>
void clockFields(Report<Write, meter::ClockReport>& report, Message<Write, Clock>& message) {
    MEMBER(pid, pid)
    NUMBERS(programs, program)
    MAYBE(intervalHighestMs, interval_highest_ms)
    MAYBE(intervalMeanMs, interval_mean_ms)
    MEMBER(accuracyApplicable, accuracy_applicable)
    MAYBE(worstNs, worst_ns)
    MAYBE(lastWorstNs, last_worst_ns)
    MEMBER(over500, over500)
    MEMBER(measured, measured)
    MAYBE(overallJitterNs, overall_jitter_ns)
    MAYBE(frequencyOffsetPpm, frequency_offset_ppm)
    MEMBER(signalled, signalled)
    MEMBER(unsignalled, unsignalled)
}

template <bool Write>
void rtpFields(Report<Write, meter::RtpReport>& report, Message<Write, Rtp>& message) {
    MEMBER(payloadType, payload_type)
    MEMBER(ssrc, ssrc)
    MEMBER(received, received)
    MEMBER(lost, lost)
    MEMBER(lossEvents, loss_events)
    MEMBER(longestBurst, longest_burst)
    MEMBER(repeated, repeated)
    MEMBER(outOfOrder, out_of_order)
    MAYBE(jitterMs, jitter_ms)
    MEMBER(timestampSteps, timestamp_steps)
    MEMBER(ssrcChanges, ssrc_changes)
}

template <bool Write>
void networkFields(Report<Write, meter::NetworkReport>& report, Message<Write, Network>& message) {
    MAYBE(interArrivalLowestMs, lowest_ms)
    MAYBE(interArrivalMeanMs, mean_ms)
    MAYBE(interArrivalHighestMs, highest_ms)
    MAYBE(interArrivalP99Ms, p99_ms)
    MAYBE(delayFactorMs, delay_factor_ms)
    MAYBE(delayFactorHighestMs, delay_factor_highest_ms)
    MAYBE(lossRate, loss_rate)
    MAYBE(lossRateHighest, loss_rate_highest)
    PART(rtp, rtp, rtpFields)
    if constexpr (Write) {
        std::size_t bins = report.histogram.size();
        while (bins > 0 && report.histogram[bins - 1] == 0) {
            --bins;
        }
        message.mutable_histogram()->Add(report.histogram.begin(),
                                         report.histogram.begin() + static_cast<std::ptrdiff_t>(bins));
    } else {
        const auto bins =
            std::min(report.histogram.size(), static_cast<std::size_t>(message.histogram_size()));
        std::copy_n(message.histogram().begin(), bins, report.histogram.begin());
    }
}

template <bool Write>
void pidFields(Report<Write, meter::PidReport>& report, Message<Write, Pid>& message) {
    MEMBER(pid, pid)
    MEMBER(kind, kind)
    MEMBER(packets, packets)
    MAYBE(bps, bps)
    MAYBE(lowest, lowest)
    MAYBE(highest, highest)
    MEMBER(continuityErrors, continuity_errors)
    MEMBER(lost, lost)
    MEMBER(repeated, repeated)
    MAYBE(scrambling, scrambling)
    MEMBER(keyChanges, key_changes)
    MEMBER(referenced, referenced)
    MAYBE(silentMs, silent_ms)
}

template <bool Write>
void gopFields(Report<Write, meter::GopReport>& report, Message<Write, StreamLevel>& message) {
    MAYBE(structure, gop_structure)
    MAYBE(pictures, gop_pictures)
    MAYBE(ms, gop_ms)
    MAYBE(lowest, gop_lowest_ms)
    MAYBE(highest, gop_highest_ms)
    MAYBE(mean, gop_mean_ms)
    MAYBE(closed, gop_closed)
    MEMBER(intraWithoutIdr, intra_without_idr)
}

template <bool Write>
void streamLevelFields(Report<Write, meter::StreamReport>& report, Message<Write, StreamLevel>& message) {
    MAYBE(ptsAheadMs, pts_ahead_ms)
    if constexpr (Write) {
        message.set_gop(report.gop.has_value());
        if (report.gop) {
            gopFields<Write>(*report.gop, message);
        }
        if (report.video && report.video->picturesPerSecond) {
            message.set_pictures_per_second(*report.video->picturesPerSecond);
        }
    } else {
        if (message.gop()) {
            gopFields<Write>(report.gop.emplace(), message);
        }
        if (report.video && message.has_pictures_per_second()) {
            report.video->picturesPerSecond = message.pictures_per_second();
        }
    }
}

template <bool Write>
void serviceLevelFields(Report<Write, meter::ServiceReport>& report, Message<Write, ServiceLevel>& message) {
    MAYBE(audioVideoMs, audio_video_ms)
    MAYBE(scrambled, scrambled)
}

template <bool Write>
void caFields(Report<Write, meter::CaReport>& report, Message<Write, Ca>& message) {
    MEMBER(system, system)
    MEMBER(pid, pid)
}

template <bool Write>
void programmeFields(Report<Write, meter::ProgrammeReport>& report, Message<Write, Programme>& message) {
    MEMBER(title, title)
    MAYBE(begin, begin)
    MAYBE(durationMs, duration_ms)
}

template <bool Write>
void videoFields(Report<Write, meter::VideoReport>& report, Message<Write, Video>& message) {
    MAYBE(width, width)
    MAYBE(height, height)
    MAYBE(pixelAspect, pixel_aspect)
    MAYBE(frameRate, frame_rate)
    MAYBE(interlaced, interlaced)
    MAYBE(profile, profile)
    MAYBE(level, level)
    MAYBE(chroma, chroma)
    MAYBE(bitDepth, bit_depth)
    MAYBE(colour, colour)
    MAYBE(transfer, transfer)
}

template <bool Write>
void audioFields(Report<Write, meter::AudioReport>& report, Message<Write, Audio>& message) {
    MAYBE(sampleRate, sample_rate)
    MAYBE(channels, channels)
    MAYBE(bitrate, bitrate)
    MAYBE(profile, profile)
}

template <bool Write>
void streamFields(Report<Write, meter::StreamReport>& report, Message<Write, Stream>& message) {
    MEMBER(pid, pid)
    MEMBER(streamType, stream_type)
    MAYBE(codec, codec)
    MAYBE(language, language)
    LIST(ca, ca, caFields)
    MAYBE(componentTag, component_tag)
    PART(video, video, videoFields)
    PART(audio, audio, audioFields)
    if constexpr (Write) {
        message.set_kind(static_cast<Stream::Kind>(report.kind));
        for (const std::string& page : report.pages) {
            message.add_page(page);
        }
    } else {
        // Other numbers may come, as of a later version.
        report.kind = Stream::Kind_IsValid(message.kind()) ? static_cast<meter::StreamKind>(message.kind())
                                                           : meter::StreamKind::kData;
        report.pages.assign(message.page().begin(), message.page().end());
    }
}

template <bool Write>
void serviceFields(Report<Write, meter::ServiceReport>& report, Message<Write, Service>& message) {
    MEMBER(program, program)
    MAYBE(name, name)
    MAYBE(provider, provider)
    MAYBE(type, type)
    MAYBE(runningStatus, running_status)
    MEMBER(pmtPid, pmt_pid)
    MAYBE(pmtVersion, pmt_version)
    MAYBE(pcrPid, pcr_pid)
    LIST(ca, ca, caFields)
    PART(now, now, programmeFields)
    PART(next, next, programmeFields)
    LIST(streams, stream, streamFields)
}

template <bool Write>
void segmentationFields(Report<Write, meter::SegmentationReport>& report,
                        Message<Write, Segmentation>& message) {
    MAYBE(typeId, type_id)
    MAYBE(type, type)
    MEMBER(eventId, event_id)
    MAYBE(upidType, upid_type)
    MAYBE(upid, upid)
    MAYBE(durationMs, duration_ms)
    MAYBE(number, number)
    MAYBE(expected, expected)
}

template <bool Write>
void cueFields(Report<Write, meter::CueReport>& report, Message<Write, Cue>& message) {
    MEMBER(pid, pid)
    if constexpr (Write) {
        message.set_command(report.command);
    } else {
        report.command = message.command() == "splice_insert" ? "splice_insert" : "time_signal";
    }
    MAYBE(eventId, event_id)
    MAYBE(out, out)
    MAYBE(immediate, immediate)
    MAYBE(pts, pts)
    MAYBE(at, at)
    MAYBE(aheadMs, ahead_ms)
    MAYBE(durationMs, duration_ms)
    MAYBE(autoReturn, auto_return)
    MEMBER(cancelled, cancelled)
    MEMBER(repetitions, repetitions)
    LIST(segmentation, segmentation, segmentationFields)
}

template <bool Write>
void changeFields(Report<Write, meter::ChangeReport>& report, Message<Write, Change>& message) {
    MEMBER(at, at)
    MEMBER(what, what)
    MAYBE(program, program)
    MAYBE(pid, pid)
    MEMBER(text, text)
}

template <bool Write>
void levelFields(Report<Write, meter::Report>& report, Message<Write, GroupReport>& message) {
    MEMBER(seconds, seconds)
    MAYBE(begin, begin)
    PART(flow, flow, flowFields)
    LIST(clocks, clock, clockFields)
    PART(network, network, networkFields)
    LIST(pids, pid, pidFields)
    MEMBER(cuesEncrypted, cues_encrypted)
    MEMBER(cuesMalformed, cues_malformed)
    if constexpr (Write) {
        packetsFields<Write>(report.packets, *message.mutable_packets());
        bitrateFields<Write>(report.bitrate, *message.mutable_bitrate());
        if (report.transport.utc) {
            message.set_utc(*report.transport.utc);
        }
        if (report.transport.utcOffsetMs) {
            message.set_utc_offset_ms(*report.transport.utcOffsetMs);
        }
    } else {
        packetsFields<Write>(report.packets, message.packets());
        bitrateFields<Write>(report.bitrate, message.bitrate());
        if (message.has_utc()) {
            report.transport.utc = message.utc();
        }
        if (message.has_utc_offset_ms()) {
            report.transport.utcOffsetMs = message.utc_offset_ms();
        }
    }
}

template <bool Write>
void transportFields(Report<Write, meter::TransportReport>& report, Message<Write, Description>& message) {
    MAYBE(transportStreamId, transport_stream_id)
    MAYBE(originalNetworkId, original_network_id)
    MAYBE(network, network)
}

template <bool Write>
void descriptionFields(Report<Write, meter::Report>& report, Message<Write, Description>& message) {
    transportFields<Write>(report.transport, message);
    LIST(services, service, serviceFields)
    LIST(cues, cue, cueFields)
    LIST(changes, change, changeFields)
}
// NOLINTEND(cppcoreguidelines-macro-usage,bugprone-macro-parentheses)
#undef MEMBER
#undef MAYBE
#undef PART
#undef LIST
#undef NUMBERS

constexpr bool kWrite = true;
constexpr bool kRead = false;

}  // namespace

void writeLevels(const meter::Report& report, GroupReport& message) {
    levelFields<kWrite>(report, message);
    for (std::size_t i = 0; i < report.checks.size(); ++i) {
        const meter::CheckReport& check = report.checks[i];
        if (check.count > 0 || check.seconds > 0 || check.active || !check.applicable) {
            Check& added = *message.add_check();
            added.set_index(static_cast<uint32_t>(i));
            checkFields<kWrite>(check, added);
        }
    }
    for (const meter::ServiceReport& service : report.services) {
        ServiceLevel& level = *message.add_service();
        level.set_program(service.program);
        serviceLevelFields<kWrite>(service, level);
        for (const meter::StreamReport& stream : service.streams) {
            StreamLevel& added = *message.add_stream();
            added.set_program(service.program);
            added.set_pid(stream.pid);
            streamLevelFields<kWrite>(stream, added);
        }
    }
}

void writeDescription(const meter::Report& report, Description& message) {
    descriptionFields<kWrite>(report, message);
}

void writeChange(const meter::ChangeReport& change, Change& message) {
    changeFields<kWrite>(change, message);
}

void writeCue(const meter::CueReport& cue, Cue& message) {
    cueFields<kWrite>(cue, message);
}

meter::Report readReport(const GroupReport& levels, const Description& description) {
    meter::Report report;
    report.group = levels.group();
    descriptionFields<kRead>(report, description);
    levelFields<kRead>(report, levels);
    report.checks = meter::allChecks();
    for (const Check& check : levels.check()) {
        if (check.index() < report.checks.size()) {
            checkFields<kRead>(report.checks[check.index()], check);
        }
    }
    const auto serviceOf = [&](uint32_t program) {
        const auto found = std::ranges::find(report.services, program, &meter::ServiceReport::program);
        return found == report.services.end() ? nullptr : &*found;
    };
    for (const ServiceLevel& level : levels.service()) {
        if (meter::ServiceReport* service = serviceOf(level.program())) {
            serviceLevelFields<kRead>(*service, level);
        }
    }
    for (const StreamLevel& level : levels.stream()) {
        if (meter::ServiceReport* service = serviceOf(level.program())) {
            const auto stream = std::ranges::find(service->streams, level.pid(), &meter::StreamReport::pid);
            if (stream != service->streams.end()) {
                streamLevelFields<kRead>(*stream, level);
            }
        }
    }
    return report;
}

meter::ChangeReport readChange(const Change& message) {
    meter::ChangeReport change;
    changeFields<kRead>(change, message);
    return change;
}

meter::CueReport readCue(const Cue& message) {
    meter::CueReport cue;
    cueFields<kRead>(cue, message);
    return cue;
}

}  // namespace metering
