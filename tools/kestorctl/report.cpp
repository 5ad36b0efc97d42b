#include "report.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <map>

#include "arguments.h"
#include "listing.h"
#include "output.h"
#include "times.h"

namespace {

constexpr std::size_t kNameWidth = 28;  // of a table of 100 columns
constexpr std::size_t kOutagesShown = 40;

// Throws CLI::ValidationError for times that make none.
Period periodOf(const ReportRequest& request) {
    const auto readTime = [](const char* option, const std::string& text) {
        // A time of day alone is that of the last 24 hours.
        const auto time = parseTime(text, currentTime() - std::chrono::days(1));
        if (!time) {
            throw CLI::ValidationError(option, "\"" + text +
                                                   "\" is no time; one is \"2026-11-22 22:00\" (of this "
                                                   "machine's time zone) or 2026-11-22T22:00:00Z");
        }
        return *time;
    };
    Period period = parsePeriod(request.period, currentTime()).value_or(Period{});
    if (!request.since.empty()) {
        period = {readTime("--since", request.since), currentTime()};
    }
    if (!request.until.empty()) {
        period.until = readTime("--until", request.until);
    }
    if (period.since >= period.until) {
        throw CLI::ValidationError("the time would end at " + rfc3339(period.until) + ", before it begins");
    }
    return period;
}

std::string percentEncoded(const std::string& text) {
    std::string result;
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        if (std::isalnum(byte) != 0) {
            result += character;
        } else {
            std::array<char, 4> code{};
            snprintf(code.data(), code.size(), "%%%02X", byte);
            result += code.data();
        }
    }
    return result;
}

std::string pathOf(const ReportRequest& request) {
    const Period period = periodOf(request);
    std::string path = "/api/v1/report?since=" + rfc3339(period.since) + "&until=" + rfc3339(period.until);
    if (!request.group.empty()) {
        path += "&group=" + request.group;
    }
    if (!request.label.empty()) {
        path += "&label=" + percentEncoded(request.label);
    }
    return path + (request.outages ? "&format=outages" : request.csv ? "&format=csv" : "");
}

// Never more than it was: 99.9999 is not 100.
std::string percentText(const Json& times) {
    const Json percent = times.value("availabilityPercent", Json());
    if (!percent.is_number()) {
        return "-";
    }
    constexpr double kDigits = 1000;
    std::array<char, 16> text{};
    snprintf(text.data(), text.size(), "%.3f %%", std::floor(percent.get<double>() * kDigits) / kDigits);
    return text.data();
}

// "45s", "12m05s", "3h20m", "2d04h", "-" for none.
std::string lengthText(double seconds) {
    if (seconds <= 0) {
        return "-";
    }
    constexpr long kMinute = 60;
    constexpr long kHour = 60 * kMinute;
    constexpr long kDay = 24 * kHour;
    const long whole = std::max(1L, std::lround(seconds));
    std::array<char, 32> text{};
    if (whole < kMinute) {
        snprintf(text.data(), text.size(), "%lds", whole);
    } else if (whole < kHour) {
        snprintf(text.data(), text.size(), "%ldm%02lds", whole / kMinute, whole % kMinute);
    } else if (whole < kDay) {
        snprintf(text.data(), text.size(), "%ldh%02ldm", whole / kHour, whole % kHour / kMinute);
    } else {
        snprintf(text.data(), text.size(), "%ldd%02ldh", whole / kDay, whole % kDay / kHour);
    }
    return text.data();
}

std::string lengthText(const Json& object, const char* member) {
    return lengthText(object.value(member, 0.0));
}

std::string cut(std::string name) {
    const auto continues = [](char c) { return (static_cast<unsigned char>(c) & 0xc0) == 0x80; };
    std::size_t characters = 0;
    for (std::size_t index = 0; index < name.size(); ++index) {
        if (!continues(name[index]) && ++characters > kNameWidth) {
            return name.substr(0, index);
        }
    }
    return name;
}

std::vector<std::string> row(const std::string& what, const Json& times, const std::string& name) {
    const std::string outages = text(times, "outages");
    return {what,
            percentText(times),
            outages == "0" ? "-" : outages,
            lengthText(times, "outageSeconds"),
            lengthText(times, "errorSeconds"),
            lengthText(times, "unknownSeconds"),
            lengthText(times, "maintenanceSeconds"),
            cut(name)};
}

