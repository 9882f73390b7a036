// libkelsim.so: the farm, the controller library and the trace log of a process, built on
// first use so that loading the library costs nothing.
#include "library_entry.h"

#include "controller_library.h"
#include "pass_through.h"
#include "trace_writer.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

kelsim::Farm &farm() {
    static kelsim::Farm instance(kelsim::stateDirectoryFromEnvironment());
    return instance;
}

kelsim::ControllerLibrary &library() {
    static kelsim::ControllerLibrary instance(farm());
    return instance;
}

kelsim::TraceLogWriter &traceLog() {
    static kelsim::TraceLogWriter writer;
    return writer;
}

} // namespace

int kelsim_initLog(const char *logFileName, uint32_t maxSize) {
    if (traceLog().open(logFileName, maxSize)) {
        return 1;
    }
    // The program goes on without a trace; say why there is none.
    const int openError = errno;
    fprintf(stderr, "kelsim: no trace log: cannot open %s: %s\n", logFileName != nullptr ? logFileName : "(null)",
            strerror(openError));
    return 0;
}

int kelsim_dumpLog(const char *module, uint32_t line, const char *text, const void *data, uint32_t dataLength) {
    return traceLog().append(module, line, text, data, dataLength) ? 1 : 0;
}

int kelsim_initContData(int mode) {
    return library().initContData(mode);
}

int kelsim_getContNum(uint8_t *controllerCount) {
    return library().getContNum(controllerCount);
}

int kelsim_getContInfo(uint8_t controllerNo, ContInfo *info) {
    return library().getContInfo(controllerNo, info);
}

int kelsim_getRaidStatus(uint8_t controllerNo, RaidStatus *status) {
    return library().getRaidStatus(controllerNo, status);
}

int kelsim_getPhysicalDriveInfo(uint8_t controllerNo, uint8_t driveNo, PhysicalDriveInfo *info) {
    return library().getPhysicalDriveInfo(controllerNo, driveNo, info);
}

uint32_t kelsim_lastError(void) {
    return library().lastError();
}

int kelsim_finContData(void) {
    return library().finContData();
}

// Drives are kept for the whole process (a SATA drive keeps its power-cycle state between calls).
int kelsim_passThrough(kelsim::PassFunction function, PassThroughRequest *request, void *data, uint32_t *readLength,
                       uint32_t writeLength, uint8_t *sense, uint32_t *senseSize) {
    kelsim::PassCall call;
    call.function = function;
    call.request = request;
    call.data = data;
    call.readLength = readLength;
    call.writeLength = writeLength;
    call.sense = sense;
    call.senseSize = senseSize;
    return kelsim::runPassThrough(farm(), call);
}
