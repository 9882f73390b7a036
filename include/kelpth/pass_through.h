// Helpers of the pass-through commands: the address and transfer-length fields of the
// opcodes the fixed pass-through knows, and the byte swap of ATA data words.
#pragma once

#include <cstdint>

#include "kelpth.h"

// The address and the transfer length (in bytes) written in the CDB text of the fixed
// pass-through (inner CDB as hex pairs, opcode first). A field that is not hex reports
// KEL0022 "Address" or "Data Length" and KEL0002 and clears *ok.
uint32_t KelPthGetAddress(int32_t opcode, const char *cdbText, uint32_t *ok);
uint32_t GetDataLen(int32_t opcode, const char *cdbText, uint32_t *ok);

// Write the address or the transfer length (given in bytes) into the inner CDB of a
// wrapped request (inner byte k is cdb[k + 2]). 0 for an opcode without such a field;
// a null request reports KEL0014 with argno 1 and KEL0002.
int AddressSetting(PassThroughRequest *request, uint32_t address);
int DataLenSetting(PassThroughRequest *request, uint32_t length);

// Swaps the two bytes of each 16-bit word (mode 0 only); source and destination may be
// the same. A length of 0 or another mode reports KEL0004 and KEL0002 and gives 0.
int endianChange(uint32_t mode, const uint8_t *source, uint32_t length, uint8_t *destination);
