// Discovery once per process, and drive identities from sysfs or INQUIRY.
#include "backend.h"

#include "sg_command.h"

#include <cstdlib>

namespace kelsgio {

std::string inquiryText(const uint8_t *field, size_t width) {
    std::string text(reinterpret_cast<const char *>(field), width);
    size_t end = text.find_last_not_of(std::string(" \0", 2));
    return end == std::string::npos ? std::string() : text.substr(0, end + 1);
}

bool Backend::load(std::string *error) {
    if (loaded_) {
        return true;
    }
    const char *listed = getenv("KELSGIO_DEVICES");
    if (listed != nullptr && *listed != '\0') {
        if (!parseDeviceList(listed, &controllers_, error)) {
            return false;
        }
    } else {
        controllers_ = discoverFromSysfs("/sys");
    }
    loaded_ = true;
    return true;
}

Disk *Backend::slot(uint8_t controllerNo, uint8_t driveNo) {
    if (controllerNo >= controllers_.size() || driveNo >= controllers_[controllerNo].disks.size()) {
        return nullptr;
    }
    return &controllers_[controllerNo].disks[driveNo];
}

const Disk *Backend::disk(uint8_t controllerNo, uint8_t driveNo) const {
    return const_cast<Backend *>(this)->slot(controllerNo, driveNo);
}

std::string Backend::device(uint8_t controllerNo, uint8_t driveNo) {
    Disk *disk = slot(controllerNo, driveNo);
    if (disk == nullptr || !resolveDevice(disk, "/dev")) {
        return std::string();
    }
    return disk->device;
}

bool Backend::isSata(uint8_t controllerNo, uint8_t driveNo, bool *sata) {
    Disk *disk = slot(controllerNo, driveNo);
    if (disk != nullptr && !disk->identified && !disk->folder.empty()) {
        *sata = readSysfsVendor(*disk) == "ATA";
        return true;
    }
    DriveIdentity identity;
    if (!this->identity(controllerNo, driveNo, &identity)) {
        return false;
    }
    *sata = identity.sata;
    return true;
}

bool Backend::identity(uint8_t controllerNo, uint8_t driveNo, DriveIdentity *identity) {
    Disk *disk = slot(controllerNo, driveNo);
    if (disk == nullptr) {
        return false;
    }
    if (!disk->identified && !disk->folder.empty()) {
        readSysfsIdentity(disk);
    }
    if (!disk->identified) {
        std::string node = device(controllerNo, driveNo);
        uint8_t answer[36] = {};
        const uint8_t inquiry[6] = {0x12, 0, 0, 0, sizeof answer, 0};
        Outcome outcome = sendCommand(node, inquiry, sizeof inquiry, KEL_DIR_IN, answer, sizeof answer, false);
        if (outcome.status != 0 || outcome.transferred < sizeof answer) {
            return false;
        }
        disk->vendor = inquiryText(answer + 8, 8);
        disk->product = inquiryText(answer + 16, 16);
        disk->revision = inquiryText(answer + 32, 4);
        disk->identified = true;
    }
    identity->vendor = disk->vendor;
    identity->product = disk->product;
    identity->revision = disk->revision;
    identity->blocks = disk->blocks;
    identity->sata = disk->vendor == "ATA";
    return true;
}

} // namespace kelsgio
