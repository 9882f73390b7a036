// The SCSI commands the translation layer answers for a SATA drive, each from IDENTIFY
// DEVICE data or carried out with ATA commands (READ/WRITE SECTOR(S) EXT, FLUSH CACHE EXT).
#include "sat_scsi.h"

#include "byte_order.h"
#include "scsi_pages.h"
#include "text_fields.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

namespace kelsim {
namespace {

constexpr uint8_t kAtaIdentify = 0xEC, kAtaReadExt = 0x24, kAtaWriteExt = 0x34, kAtaFlushExt = 0xEA;
constexpr uint8_t kAtaReadVerifyExt = 0x42, kAtaStandbyImmediate = 0xE0, kAtaIdleImmediate = 0xE1;
constexpr uint32_t kMostAtaSectors = 65536; // a count of 0 in a 48-bit command
constexpr uint8_t kDeviceLba = 0x40;

// The layer's own identity in the ATA Information page.
constexpr const char kLayerVendor[] = "KELSIM  ";
constexpr const char kLayerProduct[] = "SAT LAYER       ";
constexpr const char kLayerRevision[] = "1.00";

// An ATA string (two characters a word, the first in the high byte) as text.
std::string ataString(const AtaSector &data, unsigned firstWord, unsigned words) {
    std::string text;
    for (unsigned i = 0; i < 2 * words; ++i) {
        text.push_back(static_cast<char>(data[2 * firstWord + (i ^ 1)]));
    }
    return text;
}

// A data-in answer cut to the allocation length and the host's buffer; a host that set up
// no data-in buffer for it gets a refusal.
ScsiResult sendData(const ScsiCommand &command, const std::vector<uint8_t> &data, uint64_t allocation) {
    if ((command.direction != DataDirection::FromDevice || command.data == nullptr) && allocation != 0) {
        return invalidFieldInCdb(0);
    }
    return replyData(command, data, allocation);
}

// What an ATA error becomes in SCSI sense, the failing LBA in the information field.
ScsiResult senseForAtaError(const AtaCompletion &completion) {
    ScsiResult result;
    if (completion.error & ata::kErrorUncorrectable) {
        result = checkCondition(sense::kMediumError, sense::kAscUnrecoveredReadError, 0);
        if (completion.lba <= 0xFFFFFFFFull) {
            result.sense[0] |= 0x80;
            putBe(&result.sense[3], 4, completion.lba);
        }
    } else if (completion.error & ata::kErrorIdNotFound) {
        result = checkCondition(sense::kIllegalRequest, sense::kAscLbaOutOfRange, 0);
    } else {
        result = checkCondition(sense::kAbortedCommand, 0x00, 0x00);
    }
    return result;
}

// ---- mode pages as the layer builds them ----

// Read-write error recovery, caching (write cache and look-ahead from IDENTIFY), control,
// informational exceptions (DEXCPT when SMART is off). No field can be changed.
std::vector<uint8_t> modePage(uint8_t code, int pageControl, const AtaSector &identify) {
    std::vector<uint8_t> page;
    switch (code) {
    case 0x01:
        page = {0x01, 0x0A, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0}; // AWRE
        break;
    case 0x08: {
        page.assign(20, 0);
        page[0] = 0x08;
        page[1] = 0x12;
        const uint16_t enabled = getWord(identify.data(), 85);
        page[2] = (enabled & 0x0020) ? 0x04 : 0x00;  // WCE
        page[12] = (enabled & 0x0040) ? 0x00 : 0x20; // DRA when look-ahead is off
        break;
    }
    case 0x0A:
        page = {0x0A, 0x0A, 0x02, 0x00, 0, 0, 0, 0, 0xFF, 0xFF, 0, 0x1E}; // GLTSD
        break;
    case 0x1C:
        page = {0x1C, 0x0A, 0, 0x06, 0, 0, 0, 0, 0, 0, 0, 0};            // MRIE 6: report on request
        page[2] = (getWord(identify.data(), 85) & 0x0001) ? 0x00 : 0x08; // DEXCPT
        break;
    default:
        return page;
    }
    if (pageControl == kChangeable) {
        std::fill(page.begin() + 2, page.end(), 0);
    }
    return page;
}

constexpr uint8_t kModePages[] = {0x01, 0x08, 0x0A, 0x1C};

} // namespace

bool SatScsiCommands::translates(uint8_t opcode) {
    switch (opcode) {
    case 0x00: // TEST UNIT READY
    case 0x03: // REQUEST SENSE
    case 0x08: // READ(6)
    case 0x0A: // WRITE(6)
    case 0x12: // INQUIRY
    case 0x1A: // MODE SENSE(6)
    case 0x1B: // START STOP UNIT
    case 0x25: // READ CAPACITY(10)
    case 0x28: // READ(10)
    case 0x2A: // WRITE(10)
    case 0x2F: // VERIFY(10)
    case 0x35: // SYNCHRONIZE CACHE(10)
    case 0x4D: // LOG SENSE
    case 0x5A: // MODE SENSE(10)
    case 0x88: // READ(16)
    case 0x8A: // WRITE(16)
    case 0x8F: // VERIFY(16)
    case 0x91: // SYNCHRONIZE CACHE(16)
    case 0x9E: // SERVICE ACTION IN(16): READ CAPACITY(16)
        return true;
    default:
        return false;
    }
}

ScsiResult SatScsiCommands::execute(const ScsiCommand &command) {
    // The transport carries a 16-byte CDB field; a shorter command leaves the rest zero.
    uint8_t cdb[16] = {};
    memcpy(cdb, command.cdb, std::min<size_t>(command.cdbLength, sizeof cdb));
    ScsiResult result = dispatch(cdb, command);
    result.transferred = std::min(result.transferred, command.dataLength);
    pendingSense_.keep(result);
    return result;
}

ScsiResult SatScsiCommands::dispatch(const uint8_t *cdb, const ScsiCommand &command) {
    switch (cdb[0]) {
    case 0x00:
        return ScsiResult{};
    case 0x03:
        return pendingSense_.answer(command, cdb);
    case 0x12:
        return inquiry(cdb, command);
    case 0x1A:
    case 0x5A:
        return modeSense(cdb, command);
    case 0x25:
        return readCapacity(cdb, command, false);
    case 0x9E:
        if ((cdb[1] & 0x1F) != 0x10) {
            return invalidFieldInCdb(1, 4);
        }
        return readCapacity(cdb, command, true);
    case 0x35:
    case 0x91:
        return synchronizeCache();
    case 0x4D:
        return logSenseOfSupportedPages(command, cdb);
    case 0x1B:
        return startStopUnit(cdb);
    case 0x2F:
    case 0x8F:
        return verify(cdb);
    case 0x08:
    case 0x0A:
    case 0x28:
    case 0x2A:
    case 0x88:
    case 0x8A:
        return transfer(cdb, command);
    default:
        return checkCondition(sense::kIllegalRequest, sense::kAscInvalidOpcode, 0);
    }
}

bool SatScsiCommands::identify(AtaSector *data) {
    AtaCommandBlock registers;
    registers.command = kAtaIdentify;
    registers.count = 1;
    return !device_.execute(registers, AtaDataPhase::In, data->data(), kBlockSize).failed();
}

uint64_t SatScsiCommands::userBlocks(const AtaSector &data) const {
    uint64_t blocks = 0;
    for (unsigned i = 0; i < 4; ++i) {
        blocks |= uint64_t{getWord(data.data(), 100 + i)} << (16 * i);
    }
    return blocks;
}

ScsiResult SatScsiCommands::inquiry(const uint8_t *cdb, const ScsiCommand &command) {
    const uint16_t allocation = static_cast<uint16_t>(getBe(&cdb[3], 2));
    AtaSector data{};
    if (!identify(&data)) {
        return checkCondition(sense::kAbortedCommand, 0x00, 0x00);
    }
    std::vector<uint8_t> page;
    if (!(cdb[1] & 0x01)) {
        if (cdb[2] != 0) {
            return invalidFieldInCdb(2);
        }
        page.assign(96, 0);
        page[2] = 0x06; // SPC-4
        page[3] = 0x02; // response data format 2
        page[4] = static_cast<uint8_t>(page.size() - 5);
        putText(&page[8], 8, "ATA");
        putText(&page[16], 16, ataString(data, 27, 20));
        // The revision: the last four characters of the firmware revision, or the first
        // four when those are blank.
        const std::string firmware = ataString(data, 23, 4);
        const std::string tail = firmware.substr(4, 4);
        putText(&page[32], 4, tail == "    " ? firmware.substr(0, 4) : tail);
        return sendData(command, page, allocation);
    }
    switch (cdb[2]) {
    case 0x00:
        page = vpdPage(0x00, {0x00, 0x80, 0x83, 0x89, 0xB0, 0xB1});
        break;
    case 0x80: {
        std::string serial = ataString(data, 10, 10);
        serial.erase(serial.find_last_not_of(' ') + 1); // blanks around the number are padding
        serial.erase(0, serial.find_first_not_of(' '));
        page = {0x00, 0x80, 0x00, static_cast<uint8_t>(serial.size())};
        page.insert(page.end(), serial.begin(), serial.end());
        break;
    }
    case 0x83: {
        // The world wide name from IDENTIFY (when it has one), then the T10 vendor
        // identification as the layer makes it: "ATA", the model number and the serial number.
        std::vector<uint8_t> body;
        if (getWord(data.data(), 87) & 0x0100) {
            uint64_t worldWideName = 0;
            for (unsigned i = 0; i < 4; ++i) {
                worldWideName = worldWideName << 16 | getWord(data.data(), 108 + i);
            }
            appendNaaDesignator(&body, worldWideName);
        }
        appendT10VendorDesignator(&body, "ATA", ataString(data, 27, 20) + ataString(data, 10, 10));
        page = vpdPage(0x83, body);
        break;
    }
    case 0xB0: // no WRITE SAME
        page = blockLimitsPage(0, 0, 0);
        break;
    case 0xB1: // rotation rate and form factor from IDENTIFY words 217 and 168
        page = blockCharacteristicsPage(getWord(data.data(), 217), getWord(data.data(), 168) & 0x0F);
        break;
    case 0x89: {
        // ATA Information: the layer's identity, the device signature and IDENTIFY data.
        page.assign(572, 0);
        page[1] = 0x89;
        putBe(&page[2], 2, page.size() - 4);
        putText(&page[8], 8, kLayerVendor);
        putText(&page[16], 16, kLayerProduct);
        putText(&page[32], 4, kLayerRevision);
        page[36] = 0x34; // register device-to-host FIS holding the ATA signature
        page[38] = 0x50; // status: ready, seek complete
        page[40] = 0x01; // LBA low
        page[44] = 0x01; // sector count
        page[56] = kAtaIdentify;
        memcpy(&page[60], data.data(), kBlockSize);
        break;
    }
    default:
        return invalidFieldInCdb(2);
    }
    return sendData(command, page, allocation);
}

ScsiResult SatScsiCommands::readCapacity(const uint8_t *cdb, const ScsiCommand &command, bool sixteen) {
    AtaSector data{};
    if (!identify(&data)) {
        return checkCondition(sense::kAbortedCommand, 0x00, 0x00);
    }
    const uint64_t lastLba = userBlocks(data) == 0 ? 0 : userBlocks(data) - 1;
    std::vector<uint8_t> answer;
    if (sixteen) {
        answer.assign(32, 0);
        putBe(&answer[0], 8, lastLba);
        putBe(&answer[8], 4, kBlockSize);
        return sendData(command, answer, getBe(&cdb[10], 4));
    }
    answer.assign(8, 0);
    putBe(&answer[0], 4, std::min<uint64_t>(lastLba, 0xFFFFFFFFull));
    putBe(&answer[4], 4, kBlockSize);
    return sendData(command, answer, 8);
}

// READ and WRITE (6, 10, 16) as READ/WRITE SECTOR(S) EXT, in pieces of at most 65536 sectors.
ScsiResult SatScsiCommands::transfer(const uint8_t *cdb, const ScsiCommand &command) {
    uint64_t lba = 0, blocks = 0;
    uint16_t lengthByte = 0;
    switch (cdb[0]) {
    case 0x08:
    case 0x0A:
        lba = getBe(&cdb[1], 3) & 0x1FFFFF;
        blocks = cdb[4] == 0 ? 256 : cdb[4];
        lengthByte = 4;
        break;
    case 0x28:
    case 0x2A:
        lba = getBe(&cdb[2], 4);
        blocks = getBe(&cdb[7], 2);
        lengthByte = 7;
        break;
    default:
        lba = getBe(&cdb[2], 8);
        blocks = getBe(&cdb[10], 4);
        lengthByte = 10;
        break;
    }
    const bool write = cdb[0] == 0x0A || cdb[0] == 0x2A || cdb[0] == 0x8A;
    AtaSector data{};
    if (!identify(&data)) {
        return checkCondition(sense::kAbortedCommand, 0x00, 0x00);
    }
    if (lba > userBlocks(data) || blocks > userBlocks(data) - lba) {
        return checkCondition(sense::kIllegalRequest, sense::kAscLbaOutOfRange, 0);
    }
    if (blocks == 0) {
        return ScsiResult{};
    }
    const DataDirection wanted = write ? DataDirection::ToDevice : DataDirection::FromDevice;
    if (command.direction != wanted || command.data == nullptr || blocks * kBlockSize > command.dataLength) {
        return invalidFieldInCdb(lengthByte);
    }
    ScsiResult result;
    for (uint64_t done = 0; done < blocks;) {
        const uint32_t count = static_cast<uint32_t>(std::min<uint64_t>(blocks - done, kMostAtaSectors));
        AtaCommandBlock registers;
        registers.command = write ? kAtaWriteExt : kAtaReadExt;
        registers.count = static_cast<uint16_t>(count); // 65536 is written as 0
        registers.lba = lba + done;
        registers.device = kDeviceLba;
        const AtaCompletion completion = device_.execute(registers, write ? AtaDataPhase::Out : AtaDataPhase::In,
                                                         command.data + done * kBlockSize, count * kBlockSize);
        result.transferred += completion.transferred;
        if (completion.failed()) {
            ScsiResult failure = senseForAtaError(completion);
            failure.transferred = result.transferred;
            return failure;
        }
        done += count;
    }
    return result;
}

ScsiResult SatScsiCommands::synchronizeCache() {
    AtaCommandBlock registers;
    registers.command = kAtaFlushExt;
    registers.device = kDeviceLba;
    const AtaCompletion completion = device_.execute(registers, AtaDataPhase::None, nullptr, 0);
    return completion.failed() ? senseForAtaError(completion) : ScsiResult{};
}

ScsiResult SatScsiCommands::modeSense(const uint8_t *cdb, const ScsiCommand &command) {
    const ModeSenseRequest request = decodeModeSense(cdb);
    if (ScsiResult refusal; modeSenseRefused(request, false, &refusal)) {
        return refusal;
    }
    AtaSector data{};
    if (!identify(&data)) {
        return checkCondition(sense::kAbortedCommand, 0x00, 0x00);
    }
    std::vector<uint8_t> pages;
    for (uint8_t code : kModePages) {
        if (request.pageCode == 0x3F || request.pageCode == code) {
            const std::vector<uint8_t> page = modePage(code, request.pageControl, data);
            pages.insert(pages.end(), page.begin(), page.end());
        }
    }
    if (pages.empty()) {
        return invalidFieldInCdb(2, 5);
    }
    std::vector<uint8_t> descriptor;
    if (!request.disableBlockDescriptors) {
        descriptor = modeBlockDescriptor(userBlocks(data), kBlockSize, request.longLba);
    }
    return sendData(command, modeParameterData(request.tenByte, request.longLba, 0x00, descriptor, pages),
                    request.allocation);
}

// VERIFY (10, 16) as READ VERIFY SECTOR(S) EXT: the medium only, no data compared.
ScsiResult SatScsiCommands::verify(const uint8_t *cdb) {
    if (cdb[1] & 0x06) {
        return invalidFieldInCdb(1, 2); // BYTCHK
    }
    const bool sixteen = cdb[0] == 0x8F;
    const uint64_t lba = sixteen ? getBe(&cdb[2], 8) : getBe(&cdb[2], 4);
    const uint64_t blocks = sixteen ? getBe(&cdb[10], 4) : getBe(&cdb[7], 2);
    AtaSector data{};
    if (!identify(&data)) {
        return checkCondition(sense::kAbortedCommand, 0x00, 0x00);
    }
    if (lba > userBlocks(data) || blocks > userBlocks(data) - lba) {
        return checkCondition(sense::kIllegalRequest, sense::kAscLbaOutOfRange, 0);
    }
    for (uint64_t done = 0; done < blocks;) {
        const uint32_t count = static_cast<uint32_t>(std::min<uint64_t>(blocks - done, kMostAtaSectors));
        AtaCommandBlock registers;
        registers.command = kAtaReadVerifyExt;
        registers.count = static_cast<uint16_t>(count); // 65536 is written as 0
        registers.lba = lba + done;
        registers.device = kDeviceLba;
        const AtaCompletion completion = device_.execute(registers, AtaDataPhase::None, nullptr, 0);
        if (completion.failed()) {
            return senseForAtaError(completion);
        }
        done += count;
    }
    return ScsiResult{};
}

// START STOP UNIT as IDLE IMMEDIATE (start) or STANDBY IMMEDIATE (stop); no power
// conditions and no medium to load or eject.
ScsiResult SatScsiCommands::startStopUnit(const uint8_t *cdb) {
    if (cdb[4] & 0xF0) {
        return invalidFieldInCdb(4, 7);
    }
    if (cdb[4] & 0x02) {
        return invalidFieldInCdb(4, 1); // LOEJ
    }
    AtaCommandBlock registers;
    registers.command = (cdb[4] & 0x01) ? kAtaIdleImmediate : kAtaStandbyImmediate;
    const AtaCompletion completion = device_.execute(registers, AtaDataPhase::None, nullptr, 0);
    return completion.failed() ? senseForAtaError(completion) : ScsiResult{};
}

} // namespace kelsim
