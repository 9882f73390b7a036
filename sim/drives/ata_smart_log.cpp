// The ATA device's SMART and logs: SMART READ DATA, READ ATTRIBUTE THRESHOLDS, READ LOG,
// ENABLE/DISABLE OPERATIONS and RETURN STATUS, and READ LOG EXT / READ LOG DMA EXT over
// the general-purpose logs; the summary error log the device keeps of its media errors.
#include "ata_device_internal.h"
#include "text_fields.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

namespace kelsim {

AtaCompletion AtaDevice::smart(const Request &request) {
    const AtaCommandBlock &registers = request.registers;
    if (((registers.lba >> 8) & 0xFFFF) != kSmartSignature) {
        return aborted();
    }
    const uint8_t subcommand = registers.features & 0xFF;
    const uint8_t kEnableOperations = 0xD8;
    if (!flag(kSmartKey, true) && subcommand != kEnableOperations) {
        return aborted();
    }
    switch (subcommand) {
    case 0xD0:   // READ DATA
    case 0xD1: { // READ ATTRIBUTE THRESHOLDS
        if (!phaseMatches(request.phase, request.data, request.length, AtaDataPhase::In, kBlockSize)) {
            return aborted();
        }
        AtaSector data =
            subcommand == 0xD0 ? buildSmartData(sataUncorrectableCount(settings_)) : buildSmartThresholds();
        std::memcpy(request.data, data.data(), data.size());
        return completed(kBlockSize);
    }
    case 0xD5: { // READ LOG: the log address in LBA 7..0, the pages in the count
        const uint32_t pages = registers.count & 0xFF;
        if (pages == 0 ||
            !phaseMatches(request.phase, request.data, request.length, AtaDataPhase::In, pages * kBlockSize)) {
            return aborted();
        }
        const uint8_t logAddress = registers.lba & 0xFF;
        for (uint32_t i = 0; i < pages; ++i) {
            AtaSector page;
            if (logAddress == kSummaryErrorLog && i == 0) {
                page = summaryErrorLog();
            } else if (!buildSmartLogPage(logAddress, static_cast<uint16_t>(i), &page)) {
                return aborted();
            }
            std::memcpy(request.data + i * kBlockSize, page.data(), page.size());
        }
        return completed(pages * kBlockSize);
    }
    case kEnableOperations:
    case 0xD9: // DISABLE OPERATIONS
        if (request.phase != AtaDataPhase::None) {
            return aborted();
        }
        settings_.set(kSmartKey, subcommand == kEnableOperations ? "1" : "0");
        return completed();
    case 0xDA: { // RETURN STATUS: the key when no threshold is exceeded, else its complement
        if (request.phase != AtaDataPhase::None) {
            return aborted();
        }
        AtaCompletion completion = completed();
        completion.lba = (smartThresholdExceeded() ? kSmartThresholdExceeded : kSmartSignature) << 8;
        return completion;
    }
    default:
        return aborted();
    }
}

AtaCompletion AtaDevice::readLog(const Request &request) {
    const AtaCommandBlock &registers = request.registers;
    const uint32_t pages = registers.count;
    if (pages == 0 ||
        !phaseMatches(request.phase, request.data, request.length, AtaDataPhase::In, pages * kBlockSize)) {
        return aborted();
    }
    const uint8_t logAddress = registers.lba & 0xFF;
    // Page number: bits 7..0 in LBA 15..8, bits 15..8 in LBA 47..40.
    const uint32_t firstPage = ((registers.lba >> 8) & 0xFF) | ((registers.lba >> 32) & 0xFF00);
    for (uint32_t i = 0; i < pages; ++i) {
        AtaSector page;
        if (firstPage + i > 0xFFFF || !buildLogPage(logAddress, static_cast<uint16_t>(firstPage + i), &page)) {
            return aborted();
        }
        std::memcpy(request.data + i * kBlockSize, page.data(), page.size());
    }
    return completed(pages * kBlockSize);
}

AtaSector AtaDevice::summaryErrorLog() {
    AtaSector log{};
    std::string text;
    std::vector<uint8_t> stored;
    if (settings_.get(kSummaryErrorLogKey, &text) && fromHex(text, &stored) && stored.size() == log.size()) {
        std::copy(stored.begin(), stored.end(), log.begin());
    } else {
        buildSmartLogPage(kSummaryErrorLog, 0, &log);
    }
    return log;
}

// One error data structure of 90 bytes: five command structures of 12 bytes, the last the
// command that failed (features, count, LBA 7..0, 15..8, 23..16, device, command), then
// the error (error, count, LBA, device, status registers, the device state and the
// power-on hours).
void AtaDevice::logMediaError(const AtaCommandBlock &registers, const AtaCompletion &completion) {
    constexpr unsigned kEntries = 5, kEntrySize = 90, kErrorCountOffset = 452;
    constexpr uint8_t kStateActiveOrIdle = 0x03;
    AtaSector log = summaryErrorLog();
    const unsigned index = log[1] % kEntries + 1; // 1 to 5, the oldest entry replaced
    uint8_t *entry = &log[2 + (index - 1) * kEntrySize];
    std::fill(entry, entry + kEntrySize, 0);
    uint8_t *command = entry + 48;
    command[1] = static_cast<uint8_t>(registers.features);
    command[2] = static_cast<uint8_t>(registers.count);
    putLe(&command[3], 3, registers.lba);
    command[6] = registers.device;
    command[7] = registers.command;
    uint8_t *error = entry + 60;
    error[1] = completion.error;
    error[2] = static_cast<uint8_t>(completion.count);
    putLe(&error[3], 3, completion.lba);
    error[6] = completion.device;
    error[7] = completion.status;
    error[27] = kStateActiveOrIdle;
    putLe(&error[28], 2, kPowerOnHours);
    log[1] = static_cast<uint8_t>(index);
    putLe(&log[kErrorCountOffset], 2, std::min<uint64_t>(getLe(&log[kErrorCountOffset], 2) + 1, 0xFFFF));
    sealWithChecksum(log);
    settings_.set(kSummaryErrorLogKey, toHex(log.data(), log.size()));
}

} // namespace kelsim
