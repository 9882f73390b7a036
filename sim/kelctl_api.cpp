// libkelctl.so of the simulated farm: the controller library's exported functions.
#include "controller_library.h"
#include "trace_writer.h"

#include "kelctl.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

// Built on first use, so that loading the library costs nothing.
kelsim::ControllerLibrary &library() {
    static kelsim::ControllerLibrary instance(kelsim::stateDirectoryFromEnvironment());
    return instance;
}

kelsim::TraceLogWriter &traceLog() {
    static kelsim::TraceLogWriter writer;
    return writer;
}

} // namespace

extern "C" {

int initLog(const char *logFileName, uint32_t maxSize) {
    if (traceLog().open(logFileName, maxSize)) {
        return 1;
    }
    // The program goes on without a trace; say why there is none.
    const int openError = errno;
    fprintf(stderr, "kelsim: no trace log: cannot open %s: %s\n", logFileName != nullptr ? logFileName : "(null)",
            strerror(openError));
    return 0;
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
