// libkelctl.so of the simulated farm: the controller library's exported functions, each
// passed on to libkelsim.so.
#include "library_entry.h"

extern "C" {

int initLog(const char *logFileName, uint32_t maxSize) {
    return kelsim_initLog(logFileName, maxSize);
}

int dumpLog(const char *module, uint32_t line, const char *text, const void *data, uint32_t dataLength) {
    return kelsim_dumpLog(module, line, text, data, dataLength);
}

int initContData(int mode) {
    return kelsim_initContData(mode);
}

int getContNum(uint8_t *controllerCount) {
    return kelsim_getContNum(controllerCount);
}

int getContInfo(uint8_t controllerNo, ContInfo *info) {
    return kelsim_getContInfo(controllerNo, info);
}

int getRaidStatus(uint8_t controllerNo, RaidStatus *status) {
    return kelsim_getRaidStatus(controllerNo, status);
}

int getPhysicalDriveInfo(uint8_t controllerNo, uint8_t driveNo, PhysicalDriveInfo *info) {
    return kelsim_getPhysicalDriveInfo(controllerNo, driveNo, info);
}

uint32_t DLLGetLastError(void) {
    return kelsim_lastError();
}

int finContData(void) {
    return kelsim_finContData();
}
}
