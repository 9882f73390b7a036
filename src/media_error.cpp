// Command E: uncorrectable media errors on a SAS drive. One READ LONG learns the drive's
// long-block length from the residue in its sense data; then WRITE LONG overwrites each
// target block, data and check bytes, with 0xFF, so that they no longer agree.
#define KEL_MODULE "KelPthCmd"
#include "kelpth/media_error.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kelpth.h"
#include "kelpth/checks.h"
#include "kelpth/command_codes.h"
#include "kelpth/command_steps.h"
#include "kelpth/dump.h"
#include "kelpth/functbl.h"
#include "kelpth/handlers.h"
#include "kelpth/messages.h"
#include "kelpth/param_file.h"
#include "kelpth/trace.h"
#include "kelpth/value_syntax.h"

namespace {

constexpr uint8_t kReadLong10 = 0x3E;
constexpr uint8_t kWriteLong10 = 0x3F;
constexpr uint32_t kWrappedCdbLength = 12;
// The probe reads 512 bytes of block 0x10000; the drive refuses the length and says by
// how much it differs from its long block.
constexpr uint32_t kProbeLba = 0x00010000;
constexpr uint32_t kProbeLength = 0x200;
constexpr size_t kAddressDigits = 8;
constexpr size_t kCountDigits = 10;
// Only the first 8 characters of the address line count, "0x" included.
constexpr size_t kAddressConvertedChars = 8;

PassThroughRequest wrappedRequest(uint8_t controllerNo, uint8_t driveNo, uint8_t direction) {
    PassThroughRequest request;
    memset(&request, 0, sizeof request);
    request.interfaceType = KEL_IF_SAS;
    request.targetKind = KEL_TARGET_PHYSICAL;
    request.controllerNo = controllerNo;
    request.driveNo = driveNo;
    request.direction = direction;
    request.cdb[0] = direction == KEL_DIR_IN ? kWrapDataIn : kWrapDataOut;
    request.cdb[1] = driveNo;
    request.cdbLength = kWrappedCdbLength;
    return request;
}

// The inner CDB's 32-bit LBA (bytes 2..5) and 16-bit length (bytes 7..8), each shifted
// by the two wrapper bytes.
void setLbaAndLength(PassThroughRequest *request, uint32_t lba, uint16_t length) {
    uint8_t *inner = request->cdb + kWrapBytes;
    inner[2] = static_cast<uint8_t>(lba >> 24);
    inner[3] = static_cast<uint8_t>(lba >> 16);
    inner[4] = static_cast<uint8_t>(lba >> 8);
    inner[5] = static_cast<uint8_t>(lba);
    inner[7] = static_cast<uint8_t>(length >> 8);
    inner[8] = static_cast<uint8_t>(length);
}

} // namespace

int readMediaErrorStepLine(const char *module, int line, int valueNo, char *text, MediaErrorSteps *steps) {
    const bool isCount = valueNo == 4;
    const char *label = isCount ? "Media Error Count" : "Media Error Skip Count";
    cutLineEnd(text);
    int32_t value = -1;
    if (scanDecimalNumber(text, kCountDigits)) {
        value = atoi(text);
    }
    if (value < 0) {
        KelPthErr0022(module, line, label);
        KelPthErr0002(module, line);
        return 0;
    }
    (isCount ? steps->count : steps->skip) = value;
    printf("%s : %d\n%s", label, value, isCount ? "" : "\n");
    traceLine("## %s : %d", label, value);
    return 1;
}

uint32_t ReadLongCommand(uint8_t controllerNo, uint8_t driveNo, uint32_t *ok) {
    PassThroughRequest request = wrappedRequest(controllerNo, driveNo, KEL_DIR_IN);
    SenseArea sense;
    uint8_t buffer[kProbeLength] = {};
    request.cdb[kWrapBytes] = kReadLong10;
    setLbaAndLength(&request, kProbeLba, kProbeLength);

    uint32_t dataLength = kProbeLength;
    const int status = KelPasReadLong(&request, buffer, &dataLength, sense.bytes, &sense.size);
    if (status == KEL_STATUS_CHECK_CONDITION) {
        // Sense byte 6 is the low byte of the INFORMATION field: the residue, negative
        // when the long block is longer than the 512 bytes asked for.
        *ok = 1;
        return static_cast<uint16_t>(kProbeLength + (0x100 - sense.bytes[6]));
    }
    if (status == KEL_STATUS_GOOD) {
        *ok = 1;
        return 0;
    }
    KelIsErr(KEL_HERE, static_cast<uint32_t>(status), sense.bytes);
    *ok = 0;
    return 0;
}

