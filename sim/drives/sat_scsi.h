// The standard SCSI commands the SCSI/ATA translation layer in front of a SATA drive
// answers itself, as an operating system's layer does: INQUIRY (with the device
// identification, block limits, block device characteristics and ATA Information VPD
// pages), READ CAPACITY, READ and WRITE in three sizes, VERIFY, SYNCHRONIZE CACHE, TEST
// UNIT READY, REQUEST SENSE, START STOP UNIT, MODE SENSE and LOG SENSE, each carried out
// with ATA commands on the device behind it.
#pragma once

#include "ata_device.h"
#include "device.h"
#include "scsi_pages.h"

namespace kelsim {

class SatScsiCommands {
  public:
    explicit SatScsiCommands(AtaDevice &device) : device_(device) {}

    // True when the operation code is one of the translated commands.
    static bool translates(uint8_t opcode);
    ScsiResult execute(const ScsiCommand &command);

  private:
    ScsiResult dispatch(const uint8_t *cdb, const ScsiCommand &command);
    ScsiResult inquiry(const uint8_t *cdb, const ScsiCommand &command);
    ScsiResult readCapacity(const uint8_t *cdb, const ScsiCommand &command, bool sixteen);
    ScsiResult transfer(const uint8_t *cdb, const ScsiCommand &command);
    ScsiResult synchronizeCache();
    ScsiResult verify(const uint8_t *cdb);
    ScsiResult startStopUnit(const uint8_t *cdb);
    ScsiResult modeSense(const uint8_t *cdb, const ScsiCommand &command);

    bool identify(AtaSector *data);
    uint64_t userBlocks(const AtaSector &identifyData) const;

    AtaDevice &device_;
    PendingSense pendingSense_;
};

} // namespace kelsim
