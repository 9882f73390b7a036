// Commands E and e: the long-block probe and WRITE LONG of a SAS drive, and the count
// lines both commands read.
#pragma once

#include <cstddef>
#include <cstdint>

// READ LONG(10) of 512 bytes at block 0x10000. A CHECK CONDITION gives the long-block
// length from the residue in sense byte 6 (520 for a residue of -8); GOOD gives 0. Both
// set *ok to 1; any other status is reported by KelIsErr and sets *ok to 0.
uint32_t ReadLongCommand(uint8_t controllerNo, uint8_t driveNo, uint32_t *ok);

// WRITE LONG(10) of longLength bytes of 0xFF to address, its CDB shown first. 1 on
// success; 0 after the failure's messages.
uint32_t WriteLongCommand(uint8_t controllerNo, uint8_t driveNo, uint32_t address, uint16_t longLength);

// How many blocks to corrupt, and the step from one to the next (0: the same block).
struct MediaErrorSteps {
    int32_t count = 0;
    int32_t skip = 0;
};
// Value line 4 ("Media Error Count") or 5 ("Media Error Skip Count") of E and e: up to 10
// decimal digits, by atoi, not negative; echoed on the screen and in the trace. A bad line
// reports KEL0022 with its label and KEL0002 and gives 0.
int readMediaErrorStepLine(const char *module, int line, int valueNo, char *text, MediaErrorSteps *steps);
