// The simulated SATA drive: an ATA device behind a SCSI/ATA translation layer, so that it
// answers SCSI commands, ATA commands arriving inside ATA PASS-THROUGH(16).
#pragma once

#include "device.h"

#include <memory>

namespace kelsim {

std::unique_ptr<ScsiTarget> makeSataDrive(const DriveIdentity &identity, Medium &medium, DriveSettings &settings);

} // namespace kelsim
