// The controller library's calls answered from discovery, sysfs and INQUIRY.
#include "controller_library.h"

#include "library_codes.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace kelsgio {
namespace {

constexpr uint8_t kStateOnline = kelsim::kSlotOnline; // each disk is its own logical drive

void putBlankPadded(const std::string &text, char *field, size_t width) {
    memset(field, ' ', width);
    memcpy(field, text.data(), std::min(text.size(), width));
}

} // namespace

int ControllerLibrary::fail(uint32_t code) {
    lastError_ = code;
    return 0;
}

bool ControllerLibrary::ready(const void *record) {
    if (!initialised_) {
        fail(kelsim::kErrorNotInitialised);
        return false;
    }
    if (record == nullptr) {
        fail(kelsim::kErrorBadArgument);
        return false;
    }
    return true;
}

bool ControllerLibrary::readyFor(uint8_t controllerNo, const void *record) {
    if (!ready(record)) {
        return false;
    }
    if (controllerNo >= backend_.controllerCount()) {
        fail(kelsim::kErrorNoSuchController);
        return false;
    }
    return true;
}

int ControllerLibrary::initContData(int) {
    std::string error;
    if (!backend_.load(&error)) {
        fprintf(stderr, "kelsgio: %s\n", error.c_str());
        return fail(kelsim::kErrorTopology);
    }
    initialised_ = true;
    return 1;
}

int ControllerLibrary::getContNum(uint8_t *controllerCount) {
    if (!ready(controllerCount)) {
        return 0;
    }
    *controllerCount = static_cast<uint8_t>(std::min<size_t>(backend_.controllerCount(), 255));
    return 1;
}

int ControllerLibrary::getContInfo(uint8_t controllerNo, ContInfo *info) {
    if (!readyFor(controllerNo, info)) {
        return 0;
    }
    memset(info, 0, sizeof *info);
    uint8_t drives = 0;
    while (drives < kSlotsPerController && backend_.disk(controllerNo, drives) != nullptr) {
        drives++;
    }
    info->raw[0] = controllerNo;
    info->raw[1] = kSlotsPerController;
    info->raw[2] = drives;
    info->raw[3] = drives;
    putBlankPadded("LINUX SG HOST", reinterpret_cast<char *>(&info->raw[4]), 16);
    return 1;
}

int ControllerLibrary::getRaidStatus(uint8_t controllerNo, RaidStatus *status) {
    if (!readyFor(controllerNo, status)) {
        return 0;
    }
    memset(status, 0, sizeof *status);
    for (uint8_t n = 0; n < kSlotsPerController; n++) {
        bool present = backend_.disk(controllerNo, n) != nullptr;
        status->logicalDriveState[n] = present ? kelsim::kLogicalDriveOptimal : RAID_STATE_ABSENT;
        status->physicalDriveState[n] = present ? kStateOnline : RAID_STATE_ABSENT;
    }
    return 1;
}

int ControllerLibrary::getPhysicalDriveInfo(uint8_t controllerNo, uint8_t driveNo, PhysicalDriveInfo *info) {
    if (!readyFor(controllerNo, info)) {
        return 0;
    }
    if (driveNo >= kSlotsPerController) {
        return fail(kelsim::kErrorBadArgument);
    }
    memset(info, 0, sizeof *info);
    if (backend_.disk(controllerNo, driveNo) == nullptr) {
        return 1; // empty slot: the record stays zero
    }
    DriveIdentity identity;
    if (!backend_.identity(controllerNo, driveNo, &identity)) {
        return fail(kelsim::kErrorDriveInfoUnavailable);
    }
    info->reserved0[0] = driveNo;
    info->reserved0[1] = identity.sata ? 1 : 0;
    for (int i = 0; i < 8; i++) {
        info->reserved0[2 + i] = static_cast<uint8_t>(identity.blocks >> (8 * i));
    }
    putBlankPadded(identity.vendor, info->vendorId, sizeof info->vendorId);
    putBlankPadded(identity.product, info->productId, sizeof info->productId);
    putBlankPadded(identity.revision, info->productRevision, sizeof info->productRevision);
    return 1;
}

int ControllerLibrary::finContData() {
    initialised_ = false;
    return 1;
}

} // namespace kelsgio
