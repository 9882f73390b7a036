// Steps that many command handlers share: reading a controller, drive or address
// argument (with its report), the progress lines that echo what was parsed, showing a
// command block, and sending one pass-through request with the report of a failure.
// Each step that reports takes the caller's module and line (pass KEL_HERE).
#pragma once

#include <cstdint>

#include "kelpth.h"

// The sense area handed to every pass-through call: cleared, its size word set.
struct SenseArea {
    uint8_t bytes[KEL_SENSE_SIZE] = {};
    uint32_t size = KEL_SENSE_SIZE;
};

// A controller or drive number argument: cut the line end, exactly one decimal digit,
// converted base 16. A bad value reports KEL0022 with the label ("Controller No",
// "Drive No") and KEL0002 and returns 0; otherwise stores the value and returns 1.
int readNumberArgument(const char *module, int line, char *text, const char *label, long *value);

// The controller and drive arguments of a command line, in that order, each followed by
// its check (ControllerCheck, DriveCheck for the given kind: 0 physical, 1 logical); the
// numbers go into the request. Returns 0 after the first failure's messages.
int readDriveTarget(const char *module, int line, char *controllerText, char *driveText, int driveKind,
                    PassThroughRequest *request);

// An address argument: optional "0x" and at most 8 hex digits (an empty text reads 0).
// A bad value reports KEL0022 "Address" and KEL0002 and returns 0.
int readAddressArgument(const char *module, int line, char *text, uint32_t *lba);

// Learns a physical drive's interface with getHddType (into *interfaceType). A drive
// known to be of the refused type (kInterfaceSas or kInterfaceSata) is reported with
// KEL0024 alone, naming its interface, and gives 1; any other answer gives 0.
int refusesInterface(const char *module, int line, uint8_t controllerNo, uint8_t driveNo, uint32_t *interfaceType,
                     uint32_t refusedType);

// Progress lines, each printed on the screen and traced in its "## " form:
// "RAID Controller No.%d", "Physical Drive No.%d", "Logical Drive No.%d".
void showControllerNo(int controllerNo);
void showPhysicalDriveNo(int driveNo);
void showLogicalDriveNo(int driveNo);
// "Logical Block Address : 0x%08X" followed on the screen by screenLineEnd ("\n" or "\n\n").
void showLogicalBlockAddress(uint32_t lba, const char *screenLineEnd);

// A 48- or 64-bit address: "Logical Block Address : 0x" with digits hex digits (12 or
// 16), one newline on the screen.
void showWideLogicalBlockAddress(uint64_t lba, int digits);

// The request's command block (cdbLength bytes, at most 16) under "CDB", then one newline.
void showCdb(const PassThroughRequest &request);

using DataInCall = int (*)(PassThroughRequest *, void *, uint32_t *, uint8_t *, uint32_t *);
using DataOutCall = int (*)(PassThroughRequest *, void *, uint32_t, uint8_t *, uint32_t *);

// Sends one request. A nonzero status goes to KelIsErr (its message and KEL0002) and the
// result is 0; status 0 gives 1. For data-in calls *dataLength holds the buffer size
// before and the bytes transferred after the call, never more than the buffer size.
int sendDataIn(const char *module, int line, DataInCall call, PassThroughRequest *request, void *data,
               uint32_t *dataLength, SenseArea *sense);
int sendDataOut(const char *module, int line, DataOutCall call, PassThroughRequest *request, void *data,
                uint32_t dataLength, SenseArea *sense);
