// Private to the ATA device model: the settings keys, the completions and the block-range
// and data-phase checks that the command files (ata_identity, ata_transfer, ata_smart_log)
// share. AtaDevice::execute in ata_device.cpp routes each command code to its handler; to
// add a command, declare the handler in ata_device.h, define it with its command set and
// add its case there.
#pragma once

#include "ata_device.h"

#include <string_view>

namespace kelsim {

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
constexpr uint64_t kSmartThresholdExceeded = 0x2CF4; // RETURN STATUS: mid 0xF4, high 0x2C

// The product family that understands the vendor error-injection command.
constexpr std::string_view kErrorInjectionProduct = "MQX5108";

AtaCompletion completed(uint32_t transferred = 0);
AtaCompletion failed(uint8_t error, uint64_t lba = 0, uint32_t transferred = 0);
AtaCompletion aborted();

struct BlockRange {
    uint64_t lba;
    uint32_t count;
};

// A count of 0 means the largest transfer: 65536 blocks for a 48-bit command, 256 for 28-bit.
BlockRange blockRange(const AtaCommandBlock &registers, bool extended);

// The data phase the host set up must be the one the command has, with exactly its bytes.
bool phaseMatches(AtaDataPhase actual, uint8_t *data, uint32_t length, AtaDataPhase wanted, uint64_t bytes);

// WRITE UNCORRECTABLE EXT's marks, kept beside the other uncorrectable-block state.
void markUncorrectable(DriveSettings &settings, const BlockRange &range);

} // namespace kelsim
