// The simulated ATA device: executes one ATA command from its registers, moves the data
// phase to or from the host buffer and leaves the completion registers. Persistent state
// (current max address, feature settings, uncorrectable marks, the vendor error-injection
// sector) lives in the drive's settings; the power-cycle state lives in the object.
#include "ata_device.h"

#include "text_fields.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace kelsim {
namespace {

constexpr uint64_t kLba48Mask = 0xFFFFFFFFFFFFULL;

// Setting keys; the "ata." prefix keeps them apart from anything else kept for the slot.
constexpr const char *kUserBlocksKey = "ata.userBlocks";
constexpr const char *kWriteCacheKey = "ata.writeCache";
constexpr const char *kReadLookAheadKey = "ata.readLookAhead";
constexpr const char *kSmartKey = "ata.smart";
constexpr const char *kUncorrectableCountKey = "ata.uncorrectable.count";
constexpr const char *kErrorInjectionKey = "ata.errorInjection";

// SMART commands carry this key in LBA 23..8 (mid 0x4F, high 0xC2), and RETURN STATUS
// answers with it when no threshold is exceeded.
constexpr uint64_t kSmartSignature = 0xC24F;

// The product family that understands the vendor error-injection command.
constexpr std::string_view kErrorInjectionProduct = "MQX5108";

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

AtaCompletion completed(uint32_t transferred = 0) {
    AtaCompletion completion;
    completion.transferred = transferred;
    return completion;
}

AtaCompletion failed(uint8_t error, uint64_t lba = 0, uint32_t transferred = 0) {
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

struct BlockRange {
    uint64_t lba;
    uint32_t count;
};

// A count of 0 means the largest transfer: 65536 blocks for a 48-bit command, 256 for 28-bit.
BlockRange blockRange(const AtaCommandBlock &registers, bool extended) {
    if (extended) {
        return {registers.lba & kLba48Mask, registers.count == 0 ? 65536u : registers.count};
    }
    uint32_t count = registers.count & 0xFF;
    uint64_t lba = (registers.lba & 0xFFFFFF) | (uint64_t{registers.device & 0x0Fu} << 24);
    return {lba, count == 0 ? 256u : count};
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

} // namespace

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

namespace {

// The data phase the host set up must be the one the command has, with exactly its bytes.
bool phaseMatches(AtaDataPhase actual, uint8_t *data, uint32_t length, AtaDataPhase wanted, uint64_t bytes) {
    if (actual != wanted) {
        return false;
    }
    return wanted == AtaDataPhase::None || (data != nullptr && length == bytes);
}

} // namespace

AtaCompletion AtaDevice::execute(const AtaCommandBlock &registers, AtaDataPhase phase, uint8_t *data, uint32_t length) {
    // SET MAX ADDRESS EXT is accepted only straight after READ NATIVE MAX ADDRESS EXT:
    // any command in between closes that window.
    const bool followsReadNativeMax = nativeMaxJustRead_;
    nativeMaxJustRead_ = false;
    const Request request{registers, phase, data, length};
    AtaCompletion completion;
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
    case 0xE5: // CHECK POWER MODE: always active or idle
        completion = phase == AtaDataPhase::None ? completed() : aborted();
        if (!completion.failed()) {
            completion.count = 0xFF;
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
    case 0xFE:
        completion = vendorErrorInjection(request);
        break;
    default:
        completion = aborted();
        break;
    }
    completion.device = registers.device;
    return completion;
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

AtaCompletion AtaDevice::identify(const Request &request) {
    if (!phaseMatches(request.phase, request.data, request.length, AtaDataPhase::In, kBlockSize)) {
        return aborted();
    }
    IdentifyState state;
    state.userBlocks = userBlocks();
    state.writeCacheEnabled = flag(kWriteCacheKey, true);
    state.readLookAheadEnabled = flag(kReadLookAheadKey, true);
    state.smartEnabled = flag(kSmartKey, true);
    AtaSector data = buildIdentifyData(identity_, state);
    std::memcpy(request.data, data.data(), data.size());
    return completed(kBlockSize);
}

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

AtaCompletion AtaDevice::readNativeMaxAddress(const Request &request) {
    if (request.phase != AtaDataPhase::None) {
        return aborted();
    }
    AtaCompletion completion = completed();
    completion.lba = nativeBlocks() > 0 ? nativeBlocks() - 1 : 0;
    nativeMaxJustRead_ = true;
    return completion;
}

AtaCompletion AtaDevice::setMaxAddress(const Request &request, bool followsReadNativeMax) {
    if (!followsReadNativeMax || request.phase != AtaDataPhase::None) {
        return aborted();
    }
    const uint64_t maxAddress = request.registers.lba & kLba48Mask;
    if (maxAddress >= nativeBlocks()) {
        return aborted();
    }
    // Count bit 0 (value volatile): set, the new size survives a power cycle.
    const bool survivesPowerCycle = (request.registers.count & 0x01) != 0;
    if (survivesPowerCycle) {
        if (nonVolatileMaxSet_) { // only one non-volatile change per power cycle
            return aborted();
        }
        nonVolatileMaxSet_ = true;
        settings_.set(kUserBlocksKey, std::to_string(maxAddress + 1));
        volatileUserBlocks_.reset();
    } else {
        volatileUserBlocks_ = maxAddress + 1;
    }
    AtaCompletion completion = completed();
    completion.lba = maxAddress;
    return completion;
}

AtaCompletion AtaDevice::setFeatures(const Request &request) {
    if (request.phase != AtaDataPhase::None) {
        return aborted();
    }
    switch (request.registers.features & 0xFF) {
    case 0x02:
        settings_.set(kWriteCacheKey, "1");
        break;
    case 0x82:
        settings_.set(kWriteCacheKey, "0");
        break;
    case 0xAA:
        settings_.set(kReadLookAheadKey, "1");
        break;
    case 0x55:
        settings_.set(kReadLookAheadKey, "0");
        break;
    case 0x03: // set transfer mode: nothing to change on a simulated link
        break;
    default:
        return aborted();
    }
    return completed();
}

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

AtaCompletion AtaDevice::vendorErrorInjection(const Request &request) {
    if (identity_.product.compare(0, kErrorInjectionProduct.size(), kErrorInjectionProduct) != 0) {
        return aborted();
    }
    const BlockRange range = blockRange(request.registers, true);
    if (range.count != 1 || !phaseMatches(request.phase, request.data, request.length, AtaDataPhase::Out, kBlockSize)) {
        return aborted();
    }
    settings_.set(kErrorInjectionKey, toHex(request.data, kBlockSize));
    return completed(kBlockSize);
}

} // namespace kelsim
