// The ATA device's SMART and logs: SMART READ DATA, READ ATTRIBUTE THRESHOLDS, READ LOG,
// ENABLE/DISABLE OPERATIONS and RETURN STATUS, and READ LOG EXT / READ LOG DMA EXT over
// the general-purpose logs.
#include "ata_device_internal.h"

#include <cstring>

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
        for (uint32_t i = 0; i < pages; ++i) {
            AtaSector page;
            if (!buildSmartLogPage(registers.lba & 0xFF, static_cast<uint16_t>(i), &page)) {
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

} // namespace kelsim
