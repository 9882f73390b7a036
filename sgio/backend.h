// The drives this back end offers, as both libraries see them: the controllers found
// once per process (KELSGIO_DEVICES, else sysfs) and each drive's identity.
#pragma once

#include "discovery.h"

#include <string>
#include <vector>

namespace kelsgio {

struct DriveIdentity {
    std::string vendor, product, revision;
    uint64_t blocks = 0;
    bool sata = false; // vendor "ATA": a SATA drive behind the kernel's SCSI/ATA translation
};

class Backend {
  public:
    // Finds the controllers on first use; false (with a reason) when KELSGIO_DEVICES is wrong.
    bool load(std::string *error);
    size_t controllerCount() const { return controllers_.size(); }
    // The disk in a slot, null when the controller or the slot is empty.
    const Disk *disk(uint8_t controllerNo, uint8_t driveNo) const;
    // The node SG_IO goes to; empty when the disk has none any more.
    std::string device(uint8_t controllerNo, uint8_t driveNo);
    // A SATA drive is one whose vendor reads "ATA": from sysfs for a discovered disk (the
    // vendor only), else from INQUIRY. False when INQUIRY fails.
    bool isSata(uint8_t controllerNo, uint8_t driveNo, bool *sata);
    // From sysfs for a discovered disk, else from INQUIRY (cached); false when INQUIRY fails.
    bool identity(uint8_t controllerNo, uint8_t driveNo, DriveIdentity *identity);

  private:
    Disk *slot(uint8_t controllerNo, uint8_t driveNo);

    bool loaded_ = false;
    std::vector<Controller> controllers_;
};

// Blank-padded text field of an INQUIRY answer, trailing blanks dropped.
std::string inquiryText(const uint8_t *field, size_t width);

} // namespace kelsgio