void showOutages(const Json& report) {
    struct One {
        std::string from;
        std::vector<std::string> cells;
    };
    std::vector<One> outages;
    for (const Json& channel : report.value("channels", Json::array())) {
        for (const Json& outage : channel.value("outageList", Json::array())) {
            const std::string until = timeText(outage, "until");
            outages.push_back(
                {text(outage, "from"),
                 {timeText(outage, "from"), until == "-" ? "still" : until, lengthText(outage, "seconds"),
                  text(channel, "group"), cut(text(channel, "name"))}});
        }
    }
    if (outages.empty()) {
        return;
    }
    std::ranges::sort(outages, {}, &One::from);
    puts("");
    Listing table({"OUTAGE FROM (UTC)", "UNTIL (UTC)", "COUNTED", "GROUP", "CHANNEL"});
    for (std::size_t index = 0; index < std::min(outages.size(), kOutagesShown); ++index) {
        table.add(outages[index].cells);
    }
    table.print();
    const auto more = outages.size() - std::min(outages.size(), kOutagesShown) +
                      report.value("outagesLeftOut", std::size_t{0});
    if (more > 0) {
        printf("and %zu more: --outages prints all, or name a group or a shorter time\n", more);
    }
}

// Alarms of the channels by type, what lasted longest in all first, and below them those of the probe.
void showAlarms(const Json& report) {
    struct Sum {
        double seconds = 0;
        double longest = 0;
        uint64_t times = 0;
        std::size_t channels = 0;
    };
    std::map<std::string, Sum> sums;
    for (const Json& channel : report.value("channels", Json::array())) {
        for (const Json& alarm : channel.value("alarms", Json::array())) {
            Sum& sum = sums[text(alarm, "alarm")];
            sum.seconds += alarm.value("seconds", 0.0);
            sum.longest = std::max(sum.longest, alarm.value("longestSeconds", 0.0));
            sum.times += alarm.value("count", uint64_t{0});
            ++sum.channels;
        }
    }
    std::vector<std::pair<std::string, Sum>> sorted(sums.begin(), sums.end());
    std::ranges::stable_sort(sorted, std::ranges::greater(),
                             [](const auto& one) { return one.second.seconds; });
    const Json ofProbe = report.value("alarms", Json::array());
    if (sorted.empty() && ofProbe.empty()) {
        return;
    }
    puts("");
    Listing table({"ALARM", "CHANNELS", "TIMES", "TOGETHER", "LONGEST"});
    for (const auto& [name, sum] : sorted) {
        table.add({name, std::to_string(sum.channels), std::to_string(sum.times), lengthText(sum.seconds),
                   lengthText(sum.longest)});
    }
    for (const Json& alarm : ofProbe) {
        table.add({text(alarm, "alarm"), "probe", text(alarm, "count"), lengthText(alarm, "seconds"),
                   lengthText(alarm, "longestSeconds")});
    }
    table.print();
}

void show(const Json& report) {
    printf("report of %s to %s UTC\n", timeText(report, "since").c_str(), timeText(report, "until").c_str());
    const Json channels = report.value("channels", Json::array());
    if (channels.empty()) {
        puts("no channels");
        return;
    }
    Listing table({"GROUP", "AVAILABLE", "OUTAGES", "DOWN", "ERRORS", "UNKNOWN", "MAINT", "CHANNEL"});
    for (const Json& channel : channels) {
        table.add(row(text(channel, "group"), channel, text(channel, "name")));
    }
    for (const Json& total : report.value("byLabel", Json::array())) {
        const std::string value = text(total, "value");
        table.add(row("", total, text(report, "label") + (value == "-" ? " not set" : "=" + value)));
    }
    table.add(row("all", report.value("total", Json::object()),
                  std::to_string(channels.size()) + (channels.size() == 1 ? " channel" : " channels")));
    table.print();
    showAlarms(report);
    showOutages(report);
}

}  // namespace

void declareReport(CLI::App& command, ReportRequest& request) {
    command
        .add_option("PERIOD", request.period,
                    "day (the default), week or month: the last whole one of this machine's time zone; or "
                    "today.")
        ->type_name("PERIOD")
        ->check(CLI::IsMember({"today", "day", "week", "month"}));
    command
        .add_option(
            "--since", request.since,
            "When it begins, instead of PERIOD: \"2026-11-22 22:00\" (of this machine's time zone) or "
            "2026-11-22T22:00:00Z.")
        ->type_name("TIME");
    command.add_option("--until", request.until, "When it ends, with --since; without it now.")
        ->type_name("TIME");
    command.add_option("--group", request.group, "This channel alone.")
        ->type_name("GROUP")
        ->check(checkGroup);
    command.add_option("--label", request.label, "Totals by this label; with a value, its channels alone.")
        ->type_name("NAME[=VALUE]");
    command.add_flag("--csv", request.csv, "Print a line a channel for a spreadsheet.");
    command.add_flag("--outages", request.outages, "Print a line an outage for a spreadsheet.");
    command.callback([&request] { periodOf(request); });
}

int runReport(StationClient& station, const ReportRequest& request, bool json) {
    const std::string path = pathOf(request);
    if (request.csv || request.outages) {
        fputs(station.get(path).c_str(), stdout);
        return 0;
    }
    const Json report = station.getJson(path);
    if (json) {
        print(report);
    } else {
        show(report);
    }
    return 0;
}
