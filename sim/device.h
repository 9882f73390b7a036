// The simulated farm's device models: what a command sent to one drive looks like to
// the drive, what it answers, and the media a drive keeps its blocks on.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace kelsim {

enum class DataDirection { ToDevice, FromDevice, None };

// One SCSI command as the target sees it, with the host's data buffer.
struct ScsiCommand {
    const uint8_t *cdb = nullptr;
    size_t cdbLength = 0;
    DataDirection direction = DataDirection::None;
    uint8_t *data = nullptr;        // host buffer: read from for ToDevice, written for FromDevice
    uint32_t dataLength = 0;        // size of the host buffer in bytes
    bool blockTransferUnit = false; // the request said the length is counted in 512-byte blocks
};

// SCSI status of a completed command, with fixed-format sense for CHECK CONDITION.
struct ScsiResult {
    bool checkCondition = false;
    std::array<uint8_t, 18> sense{}; // fixed format, response code 0x70
    uint32_t transferred = 0;        // bytes moved to or from the host buffer
    bool timedOut = false;           // no status at all: the initiator gives up waiting
};

// Fixed-format sense data; the sense-key-specific field pointer is optional.
ScsiResult checkCondition(uint8_t senseKey, uint8_t asc, uint8_t ascq);
ScsiResult invalidFieldInCdb(uint16_t byteIndex, int bitIndex = -1);
// Sets VALID and the information field.
void setInformation(ScsiResult *result, uint32_t information);
// UNRECOVERED READ ERROR naming the block (in the information field when it fits).
ScsiResult mediumError(uint64_t lba);

namespace sense {
constexpr uint8_t kNoSense = 0x0, kRecoveredError = 0x1, kNotReady = 0x2, kMediumError = 0x3, kHardwareError = 0x4,
                  kIllegalRequest = 0x5, kUnitAttention = 0x6, kDataProtect = 0x7, kAbortedCommand = 0xB;
constexpr uint8_t kAscInvalidOpcode = 0x20, kAscLbaOutOfRange = 0x21, kAscInvalidFieldInCdb = 0x24,
                  kAscInvalidFieldInParameterList = 0x26, kAscUnrecoveredReadError = 0x11;
} // namespace sense

// Anything that answers SCSI commands: a SAS drive, a SATA drive behind its
// SCSI/ATA translation layer, or a logical drive (RAID volume).
class ScsiTarget {
  public:
    virtual ~ScsiTarget() = default;
    virtual ScsiResult execute(const ScsiCommand &command) = 0;
};

constexpr uint32_t kBlockSize = 512;

// A drive's recording surface: sparse 512-byte blocks (unwritten blocks read as zeros),
// persisted in the farm's state. Later: per-block media-error marks.
class Medium {
  public:
    virtual ~Medium() = default;
    virtual void read(uint64_t lba, uint32_t count, uint8_t *out) = 0;
    virtual void write(uint64_t lba, uint32_t count, const uint8_t *in) = 0;
};

} // namespace kelsim

namespace kelsim {

enum class DriveInterface { Sas, Sata };

// A long block holds at most this many bytes (data and check bytes).
constexpr uint32_t kLargestLongBlock = 4096;

// What the topology says about one physical drive.
struct DriveIdentity {
    DriveInterface interface = DriveInterface::Sas;
    std::string vendor;   // up to 8 characters ("ATA" for SATA drives)
    std::string product;  // up to 16 characters
    std::string revision; // 4 characters
    std::string serial;
    uint64_t nativeBlocks = 0;                // native capacity in 512-byte blocks
    bool writeUncorrectableSupported = false; // SATA: IDENTIFY word 119 bit 2
    uint32_t longBlockBytes = 520;            // SAS: a block's data and check bytes (READ/WRITE LONG)
};

// Small persistent per-drive settings (current capacity, mode-page values, ...),
// kept in the farm's state next to the drive's blocks.
class DriveSettings {
  public:
    virtual ~DriveSettings() = default;
    virtual bool get(const std::string &key, std::string *value) = 0;
    virtual void set(const std::string &key, const std::string &value) = 0;
};

} // namespace kelsim
