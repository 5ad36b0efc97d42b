#include "meter/reportText.h"
#include "report/textParts.h"
#include "report/textWords.h"

namespace meter {

namespace {

constexpr std::size_t kCuesShown = 20;
constexpr std::size_t kChangesShown = 20;

std::string cueText(const meter::CueReport& cue) {
    std::string text = cue.command;
    append(text, cue.eventId ? "event " + std::to_string(*cue.eventId) : "");
    append(text, cue.cancelled ? "cancelled" : "");
    append(text, cue.out ? (*cue.out ? "out" : "in") : "");
    append(text, cue.immediate.value_or(false) ? "at once" : "");
    append(text, cue.pts ? "PTS " + std::to_string(*cue.pts) : "");
    append(text, cue.aheadMs ? formatted("%.1f s ahead", *cue.aheadMs / 1000) : "");
    append(text, cue.durationMs ? formatted("for %.1f s", *cue.durationMs / 1000) : "");
    for (const auto& segment : cue.segmentation) {
        append(text,
               segment.type     ? *segment.type
               : segment.typeId ? formatted("segmentation type 0x%02X", *segment.typeId)
                                : formatted("segmentation event %u cancelled", segment.eventId),
               "; ");
        append(text, segment.upid ? *segment.upid : "", " ");
    }
    return text;
}

}  // namespace

std::string cuesText(const Report& report) {
    if (report.cues.empty() && report.cuesEncrypted == 0 && report.cuesMalformed == 0) {
        return "";
    }
    std::string text = heading("CUES (SCTE 35)");
    Columns columns("  ", "rl");
    const std::size_t left = report.cues.size() > kCuesShown ? report.cues.size() - kCuesShown : 0;
    for (std::size_t i = left; i < report.cues.size(); ++i) {
        columns.row({std::to_string(report.cues[i].pid), cueText(report.cues[i])});
    }
    text += columns.text(kTextWidth);
    text +=
        left > 0 ? "  " + counted(left, "earlier one", "earlier ones") + " not shown; --json has more\n" : "";
    text += report.cuesEncrypted > 0 ? "  " + grouped(report.cuesEncrypted) + " encrypted\n" : "";
    text += report.cuesMalformed > 0 ? "  " + grouped(report.cuesMalformed) + " malformed\n" : "";
    return text;
}

std::string changesText(const Report& report) {
    if (report.changes.empty()) {
        return "";
    }
    Columns columns("  ", "rl");
    const std::size_t left =
        report.changes.size() > kChangesShown ? report.changes.size() - kChangesShown : 0;
    for (std::size_t i = left; i < report.changes.size(); ++i) {
        columns.row({tenths(report.changes[i].at) + " s", report.changes[i].text});
    }
    std::string text = heading("CHANGES") + columns.text(kTextWidth);
    text +=
        left > 0 ? "  " + counted(left, "earlier one", "earlier ones") + " not shown; --json has more\n" : "";
    return text;
}

}  // namespace meter
