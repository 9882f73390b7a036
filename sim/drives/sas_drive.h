// The simulated SAS drive: answers SCSI commands from its own identity, settings and medium.
#pragma once

#include "device.h"

#include <memory>
#include <string>

namespace kelsim {

std::unique_ptr<ScsiTarget> makeSasDrive(const DriveIdentity &identity, Medium &medium, DriveSettings &settings);

// What the drive reports today, for the farm's listings and for RAID volumes over it:
// the block count (a MODE SELECT block descriptor may have changed it) and the
// product revision (a microcode download changes it).
uint64_t sasDriveBlocks(const DriveIdentity &identity, DriveSettings &settings);
std::string sasDriveRevision(const DriveIdentity &identity, DriveSettings &settings);

// Blocks left unreadable by WRITE LONG (data and check bytes disagree). A normal write
// of such a block makes it readable again.
bool sasBlockHasMediaError(DriveSettings &settings, uint64_t lba);
// The first unreadable block in [lba, lba + count), if any.
bool sasFirstMediaError(DriveSettings &settings, uint64_t lba, uint64_t count, uint64_t *badLba);
// What a normal write does to the marks of the blocks it writes.
void sasClearMediaErrors(DriveSettings &settings, uint64_t lba, uint64_t count);
// The vendor error injection page 0x22 as the drive reads it, in words ("" when off).
std::string sasInjectionSummary(DriveSettings &settings);

} // namespace kelsim
