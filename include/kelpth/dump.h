// The hex dump of command blocks and data, and the data-buffer helpers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>

uint32_t KelPasPrintData(const char *title, const uint8_t *data, uint32_t size, uint32_t startRow, int32_t totalSize);
// One row of the hex dump: "%08X: ", sixteen "%02X " fields (three blanks past count, an
// extra blank after the eighth), a blank, the characters of the count bytes (letters and
// digits as they are, anything else '.'), then lineEnd. Returns its length, at most
// kDumpRowSize.
constexpr size_t kDumpRowSize = 80;
size_t formatDumpRow(char *row, uint32_t offset, const uint8_t *bytes, uint32_t count, const char *lineEnd);

int MakeAllocData(uint8_t **bufferOut, uint32_t size);
int CopyWriteData(uint8_t *buffer, uint32_t totalLength, uint32_t patternLength);

// Owns a buffer from MakeAllocData and frees it on every way out of a handler.
struct FreeAllocatedData {
    void operator()(uint8_t *buffer) const { free(buffer); }
};
using DataBuffer = std::unique_ptr<uint8_t, FreeAllocatedData>;
