// libkelctl.so over SG_IO: the controller library's exported functions.
#include "controller_library.h"
#include "trace_writer.h"

#include "kelctl.h"

namespace {

kelsgio::ControllerLibrary &library() {
    static kelsgio::ControllerLibrary instance;
    return instance;
}

kelsim::TraceLogWriter &traceLog() {
    static kelsim::TraceLogWriter writer;
    return writer;
}

} // namespace

extern "C" {

int initLog(const char *logFileName, uint32_t maxSize) {
    return traceLog().open(logFileName, maxSize) ? 1 : 0;
}

int dumpLog(const char *module, uint32_t line, const char *text, const void *data, uint32_t dataLength) {
    return traceLog().append(module, line, text, data, dataLength) ? 1 : 0;
}

int initContData(int mode) {
    return library().initContData(mode);
}

int getContNum(uint8_t *controllerCount) {
    return library().getContNum(controllerCount);
}

int getContInfo(uint8_t controllerNo, ContInfo *info) {
    return library().getContInfo(controllerNo, info);
}

int getRaidStatus(uint8_t controllerNo, RaidStatus *status) {
    return library().getRaidStatus(controllerNo, status);
}

int getPhysicalDriveInfo(uint8_t controllerNo, uint8_t driveNo, PhysicalDriveInfo *info) {
    return library().getPhysicalDriveInfo(controllerNo, driveNo, info);
}

uint32_t DLLGetLastError(void) {
    return library().lastError();
}

int finContData(void) {
    return library().finContData();
}
}
