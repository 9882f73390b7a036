// The SATA module's parameter-line readers. Each traces its entry, checks one value
// line (cutting its line end), stores the value and gives 1; a bad value reports
// KEL0022 with the line's label and KEL0002 and gives 0 (getNumberFromLineBuf reports
// nothing: its callers report "Parameter(<n>)").
#pragma once

#include <cstdint>

int getContNoFromLineBuf(char *line, uint8_t *controllerNo);
// Unlike the controller number, errno is not cleared before converting.
int getPhyDrvNoFromLineBuf(char *line, uint8_t *driveNo);
// A whole CDB of up to 16 bytes; a last line without a line end gives an empty CDB.
int freeMakeCdbFromLineBuf(char *line, uint8_t *cdb, int32_t *cdbLength);
// "0" gives 1 (from the drive), "1" gives 0 (to the drive), "2" gives 2 (no data).
int getDirectionFromLineBuf(char *line, uint8_t *direction);
// At most 8 hex digits and at most 65536; *zeroLength becomes 1 for a length of 0.
int getDataLengthFromLineBuffer(char *line, uint32_t *length, int32_t *zeroLength);
// At most 16 hex digits (of which only the first 17 characters count), below 2^48.
int getAddress48FromLineBuf(char *line, uint64_t *address);
// "0" or "1"; label names the line in the trace and in the message.
int getFlagOnOrNot(char *line, const char *label, int32_t *flag);
// Hex pairs appended to buffer at *filled; more than capacity bytes in all is refused.
int createWriteDataFromLineBuffer(char *line, uint32_t capacity, uint8_t *buffer, uint32_t *filled);
// A number in base, scanned as at most maxDigits hex digits after an optional "0x".
int getNumberFromLineBuf(int base, char *line, int maxDigits, uint64_t *value);
