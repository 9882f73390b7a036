// Controller and drive checks: does the controller answer, is the drive there, and is
// it a SAS or a SATA drive.
#define KEL_MODULE "KelPthCmd"
#include "kelpth/checks.h"

#include <cstring>

#include "kelctl.h"
#include "kelpth/messages.h"
#include "kelpth/trace.h"

namespace {
// The library sets these bits when the controller number names no controller.
constexpr uint32_t kNoSuchController = 0x10000 | 0x20000;
constexpr int kHighestDriveNo = 7;
} // namespace

int ControllerCheck(const char *module, int line, int controllerNo) {
    ContInfo info;
    memset(&info, 0, sizeof info);
    if (getContInfo(static_cast<uint8_t>(controllerNo), &info) != 0) {
        return 1;
    }
    const uint32_t code = DLLGetLastError();
    if ((code & kNoSuchController) != 0) {
        KelPthErr0003(module, line);
    } else {
        KelPthErr0004d(module, line, "getContInfo", code);
    }
    KelPthErr0002(module, line);
    return 0;
}

int DriveCheck(const char *module, int line, int controllerNo, int driveNo, int driveKind) {
    const uint8_t controller = static_cast<uint8_t>(controllerNo);
    const uint8_t drive = static_cast<uint8_t>(driveNo);
    RaidStatus status;
    memset(&status, 0, sizeof status);
    if (getRaidStatus(controller, &status) == 0) {
        KelPthErr0004d(module, line, "getRaidStatus", DLLGetLastError());
        KelPthErr0002(module, line);
        return 0;
    }
    const uint8_t *states = nullptr;
    if (driveKind == kPhysicalDrive) {
        states = status.physicalDriveState;
    } else if (driveKind == kLogicalDrive) {
        states = status.logicalDriveState;
    } else {
        return 1;
    }
    // The range test comes first: the tables hold eight entries.
    if (drive > kHighestDriveNo || states[drive] == RAID_STATE_ABSENT) {
        KelPthErr0009(module, line);
        KelPthErr0002(module, line);
        return 0;
    }
    return 1;
}

int DriveCheck_Silence(int controllerNo, int driveNo) {
    RaidStatus status;
    memset(&status, 0, sizeof status);
    const uint8_t drive = static_cast<uint8_t>(driveNo);
    if (drive > kHighestDriveNo) {
        return 0;
    }
    if (getRaidStatus(static_cast<uint8_t>(controllerNo), &status) == 0) {
        return 0;
    }
    return status.physicalDriveState[drive] == RAID_STATE_ABSENT ? 0 : 1;
}

int getHddType(int controllerNo, int driveNo, uint32_t *interfaceType) {
    traceCall("getHddType");
    PhysicalDriveInfo info;
    memset(&info, 0, sizeof info);
    if (getPhysicalDriveInfo(static_cast<uint8_t>(controllerNo & 0xFF), static_cast<uint8_t>(driveNo & 0xFF), &info) ==
        0) {
        return 0;
    }
    if (info.vendorId[0] == '\0') {
        traceLine("## ContNo: %d, HddNo: %d is not connected.", controllerNo, driveNo);
        return 0;
    }
    // The identification fields are not terminated.
    char vendor[255] = {};
    char product[255] = {};
    memcpy(vendor, info.vendorId, sizeof info.vendorId);
    memcpy(product, info.productId, sizeof info.productId);
    traceLine("## ContNo: %d, HddNo: %d, VenderID %s, Product ID %s", controllerNo, driveNo, vendor, product);
    *interfaceType = strncmp(info.vendorId, "ATA", 3) == 0 ? kInterfaceSata : kInterfaceSas;
    return 1;
}
