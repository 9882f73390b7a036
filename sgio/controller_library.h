// The controller library over SG_IO: SCSI hosts with disks as controllers, their disks
// as physical drives, each disk also its own logical drive.
#pragma once

#include "backend.h"

#include "kelctl.h"

namespace kelsgio {

class ControllerLibrary {
  public:
    int initContData(int mode);
    int getContNum(uint8_t *controllerCount);
    int getContInfo(uint8_t controllerNo, ContInfo *info);
    int getRaidStatus(uint8_t controllerNo, RaidStatus *status);
    int getPhysicalDriveInfo(uint8_t controllerNo, uint8_t driveNo, PhysicalDriveInfo *info);
    uint32_t lastError() const { return lastError_; }
    int finContData();

  private:
    int fail(uint32_t code);
    // The common start of the calls that need an initialised library and a record.
    bool ready(const void *record);
    // The same for a call about one controller, which must exist.
    bool readyFor(uint8_t controllerNo, const void *record);

    Backend backend_;
    bool initialised_ = false;
    uint32_t lastError_ = 0;
};

} // namespace kelsgio
