// The exported disks of the farm and how their commands reach the device models.
#include "export_devices.h"

#include "cdb_direction.h"
#include "drives/ata_device.h"
#include "drives/sas_drive.h"

#include <algorithm>

namespace kelsim {
namespace {

constexpr uint8_t kStatusGood = 0x00, kStatusCheckCondition = 0x02, kStatusBusy = 0x08;

uint64_t driveBlocks(Farm &farm, int controller, int slot) {
    const DriveIdentity &identity = farm.slot(controller, slot)->identity;
    StoredSettings settings(farm.store(), driveKey(controller, slot));
    return identity.interface == DriveInterface::Sas ? sasDriveBlocks(identity, settings)
                                                     : sataUserBlocks(identity, settings);
}

std::string hexBytes(const uint8_t *bytes, size_t count) {
    std::string text;
    char part[4];
    for (size_t i = 0; i < count; i++) {
        snprintf(part, sizeof part, i == 0 ? "%02X" : " %02X", bytes[i]);
        text += part;
    }
    return text;
}

// ILLEGAL REQUEST with INVALID COMMAND OPERATION CODE, INVALID FIELD IN CDB or IN
// PARAMETER LIST: the model does not take the command as sent. Through ATA PASS-THROUGH,
// ABORTED COMMAND: the ATA device aborted the command it was given.
bool refused(const uint8_t *cdb, const ScsiResult &result) {
    const uint8_t key = result.sense[2] & 0x0F, asc = result.sense[12];
    if (!result.checkCondition) {
        return false;
    }
    if (cdb[0] == 0x85 || cdb[0] == 0xA1) {
        return key == sense::kAbortedCommand;
    }
    return key == sense::kIllegalRequest && (asc == sense::kAscInvalidOpcode || asc == sense::kAscInvalidFieldInCdb ||
                                             asc == sense::kAscInvalidFieldInParameterList);
}

} // namespace

bool selectDevices(Farm &farm, const std::vector<std::string> &names, std::vector<ExportedDevice> *devices,
                   std::string *error) {
    if (!farm.load(error)) {
        return false;
    }
    StoreTransaction reading(farm.store(), false);
    if (!reading.active()) {
        *error = "cannot read the state in " + farm.stateDir() + ": " + farm.store().lastError();
        return false;
    }
    std::vector<ExportedDevice> all;
    const Topology &topology = farm.topology();
    for (size_t c = 0; c < topology.controllers.size(); c++) {
        const int controller = static_cast<int>(c);
        for (int s = 0; s < kSlotsPerController; s++) {
            if (const SlotConfig *slot = farm.slot(controller, s); slot != nullptr) {
                const bool sata = slot->identity.interface == DriveInterface::Sata;
                all.push_back({"c" + std::to_string(c) + "s" + std::to_string(s), controller, s, -1,
                               driveBlocks(farm, controller, s), sata ? "SATA" : "SAS"});
            }
        }
        for (int n = 0; n < kLogicalDrivesPerController; n++) {
            if (const LogicalDriveConfig *ld = farm.logicalDrive(controller, n); ld != nullptr) {
                all.push_back({"c" + std::to_string(c) + "ld" + std::to_string(n), controller, -1, n,
                               farm.volume(controller, n)->capacity(), raidLevelName(ld->level)});
            }
        }
    }
    if (names.empty()) {
        *devices = all;
        return true;
    }
    for (const std::string &name : names) {
        if (std::none_of(all.begin(), all.end(), [&](const ExportedDevice &d) { return d.name == name; })) {
            *error = "no drive or logical drive \"" + name + "\" in the farm (names look like c0s4, c0ld1)";
            return false;
        }
    }
    for (const ExportedDevice &device : all) {
        if (std::find(names.begin(), names.end(), device.name) != names.end()) {
            devices->push_back(device);
        }
    }
    return true;
}

RefusalLog::RefusalLog(const std::string &path) : file_(fopen(path.c_str(), "a")) {}

RefusalLog::~RefusalLog() {
    if (file_ != nullptr) {
        fclose(file_);
    }
}

void RefusalLog::write(const std::string &line) {
    fprintf(stderr, "kelsim export: %s\n", line.c_str());
    if (file_ != nullptr) {
        fprintf(file_, "%s\n", line.c_str());
        fflush(file_);
    }
}

RingHandler deviceHandler(Farm &farm, const ExportedDevice &device, RefusalLog &log) {
    return [&farm, device, &log](const uint8_t *cdb, size_t cdbLength, std::vector<uint8_t> &buffer) {
        RingReply reply;
        StoreTransaction transaction(farm.store(), true);
        ScsiTarget *target = device.logicalDrive >= 0 ? farm.volume(device.controller, device.logicalDrive)
                                                      : farm.physicalDrive(device.controller, device.slot);
        if (!transaction.active() || target == nullptr) {
            reply.status = kStatusBusy;
            return reply;
        }
        const TransferShape shape = transferShape(cdb, cdbLength);
        ScsiCommand command;
        command.cdb = cdb;
        command.cdbLength = cdbLength;
        command.direction = shape.direction;
        command.data = buffer.data();
        command.dataLength = static_cast<uint32_t>(std::min<uint64_t>(buffer.size(), shape.expectedLength));
        const ScsiResult result = target->execute(command);
        if (!transaction.commit()) {
            reply.status = kStatusBusy; // the model's work was rolled back
            return reply;
        }
        if (result.timedOut) {
            reply.status = kStatusBusy;
            return reply;
        }
        if (shape.direction == DataDirection::FromDevice) {
            reply.returned = std::min(result.transferred, command.dataLength);
        }
        reply.status = result.checkCondition ? kStatusCheckCondition : kStatusGood;
        if (result.checkCondition) {
            reply.sense.assign(result.sense.begin(), result.sense.end());
        }
        if (refused(cdb, result)) {
            char codes[16];
            snprintf(codes, sizeof codes, "%02X/%02X/%02X", result.sense[2] & 0x0F, result.sense[12], result.sense[13]);
            log.write("refused " + device.name + " cdb=" + hexBytes(cdb, cdbLength) + " sense=" + codes);
        }
        return reply;
    };
}

} // namespace kelsim
