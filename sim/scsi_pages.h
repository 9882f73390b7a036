// What the farm's SCSI targets (SAS drives, SATA drives behind their translation layer,
// logical drives) build their answers from: a data-in reply cut to the allocation length,
// the vital product data pages they share (device identification designators, block
// limits, block device characteristics), the parameter header of a MODE SENSE answer,
// the LOG SENSE of a target without logs and the sense REQUEST SENSE hands over.
#pragma once

#include "device.h"

#include <string>
#include <vector>

namespace kelsim {

// The largest single transfer a target announces in its block limits page (1 MiB): the
// kernel cuts its requests to it.
constexpr uint32_t kMaxTransferBlocks = 2048;

// A data-in answer cut to the allocation length and the host's buffer.
ScsiResult replyData(const ScsiCommand &command, const std::vector<uint8_t> &data, uint64_t allocation);

// An NAA 5 (IEEE registered) identifier under the farm's company identifier, its own for
// each seed; always even, so that a port's identifier can be the unit's plus one.
uint64_t naaIdentifier(const std::string &seed);

// A VPD page: peripheral device type 0, the page code, the page length, then the body.
std::vector<uint8_t> vpdPage(uint8_t code, const std::vector<uint8_t> &body);

// Device identification (page 0x83) designators of a logical unit: its NAA identifier
// (binary) and its T10 vendor identification (ASCII: the vendor, then the text given).
void appendNaaDesignator(std::vector<uint8_t> *body, uint64_t naa);
void appendT10VendorDesignator(std::vector<uint8_t> *body, const std::string &vendor, const std::string &rest);

// Block limits (page 0xB0). Granularity and optimal transfer in blocks, 0 when the target
// has no preference; maxWriteSame is the WRITE SAME limit, 0 when the target has none to say.
std::vector<uint8_t> blockLimitsPage(uint16_t optimalGranularity, uint32_t optimalTransfer, uint64_t maxWriteSame);

// Block device characteristics (page 0xB1): rotation rate in rpm (0 not reported, 1 not
// rotating) and the nominal form factor code (0 not reported, 2 for 3.5", 3 for 2.5").
std::vector<uint8_t> blockCharacteristicsPage(uint16_t rotationRate, uint8_t formFactor);

// The block descriptor of a MODE SENSE answer: 8 bytes, or 16 with LONGLBA.
std::vector<uint8_t> modeBlockDescriptor(uint64_t blocks, uint32_t blockLength, bool longLba);

// MODE SENSE's page control field.
enum ModePageControl { kCurrent = 0, kChangeable = 1, kDefault = 2, kSaved = 3 };

// MODE SENSE (6) or (10) as a target reads it.
struct ModeSenseRequest {
    bool tenByte = false;
    bool disableBlockDescriptors = false; // DBD
    bool longLba = false;                 // LLBAA, (10) only
    int pageControl = kCurrent;
    uint8_t pageCode = 0;
    uint8_t subpage = 0;
    uint64_t allocation = 0;
};
ModeSenseRequest decodeModeSense(const uint8_t *cdb);
// A target without saved pages refuses page control 3 (ASC 0x39); no target has subpages,
// so only subpage 0 and 0xFF ("all": each page once) are taken.
bool modeSenseRefused(const ModeSenseRequest &request, bool keepsSavedPages, ScsiResult *refusal);

// A whole MODE SENSE (6) or (10) answer: the header with the device-specific parameter,
// the block descriptor (empty with DBD) and the pages.
std::vector<uint8_t> modeParameterData(bool tenByte, bool longLba, uint8_t deviceSpecific,
                                       const std::vector<uint8_t> &descriptor, const std::vector<uint8_t> &pages);

// LOG SENSE of a target that keeps no log: only page 0x00, which lists itself.
ScsiResult logSenseOfSupportedPages(const ScsiCommand &command, const uint8_t *cdb);

// What REQUEST SENSE hands over: the last check condition, once.
class PendingSense {
  public:
    void keep(const ScsiResult &result) {
        if (result.checkCondition) {
            sense_ = result;
            pending_ = true;
        }
    }
    // The answer to REQUEST SENSE: the pending sense, else NO SENSE. Descriptor format
    // (DESC) is refused.
    ScsiResult answer(const ScsiCommand &command, const uint8_t *cdb);

  private:
    ScsiResult sense_{};
    bool pending_ = false;
};

} // namespace kelsim
