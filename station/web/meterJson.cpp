// The meter, and its reports.
#include <algorithm>

#include "meter/cueJson.h"
#include "meter/meterBook.h"
#include "meter/reportText.h"
#include "web/apiJson.h"
#include "web/jsonValues.h"

namespace station {

namespace json {

void meterValue(JsonWriter& json, const MeterState& meter) {
    if (!meter.configured) {
        json.value(nullptr);
        return;
    }
    json.open('{').member("connected", meter.connected).member("silent", meter.silent);
    json.member("problem", textOrNull(meter.problem)).member("version", textOrNull(meter.version));
    json.member("since", meter.since).member("lastSecond", meter.lastSecond);
    json.member("connections", meter.connections);
    json.member("groups", meter.groups).member("groupsLeftOut", meter.groupsLeftOut);
    json.member("reported", meter.reported).member("seconds", meter.seconds).member("events", meter.events);
    json.member("secondsLost", meter.secondsLost).member("eventsLost", meter.eventsLost);
    json.member("reportsDropped", meter.reportsDropped);
    json.name("capture").open('{').member("interface", textOrNull(meter.interface));
    json.member("problem", textOrNull(meter.captureProblem)).member("disturbed", meter.disturbed);
    json.member("frames", meter.frames).member("kernelDrops", meter.kernelDrops);
    json.member("cardDrops", meter.cardDrops).member("cutFrames", meter.cutFrames);
    json.member("threads", meter.threads);
    json.member("cpuSeconds", meter.cpuSeconds).close('}');
    json.name("joins").open('{').member("joined", meter.joined).member("failed", meter.joinFailures);
    json.member("problem", textOrNull(meter.joinProblem));
    json.member("note", textOrNull(meter.sourcesNote)).close('}').close('}');
}

}  // namespace json

std::string meterReportJson(const MeterReport& report) {
    return meter::toJson(report.read());
}

std::string cuesJson(const std::vector<MeterCue>& cues, const std::optional<MeterReport>& report) {
    std::string text = "[";
    const auto add = [&text](const meter::CueReport& cue, WallTime time) {
        std::string member;
        JsonWriter json(member);
        json.name("time").value(time);
        text += (text.size() > 1 ? "," : "") + meter::cueJson(cue, member);
    };
    for (const MeterCue& cue : cues) {
        add(cue.read(), cue.time);
    }
    if (report) {  // what came before the station was started
        const std::vector<meter::CueReport> before = report->cuesBut(cues);
        const std::size_t room = MeterBook::kCuesKept - std::min(MeterBook::kCuesKept, cues.size());
        std::for_each(before.rbegin(),
                      before.rbegin() + static_cast<std::ptrdiff_t>(std::min(room, before.size())),
                      [&add](const meter::CueReport& cue) { add(cue, {}); });
    }
    return text + "]";
}

std::string meterReportText(const MeterReport& report) {
    return meter::reportText(report.read(), {});
}

}  // namespace station
