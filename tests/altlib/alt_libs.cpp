// A second, minimal implementation of both controller libraries: one controller with one
// SAS drive whose every block reads as A5. Tests put it first in LD_LIBRARY_PATH to show
// that kelpth runs unchanged against another implementation.
#include "kelctl.h"
#include "kelpth.h"

#include <cstdio>
#include <cstring>

extern "C" {

int initLog(const char *, uint32_t) {
    return 1;
}
int dumpLog(const char *, uint32_t, const char *, const void *, uint32_t) {
    return 1;
}
int initContData(int) {
    return 1;
}
int getContNum(uint8_t *count) {
    *count = 1;
    return 1;
}
int getContInfo(uint8_t controllerNo, ContInfo *) {
    return controllerNo == 0;
}
int getRaidStatus(uint8_t, RaidStatus *status) {
    memset(status->logicalDriveState, RAID_STATE_ABSENT, sizeof status->logicalDriveState);
    memset(status->physicalDriveState, RAID_STATE_ABSENT, sizeof status->physicalDriveState);
    status->physicalDriveState[0] = 0;
    return 1;
}
int getPhysicalDriveInfo(uint8_t, uint8_t driveNo, PhysicalDriveInfo *info) {
    if (driveNo == 0) {
        memcpy(info->vendorId, "ALTVEND ", 8);
        memcpy(info->productId, "ALTDISK         ", 16);
    }
    return 1;
}
uint32_t DLLGetLastError(void) {
    return 0x10000;
}
int finContData(void) {
    return 1;
}

KEL_PASS_THROUGH_READ(KelPasReadExtend) {
    (void)request, (void)sense, (void)senseSize;
    memset(data, 0xA5, *dataLength);
    return 0;
}
#define NOT_HERE_READ(name)                                                                                            \
    KEL_PASS_THROUGH_READ(name) {                                                                                      \
        return (void)request, (void)data, (void)dataLength, (void)sense, (void)senseSize, 2;                           \
    }
#define NOT_HERE_WRITE(name)                                                                                           \
    KEL_PASS_THROUGH_WRITE(name) {                                                                                     \
        return (void)request, (void)data, (void)dataLength, (void)sense, (void)senseSize, 2;                           \
    }
NOT_HERE_WRITE(KelPasWriteExtend)
NOT_HERE_READ(KelPasReadSectorExt)
NOT_HERE_WRITE(KelPasWriteSectorExt)
NOT_HERE_READ(KelPasAnyCommand)
NOT_HERE_READ(KelPasInquiry)
NOT_HERE_READ(KelPasLogSense)
NOT_HERE_READ(KelPasModeSense)
NOT_HERE_WRITE(KelPasModeSelect)
NOT_HERE_READ(KelPasReadLong)
NOT_HERE_WRITE(KelPasWriteLong)
NOT_HERE_WRITE(KelPasWriteBuffer)
}
