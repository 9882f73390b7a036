// The exported functions of a controller library (libkelctl.so): the trace log on one
// TraceLogWriter, everything else on the library's own object. Include it in one source
// file of the library and write KEL_DEFINE_CONTROLLER_EXPORTS(library), where library()
// returns an object with initContData, getContNum, getContInfo, getRaidStatus,
// getPhysicalDriveInfo, lastError and finContData.
#pragma once

#include "trace_writer.h"

#include "kelctl.h"

namespace kelcommon {

inline kelsim::TraceLogWriter &traceLog() {
    static kelsim::TraceLogWriter writer;
    return writer;
}

} // namespace kelcommon

#define KEL_DEFINE_CONTROLLER_EXPORTS(library)                                                                         \
    extern "C" {                                                                                                       \
    int initLog(const char *logFileName, uint32_t maxSize) {                                                           \
        return kelcommon::traceLog().open(logFileName, maxSize) ? 1 : 0;                                               \
    }                                                                                                                  \
    int dumpLog(const char *module, uint32_t line, const char *text, const void *data, uint32_t dataLength) {          \
        return kelcommon::traceLog().append(module, line, text, data, dataLength) ? 1 : 0;                             \
    }                                                                                                                  \
    int initContData(int mode) {                                                                                       \
        return library().initContData(mode);                                                                           \
    }                                                                                                                  \
    int getContNum(uint8_t *controllerCount) {                                                                         \
        return library().getContNum(controllerCount);                                                                  \
    }                                                                                                                  \
    int getContInfo(uint8_t controllerNo, ContInfo *info) {                                                            \
        return library().getContInfo(controllerNo, info);                                                              \
    }                                                                                                                  \
    int getRaidStatus(uint8_t controllerNo, RaidStatus *status) {                                                      \
        return library().getRaidStatus(controllerNo, status);                                                          \
    }                                                                                                                  \
    int getPhysicalDriveInfo(uint8_t controllerNo, uint8_t driveNo, PhysicalDriveInfo *info) {                         \
        return library().getPhysicalDriveInfo(controllerNo, driveNo, info);                                            \
    }                                                                                                                  \
    uint32_t DLLGetLastError(void) {                                                                                   \
        return library().lastError();                                                                                  \
    }                                                                                                                  \
    int finContData(void) {                                                                                            \
        return library().finContData();                                                                                \
    }                                                                                                                  \
    }
