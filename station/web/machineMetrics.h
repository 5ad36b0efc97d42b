// Metrics of this machine: the interface that the probe captures, joins, and what was dropped.
#pragma once

#include "state/state.h"
#include "web/exposition.h"

namespace station {

// Families kestor_interface_*, kestor_machine_* and kestor_group*_*; those of an interface are left out where
// there is none.
void writeMachine(Exposition& out, const MachineState& machine);

}  // namespace station
