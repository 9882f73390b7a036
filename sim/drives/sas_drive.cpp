// The simulated SAS drive: a table of SCSI commands (opcode -> handler) answered from the
// drive's identity, its persistent settings (capacity, mode pages, media-error marks,
// revision, stopped state) and its medium, the way a disk drive's firmware answers them.
// This file holds the command table and its dispatch, the data phases, the sense helpers
// the command sets share, and the drive's public functions; the handlers live in one file
// per command set (sas_identity, sas_block_io, sas_mode_pages, sas_log_pages, sas_firmware,
// sas_media).
#include "sas_drive_internal.h"
#include "sas_life.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>

namespace kelsim {
namespace sas {

// ---- sense helpers local to the drive ----

ScsiResult lbaOutOfRange() {
    return checkCondition(sense::kIllegalRequest, sense::kAscLbaOutOfRange, 0);
}

ScsiResult invalidFieldInParameterList(size_t byteIndex, int bitIndex) {
    ScsiResult result = checkCondition(sense::kIllegalRequest, sense::kAscInvalidFieldInParameterList, 0);
    result.sense[15] = 0x80 | (bitIndex >= 0 ? 0x08 | static_cast<uint8_t>(bitIndex) : 0);
    putBe(&result.sense[16], 2, std::min<size_t>(byteIndex, 0xFFFF));
    return result;
}

ScsiResult parameterListLengthError() {
    return checkCondition(sense::kIllegalRequest, kAscParameterListLengthError, 0);
}

// ---- the command table ----

// In ascending opcode order; sas_drive_internal.h says which file holds each handler.
const SasDrive::CommandEntry SasDrive::kCommands[] = {
    {0x00, 6, true, &SasDrive::testUnitReady},
    {0x03, 6, false, &SasDrive::requestSense},
    {0x08, 6, true, &SasDrive::read},
    {0x0A, 6, true, &SasDrive::write},
    {0x12, 6, false, &SasDrive::inquiry},
    {0x15, 6, false, &SasDrive::modeSelect6},
    {0x1A, 6, false, &SasDrive::modeSense},
    {0x1B, 6, false, &SasDrive::startStopUnit},
    {0x1C, 6, false, &SasDrive::receiveDiagnosticResults},
    {0x1D, 6, false, &SasDrive::sendDiagnostic},
    {0x25, 10, false, &SasDrive::readCapacity10},
    {0x28, 10, true, &SasDrive::read},
    {0x2A, 10, true, &SasDrive::write},
    {0x2E, 10, true, &SasDrive::write}, // WRITE AND VERIFY: the medium never miscompares
    {0x2F, 10, true, &SasDrive::verify},
    {0x35, 10, true, &SasDrive::synchronizeCache},
    {0x3B, 10, false, &SasDrive::writeBuffer},
    {0x3C, 10, false, &SasDrive::readBuffer},
    {0x3E, 10, true, &SasDrive::readLong},
    {0x3F, 10, true, &SasDrive::writeLong},
    {0x41, 10, true, &SasDrive::writeSame},
    {0x4C, 10, false, &SasDrive::logSelect},
    {0x4D, 10, false, &SasDrive::logSense},
    {0x55, 10, false, &SasDrive::modeSelect10},
    {0x5A, 10, false, &SasDrive::modeSense},
    {0x88, 16, true, &SasDrive::read},
    {0x8A, 16, true, &SasDrive::write},
    {0x8E, 16, true, &SasDrive::write},
    {0x8F, 16, true, &SasDrive::verify},
    {0x91, 16, true, &SasDrive::synchronizeCache},
    {0x93, 16, true, &SasDrive::writeSame},
    {0x9E, 16, false, &SasDrive::serviceActionIn16},
    {0xA0, 12, false, &SasDrive::reportLuns},
    {0xA8, 12, true, &SasDrive::read},
    {0xAA, 12, true, &SasDrive::write},
    {0xAF, 12, true, &SasDrive::verify},
};

ScsiResult SasDrive::execute(const ScsiCommand &command) {
    // A check condition scripted with kelsim comes before the command table.
    ScsiResult result;
    const bool hasCdb = command.cdb != nullptr && command.cdbLength > 0;
    if (!hasCdb || !takeScriptedCheck(settings_, command.cdb[0], &result)) {
        result = dispatch(command);
    }
    result.transferred = std::min(result.transferred, command.dataLength);
    if (hasCdb) {
        recordInLife(command, result);
    }
    if (result.checkCondition) {
        lastSense_ = result;
        haveLastSense_ = true;
    }
    return result;
}

ScsiResult SasDrive::dispatch(const ScsiCommand &command) {
    if (command.cdb == nullptr || command.cdbLength == 0) {
        return invalidFieldInCdb(0);
    }
    // The transport carries a 16-byte CDB field; a shorter command leaves the rest zero.
    std::array<uint8_t, 16> cdb{};
    std::memcpy(cdb.data(), command.cdb, std::min<size_t>(command.cdbLength, cdb.size()));

    const CommandEntry *entry = nullptr;
    for (const CommandEntry &candidate : kCommands) {
        if (candidate.opcode == cdb[0]) {
            entry = &candidate;
            break;
        }
    }
    if (entry == nullptr) {
        return checkCondition(sense::kIllegalRequest, sense::kAscInvalidOpcode, 0);
    }
    // NACA in the control byte: the drive does not do ACA.
    if (cdb[entry->cdbLength - 1] & 0x04) {
        return invalidFieldInCdb(entry->cdbLength - 1, 2);
    }
    if (entry->needsSpinningMedium && stopped()) {
        return checkCondition(sense::kNotReady, kAscNotReady, kAscqInitializingCommandRequired);
    }
    if (ScsiResult injected; injectedError(cdb.data(), &injected)) {
        return injected;
    }
    return (this->*entry->handler)(Request{cdb.data(), command});
}

// ---- data phases and ranges ----

uint64_t SasDrive::hostRoom(const ScsiCommand &command) {
    if (command.direction != DataDirection::FromDevice || command.data == nullptr) {
        return 0;
    }
    return command.dataLength;
}

const uint8_t *SasDrive::hostData(const ScsiCommand &command, uint64_t size) {
    if (command.direction != DataDirection::ToDevice || command.data == nullptr || command.dataLength < size) {
        return nullptr;
    }
    return command.data;
}

ScsiResult SasDrive::sendData(const ScsiCommand &command, const std::vector<uint8_t> &data, uint64_t allocation) {
    ScsiResult result;
    uint64_t size = std::min<uint64_t>({data.size(), allocation, hostRoom(command)});
    if (size > 0) {
        std::memcpy(command.data, data.data(), size);
    }
    result.transferred = static_cast<uint32_t>(size);
    return result;
}

SasDrive::BlockRange SasDrive::decodeBlockRange(const uint8_t *cdb) {
    switch (cdb[0] >> 5) { // the command group gives the CDB layout
    case 0: {
        uint64_t count = cdb[4] == 0 ? 256 : cdb[4]; // READ(6)/WRITE(6): 0 means 256 blocks
        return {getBe(&cdb[1], 3) & 0x1FFFFF, count, 4};
    }
    case 4:
        return {getBe(&cdb[2], 8), getBe(&cdb[10], 4), 10};
    case 5:
        return {getBe(&cdb[2], 4), getBe(&cdb[6], 4), 6};
    default:
        return {getBe(&cdb[2], 4), getBe(&cdb[7], 2), 7};
    }
}

bool SasDrive::inRange(uint64_t lba, uint64_t count) {
    uint64_t blocks = currentBlocks();
    return lba <= blocks && count <= blocks - lba;
}

bool SasDrive::stopped() {
    std::string value;
    return settings_.get(kKeyStopped, &value) && value == "1";
}

} // namespace sas

std::unique_ptr<ScsiTarget> makeSasDrive(const DriveIdentity &identity, Medium &medium, DriveSettings &settings) {
    return std::make_unique<sas::SasDrive>(identity, medium, settings);
}

uint64_t sasDriveBlocks(const DriveIdentity &identity, DriveSettings &settings) {
    std::string text;
    if (settings.get(sas::kKeyCapacity, &text)) {
        char *end = nullptr;
        unsigned long long blocks = std::strtoull(text.c_str(), &end, 10);
        if (end != text.c_str() && *end == '\0' && blocks > 0 && blocks <= identity.nativeBlocks) {
            return blocks;
        }
    }
    return identity.nativeBlocks;
}

std::string sasDriveRevision(const DriveIdentity &identity, DriveSettings &settings) {
    std::string revision;
    if (settings.get(sas::kKeyRevision, &revision) && !revision.empty()) {
        return revision;
    }
    return identity.revision;
}

} // namespace kelsim
