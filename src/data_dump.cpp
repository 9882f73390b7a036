// The hex and character dump of command blocks and data, and the data-buffer helpers.
#define KEL_MODULE "KelPthCmd"
#include "kelpth/dump.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kelctl.h"
#include "kelpth/messages.h"
#include "kelpth/trace.h"

namespace {

constexpr uint32_t kBytesPerRow = 16;
constexpr size_t kRowSize = kDumpRowSize;
constexpr size_t kRowsPerBlock = 256;
constexpr uint32_t kLargestBuffer = 0x10000;
constexpr char kHexDigits[] = "0123456789ABCDEF";

// The character column shows what iswalnum accepts in the C locale: ASCII letters
// and digits.
constexpr char shownCharacter(uint8_t byte) {
    const bool letterOrDigit =
        (byte >= '0' && byte <= '9') || (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z');
    return letterOrDigit ? static_cast<char>(byte) : '.';
}

// What each byte value shows in a row, looked up rather than worked out byte by byte (a
// dump of 2 MiB is 131072 rows): its field, two hex digits and two blanks (the second
// blank is overwritten by the next field, or stays as the extra blank after the eighth),
// and its character.
struct ByteText {
    char field[256][4];
    char shown[256];
};

constexpr ByteText makeByteText() {
    ByteText text{};
    for (int byte = 0; byte < 256; byte++) {
        text.field[byte][0] = kHexDigits[byte >> 4];
        text.field[byte][1] = kHexDigits[byte & 0xF];
        text.field[byte][2] = ' ';
        text.field[byte][3] = ' ';
        text.shown[byte] = shownCharacter(static_cast<uint8_t>(byte));
    }
    return text;
}

constexpr ByteText kByteText = makeByteText();
constexpr char kBlankField[4] = {' ', ' ', ' ', ' '};

// The sixteen fields of a full row, the bulk of any dump, unrolled.
char *formatFullRowFields(char *at, const uint8_t *bytes) {
#pragma GCC unroll 16
    for (uint32_t column = 0; column < kBytesPerRow; column++) {
        memcpy(at, kByteText.field[bytes[column]], 4);
        at += column == 7 ? 4 : 3;
    }
    return at;
}

} // namespace

// One dump row: "%08X: ", sixteen "%02X " fields (blanks past the end, an extra blank after
// the eighth), a blank, then the characters of the bytes present, then the line end.
// Returns its length.
size_t formatDumpRow(char *row, uint32_t offset, const uint8_t *bytes, uint32_t count, const char *lineEnd) {
    char *at = row;
    for (int shift = 24; shift >= 0; shift -= 8) {
        memcpy(at, kByteText.field[(offset >> shift) & 0xFF], 2);
        at += 2;
    }
    *at++ = ':';
    *at++ = ' ';
    const uint32_t present = count < kBytesPerRow ? count : kBytesPerRow;
    if (present == kBytesPerRow) {
        at = formatFullRowFields(at, bytes);
    } else {
        for (uint32_t column = 0; column < kBytesPerRow; column++) {
            memcpy(at, column < present ? kByteText.field[bytes[column]] : kBlankField, 4);
            at += column == 7 ? 4 : 3;
        }
    }
    *at++ = ' ';
#pragma GCC unroll 16
    for (uint32_t column = 0; column < present; column++) {
        *at++ = kByteText.shown[bytes[column]];
    }
    for (const char *end = lineEnd; *end != '\0'; end++) {
        *at++ = *end;
    }
    return static_cast<size_t>(at - row);
}

uint32_t KelPasPrintData(const char *title, const uint8_t *data, uint32_t size, uint32_t startRow, int32_t totalSize) {
    if (startRow == 0) {
        printf("[%s] Size=%d\n", title, totalSize);
    }
    if (size == 0) {
        printf("\n");
        return 0;
    }
    if (startRow == 0) {
        printf("-----------------------------------------------------------------------------\n");
    }
    // Rows are gathered into blocks so that a stripe's 8192 rows take a few writes.
    const uint32_t rows = size / kBytesPerRow + (size % kBytesPerRow != 0 ? 1 : 0);
    char block[kRowsPerBlock * kRowSize];
    size_t filled = 0;
    for (uint32_t r = 0; r < rows; r++) {
        const uint32_t first = r * kBytesPerRow;
        const uint32_t count = size - first < kBytesPerRow ? size - first : kBytesPerRow;
        filled += formatDumpRow(block + filled, (startRow + r) * kBytesPerRow, data + first, count, "\n");
        if (filled > sizeof block - kRowSize || r + 1 == rows) {
            endIfSignalled();
            fwrite(block, 1, filled, stdout);
            filled = 0;
        }
    }
    if (strncmp(title, "CDB", 3) == 0) {
        writeTraceEntry(nullptr, 0, "## CDB", data, size);
    }
    return startRow + rows;
}

int MakeAllocData(uint8_t **bufferOut, uint32_t size) {
    if (size == 0) {
        KelPthErr0021(KEL_HERE);
        KelPthErr0002(KEL_HERE);
        return 0;
    }
    if (size > kLargestBuffer) {
        size = kLargestBuffer;
    }
    uint8_t *buffer = static_cast<uint8_t *>(malloc(size));
    if (bufferOut == nullptr || buffer == nullptr) {
        const int allocError = errno;
        free(buffer);
        if (bufferOut != nullptr) {
            *bufferOut = nullptr;
        }
        KelPthErr0007(KEL_HERE, allocError, "Failed in PassThrough");
        KelPthErr0002(KEL_HERE);
        return 0;
    }
    memset(buffer, 0, size);
    *bufferOut = buffer;
    return 1;
}

// Repeats the pattern held in the first patternLength bytes up to totalLength.
int CopyWriteData(uint8_t *buffer, uint32_t totalLength, uint32_t patternLength) {
    if (buffer == nullptr) {
        KelPthErr0014(KEL_HERE, 1);
        KelPthErr0002(KEL_HERE);
        return 0;
    }
    // The pattern's own room, as the fill has always asked for it (a length that wraps to
    // 0 is refused here).
    uint8_t *patternRoom = nullptr;
    if (MakeAllocData(&patternRoom, patternLength + 1) == 0) {
        return 0;
    }
    free(patternRoom);
    // An empty pattern could never fill anything.
    if (patternLength == 0 && totalLength > 0) {
        KelPthErr0014(KEL_HERE, 3);
        KelPthErr0002(KEL_HERE);
        return 0;
    }
    // The pattern stays untouched at the start of the buffer and never overlaps the
    // copies, so it is copied from there whatever its length.
    uint32_t filled = patternLength;
    while (filled < totalLength) {
        const uint32_t remainder = totalLength - filled;
        const uint32_t piece = remainder <= patternLength ? remainder : patternLength;
        memcpy(buffer + filled, buffer, piece);
        filled += piece;
    }
    return 1;
}
