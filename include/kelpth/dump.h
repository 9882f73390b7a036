// The hex dump of command blocks and data, and the data-buffer helpers.
#pragma once

#include <cstdint>

uint32_t KelPasPrintData(const char *title, const uint8_t *data, uint32_t size, uint32_t startRow, int32_t totalSize);
int MakeAllocData(uint8_t **bufferOut, uint32_t size);
int CopyWriteData(uint8_t *buffer, uint32_t totalLength, uint32_t patternLength);
