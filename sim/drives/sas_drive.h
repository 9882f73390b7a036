// The simulated SAS drive: answers SCSI commands from its own identity, settings and medium.
#pragma once

#include "device.h"

#include <memory>

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
// For writes that reach the medium without the drive (a RAID volume writing a member).
void sasClearMediaErrors(DriveSettings &settings, uint64_t lba, uint64_t count);

} // namespace kelsim
