// The farm's drives and logical drives as exported disks: their names ("c0s4" for slot 4
// of controller 0, "c0ld1" for its logical drive 1), capacities, and the handler that runs
// each command of a disk on its device model inside a store transaction.
#pragma once

#include "farm.h"
#include "tcmu_ring.h"

#include <cstdio>
#include <string>
#include <vector>

namespace kelsim {

struct ExportedDevice {
    std::string name;
    int controller = 0;
    int slot = -1;         // a drive slot, or -1
    int logicalDrive = -1; // a logical drive, or -1
    uint64_t blocks = 0;   // capacity in 512-byte blocks
    std::string kind;      // "SAS", "SATA", "raid5", ...
};

// Every drive and logical drive of the farm, or those named (in the farm's order); an
// unknown name is an error that names it. Reads the capacities in a store transaction.
bool selectDevices(Farm &farm, const std::vector<std::string> &names, std::vector<ExportedDevice> *devices,
                   std::string *error);

// Where the commands the models refused are written: standard error and a file.
class RefusalLog {
  public:
    explicit RefusalLog(const std::string &path);
    ~RefusalLog();
    RefusalLog(const RefusalLog &) = delete;
    RefusalLog &operator=(const RefusalLog &) = delete;
    void write(const std::string &line);

  private:
    FILE *file_ = nullptr;
};

// Runs a disk's commands on its model: one write transaction per command (BUSY when the
// store is not available, so that the initiator tries again); logs refusals.
RingHandler deviceHandler(Farm &farm, const ExportedDevice &device, RefusalLog &log);

} // namespace kelsim
