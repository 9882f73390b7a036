// Scripted faults: the kinds "kelsim fault" accepts and how their arguments are read.
#pragma once

#include "state_store.h"

#include <string>
#include <vector>

namespace kelsim {

namespace fault_kind {
constexpr const char *kPassStatus = "pass-status";         // next KelPas* call
constexpr const char *kInitFail = "init-fail";             // next initContData
constexpr const char *kNoController = "no-controller";     // next getContNum
constexpr const char *kContInfoFail = "continfo-fail";     // next getContInfo
constexpr const char *kRaidStatusFail = "raidstatus-fail"; // next getRaidStatus
constexpr const char *kDriveInfoFail = "driveinfo-fail";   // next getPhysicalDriveInfo
} // namespace fault_kind

// Reads "<kind> [value] [--detail-hex HEX | --detail-text TEXT] [--count N]".
bool parseFaultArguments(const std::vector<std::string> &args, ScriptedFault *fault, int *count, std::string *error);

// One line for "kelsim fault list".
std::string describeFault(const ScriptedFault &fault, int remaining);

} // namespace kelsim
