// What this machine does to the probe.
#include "web/jsonValues.h"

namespace station::json {

namespace {

void interfaceMember(JsonWriter& json, const MachineState& machine) {
    json.name("interface");
    if (!machine.interface) {
        json.value(nullptr);
        return;
    }
    const NetworkInterface& card = *machine.interface;
    json.open('{').member("name", card.name).member("up", card.up).member("carrier", card.carrier);
    json.member("state", interfaceStateName(card.state)).member("carrierChanges", card.carrierChanges);
    json.member("bitsPerSecond", card.bitsPerSecond).member("captured", machine.captured);
    json.name("received").open('{').member("packets", card.received.packets);
    json.member("bytes", card.received.bytes).member("errors", card.received.errors);
    json.member("dropped", card.received.dropped).member("missed", card.received.missed);
    json.member("fifo", card.received.fifo).close('}').close('}');
}

}  // namespace

void machineValue(JsonWriter& json, const MachineState& machine) {
    const auto ifKnown = [&machine](uint64_t value) {
        return machine.known ? std::optional(value) : std::nullopt;
    };
    json.open('{').member("known", machine.known).member("problem", textOrNull(machine.problem));
    interfaceMember(json, machine);
    json.member("linkProblem", textOrNull(machine.linkProblem));
    json.member("joinProblem", textOrNull(machine.joinProblem)).member("notJoined", machine.notJoined);
    json.member("doubled", textOrNull(machine.doubled));
    json.member("rejoins", machine.rejoins).member("rejoinedGroups", machine.rejoinedGroups);
    json.member("lastRejoin", machine.lastRejoin);
    json.member("drops", ifKnown(machine.drops)).member("dropsLastMinute", ifKnown(machine.dropsLastMinute));
    json.name("backlog");
    if (machine.softnet) {
        json.open('{').member("processed", machine.softnet->processed);
        json.member("dropped", machine.softnet->dropped);
        json.member("timeSqueeze", machine.softnet->timeSqueeze).close('}');
    } else {
        json.value(nullptr);
    }
    json.close('}');
}

}  // namespace station::json
