// Byte order of the fields the simulated devices read and write: big-endian (SCSI CDBs,
// parameter data, sense) and little-endian (ATA data, the controller library's records),
// 1 to 8 bytes wide, and the 16-bit words ATA data structures are counted in.
#pragma once

#include <cstdint>

namespace kelsim {

inline uint64_t getBe(const uint8_t *bytes, int width) {
    uint64_t value = 0;
    for (int i = 0; i < width; ++i) {
        value = (value << 8) | bytes[i];
    }
    return value;
}

inline void putBe(uint8_t *bytes, int width, uint64_t value) {
    for (int i = width - 1; i >= 0; --i) {
        bytes[i] = static_cast<uint8_t>(value & 0xFF);
        value >>= 8;
    }
}

inline uint64_t getLe(const uint8_t *bytes, int width) {
    uint64_t value = 0;
    for (int i = width - 1; i >= 0; --i) {
        value = (value << 8) | bytes[i];
    }
    return value;
}

inline void putLe(uint8_t *bytes, int width, uint64_t value) {
    for (int i = 0; i < width; ++i) {
        bytes[i] = static_cast<uint8_t>(value >> (8 * i));
    }
}

// ATA word n of a sector: bytes 2n (low) and 2n + 1 (high).
inline uint16_t getWord(const uint8_t *sector, unsigned word) {
    return static_cast<uint16_t>(getLe(&sector[2 * word], 2));
}

inline void putWord(uint8_t *sector, unsigned word, uint16_t value) {
    putLe(&sector[2 * word], 2, value);
}

} // namespace kelsim
