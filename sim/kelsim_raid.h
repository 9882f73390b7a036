// kelsim's RAID commands: fail a member, rebuild it, check every volume's mirrors and
// parity; and the state text of a volume for "kelsim show".
#pragma once

#include "farm.h"

#include <string>
#include <vector>

namespace kelsim {

extern const char kRaidUsage[];

// Runs "fail", "rebuild" or "check" and gives the exit status; -1 when command is none
// of them.
int runRaidCommand(const std::string &stateDir, const std::string &command, const std::vector<std::string> &args);

// A drive's faults for "kelsim show": its unreadable blocks and its error injection ("" when
// it has none; inside a read transaction).
std::string driveFaultsText(Farm &farm, int controllerNo, int slotNo);

// "optimal", "degraded, slot 3 failed" or "rebuilding slot 3" (inside a read transaction).
std::string volumeStateText(Farm &farm, int controllerNo, int ldNo);

} // namespace kelsim
