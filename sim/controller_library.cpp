// The controller library: enumeration, RAID status and drive information from the farm's
// topology, and the scripted faults of these calls.
#include "controller_library.h"

#include "byte_order.h"
#include "drives/sas_drive.h"
#include "faults.h"
#include "library_codes.h"
#include "text_fields.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace kelsim {

ControllerLibrary::ControllerLibrary(Farm &farm) : farm_(farm) {}

int ControllerLibrary::fail(uint32_t code) {
    lastError_ = code;
    return 0;
}

// Faults are looked for only while the marker file says some are scripted, so that a
// run without faults never opens the database here.
bool ControllerLibrary::takeFault(const char *kind, ScriptedFault *fault) {
    StateStore &store = farm_.store();
    if (!store.faultsMayBePending()) {
        return false;
    }
    StoreTransaction transaction(store, true);
    if (!transaction.active()) {
        return false;
    }
    bool found = store.takeFault(kind, fault);
    return transaction.commit() && found;
}

bool ControllerLibrary::ready(const void *record) {
    if (!initialised_) {
        fail(kErrorNotInitialised);
        return false;
    }
    if (record == nullptr) {
        fail(kErrorBadArgument);
        return false;
    }
    return true;
}

int ControllerLibrary::initContData(int) {
    ScriptedFault fault;
    if (takeFault(fault_kind::kInitFail, &fault)) {
        return fail(fault.value);
    }
    std::string error;
    if (!farm_.load(&error)) {
        fprintf(stderr, "kelsim: %s\n", error.c_str());
        return fail(kErrorTopology);
    }
    initialised_ = true;
    return 1;
}

int ControllerLibrary::getContNum(uint8_t *controllerCount) {
    if (!ready(controllerCount)) {
        return 0;
    }
    ScriptedFault fault;
    if (takeFault(fault_kind::kNoController, &fault)) {
        *controllerCount = 0;
        return 1;
    }
    *controllerCount = static_cast<uint8_t>(farm_.topology().controllers.size());
    return 1;
}

int ControllerLibrary::getContInfo(uint8_t controllerNo, ContInfo *info) {
    if (!ready(info)) {
        return 0;
    }
    ScriptedFault fault;
    if (takeFault(fault_kind::kContInfoFail, &fault)) {
        return fail(fault.value);
    }
    const ControllerConfig *controller = farm_.controller(controllerNo);
    if (controller == nullptr) {
        return fail(kErrorNoSuchController);
    }
    // raw[0] number, [1] slots, [2] drives present, [3] logical drives, [4..19] model, [20..23] firmware.
    memset(info, 0, sizeof *info);
    info->raw[0] = controllerNo;
    info->raw[1] = kSlotsPerController;
    for (int i = 0; i < kSlotsPerController; i++) {
        info->raw[2] += controller->slots[static_cast<size_t>(i)].present ? 1 : 0;
        info->raw[3] += controller->logicalDrives[static_cast<size_t>(i)].present ? 1 : 0;
    }
    memcpy(info->raw + 4, "ORVANE SIM RAID ", 16);
    memcpy(info->raw + 20, "5.00", 4);
    return 1;
}

int ControllerLibrary::getRaidStatus(uint8_t controllerNo, RaidStatus *status) {
    if (!ready(status)) {
        return 0;
    }
    ScriptedFault fault;
    if (takeFault(fault_kind::kRaidStatusFail, &fault)) {
        return fail(fault.value);
    }
    const ControllerConfig *controller = farm_.controller(controllerNo);
    if (controller == nullptr) {
        return fail(kErrorNoSuchController);
    }
    memset(status, 0, sizeof *status);
    for (int i = 0; i < kLogicalDrivesPerController; i++) {
        status->logicalDriveState[i] =
            controller->logicalDrives[static_cast<size_t>(i)].present ? kLogicalDriveOptimal : RAID_STATE_ABSENT;
    }
    for (int i = 0; i < kSlotsPerController; i++) {
        uint8_t state = RAID_STATE_ABSENT;
        if (controller->slots[static_cast<size_t>(i)].present) {
            state = logicalDriveOfSlot(*controller, i) >= 0 ? kSlotOnline : kSlotReady;
        }
        status->physicalDriveState[i] = state;
    }
    // The database is read only while some volume may have lost a member.
    if (farm_.volumesMayBeDegraded()) {
        StoreTransaction reading(farm_.store(), false);
        for (int i = 0; reading.active() && i < kLogicalDrivesPerController; i++) {
            if (!controller->logicalDrives[static_cast<size_t>(i)].present) {
                continue;
            }
            int failedSlot = -1;
            const VolumeState state = farm_.volumeState(controllerNo, i, &failedSlot);
            if (state == VolumeState::Optimal) {
                continue;
            }
            const bool rebuilding = state == VolumeState::Rebuilding;
            status->logicalDriveState[i] = rebuilding ? kLogicalDriveRebuilding : kLogicalDriveDegraded;
            if (failedSlot >= 0) {
                status->physicalDriveState[failedSlot] = rebuilding ? kSlotRebuilding : kSlotFailed;
            }
        }
    }
    return 1;
}

// A SAS drive's revision changes with a firmware download; the state keeps it.
std::string ControllerLibrary::currentRevision(uint8_t controllerNo, uint8_t driveNo, const DriveIdentity &identity) {
    if (identity.interface != DriveInterface::Sas) {
        return identity.revision;
    }
    StateStore &store = farm_.store();
    StoreTransaction reading(store, false);
    if (!reading.active()) {
        return identity.revision;
    }
    StoredSettings settings(store, driveKey(controllerNo, driveNo));
    return sasDriveRevision(identity, settings);
}

int ControllerLibrary::getPhysicalDriveInfo(uint8_t controllerNo, uint8_t driveNo, PhysicalDriveInfo *info) {
    if (!ready(info)) {
        return 0;
    }
    ScriptedFault fault;
    if (takeFault(fault_kind::kDriveInfoFail, &fault)) {
        return fail(fault.value);
    }
    if (farm_.controller(controllerNo) == nullptr) {
        return fail(kErrorNoSuchController);
    }
    if (driveNo >= kSlotsPerController) {
        return fail(kErrorBadArgument);
    }
    memset(info, 0, sizeof *info);
    const SlotConfig *slot = farm_.slot(controllerNo, driveNo);
    if (slot == nullptr) {
        return 1; // an empty slot: the vendor identification starts with a zero byte
    }
    // reserved0: [0] slot, [1] interface (0 SAS, 1 SATA), [2..9] capacity in blocks;
    // reserved42: [0..19] serial number, blank padded.
    const DriveIdentity &identity = slot->identity;
    info->reserved0[0] = driveNo;
    info->reserved0[1] = identity.interface == DriveInterface::Sata ? 1 : 0;
    putLe(info->reserved0 + 2, 8, identity.nativeBlocks);
    putText(info->vendorId, sizeof info->vendorId, identity.vendor);
    putText(info->productId, sizeof info->productId, identity.product);
    putText(info->productRevision, sizeof info->productRevision, currentRevision(controllerNo, driveNo, identity));
    putText(info->reserved42, 20, identity.serial);
    return 1;
}

int ControllerLibrary::finContData() {
    initialised_ = false;
    farm_.store().close();
    return 1;
}

} // namespace kelsim
