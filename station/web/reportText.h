// A report as JSON and as tables for spreadsheets; docs/api.yaml describes them.
#pragma once

#include <string>

#include "store/report.h"

namespace station {

// `label`: whose values the totals go by; empty for none.
std::string reportJson(const Report& report, const std::string& label);
// A line a channel, and a line an outage. Times are UTC with "Z", lengths are seconds.
std::string reportCsv(const Report& report);
std::string outagesCsv(const Report& report);
// "report-20261121T000000Z-20261122T000000Z.csv"
std::string reportFileName(std::string_view what, const Span& time);

}  // namespace station
