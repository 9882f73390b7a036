// The simulated controller library's own codes: DLLGetLastError values and the state
// bytes of getRaidStatus.
#pragma once

#include <cstdint>

namespace kelsim {

// DLLGetLastError codes of libkelctl.so.
constexpr uint32_t kErrorNotInitialised = 0x00000101;       // initContData has not succeeded
constexpr uint32_t kErrorBadArgument = 0x00000102;          // null record, drive number above 7
constexpr uint32_t kErrorStateUnavailable = 0x00000103;     // the state database cannot be used
constexpr uint32_t kErrorTopology = 0x00000104;             // farm.conf missing parts or malformed
constexpr uint32_t kErrorDriveInfoUnavailable = 0x00000105; // default of the driveinfo-fail fault
constexpr uint32_t kErrorNoSuchController = 0x00010000;     // the controller does not exist

// getRaidStatus state bytes (0xFF: absent).
constexpr uint8_t kLogicalDriveOptimal = 0x01;
constexpr uint8_t kLogicalDriveDegraded = 0x02;   // a member failed
constexpr uint8_t kLogicalDriveRebuilding = 0x03; // a failed member is being rewritten
constexpr uint8_t kSlotOnline = 0x01;             // member of a logical drive
constexpr uint8_t kSlotReady = 0x02;              // present, in no logical drive
constexpr uint8_t kSlotFailed = 0x03;             // a member its logical drive no longer uses
constexpr uint8_t kSlotRebuilding = 0x04;         // a member being rewritten

} // namespace kelsim
