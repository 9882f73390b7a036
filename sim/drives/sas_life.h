// What a simulated SAS drive remembers of its life, for its log pages: a power-on clock
// that runs with real time and persists, the counters its commands move, the conditions
// a person sets with kelsim (temperature, 12 V voltage, a SMART trip), the history of the
// check conditions it raised, and a check condition scripted for a coming command.
// Everything is kept in the drive's settings; each change is one read and one write.
// Other command sets bump the counters with the count* functions (a reassigned block,
// a medium error); the log pages (sas_log_pages.cpp) show them.
#pragma once

#include "device.h"
#include "layouts/smart_log_layouts.h"

#include <cstdint>
#include <string>
#include <vector>

namespace kelsim {

constexpr int kMaxHeads = 8;

struct HeadCounters {
    uint32_t sectors = 0;      // blocks moved on this head (for seeks: commands that sought it)
    uint32_t errorsNow = 0;    // errors since the drive last spun up
    uint32_t errorsBefore = 0; // errors of the spin-up before that
    uint32_t errorsWorst = 0;  // the most errors of any finished spin-up
};

// Every counter a drive keeps; "At" fields hold the power-on minute an extreme was reached.
// Voltages are coded 0xAB for 1A.B V.
struct DriveCounters {
    int64_t bornAt = 0; // the wall-clock second at which the drive's power-on time was 0
    HeadCounters read[kMaxHeads];
    HeadCounters write[kMaxHeads];
    HeadCounters seek[kMaxHeads];
    uint32_t spareSectors = 0;
    uint32_t spinUpSeconds = 0, spinUpSecondsBefore = 0, spinUpSecondsLongest = 0, spinUpLongestAt = 0;
    uint32_t startStopCount = 0;
    uint32_t temperature = 0, temperatureHighest = 0, temperatureHighestAt = 0;
    uint32_t voltage = 0, voltageHighest = 0, voltageHighestAt = 0, voltageLowest = 0, voltageLowestAt = 0;
    uint32_t smartAsc = 0, smartAscq = 0, smartTripAt = 0;
};

// The wall clock the drives run on: KELSIM_NOW (seconds since the epoch) when set, so
// that tests can hold or move time, else the system's.
int64_t simulatedNow();

// Heads of a drive (8 for the families 147 and 300, else 1) and the head an LBA is on:
// the medium is cut in zones of 1 MiB that go round the heads.
int driveHeads(const DriveIdentity &identity);
int headOfLba(const DriveIdentity &identity, uint64_t lba);

// The counters as stored; a drive seen for the first time is born now: power-on time 0,
// one spin-up, a full stock of spare sectors, 35 degrees and 12.0 V.
DriveCounters loadDriveCounters(DriveSettings &settings);
DriveCounters newDriveCounters();
void storeDriveCounters(DriveSettings &settings, const DriveCounters &counters);
uint64_t powerOnSeconds(const DriveCounters &counters);
uint32_t powerOnMinutes(const DriveCounters &counters);
// The counter a field of the SMART page shows (a group's worst count is its heads' worst).
uint32_t counterFor(const DriveCounters &counters, kellayouts::SmartQuantity quantity, uint8_t head);

// What commands do to the counters (each loads, changes and stores them).
void countTransfer(DriveSettings &settings, const DriveIdentity &identity, bool write, uint64_t lba, uint64_t blocks);
void countMediumError(DriveSettings &settings, const DriveIdentity &identity, bool write, uint64_t lba);
// A bad block given a spare sector (REASSIGN BLOCKS or an automatic reallocation).
void countReassignedBlock(DriveSettings &settings);
// START STOP UNIT with START: the error counts of this spin-up become the previous ones.
void countSpinUp(DriveSettings &settings);

// What a person sets with kelsim; extremes and their times follow.
void setDriveTemperature(DriveSettings &settings, uint32_t degrees);
void setDriveVoltage(DriveSettings &settings, uint32_t coded);
void setSmartTrip(DriveSettings &settings, uint8_t asc, uint8_t ascq); // 0, 0 clears it

// The history of check conditions, newest first, at most kErrorHistoryEntries.
constexpr size_t kErrorHistoryEntries = 171;
struct ErrorRecord {
    uint32_t seconds = 0; // power-on time when it happened
    uint8_t senseKey = 0, asc = 0, ascq = 0;
    uint32_t lba = 0;
    uint8_t cdb[16] = {};
};
std::vector<ErrorRecord> loadErrorHistory(DriveSettings &settings);
// Adds the check condition a command ended with; lba is the command's own address, used
// when the sense data carries none.
void recordCheckCondition(DriveSettings &settings, const uint8_t *cdb, size_t cdbLength, uint64_t lba,
                          const ScsiResult &result);

// A check condition the drive raises for a coming command with this operation code, after
// letting `after` of them pass.
struct ScriptedCheck {
    uint8_t opcode = 0;
    uint32_t after = 0;
    uint8_t senseKey = 0, asc = 0, ascq = 0;
};
bool loadScriptedCheck(DriveSettings &settings, ScriptedCheck *check);
void storeScriptedCheck(DriveSettings &settings, const ScriptedCheck &check);
void clearScriptedCheck(DriveSettings &settings);
// For each command: true (and the check condition in *result) when the scripted check
// fires now; a command it lets pass counts down.
bool takeScriptedCheck(DriveSettings &settings, uint8_t opcode, ScsiResult *result);

// One line for "kelsim show": what differs from a new drive's conditions.
std::string describeDriveConditions(DriveSettings &settings);

} // namespace kelsim