uint32_t WriteLongCommand(uint8_t controllerNo, uint8_t driveNo, uint32_t address, uint16_t longLength) {
    PassThroughRequest request = wrappedRequest(controllerNo, driveNo, KEL_DIR_OUT);
    SenseArea sense;
    request.cdb[kWrapBytes] = kWriteLong10;
    setLbaAndLength(&request, address, longLength);
    showCdb(request);

    uint8_t *allocated = nullptr;
    if (MakeAllocData(&allocated, longLength) == 0) {
        return 0;
    }
    DataBuffer buffer(allocated);
    memset(buffer.get(), 0xFF, longLength);
    return static_cast<uint32_t>(sendDataOut(KEL_HERE, KelPasWriteLong, &request, buffer.get(), longLength, &sense));
}

int32_t KelPDHDDMediaErrorSet() {
    traceCall("KelPDHDDMediaErrorSet");
    ParamFile file(kShortLineRead, kShortLineRead);
    if (file.open(KEL_HERE, functbl[kTblMediaError].argv[2]) == 0) {
        return 0;
    }
    showParamFileName(file.path());

    long controllerNo = 0;
    long driveNo = 0;
    uint64_t address = 0;
    MediaErrorSteps steps;
    bool complete = false;
    while (!complete) {
        char *line = file.nextValueLine();
        if (line == nullptr) {
            break;
        }
        switch (file.valueLineCount()) {
        case 1:
            if (readDigitLine(KEL_HERE, kInlineLineRules, line, "Controller No", &controllerNo) == 0) {
                return 0;
            }
            showControllerNo(static_cast<int>(controllerNo));
            break;
        case 2: {
            if (readDigitLine(KEL_HERE, kInlineLineRules, line, "Drive No", &driveNo) == 0 ||
                DriveCheck(KEL_HERE, static_cast<uint8_t>(controllerNo), static_cast<uint8_t>(driveNo),
                           kPhysicalDrive) == 0) {
                return 0;
            }
            showPhysicalDriveNo(static_cast<int>(driveNo));
            uint32_t interfaceType = kInterfaceSas;
            if (refusesInterface(KEL_HERE, static_cast<uint8_t>(controllerNo), static_cast<uint8_t>(driveNo),
                                 &interfaceType, kInterfaceSata)) {
                return 0;
            }
            break;
        }
        case 3:
            if (readNumberLine(KEL_HERE, kInlineLineRules, line,
                               NumberSyntax{16, kAddressDigits, kAddressConvertedChars}, "Address", &address) == 0) {
                return 0;
            }
            printf("Media Error Address : 0x%08X\n", static_cast<uint32_t>(address));
            traceLine("## Media Error Address : 0x%08X", static_cast<uint32_t>(address));
            break;
        case 4:
        case 5:
            if (readMediaErrorStepLine(KEL_HERE, file.valueLineCount(), line, &steps) == 0) {
                return 0;
            }
            complete = file.valueLineCount() == 5;
            break;
        default:
            break;
        }
    }
    file.reportReadError(KEL_HERE);
    file.close();
    if (!complete) {
        return reportIncompleteFile(KEL_HERE, 0);
    }

    const uint8_t controller = static_cast<uint8_t>(controllerNo);
    const uint8_t drive = static_cast<uint8_t>(driveNo);
    uint32_t ok = 0;
    const uint16_t longLength = static_cast<uint16_t>(ReadLongCommand(controller, drive, &ok));
    if (ok == 0) {
        return 0;
    }
    // The skip count is the step from one corrupted block to the next: 0 hits one block
    // Count times.
    uint32_t block = static_cast<uint32_t>(address);
    for (int32_t i = 0; i < steps.count; i++) {
        if (WriteLongCommand(controller, drive, block, longLength) == 0) {
            return 0;
        }
        block += static_cast<uint32_t>(steps.skip);
    }
    return 1;
}
