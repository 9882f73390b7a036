// The controller library's work behind libkelctl.so's functions (but the trace log):
// initialisation, enumeration, RAID status and drive information, with scripted faults.
#pragma once

#include "farm.h"

#include "kelctl.h"

namespace kelsim {

class ControllerLibrary {
  public:
    // The farm is the one the pass-through calls of the process use.
    explicit ControllerLibrary(Farm &farm);

    int initContData(int mode);
    int getContNum(uint8_t *controllerCount);
    int getContInfo(uint8_t controllerNo, ContInfo *info);
    int getRaidStatus(uint8_t controllerNo, RaidStatus *status);
    int getPhysicalDriveInfo(uint8_t controllerNo, uint8_t driveNo, PhysicalDriveInfo *info);
    uint32_t lastError() const { return lastError_; }
    int finContData();

  private:
    // Uses up a scripted fault of this kind; true when there was one.
    bool takeFault(const char *kind, ScriptedFault *fault);
    int fail(uint32_t code);
    // The common start of the calls that need an initialised library and a record.
    bool ready(const void *record);
    std::string currentRevision(uint8_t controllerNo, uint8_t driveNo, const DriveIdentity &identity);

    Farm &farm_;
    bool initialised_ = false;
    uint32_t lastError_ = 0;
};

} // namespace kelsim
