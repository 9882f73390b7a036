// What a command block says about its data: the length of the block itself, which way
// the data goes and how many bytes it expects. The exported disks' command ring carries
// neither the direction nor the length, so the export reads them from the block.
#pragma once

#include "device.h"

#include <cstddef>
#include <cstdint>

namespace kelsim {

// Length of the command block that starts with this operation code (6, 10, 12 or 16;
// a variable-length block counts 8 + its additional length); 0 for reserved groups.
size_t cdbLength(const uint8_t *cdb, size_t available);

struct TransferShape {
    DataDirection direction = DataDirection::None;
    // Bytes the command asks for or brings; kUnknownLength when the block does not say.
    uint64_t expectedLength = 0;
};
constexpr uint64_t kUnknownLength = UINT64_MAX;

// ATA PASS-THROUGH (16) and (12) take their direction from PROTOCOL and T_DIR.
TransferShape transferShape(const uint8_t *cdb, size_t length);

} // namespace kelsim
