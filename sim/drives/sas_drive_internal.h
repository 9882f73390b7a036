// Private to the SAS drive model: the drive class, whose command handlers live in one file
// per command set, the constants and settings keys they share, and the sense helpers.
// One command table (opcode -> handler), in sas_drive.cpp, routes every command. To add a
// command: declare its handler below with its command set, define it in that set's file,
// and add its row (opcode, CDB length, needs a spinning medium, handler) to the table.
#pragma once

#include "byte_order.h"
#include "sas_drive.h"

#include <string>
#include <vector>

namespace kelsim {
namespace sas {

constexpr uint32_t kDataBufferSize = 0x10000; // WRITE BUFFER / READ BUFFER mode 2
constexpr uint32_t kMaxMicrocodeSize = 0x100000;
constexpr uint32_t kBounceBlocks = 128; // blocks per medium access for commands that walk a range

constexpr uint8_t kSenseMiscompare = 0x0E;
constexpr uint8_t kAscNotReady = 0x04, kAscqInitializingCommandRequired = 0x02;
constexpr uint8_t kAscParameterListLengthError = 0x1A;
constexpr uint8_t kAscMiscompareDuringVerify = 0x1D;
constexpr uint8_t kAscWriteError = 0x0C, kAscqAutoReallocated = 0x01;

// Persistent settings kept per drive.
constexpr const char *kKeyCapacity = "capacity";        // decimal block count
constexpr const char *kKeyRevision = "revision";        // 4 characters
constexpr const char *kKeyStopped = "stopped";          // "1" after START STOP UNIT with START clear
constexpr const char *kKeyMediaErrors = "media_errors"; // blank-separated hexadecimal LBAs
// Mode pages: "mode.XX.current" and "mode.XX.saved", the page bytes in hexadecimal.

// ---- sense helpers local to the drive (sas_drive.cpp) ----

ScsiResult lbaOutOfRange();
// The parameter list's byte at this index is wrong (C/D = 0: not a CDB byte).
ScsiResult invalidFieldInParameterList(size_t byteIndex, int bitIndex = -1);
ScsiResult parameterListLengthError();

struct ModePageDefinition; // sas_mode_pages.cpp

class SasDrive : public ScsiTarget {
  public:
    SasDrive(const DriveIdentity &identity, Medium &medium, DriveSettings &settings)
        : identity_(identity), medium_(medium), settings_(settings) {}

    ScsiResult execute(const ScsiCommand &command) override;

  private:
    // One command as a handler sees it: the CDB padded with zeros to 16 bytes.
    struct Request {
        const uint8_t *cdb;
        const ScsiCommand &command;
    };
    using Handler = ScsiResult (SasDrive::*)(const Request &);
    struct CommandEntry {
        uint8_t opcode;
        uint8_t cdbLength;
        bool needsSpinningMedium; // refused with NOT READY while the drive is stopped
        Handler handler;
    };
    static const CommandEntry kCommands[];

    // ---- the command table, data phases and ranges (sas_drive.cpp) ----

    ScsiResult dispatch(const ScsiCommand &command);

    // Data phases. A data-in answer is cut to the allocation length and the host's buffer;
    // a data-out command gets nullptr when the host did not supply the bytes it announced.
    static ScsiResult sendData(const ScsiCommand &command, const std::vector<uint8_t> &data, uint64_t allocation);
    static uint64_t hostRoom(const ScsiCommand &command);
    static const uint8_t *hostData(const ScsiCommand &command, uint64_t size);

    struct BlockRange {
        uint64_t lba;
        uint64_t count;
        uint16_t lengthByte; // where the CDB holds the transfer length, for the field pointer
    };
    static BlockRange decodeBlockRange(const uint8_t *cdb);
    bool inRange(uint64_t lba, uint64_t count);

    uint64_t currentBlocks() { return sasDriveBlocks(identity_, settings_); }
    bool stopped();

    // ---- vendor error injection (sas_error_injection.cpp) ----

