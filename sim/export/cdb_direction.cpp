// The command-block table of the export: block lengths, data directions and lengths.
#include "cdb_direction.h"

#include "byte_order.h"

namespace kelsim {
namespace {

using Dir = DataDirection;

// Where a command's length is, and in which unit.
enum class LengthField : uint8_t {
    None,      // no data
    Byte4,     // one byte at 4
    Word3,     // two bytes at 3
    Word7,     // two bytes at 7
    Dword5,    // four bytes at 5
    Dword6,    // four bytes at 6
    Dword10,   // four bytes at 10
    Blocks6,   // READ(6)/WRITE(6): byte 4 blocks, 0 meaning 256
    Blocks7,   // two bytes at 7, in blocks
    Blocks6_4, // four bytes at 6, in blocks
    Blocks10,  // four bytes at 10, in blocks
    Word6,     // three bytes at 6 (READ BUFFER / WRITE BUFFER)
};

struct Row {
    uint8_t opcode;
    Dir direction;
    LengthField length;
};

// The commands with data that the drives, the volumes and the tools using them send.
constexpr Row kTable[] = {
    {0x03, Dir::FromDevice, LengthField::Byte4},     // REQUEST SENSE
    {0x04, Dir::ToDevice, LengthField::None},        // FORMAT UNIT (FMTDATA: see below)
    {0x07, Dir::ToDevice, LengthField::None},        // REASSIGN BLOCKS
    {0x08, Dir::FromDevice, LengthField::Blocks6},   // READ(6)
    {0x0A, Dir::ToDevice, LengthField::Blocks6},     // WRITE(6)
    {0x12, Dir::FromDevice, LengthField::Word3},     // INQUIRY
    {0x15, Dir::ToDevice, LengthField::Byte4},       // MODE SELECT(6)
    {0x1A, Dir::FromDevice, LengthField::Byte4},     // MODE SENSE(6)
    {0x1C, Dir::FromDevice, LengthField::Word3},     // RECEIVE DIAGNOSTIC RESULTS
    {0x1D, Dir::ToDevice, LengthField::Word3},       // SEND DIAGNOSTIC
    {0x25, Dir::FromDevice, LengthField::None},      // READ CAPACITY(10): 8 bytes
    {0x28, Dir::FromDevice, LengthField::Blocks7},   // READ(10)
    {0x2A, Dir::ToDevice, LengthField::Blocks7},     // WRITE(10)
    {0x2E, Dir::ToDevice, LengthField::Blocks7},     // WRITE AND VERIFY(10)
    {0x37, Dir::FromDevice, LengthField::Word7},     // READ DEFECT DATA(10)
    {0x3B, Dir::ToDevice, LengthField::Word6},       // WRITE BUFFER
    {0x3C, Dir::FromDevice, LengthField::Word6},     // READ BUFFER
    {0x3E, Dir::FromDevice, LengthField::Word7},     // READ LONG(10)
    {0x3F, Dir::ToDevice, LengthField::Word7},       // WRITE LONG(10)
    {0x41, Dir::ToDevice, LengthField::None},        // WRITE SAME(10): one block
    {0x42, Dir::ToDevice, LengthField::Word7},       // UNMAP
    {0x4C, Dir::ToDevice, LengthField::Word7},       // LOG SELECT
    {0x4D, Dir::FromDevice, LengthField::Word7},     // LOG SENSE
    {0x55, Dir::ToDevice, LengthField::Word7},       // MODE SELECT(10)
    {0x5A, Dir::FromDevice, LengthField::Word7},     // MODE SENSE(10)
    {0x5E, Dir::FromDevice, LengthField::Word7},     // PERSISTENT RESERVE IN
    {0x5F, Dir::ToDevice, LengthField::Dword5},      // PERSISTENT RESERVE OUT
    {0x88, Dir::FromDevice, LengthField::Blocks10},  // READ(16)
    {0x8A, Dir::ToDevice, LengthField::Blocks10},    // WRITE(16)
    {0x8E, Dir::ToDevice, LengthField::Blocks10},    // WRITE AND VERIFY(16)
    {0x93, Dir::ToDevice, LengthField::None},        // WRITE SAME(16): one block
    {0x9E, Dir::FromDevice, LengthField::Dword10},   // SERVICE ACTION IN(16)
    {0xA0, Dir::FromDevice, LengthField::Dword6},    // REPORT LUNS
    {0xA3, Dir::FromDevice, LengthField::Dword6},    // MAINTENANCE IN
    {0xA4, Dir::ToDevice, LengthField::Dword6},      // MAINTENANCE OUT
    {0xA8, Dir::FromDevice, LengthField::Blocks6_4}, // READ(12)
    {0xAA, Dir::ToDevice, LengthField::Blocks6_4},   // WRITE(12)
    {0xB7, Dir::FromDevice, LengthField::Dword6},    // READ DEFECT DATA(12)
};

uint64_t lengthOf(const uint8_t *cdb, size_t length, LengthField field) {
    auto fits = [length](size_t end) { return end <= length; };
    switch (field) {
    case LengthField::None:
        return kUnknownLength;
    case LengthField::Byte4:
        return fits(5) ? cdb[4] : kUnknownLength;
    case LengthField::Blocks6:
        return fits(5) ? uint64_t{cdb[4] == 0 ? 256u : cdb[4]} * kBlockSize : kUnknownLength;
    case LengthField::Word3:
        return fits(5) ? getBe(cdb + 3, 2) : kUnknownLength;
    case LengthField::Word7:
        return fits(9) ? getBe(cdb + 7, 2) : kUnknownLength;
    case LengthField::Blocks7:
        return fits(9) ? getBe(cdb + 7, 2) * kBlockSize : kUnknownLength;
    case LengthField::Word6:
        return fits(9) ? getBe(cdb + 6, 3) : kUnknownLength;
    case LengthField::Dword5:
        return fits(9) ? getBe(cdb + 5, 4) : kUnknownLength;
    case LengthField::Dword6:
        return fits(10) ? getBe(cdb + 6, 4) : kUnknownLength;
    case LengthField::Blocks6_4:
        return fits(10) ? getBe(cdb + 6, 4) * kBlockSize : kUnknownLength;
    case LengthField::Dword10:
        return fits(14) ? getBe(cdb + 10, 4) : kUnknownLength;
    case LengthField::Blocks10:
        return fits(14) ? getBe(cdb + 10, 4) * kBlockSize : kUnknownLength;
    }
    return kUnknownLength;
}

// PROTOCOL (byte 1 bits 4..1), T_DIR (byte 2 bit 3: from the device), T_LENGTH (byte 2
// bits 1..0: no data when 0).
TransferShape ataPassThroughShape(const uint8_t *cdb, size_t length) {
    TransferShape shape;
    if (length < 3) {
        return shape;
    }
    const uint8_t protocol = (cdb[1] >> 1) & 0x0F;
    const bool noData =
        (cdb[2] & 0x03) == 0 || protocol == 0 || protocol == 1 || protocol == 3 || protocol == 9 || protocol == 15;
    if (!noData) {
        shape.direction = (cdb[2] & 0x08) != 0 ? Dir::FromDevice : Dir::ToDevice;
        shape.expectedLength = kUnknownLength;
    }
    return shape;
}

} // namespace

size_t cdbLength(const uint8_t *cdb, size_t available) {
    if (available == 0) {
        return 0;
    }
    switch (cdb[0] >> 5) {
    case 0:
        return 6;
    case 1:
    case 2:
        return 10;
    case 4:
        return 16;
    case 5:
        return 12;
    case 3:
        // 0x7F: variable length, the additional length in byte 7.
        return cdb[0] == 0x7F && available > 7 ? 8 + size_t{cdb[7]} : 0;
    default:
        return 0; // vendor groups 6 and 7: the drives take none
    }
}

TransferShape transferShape(const uint8_t *cdb, size_t length) {
    TransferShape shape;
    if (length == 0) {
        return shape;
    }
    if (cdb[0] == 0x85 || cdb[0] == 0xA1) {
        return ataPassThroughShape(cdb, length);
    }
    for (const Row &row : kTable) {
        if (row.opcode != cdb[0]) {
            continue;
        }
        shape.direction = row.direction;
        shape.expectedLength = lengthOf(cdb, length, row.length);
        break;
    }
    // FORMAT UNIT brings a parameter list only with FMTDATA; VERIFY only with BYTCHK.
    if (cdb[0] == 0x04 && length > 1 && (cdb[1] & 0x10) == 0) {
        shape.direction = Dir::None;
    }
    if ((cdb[0] == 0x2F || cdb[0] == 0x8F) && length > 1 && (cdb[1] & 0x06) != 0) {
        shape.direction = Dir::ToDevice;
        shape.expectedLength = kUnknownLength;
    }
    if (shape.direction == Dir::None) {
        shape.expectedLength = 0;
    }
    return shape;
}

} // namespace kelsim
