// The parts of a report's text, each with its heading; empty where there is nothing to say.
#pragma once

#include <string>

#include "meter/report.h"

namespace meter {

std::string servicesText(const Report& report);  // servicesText.cpp
std::string checksText(const Report& report);    // measuresText.cpp
std::string clocksText(const Report& report);
std::string networkText(const Report& report);
std::string cuesText(const Report& report);  // eventsText.cpp
std::string changesText(const Report& report);

}  // namespace meter
