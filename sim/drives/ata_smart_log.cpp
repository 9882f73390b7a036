// The ATA device's SMART and logs: SMART READ DATA, ENABLE/DISABLE OPERATIONS and RETURN
// STATUS, and READ LOG EXT / READ LOG DMA EXT over the general-purpose logs.
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
    case 0xD0: { // READ DATA
        if (!phaseMatches(request.phase, request.data, request.length, AtaDataPhase::In, kBlockSize)) {
            return aborted();
        }
        AtaSector data = buildSmartData(sataUncorrectableCount(settings_));
        std::memcpy(request.data, data.data(), data.size());
        return completed(kBlockSize);
    }
    case kEnableOperations:
    case 0xD9: // DISABLE OPERATIONS
        if (request.phase != AtaDataPhase::None) {
            return aborted();
        }
        settings_.set(kSmartKey, subcommand == kEnableOperations ? "1" : "0");
        return completed();
    case 0xDA: { // RETURN STATUS: no threshold exceeded
        if (request.phase != AtaDataPhase::None) {
            return aborted();
        }
        AtaCompletion completion = completed();
        completion.lba = kSmartSignature << 8;
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
