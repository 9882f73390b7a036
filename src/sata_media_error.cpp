// Command e: uncorrectable blocks on a SATA drive. IDENTIFY DEVICE says whether the drive
// knows WRITE UNCORRECTABLE EXT; if not, WRITE LONG overwrites the sector and its check
// bytes with a fixed pattern. Addresses are 48-bit.
#define KEL_MODULE "KelPthCmd_SATA"
#include <cstdio>
#include <cstring>

#include "kelpth.h"
#include "kelpth/checks.h"
#include "kelpth/command_codes.h"
#include "kelpth/command_steps.h"
#include "kelpth/functbl.h"
#include "kelpth/handlers.h"
#include "kelpth/media_error.h"
#include "kelpth/messages.h"
#include "kelpth/param_file.h"
#include "kelpth/sata_line_readers.h"
#include "kelpth/trace.h"

namespace {

// A sector of all ones followed by four bytes in place of its check bytes.
constexpr uint32_t kLongSectorBytes = kSectorSize + 4;

// IDENTIFY DEVICE word 119 bit 2: WRITE UNCORRECTABLE EXT is supported.
bool supportsWriteUncorrectable(const uint8_t *identify) {
    return (identify[119 * 2] & 0x04) != 0;
}

// The ATA PASS-THROUGH(16) block for one block, without its LBA.
void buildMarkCdb(PassThroughRequest *request, bool writeUncorrectable) {
    uint8_t *cdb = request->cdb;
    cdb[0] = 0x85;
    cdb[13] = 0x40; // LBA mode
    cdb[15] = 0x00;
    request->cdbLength = 16;
    if (writeUncorrectable) {
        request->direction = KEL_DIR_NONE;
        request->ataCommandFlag = 1;
        cdb[1] = 0x07; // non-data, 48-bit
        cdb[4] = 0x55; // pseudo-uncorrectable, logged
        cdb[6] = 0x01;
        cdb[14] = 0x45; // WRITE UNCORRECTABLE EXT
    } else {
        request->direction = KEL_DIR_OUT;
        request->ataCommandFlag = 0;
        cdb[1] = 0x0B; // PIO data-out, 48-bit
        cdb[2] = 0x06; // to the drive, length in the sector count
        cdb[6] = 0x01;
        cdb[14] = 0x32; // WRITE LONG
    }
}

} // namespace

int32_t KelPDHDDMediaErrorSet_SATA() {
    traceCall("KelPDHDDMediaErrorSet_SATA");
    PassThroughRequest request;
    memset(&request, 0, sizeof request);
    SenseArea sense;

    ParamFile file(kShortLineRead, kShortLineRead);
    if (file.open(KEL_HERE, functbl[kTblMediaErrorSata].argv[2]) == 0) {
        return 0;
    }
    showParamFileName(file.path());

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
            if (getContNoFromLineBuf(line, &request.controllerNo) == 0 ||
                ControllerCheck(KEL_HERE, request.controllerNo) == 0) {
                return 0;
            }
            showControllerNo(request.controllerNo);
            break;
        case 2:
            if (getPhyDrvNoFromLineBuf(line, &request.driveNo) == 0 ||
                DriveCheck(KEL_HERE, request.controllerNo, request.driveNo, kPhysicalDrive) == 0) {
                return 0;
            }
            showPhysicalDriveNo(request.driveNo);
            if (refusesInterface(KEL_HERE, request.controllerNo, request.driveNo, &request.interfaceType,
                                 kInterfaceSas)) {
                return 0;
            }
            break;
        case 3:
            if (getAddress48FromLineBuf(line, &address) == 0) {
                return 0;
            }
            printf("Media Error Address : 0x%012llX\n", static_cast<unsigned long long>(address));
            traceLine("## Media Error Address : 0x%012llX", static_cast<unsigned long long>(address));
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
    if (!complete) {
        return reportIncompleteFile(KEL_HERE, 0);
    }

    uint8_t identify[kSectorSize] = {};
    if (getIdentifyDevice(request.controllerNo, request.driveNo, 0, identify) == 0) {
        return 0;
    }
    request.interfaceType = KEL_IF_SATA;
    request.targetKind = KEL_TARGET_PHYSICAL;
    if (setAtaAddress48bit(0, address, &request.cdb[7]) == 0) {
        return 0;
    }
    const bool writeUncorrectable = supportsWriteUncorrectable(identify);
    buildMarkCdb(&request, writeUncorrectable);
    uint8_t longSector[kLongSectorBytes];
    memset(longSector, 0xFF, kSectorSize);
    const uint8_t checkBytes[] = {0x01, 0x02, 0x03, 0x04};
    memcpy(longSector + kSectorSize, checkBytes, sizeof checkBytes);

    for (int32_t i = 0; i < steps.count; i++) {
        showCdb(request);
        uint32_t dataLength = writeUncorrectable ? 0 : kLongSectorBytes;
        if (sendDataIn(KEL_HERE, KelPasAnyCommand, &request, longSector, &dataLength, &sense) == 0) {
            return 0;
        }
        address += static_cast<uint64_t>(steps.skip);
        if (setAtaAddress48bit(0, address, &request.cdb[7]) == 0) {
            return 0;
        }
    }
    return 1;
}
