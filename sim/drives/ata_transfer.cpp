// The ATA device's data transfer: READ and WRITE SECTOR(S)/DMA (28- and 48-bit), READ
// VERIFY SECTOR(S), WRITE UNCORRECTABLE EXT, the legacy WRITE LONG and the vendor
// error-injection command.
#include "ata_device_internal.h"
#include "byte_order.h"
#include "text_fields.h"

#include <algorithm>

namespace kelsim {

AtaCompletion AtaDevice::readSectors(const Request &request, bool extended) {
    const BlockRange range = blockRange(request.registers, extended);
    const uint32_t bytes = range.count * kBlockSize;
    if (!phaseMatches(request.phase, request.data, request.length, AtaDataPhase::In, bytes)) {
        return aborted();
    }
    const uint64_t blocks = userBlocks();
    if (range.lba + range.count > blocks) {
        return failed(ata::kErrorIdNotFound, std::max(range.lba, blocks));
    }
    // The blocks before the first uncorrectable one reach the host; the error names that block.
    uint32_t readable = 0;
    while (readable < range.count && !isSataBlockUncorrectable(settings_, range.lba + readable)) {
        ++readable;
    }
    if (readable > 0) {
        medium_.read(range.lba, readable, request.data);
    }
    if (readable < range.count) {
        return failed(ata::kErrorUncorrectable, range.lba + readable, readable * kBlockSize);
    }
    return completed(bytes);
}

AtaCompletion AtaDevice::writeSectors(const Request &request, bool extended) {
    const BlockRange range = blockRange(request.registers, extended);
    const uint32_t bytes = range.count * kBlockSize;
    if (!phaseMatches(request.phase, request.data, request.length, AtaDataPhase::Out, bytes)) {
        return aborted();
    }
    const uint64_t blocks = userBlocks();
    if (range.lba + range.count > blocks) {
        return failed(ata::kErrorIdNotFound, std::max(range.lba, blocks));
    }
    medium_.write(range.lba, range.count, request.data);
    clearSataUncorrectable(settings_, range.lba, range.count); // fresh data has good check bytes
    return completed(bytes);
}

AtaCompletion AtaDevice::readVerify(const Request &request, bool extended) {
    if (request.phase != AtaDataPhase::None) {
        return aborted();
    }
    const BlockRange range = blockRange(request.registers, extended);
    const uint64_t blocks = userBlocks();
    if (range.lba + range.count > blocks) {
        return failed(ata::kErrorIdNotFound, std::max(range.lba, blocks));
    }
    for (uint64_t lba = range.lba; lba < range.lba + range.count; ++lba) {
        if (isSataBlockUncorrectable(settings_, lba)) {
            return failed(ata::kErrorUncorrectable, lba);
        }
    }
    return completed();
}

AtaCompletion AtaDevice::writeUncorrectable(const Request &request) {
    if (!identity_.writeUncorrectableSupported || request.phase != AtaDataPhase::None) {
        return aborted();
    }
    switch (request.registers.features & 0xFF) {
    case 0x55: // pseudo uncorrectable, with or without logging
    case 0x5A:
    case 0xA5: // flagged uncorrectable, with or without logging
    case 0xAA:
        break;
    default:
        return aborted();
    }
    const BlockRange range = blockRange(request.registers, true);
    const uint64_t blocks = userBlocks();
    if (range.lba + range.count > blocks) {
        return failed(ata::kErrorIdNotFound, std::max(range.lba, blocks));
    }
    markUncorrectable(settings_, range);
    return completed();
}

// Legacy WRITE LONG: one sector and its ECC bytes, written as given. ECC bytes that are not
// what the drive computes for the data leave the sector unreadable until it is written
// again. Drives that have WRITE UNCORRECTABLE EXT no longer take it.
AtaCompletion AtaDevice::writeLong(const Request &request) {
    constexpr uint32_t kLongSector = kBlockSize + ata::kLongSectorEccBytes;
    if (identity_.writeUncorrectableSupported ||
        !phaseMatches(request.phase, request.data, request.length, AtaDataPhase::Out, kLongSector)) {
        return aborted();
    }
    const uint64_t lba = request.registers.lba;
    if (lba >= userBlocks()) {
        return failed(ata::kErrorIdNotFound, lba);
    }
    medium_.write(lba, 1, request.data);
    // The drive's ECC stand-in: a 32-bit polynomial checksum of the data.
    uint32_t checksum = 0;
    for (uint32_t i = 0; i < kBlockSize; ++i) {
        checksum = checksum * 31 + request.data[i];
    }
    if (getBe(request.data + kBlockSize, ata::kLongSectorEccBytes) != checksum) {
        markUncorrectable(settings_, BlockRange{lba, 1});
    } else {
        clearSataUncorrectable(settings_, lba, 1);
    }
    return completed(kLongSector);
}

AtaCompletion AtaDevice::vendorErrorInjection(const Request &request) {
    if (identity_.product.compare(0, kErrorInjectionProduct.size(), kErrorInjectionProduct) != 0) {
        return aborted();
    }
    const BlockRange range = blockRange(request.registers, true);
    if (range.count != 1 || !phaseMatches(request.phase, request.data, request.length, AtaDataPhase::Out, kBlockSize)) {
        return aborted();
    }
    settings_.set(kErrorInjectionKey, toHex(request.data, kBlockSize));
    injectionStructureChanged();
    return completed(kBlockSize);
}

} // namespace kelsim
