// The hex dump of command blocks and data, and the data-buffer helpers.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <memory>

uint32_t KelPasPrintData(const char *title, const uint8_t *data, uint32_t size, uint32_t startRow, int32_t totalSize);
int MakeAllocData(uint8_t **bufferOut, uint32_t size);
int CopyWriteData(uint8_t *buffer, uint32_t totalLength, uint32_t patternLength);

// Owns a buffer from MakeAllocData and frees it on every way out of a handler.
struct FreeAllocatedData {
    void operator()(uint8_t *buffer) const { free(buffer); }
};
using DataBuffer = std::unique_ptr<uint8_t, FreeAllocatedData>;
