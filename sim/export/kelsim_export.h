// "kelsim export": the farm's drives and logical drives as disks of the Linux SCSI stack.
#pragma once

#include <string>
#include <vector>

namespace kelsim {

extern const char kExportUsage[];

// Exports the named drives and logical drives (all when none are named) until SIGINT or
// SIGTERM; the exit status of kelsim.
int runExport(const std::string &stateDir, const std::vector<std::string> &names);

} // namespace kelsim
