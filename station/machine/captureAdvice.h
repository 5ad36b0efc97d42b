// What an operator is told about the probe's interface.
#pragma once

#include <span>
#include <string>

#include "machine/machine.h"

namespace station {

struct CaptureAdvice {
    std::string problem{};  // what keeps a probe that is started from capturing; empty when nothing does
    std::string advice{};   // what to do about it
};
CaptureAdvice captureAdvice(std::span<const NetworkInterface> interfaces);

// Names of the interfaces that the condition holds for, as "eno1, enp3s0".
template <typename Condition>
std::string namesOf(std::span<const NetworkInterface> interfaces, Condition condition) {
    std::string names;
    for (const NetworkInterface& interface : interfaces) {
        if (condition(interface)) {
            names += (names.empty() ? "" : ", ") + interface.name;
        }
    }
    return names;
}

}  // namespace station
