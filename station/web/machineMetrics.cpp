// What this machine does to the probe, as metrics.
#include "web/machineMetrics.h"

#include <array>
#include <optional>

namespace station {

namespace {

using enum MetricType;

struct CardMetric {
    MetricFamily family;
    double (*value)(const NetworkInterface&);
};
constexpr auto kCardMetrics = std::to_array<CardMetric>({
    {{"kestor_interface_up", kGauge, "1 while the interface that the probe captures is set up."},
     [](const NetworkInterface& card) { return card.up ? 1.0 : 0.0; }},
    {{"kestor_interface_carrier", kGauge, "1 while it has a carrier."},
     [](const NetworkInterface& card) { return card.carrier ? 1.0 : 0.0; }},
    {{"kestor_interface_carrier_changes_total", kCounter, "Losses and returns of its carrier."},
     [](const NetworkInterface& card) { return static_cast<double>(card.carrierChanges); }},
    {{"kestor_interface_receive_bytes_total", kCounter, "Bytes that it received, of whatever traffic."},
     [](const NetworkInterface& card) { return static_cast<double>(card.received.bytes); }},
    {{"kestor_interface_receive_packets_total", kCounter, "Packets that it received, of whatever traffic."},
     [](const NetworkInterface& card) { return static_cast<double>(card.received.packets); }},
    {{"kestor_interface_receive_errors_total", kCounter, "Damaged frames that it received."},
     [](const NetworkInterface& card) { return static_cast<double>(card.received.errors); }},
    {{"kestor_interface_receive_dropped_packets_total", kCounter,
      "rx_dropped: packets for which there was no memory, or, while nobody captured, no use."},
     [](const NetworkInterface& card) { return static_cast<double>(card.received.dropped); }},
    {{"kestor_interface_receive_missed_packets_total", kCounter,
      "rx_missed_errors: packets for which the ring had no room."},
     [](const NetworkInterface& card) { return static_cast<double>(card.received.missed); }},
    {{"kestor_interface_receive_fifo_errors_total", kCounter,
      "rx_fifo_errors: packets for which the card itself had no room."},
     [](const NetworkInterface& card) { return static_cast<double>(card.received.fifo); }},
});

std::optional<double> asMetric(std::optional<uint64_t> count) {
    return count ? std::optional(static_cast<double>(*count)) : std::nullopt;
}

// Nothing: not known, and left out.
struct MachineMetric {
    MetricFamily family;
    std::optional<double> (*value)(const MachineState&);
};
constexpr auto kMachineMetrics = std::to_array<MachineMetric>({
    {{"kestor_machine_dropped_packets_total", kCounter,
      "Packets that this machine dropped since the station was started, as machine_drops counts them."},
     [](const MachineState& machine) {
         return machine.known ? std::optional(static_cast<double>(machine.drops)) : std::nullopt;
     }},
    {{"kestor_groups_not_joined", kGauge,
      "Groups without signal that are not joined on the interface that the probe captures."},
     [](const MachineState& machine) { return asMetric(machine.notJoined); }},
    {{"kestor_groups_joined_elsewhere", kGauge,
      "Groups that are joined on another interface as well, or joined and watched no more: the network sends "
      "them there for nobody."},
     [](const MachineState& machine) { return asMetric(machine.joinedElsewhere); }},
    {{"kestor_group_rejoins_total", kCounter, "Groups that the probe was told to join again."},
     [](const MachineState& machine) -> std::optional<double> {
         return static_cast<double>(machine.rejoinedGroups);
     }},
});

struct BacklogMetric {
    MetricFamily family;
    uint64_t Softnet::*value;
};
constexpr auto kBacklogMetrics = std::to_array<BacklogMetric>({
    {{"kestor_machine_backlog_processed_packets_total", kCounter,
      "Packets that the kernel took in, of all interfaces of the machine."},
     &Softnet::processed},
    {{"kestor_machine_backlog_dropped_packets_total", kCounter,
      "Packets dropped since a processor's backlog was full, of all interfaces of the machine."},
     &Softnet::dropped},
    {{"kestor_machine_backlog_time_squeezes_total", kCounter,
      "How often the kernel had no time to take in all that was there."},
     &Softnet::timeSqueeze},
});

}  // namespace

void writeMachine(Exposition& out, const MachineState& machine) {
    if (machine.known && machine.interface) {
        std::string labels;
        appendLabel(labels, "interface", machine.interface->name);
        for (const CardMetric& metric : kCardMetrics) {
            out.family(metric.family);
            out.sample(labels, {}, metric.value(*machine.interface));
        }
        if (machine.interface->bitsPerSecond) {
            out.family({"kestor_interface_speed_bps", kGauge, "Speed of its link, where it has one."});
            out.sample(labels, {}, static_cast<double>(*machine.interface->bitsPerSecond));
        }
    }
    if (machine.known && machine.softnet) {
        for (const BacklogMetric& metric : kBacklogMetrics) {
            out.family(metric.family);
            out.sample(static_cast<double>((*machine.softnet).*metric.value));
        }
    }
    for (const MachineMetric& metric : kMachineMetrics) {
        if (const std::optional<double> value = metric.value(machine)) {
            out.family(metric.family);
            out.sample(*value);
        }
    }
}

}  // namespace station
