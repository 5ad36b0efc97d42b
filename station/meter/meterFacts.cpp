#include "meter/meterFacts.h"

#include <algorithm>

#include "basics/text.h"
#include "channels/channel.h"
#include "common/text.h"
#include "meter.pb.h"
#include "meter/report.h"
#include "reportMessages.h"

namespace station {

namespace {

std::string text(const std::string& name) {
    return std::string(basics::trimmed(printable(toUtf8(name), kNameLimit), " "));
}

std::string resolutionOf(const metering::Video& video) {
    if (!video.has_width() || !video.has_height()) {
        return {};
    }
    return std::to_string(video.width()) + "x" + std::to_string(video.height()) +
           (!video.has_interlaced() ? "" : (video.interlaced() ? "i" : "p"));
}

}  // namespace

MeterFacts factsOf(const metering::Description& description) {
    MeterFacts facts;
    std::vector<const metering::Service*> services;
    for (const metering::Service& service : description.service()) {
        services.push_back(&service);
    }
    std::ranges::stable_sort(services, {}, [](const auto* service) { return service->program(); });
    const metering::Stream* video = nullptr;
    const metering::Stream* audio = nullptr;
    for (const metering::Service* service : services) {
        if (facts.serviceName.empty()) {
            facts.serviceName = text(service->name());
        }
        for (const metering::Stream& stream : service->stream()) {
            if (stream.kind() == metering::Stream::VIDEO && video == nullptr) {
                video = &stream;
            } else if (stream.kind() == metering::Stream::AUDIO && audio == nullptr) {
                audio = &stream;
            }
        }
    }
    if (video != nullptr) {
        facts.resolution = resolutionOf(video->video());
    }
    if (const metering::Stream* const shown = video != nullptr ? video : audio) {
        facts.codec = text(shown->codec());
    }
    return facts;
}

meter::CueReport MeterCue::read() const {
    metering::Cue cue;
    cue.ParseFromString(*bytes);
    return metering::readCue(cue);
}

}  // namespace station
