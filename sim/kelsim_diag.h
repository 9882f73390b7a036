// kelsim's controls of what cannot happen by itself in a simulation: a SAS drive's
// temperature, 12 V voltage, a SMART trip and a check condition for a coming command;
// and the firmware image for the drives of one product.
#pragma once

#include "state_store.h"
#include "topology.h"

#include <string>
#include <vector>

namespace kelsim {

extern const char kDiagUsage[];

// True when the command word is one of these controls.
bool isDiagCommand(const std::string &command);
// Runs it; the exit status of kelsim (2 for a usage error).
int runDiagCommand(const std::string &stateDir, const std::string &command, const std::vector<std::string> &args);

// One line of a SAS slot's conditions for "kelsim show", read in the caller's transaction.
std::string describeSlotConditions(StateStore &store, int controller, int slot);

} // namespace kelsim
