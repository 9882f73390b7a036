// The simulated ATA device: executes one ATA command from its registers, moves the data
// phase to or from the host buffer and leaves the completion registers. Persistent state
// (current max address, feature settings, uncorrectable marks, the vendor error-injection
// sector) lives in the drive's settings; the power-cycle state lives in the object.
// This file holds the routing of command codes to handlers, the completions and checks the
// handlers share and the device's persistent state; the handlers live in ata_identity.cpp
// (identity, capacity, features), ata_transfer.cpp (sector data) and ata_smart_log.cpp.
#include "ata_device_internal.h"
#include "text_fields.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <string>
#include <vector>

namespace kelsim {
namespace {

std::string uncorrectableKey(uint64_t lba) {
    return "ata.uncorrectable." + std::to_string(lba);
}

bool readNumber(DriveSettings &settings, const std::string &key, uint64_t *value) {
    std::string text;
    if (!settings.get(key, &text) || text.empty()) {
        return false;
    }
    errno = 0;
    char *end = nullptr;
    unsigned long long number = std::strtoull(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0') {
        return false;
    }
    *value = number;
    return true;
}

} // namespace

AtaCompletion completed(uint32_t transferred) {
    AtaCompletion completion;
    completion.transferred = transferred;
    return completion;
}

AtaCompletion failed(uint8_t error, uint64_t lba, uint32_t transferred) {
    AtaCompletion completion;
    completion.status |= ata::kStatusError;
    completion.error = error;
    completion.lba = lba;
    completion.transferred = transferred;
    return completion;
}

AtaCompletion aborted() {
    return failed(ata::kErrorAbort);
}

BlockRange blockRange(const AtaCommandBlock &registers, bool extended) {
    if (extended) {
        return {registers.lba & kLba48Mask, registers.count == 0 ? 65536u : registers.count};
    }
    uint32_t count = registers.count & 0xFF;
    uint64_t lba = (registers.lba & 0xFFFFFF) | (uint64_t{registers.device & 0x0Fu} << 24);
    return {lba, count == 0 ? 256u : count};
}

bool phaseMatches(AtaDataPhase actual, uint8_t *data, uint32_t length, AtaDataPhase wanted, uint64_t bytes) {
    if (actual != wanted) {
        return false;
    }
    return wanted == AtaDataPhase::None || (data != nullptr && length == bytes);
}

void markUncorrectable(DriveSettings &settings, const BlockRange &range) {
    const uint64_t before = sataUncorrectableCount(settings);
    uint64_t marked = before;
    for (uint64_t lba = range.lba; lba < range.lba + range.count; ++lba) {
        if (!isSataBlockUncorrectable(settings, lba)) {
            settings.set(uncorrectableKey(lba), "1");
            ++marked;
        }
    }
    if (marked != before) {
        settings.set(kUncorrectableCountKey, std::to_string(marked));
    }
}

bool isSataBlockUncorrectable(DriveSettings &settings, uint64_t lba) {
    if (sataUncorrectableCount(settings) == 0) {
        return false;
    }
    std::string value;
    return settings.get(uncorrectableKey(lba), &value) && value == "1";
}

void clearSataUncorrectable(DriveSettings &settings, uint64_t lba, uint64_t count) {
    const uint64_t before = sataUncorrectableCount(settings);
    uint64_t marked = before;
    for (uint64_t block = lba; block < lba + count && marked > 0; ++block) {
        if (isSataBlockUncorrectable(settings, block)) {
            settings.set(uncorrectableKey(block), "0");
            --marked;
        }
    }
    if (marked != before) {
        settings.set(kUncorrectableCountKey, std::to_string(marked));
    }
}

uint64_t sataUncorrectableCount(DriveSettings &settings) {
    uint64_t marked = 0;
    return readNumber(settings, kUncorrectableCountKey, &marked) ? marked : 0;
}

uint64_t sataUserBlocks(const DriveIdentity &identity, DriveSettings &settings) {
    uint64_t blocks = 0;
    if (readNumber(settings, kUserBlocksKey, &blocks) && blocks >= 1 && blocks <= identity.nativeBlocks) {
        return blocks;
    }
    return identity.nativeBlocks;
}

bool sataErrorInjectionData(DriveSettings &settings, AtaSector *out) {
    std::string text;
    if (!settings.get(kErrorInjectionKey, &text) || text.size() != 2 * out->size()) {
        return false;
    }
    std::vector<uint8_t> bytes;
    if (!fromHex(text, &bytes)) {
        return false;
    }
    std::copy(bytes.begin(), bytes.end(), out->begin());
    return true;
}

AtaDevice::AtaDevice(const DriveIdentity &identity, Medium &medium, DriveSettings &settings)
    : identity_(identity), medium_(medium), settings_(settings) {}

AtaCompletion AtaDevice::execute(const AtaCommandBlock &registers, AtaDataPhase phase, uint8_t *data, uint32_t length) {
    // SET MAX ADDRESS EXT is accepted only straight after READ NATIVE MAX ADDRESS EXT:
    // any command in between closes that window.
    const bool followsReadNativeMax = nativeMaxJustRead_;
    nativeMaxJustRead_ = false;
    const Request request{registers, phase, data, length};
    AtaCompletion completion;
    if (injectedError(registers, &completion)) {
        completion.device = registers.device;
        return completion;
    }
    switch (registers.command) {
    case 0xEC:
        completion = identify(request);
        break;
    case 0x20: // READ SECTOR(S)
    case 0xC8: // READ DMA
        completion = readSectors(request, false);
        break;
    case 0x24: // READ SECTOR(S) EXT
    case 0x25: // READ DMA EXT
        completion = readSectors(request, true);
        break;
    case 0x30: // WRITE SECTOR(S)
    case 0xCA: // WRITE DMA
        completion = writeSectors(request, false);
        break;
    case 0x34: // WRITE SECTOR(S) EXT
    case 0x35: // WRITE DMA EXT
        completion = writeSectors(request, true);
        break;
    case 0x40:
        completion = readVerify(request, false);
        break;
    case 0x42:
        completion = readVerify(request, true);
        break;
    case 0xE7: // FLUSH CACHE
    case 0xEA: // FLUSH CACHE EXT: the medium is always up to date
        completion = phase == AtaDataPhase::None ? completed() : aborted();
        break;
    case 0xE5: // CHECK POWER MODE
        completion = phase == AtaDataPhase::None ? completed() : aborted();
        if (!completion.failed()) {
            completion.count = powerMode_;
        }
        break;
    case 0xE0: // STANDBY IMMEDIATE
    case 0xE1: // IDLE IMMEDIATE
        completion = phase == AtaDataPhase::None ? completed() : aborted();
        if (!completion.failed()) {
            powerMode_ = registers.command == 0xE0 ? kPowerStandby : kPowerIdle;
        }
        break;
    case 0x27:
        completion = readNativeMaxAddress(request);
        break;
    case 0x37:
        completion = setMaxAddress(request, followsReadNativeMax);
        break;
    case 0xEF:
        completion = setFeatures(request);
        break;
    case 0xB0:
        completion = smart(request);
        break;
    case 0x2F: // READ LOG EXT
    case 0x47: // READ LOG DMA EXT
        completion = readLog(request);
        break;
    case 0x45:
        completion = writeUncorrectable(request);
        break;
    case ata::kCommandWriteLong:
        completion = writeLong(request);
        break;
    case 0xFE:
        completion = vendorErrorInjection(request);
        break;
    default:
        completion = aborted();
        break;
    }
    completion.device = registers.device;
    if (touchesMedium(registers.command) && !completion.failed()) {
        powerMode_ = kPowerActive; // the medium spun up for it
    }
    return completion;
}

bool AtaDevice::touchesMedium(uint8_t command) {
    switch (command) {
    case 0x20:
    case 0x24:
    case 0x25:
    case 0x30:
    case 0x34:
    case 0x35:
    case 0x40:
    case 0x42:
    case 0xC8:
    case 0xCA:
    case 0xE7:
    case 0xEA:
        return true;
    default:
        return false;
    }
}

uint64_t AtaDevice::userBlocks() {
    return volatileUserBlocks_ ? *volatileUserBlocks_ : sataUserBlocks(identity_, settings_);
}

bool AtaDevice::flag(const char *key, bool fallback) {
    std::string value;
    if (settings_.get(key, &value) && (value == "0" || value == "1")) {
        return value == "1";
    }
    return fallback;
}

} // namespace kelsim
