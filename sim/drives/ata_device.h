// The ATA device inside a simulated SATA drive: the ATA command set as the drive executes it,
// registers in, registers and data out, from its identity, its settings and its medium.
#pragma once

#include "ata_data.h"
#include "device.h"

#include <cstdint>
#include <optional>
#include <string>

namespace kelsim {

// The registers the host writes for one command, in 48-bit form: the upper halves are the
// "previous" register contents. A 28-bit command uses only the low halves and takes LBA
// bits 27..24 from the low nibble of the device register.
struct AtaCommandBlock {
    uint16_t features = 0;
    uint16_t count = 0;
    uint64_t lba = 0; // 48 bits
    uint8_t device = 0;
    uint8_t command = 0;
};

enum class AtaDataPhase { None, In, Out }; // In: from the device to the host

namespace ata {
// A legacy long sector (READ LONG / WRITE LONG): the data and this many ECC bytes.
constexpr uint32_t kLongSectorEccBytes = 4;
constexpr uint8_t kCommandWriteLong = 0x32;
constexpr uint8_t kStatusError = 0x01, kStatusSeekComplete = 0x10, kStatusReady = 0x40;
constexpr uint8_t kErrorAbort = 0x04, kErrorIdNotFound = 0x10, kErrorUncorrectable = 0x40;
constexpr uint8_t kErrorAddressMarkNotFound = 0x01, kErrorInterfaceCrc = 0x80;
} // namespace ata

// What the device leaves in its registers when the command completes.
struct AtaCompletion {
    uint8_t status = ata::kStatusReady | ata::kStatusSeekComplete;
    uint8_t error = 0;
    uint16_t count = 0;
    uint64_t lba = 0;
    uint8_t device = 0;
    uint32_t transferred = 0; // bytes moved in the data phase
    bool timedOut = false;    // the command never completes: the host gives up waiting
    bool failed() const { return (status & ata::kStatusError) != 0; }
};

class AtaDevice {
  public:
    AtaDevice(const DriveIdentity &identity, Medium &medium, DriveSettings &settings);

    // The host's data buffer belongs to the phase: read from for Out, written for In.
    AtaCompletion execute(const AtaCommandBlock &registers, AtaDataPhase phase, uint8_t *data, uint32_t length);

  private:
    struct Request {
        const AtaCommandBlock &registers;
        AtaDataPhase phase;
        uint8_t *data;
        uint32_t length;
    };

    // Identity, capacity and features (ata_identity.cpp).
    AtaCompletion identify(const Request &request);
    AtaCompletion readNativeMaxAddress(const Request &request);
    AtaCompletion setMaxAddress(const Request &request, bool followsReadNativeMax);
    AtaCompletion setFeatures(const Request &request);
    // Data transfer (ata_transfer.cpp).
    AtaCompletion readSectors(const Request &request, bool extended);
    AtaCompletion writeSectors(const Request &request, bool extended);
    AtaCompletion readVerify(const Request &request, bool extended);
    AtaCompletion writeUncorrectable(const Request &request);
    AtaCompletion writeLong(const Request &request);
    AtaCompletion vendorErrorInjection(const Request &request);
    // The vendor error injection at work (ata_error_injection.cpp): a read, write or
    // verify that the stored structure says must fail, counted against it.
    bool injectedError(const AtaCommandBlock &registers, AtaCompletion *completion);
    void injectionStructureChanged();
    // SMART and logs (ata_smart_log.cpp).
    AtaCompletion smart(const Request &request);
    AtaCompletion readLog(const Request &request);

    // Reads, writes, verifies and cache flushes: they wake a device in standby or idle.
    static bool touchesMedium(uint8_t command);

    uint64_t nativeBlocks() const { return identity_.nativeBlocks; }
    uint64_t userBlocks();
    bool flag(const char *key, bool fallback);

    DriveIdentity identity_;
    Medium &medium_;
    DriveSettings &settings_;
    // Power-cycle state: gone when the process that holds the device ends.
    bool nativeMaxJustRead_ = false;
    bool nonVolatileMaxSet_ = false;
    std::optional<uint64_t> volatileUserBlocks_;
    // The power mode CHECK POWER MODE reports (its count register).
    static constexpr uint8_t kPowerStandby = 0x00, kPowerIdle = 0x80, kPowerActive = 0xFF;
    uint8_t powerMode_ = kPowerActive;
};

// The drive's persistent state as the rest of the farm sees it (e.g. a RAID volume over a
// SATA member): blocks marked by WRITE UNCORRECTABLE EXT read back with an error until
// written again.
bool isSataBlockUncorrectable(DriveSettings &settings, uint64_t lba);
void clearSataUncorrectable(DriveSettings &settings, uint64_t lba, uint64_t count);
uint64_t sataUncorrectableCount(DriveSettings &settings);
// Blocks the drive reports after SET MAX ADDRESS EXT (the native count until one is set).
uint64_t sataUserBlocks(const DriveIdentity &identity, DriveSettings &settings);
// The last sector the vendor error-injection command (0xFE) received, if any.
bool sataErrorInjectionData(DriveSettings &settings, AtaSector *out);
// That structure as the drive reads it, in words ("" when injection is off).
std::string sataInjectionSummary(DriveSettings &settings);

} // namespace kelsim
