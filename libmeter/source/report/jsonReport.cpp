// The report as JSON. Every member of a level stands here once, in the order in which readers see it.
#include "basics/address.h"
#include "basics/jsonWriter.h"
#include "meter/cueJson.h"
#include "meter/report.h"

namespace meter {

namespace {

using basics::dotted;
using basics::JsonWriter;

constexpr int kSchema = 1;
constexpr std::size_t kUsualSize = 8192;

std::optional<std::string> dotted(const std::optional<uint32_t>& address) {
    return address ? std::optional(dotted(*address)) : std::nullopt;
}

std::string_view kindName(StreamKind kind) {
    constexpr std::array<std::string_view, 6> kNames = {"video",    "audio", "subtitle",
                                                        "teletext", "cue",   "data"};
    return kNames[static_cast<std::size_t>(kind)];
}

// A list with one writer an element, and an object that is null where it is not known.
template <typename List, typename Write>
void writeList(JsonWriter& json, std::string_view name, const List& list, Write write) {
    json.name(name).open('[');
    for (const auto& element : list) {
        write(json, element);
    }
    json.close(']');
}
template <typename Value, typename Write>
void writeMaybe(JsonWriter& json, std::string_view name, const std::optional<Value>& maybe, Write write) {
    json.name(name);
    if (maybe) {
        write(json, *maybe);
    } else {
        json.value(nullptr);
    }
}

void writeFlow(JsonWriter& json, const FlowReport& flow) {
    json.open('{')
        .member("source", dotted(flow.source))
        .member("sourcePort", flow.sourcePort)
        .member("port", flow.port)
        .member("encapsulation", flow.encapsulation)
        .member("packetsPerDatagram", flow.packetsPerDatagram)
        .member("datagrams", flow.datagrams)
        .member("malformed", flow.malformed)
        .member("fragments", flow.fragments)
        .member("otherFlows", flow.otherFlows)
        .member("fec", flow.fec);
    writeList(json, "vlan", flow.vlan, [](JsonWriter& out, uint16_t tag) { out.value(tag); });
    json.member("ttl", flow.ttl).member("dscp", flow.dscp).close('}');
}

void writePackets(JsonWriter& json, const PacketsReport& packets) {
    const LossReport& lost = packets.lost;
    json.open('{')
        .member("received", packets.received)
        .member("null", packets.null)
        .member("scrambled", packets.scrambled)
        .member("repeated", packets.repeated)
        .member("notTracked", packets.notTracked)
        .name("lost")
        .open('{')
        .member("packets", lost.packets)
        .member("basis", lost.basis)
        .member("byCounter", lost.byCounter)
        .member("byClock", lost.byClock)
        .member("byRtp", lost.byRtp)
        .member("events", lost.events)
        .member("longest", lost.longest)
        .member("longestMs", lost.longestMs)
        .close('}')
        .close('}');
}

void writeBitrate(JsonWriter& json, const BitrateReport& bitrate) {
    json.open('{')
        .member("bps", bitrate.bps)
        .member("lowest", bitrate.lowest)
        .member("highest", bitrate.highest)
        .member("byClock", bitrate.byClock)
        .member("constant", bitrate.constant)
        .member("nullShare", bitrate.nullShare)
        .close('}');
}

void writeCheck(JsonWriter& json, const CheckReport& check) {
    json.open('{')
        .member("id", check.id)
        .member("name", check.name)
        .member("priority", check.priority)
        .member("applicable", check.applicable)
        .member("count", check.count)
        .member("seconds", check.seconds)
        .member("last", check.last)
        .member("active", check.active)
        .name("pids")
        .open('{');
    for (const auto& [pid, count] : check.pids) {
        json.member(std::to_string(pid), count);
    }
    json.close('}').close('}');
}

void writeClock(JsonWriter& json, const ClockReport& clock) {
    json.open('{').member("pid", clock.pid);
    writeList(json, "programs", clock.programs, [](JsonWriter& out, uint16_t number) { out.value(number); });
    json.member("intervalHighestMs", clock.intervalHighestMs)
        .member("intervalMeanMs", clock.intervalMeanMs)
        .name("accuracy")
        .open('{')
        .member("applicable", clock.accuracyApplicable)
        .member("worstNs", clock.worstNs)
        .member("lastWorstNs", clock.lastWorstNs)
        .member("over500", clock.over500)
        .member("measured", clock.measured)
        .close('}')
        .member("overallJitterNs", clock.overallJitterNs)
        .member("frequencyOffsetPpm", clock.frequencyOffsetPpm)
        .member("signalled", clock.signalled)
        .member("unsignalled", clock.unsignalled)
        .close('}');
}

void writeRtp(JsonWriter& json, const RtpReport& rtp) {
    json.open('{')
        .member("payloadType", rtp.payloadType)
        .member("ssrc", rtp.ssrc)
        .member("received", rtp.received)
        .member("lost", rtp.lost)
        .member("lossEvents", rtp.lossEvents)
        .member("longestBurst", rtp.longestBurst)
        .member("repeated", rtp.repeated)
        .member("outOfOrder", rtp.outOfOrder)
        .member("jitterMs", rtp.jitterMs)
        .member("timestampSteps", rtp.timestampSteps)
        .member("ssrcChanges", rtp.ssrcChanges)
        .close('}');
}

void writeNetwork(JsonWriter& json, const NetworkReport& network) {
    json.open('{')
        .name("interArrivalMs")
        .open('{')
        .member("lowest", network.interArrivalLowestMs)
        .member("mean", network.interArrivalMeanMs)
        .member("highest", network.interArrivalHighestMs)
        .member("p99", network.interArrivalP99Ms)
        .close('}');
    writeList(json, "histogram", network.histogram,
              [](JsonWriter& out, uint64_t count) { out.value(count); });
    json.name("mdi")
        .open('{')
        .member("delayFactorMs", network.delayFactorMs)
        .member("delayFactorHighestMs", network.delayFactorHighestMs)
        .member("lossRate", network.lossRate)
        .member("lossRateHighest", network.lossRateHighest)
        .close('}');
    writeMaybe(json, "rtp", network.rtp, writeRtp);
    json.close('}');
}

void writeTransport(JsonWriter& json, const TransportReport& transport) {
    json.open('{')
        .member("transportStreamId", transport.transportStreamId)
        .member("originalNetworkId", transport.originalNetworkId)
        .member("network", transport.network)
        .member("utc", transport.utc)
        .member("utcOffsetMs", transport.utcOffsetMs)
        .close('}');
}

void writeProgramme(JsonWriter& json, const ProgrammeReport& programme) {
    json.open('{')
        .member("title", programme.title)
        .member("begin", programme.begin)
        .member("durationMs", programme.durationMs)
        .close('}');
}

void writeVideo(JsonWriter& json, const VideoReport& video) {
    json.open('{')
        .member("width", video.width)
        .member("height", video.height)
        .member("frameRate", video.frameRate)
        .member("interlaced", video.interlaced)
        .member("profile", video.profile)
        .member("level", video.level)
        .member("chroma", video.chroma)
        .member("bitDepth", video.bitDepth)
        .member("transfer", video.transfer)
        .close('}');
}

void writeGop(JsonWriter& json, const GopReport& gop) {
    json.open('{')
        .member("structure", gop.structure)
        .member("pictures", gop.pictures)
        .member("ms", gop.ms)
        .member("lowest", gop.lowest)
        .member("highest", gop.highest)
        .member("mean", gop.mean)
        .member("closed", gop.closed)
        .close('}');
}

void writeAudio(JsonWriter& json, const AudioReport& audio) {
    json.open('{')
        .member("sampleRate", audio.sampleRate)
        .member("channels", audio.channels)
        .member("bitrate", audio.bitrate)
        .member("profile", audio.profile)
        .close('}');
}

void writeCa(JsonWriter& json, const CaReport& ca) {
    json.open('{').member("system", ca.system).member("pid", ca.pid).close('}');
}

void writeStream(JsonWriter& json, const StreamReport& stream) {
    json.open('{')
        .member("pid", stream.pid)
        .member("streamType", stream.streamType)
        .member("codec", stream.codec)
        .member("kind", kindName(stream.kind))
        .member("language", stream.language);
    writeList(json, "ca", stream.ca, writeCa);
    writeMaybe(json, "video", stream.video, writeVideo);
    writeMaybe(json, "gop", stream.gop, writeGop);
    writeMaybe(json, "audio", stream.audio, writeAudio);
    json.member("ptsAheadMs", stream.ptsAheadMs).close('}');
}

void writeService(JsonWriter& json, const ServiceReport& service) {
    json.open('{')
        .member("program", service.program)
        .member("name", service.name)
        .member("provider", service.provider)
        .member("type", service.type)
        .member("pmtPid", service.pmtPid)
        .member("pmtVersion", service.pmtVersion)
        .member("pcrPid", service.pcrPid)
        .member("scrambled", service.scrambled);
    writeMaybe(json, "now", service.now, writeProgramme);
    writeMaybe(json, "next", service.next, writeProgramme);
    writeList(json, "streams", service.streams, writeStream);
    json.close('}');
}

void writePid(JsonWriter& json, const PidReport& pid) {
    json.open('{')
        .member("pid", pid.pid)
        .member("kind", pid.kind)
        .member("packets", pid.packets)
        .member("bps", pid.bps)
        .member("continuityErrors", pid.continuityErrors)
        .member("lost", pid.lost)
        .member("repeated", pid.repeated)
        .member("scrambling", pid.scrambling)
        .member("referenced", pid.referenced)
        .close('}');
}

void writeSegmentation(JsonWriter& json, const SegmentationReport& segmentation) {
    json.open('{')
        .member("typeId", segmentation.typeId)
        .member("type", segmentation.type)
        .member("eventId", segmentation.eventId)
        .member("upidType", segmentation.upidType)
        .member("upid", segmentation.upid)
        .member("durationMs", segmentation.durationMs)
        .member("number", segmentation.number)
        .member("expected", segmentation.expected)
        .close('}');
}

void writeCue(JsonWriter& json, const CueReport& cue) {
    json.open('{')
        .member("pid", cue.pid)
        .member("command", cue.command)
        .member("eventId", cue.eventId)
        .member("out", cue.out)
        .member("immediate", cue.immediate)
        .member("pts", cue.pts)
        .member("at", cue.at)
        .member("aheadMs", cue.aheadMs)
        .member("durationMs", cue.durationMs)
        .member("cancelled", cue.cancelled)
        .member("repetitions", cue.repetitions);
    writeList(json, "segmentation", cue.segmentation, writeSegmentation);
    json.close('}');
}

void writeChange(JsonWriter& json, const ChangeReport& change) {
    json.open('{')
        .member("at", change.at)
        .member("what", change.what)
        .member("program", change.program)
        .member("pid", change.pid)
        .member("text", change.text)
        .close('}');
}

}  // namespace

std::string cueJson(const CueReport& cue, std::string_view first) {
    std::string members;
    JsonWriter json(members);
    writeCue(json, cue);
    if (!first.empty()) {
        members.insert(1, std::string(first) + ",");
    }
    return members;
}

std::string toJson(const Report& report) {
    std::string text;
    text.reserve(kUsualSize);
    JsonWriter json(text);
    json.open('{')
        .member("schema", kSchema)
        .member("group", dotted(report.group))
        .member("begin", report.begin)
        .member("seconds", report.seconds);
    writeMaybe(json, "flow", report.flow, writeFlow);
    json.name("packets");
    writePackets(json, report.packets);
    json.name("bitrate");
    writeBitrate(json, report.bitrate);
    writeList(json, "checks", report.checks, writeCheck);
    writeList(json, "clocks", report.clocks, writeClock);
    writeMaybe(json, "network", report.network, writeNetwork);
    json.name("transport");
    writeTransport(json, report.transport);
    writeList(json, "services", report.services, writeService);
    writeList(json, "pids", report.pids, writePid);
    writeList(json, "cues", report.cues, writeCue);
    json.name("cueErrors")
        .open('{')
        .member("encrypted", report.cuesEncrypted)
        .member("malformed", report.cuesMalformed)
        .close('}');
    writeList(json, "changes", report.changes, writeChange);
    if (report.live) {
        json.name("live")
            .open('{')
            .member("disturbed", report.live->disturbed)
            .member("disturbedSeconds", report.live->disturbedSeconds)
            .member("lastDisturbed", report.live->lastDisturbed)
            .member("joinLatencyMs", report.live->joinLatencyMs)
            .name("leftOut");
        if (const auto& leftOut = report.live->leftOut) {
            json.open('{')
                .member("cues", leftOut->cues)
                .member("changes", leftOut->changes)
                .member("services", leftOut->services)
                .member("streams", leftOut->streams)
                .member("pids", leftOut->pids)
                .member("checkPids", leftOut->checkPids)
                .member("clocks", leftOut->clocks)
                .member("serviceLevels", leftOut->serviceLevels)
                .close('}');
        } else {
            json.value(nullptr);
        }
        json.close('}');
    }
    json.close('}');
    return text;
}

}  // namespace meter