    // A block command that page 0x22 says must fail: its sense, counted against the page.
    bool injectedError(const uint8_t *cdb, ScsiResult *result);
    // A new page 0x22 starts its count of failed commands again.
    void injectionPageChanged();

    // ---- identity and state (sas_identity.cpp) ----

    ScsiResult testUnitReady(const Request &) { return ScsiResult{}; }
    ScsiResult requestSense(const Request &request);
    ScsiResult inquiry(const Request &request);
    ScsiResult readCapacity10(const Request &request);
    ScsiResult serviceActionIn16(const Request &request);
    ScsiResult reportLuns(const Request &request);
    ScsiResult startStopUnit(const Request &request);

    std::vector<uint8_t> standardInquiry();
    bool vitalProductPage(uint8_t code, std::vector<uint8_t> *page);
    uint64_t naaIdentifier();

    // ---- block I/O (sas_block_io.cpp) ----

    ScsiResult read(const Request &request);
    ScsiResult write(const Request &request);
    ScsiResult verify(const Request &request);
    ScsiResult writeSame(const Request &request);
    ScsiResult synchronizeCache(const Request &request);

    // ---- mode pages (sas_mode_pages.cpp) ----

    ScsiResult modeSense(const Request &request); // (6) and (10)
    ScsiResult modeSelect6(const Request &request);
    ScsiResult modeSelect10(const Request &request);

    std::vector<uint8_t> loadModePage(const ModePageDefinition &definition, int pageControl);
    // The current vendor error-injection page 0x22 (page code first).
    std::vector<uint8_t> currentInjectionPage();
    void storeModePage(const ModePageDefinition &definition, const std::vector<uint8_t> &page, bool save);
    bool collectModePages(uint8_t pageCode, int pageControl, std::vector<uint8_t> *pages);
    void blockDescriptor(int pageControl, bool longLba, std::vector<uint8_t> *out);
    ScsiResult applyModeParameters(const uint8_t *list, size_t length, size_t headerLength,
                                   size_t blockDescriptorLength, bool longLba, bool save, bool pageFormat);

    // ---- log pages (sas_log_pages.cpp) ----

    ScsiResult logSense(const Request &request);
    ScsiResult logSelect(const Request &request);

    // asNew: the page as a new drive shows it (the defaults of page control 2 and 3).
    std::vector<uint8_t> logPage(uint8_t code, bool asNew);
    std::vector<uint8_t> temperaturePage(bool asNew);
    std::vector<uint8_t> informationalExceptionsPage(bool asNew);
    std::vector<uint8_t> errorHistoryPage(bool asNew);
    std::vector<uint8_t> smartPage(bool asNew);
    // Counters and error history after every command.
    void recordInLife(const ScsiCommand &command, const ScsiResult &result);

    // ---- buffers and microcode (sas_firmware.cpp) ----

    ScsiResult readBuffer(const Request &request);
    ScsiResult writeBuffer(const Request &request);

    // The image arrived so far; checked and activated when it is complete.
    ScsiResult receiveMicrocode(const Request &request, uint32_t offset, uint32_t length, bool wholeImage);

    // ---- long blocks, media errors and diagnostics (sas_media.cpp) ----

    ScsiResult readLong(const Request &request);
    ScsiResult writeLong(const Request &request);
    ScsiResult sendDiagnostic(const Request &request);
    ScsiResult receiveDiagnosticResults(const Request &request);
    // A write over blocks marked bad gives each a spare sector (automatic reallocation).
    void reassignMarkedBlocks(const Request &request, uint64_t lba, uint64_t count);

    DriveIdentity identity_;
    Medium &medium_;
    DriveSettings &settings_;
    ScsiResult lastSense_{};
    bool haveLastSense_ = false;
    std::vector<uint8_t> dataBuffer_; // allocated on first use
    std::vector<uint8_t> microcode_;  // the download in progress (the drive's volatile buffer)
};

} // namespace sas
} // namespace kelsim
