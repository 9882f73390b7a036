// Command bytes and sizes that several commands share: the controller's wrapper bytes for
// physical SAS drives, the SCSI read/write opcodes, the sector size and the test pattern.
#pragma once

#include <cstddef>
#include <cstdint>

// A physical SAS drive's command goes inside a 12-byte wrapper whose first byte tells the
// controller which way the data flows.
constexpr uint8_t kWrapDataIn = 0xBB;
constexpr uint8_t kWrapDataOut = 0xBA;
// The wrapper byte and the drive number stand ahead of the inner command block.
constexpr size_t kWrapBytes = 2;

constexpr uint8_t kReadCapacity10 = 0x25;
constexpr uint8_t kRead10 = 0x28;
constexpr uint8_t kWrite10 = 0x2A;
constexpr uint8_t kRead16 = 0x88;
constexpr uint8_t kWrite16 = 0x8A;

constexpr uint32_t kSectorSize = 512;
// What every write command of the tool puts on the medium.
constexpr uint8_t kTestPattern = 0x5A;
