// The 512-byte data structures a simulated ATA device hands out: IDENTIFY DEVICE data,
// SMART data and the general-purpose logs, built from the drive's identity and state.
#pragma once

#include "byte_order.h"
#include "device.h"

#include <array>
#include <cstdint>
#include <string_view>

namespace kelsim {

using AtaSector = std::array<uint8_t, kBlockSize>;

// The parts of the device's state that IDENTIFY DEVICE reports.
struct IdentifyState {
    uint64_t userBlocks = 0; // current max address + 1
    bool writeCacheEnabled = true;
    bool readLookAheadEnabled = true;
    bool smartEnabled = true;
};

AtaSector buildIdentifyData(const DriveIdentity &identity, const IdentifyState &state);

// SMART READ DATA; pendingBlocks shows up as the current pending sector count.
AtaSector buildSmartData(uint64_t pendingBlocks);

// SMART READ ATTRIBUTE THRESHOLDS, and whether a normalised value has fallen to its threshold.
AtaSector buildSmartThresholds();
bool smartThresholdExceeded();

// One page of a general-purpose log (READ LOG EXT) or of a log SMART READ LOG reaches
// (its directory, the summary error log, device statistics); false when the log or the
// page does not exist.
bool buildLogPage(uint8_t logAddress, uint16_t page, AtaSector *out);
bool buildSmartLogPage(uint8_t logAddress, uint16_t page, AtaSector *out);

// ATA strings: two characters a word, the first in the high byte, blank padded.
// (getWord and putWord, in byte_order.h, read and write the words.)
void putAtaString(uint8_t *sector, unsigned firstWord, unsigned wordCount, std::string_view text);

} // namespace kelsim
