// The entry points of libkelsim.so, the one copy of the simulated farm that libkelctl.so
// and libkelpth.so both forward to: one database connection and one topology a process.
#pragma once

#include "kelctl.h"
#include "kelpth.h"
#include "pass_request.h"

#include <stdint.h>

#define KELSIM_ENTRY extern "C" __attribute__((visibility("default")))

namespace kelsim {

// The twelve KelPas* functions, as both implementations of the library name them.
using kelcommon::PassFunction;

} // namespace kelsim

// The controller library's functions, one for one.
KELSIM_ENTRY int kelsim_initLog(const char *logFileName, uint32_t maxSize);
KELSIM_ENTRY int kelsim_dumpLog(const char *module, uint32_t line, const char *text, const void *data,
                                uint32_t dataLength);
KELSIM_ENTRY int kelsim_initContData(int mode);
KELSIM_ENTRY int kelsim_getContNum(uint8_t *controllerCount);
KELSIM_ENTRY int kelsim_getContInfo(uint8_t controllerNo, ContInfo *info);
KELSIM_ENTRY int kelsim_getRaidStatus(uint8_t controllerNo, RaidStatus *status);
KELSIM_ENTRY int kelsim_getPhysicalDriveInfo(uint8_t controllerNo, uint8_t driveNo, PhysicalDriveInfo *info);
KELSIM_ENTRY uint32_t kelsim_lastError(void);
KELSIM_ENTRY int kelsim_finContData(void);

// Any KelPas* call: readLength for the reading functions, writeLength for the sending ones.
KELSIM_ENTRY int kelsim_passThrough(kelsim::PassFunction function, PassThroughRequest *request, void *data,
                                    uint32_t *readLength, uint32_t writeLength, uint8_t *sense, uint32_t *senseSize);
