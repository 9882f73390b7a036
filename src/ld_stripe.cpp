// Stripe read and write on a logical drive with READ(10)/WRITE(10): "r" and "w" from
// the command line, "R" and "W" from a parameter file, and the two-half transfer that
// the 16-byte commands share.
#define KEL_MODULE "KelPthCmd"
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "kelpth/checks.h"
#include "kelpth/command_codes.h"
#include "kelpth/command_steps.h"
#include "kelpth/dump.h"
#include "kelpth/functbl.h"
#include "kelpth/handlers.h"
#include "kelpth/messages.h"
#include "kelpth/param_file.h"
#include "kelpth/stripe.h"
#include "kelpth/trace.h"

namespace {

void putBigEndian(uint8_t *at, size_t bytes, uint64_t value) {
    for (size_t i = 0; i < bytes; i++) {
        at[bytes - 1 - i] = static_cast<uint8_t>(value >> (8 * i));
    }
}

// The value lines of R (controller, logical drive, address) and W (the same and DataHDD),
// each echoed as soon as it is read. dataHdd is null for R. The file is closed before
// anything is sent; a file that ends early reports KEL0014 with argno 0.
int readStripeParamFile(char *fileName, PassThroughRequest *request, uint32_t *lba, long *dataHdd) {
    ParamFile file(kShortLineRead, kShortLineRead);
    if (!file.open(KEL_HERE, fileName)) {
        return 0;
    }
    showParamFileName(file.path());

    const int lastLine = dataHdd == nullptr ? 3 : 4;
    bool complete = false;
    while (!complete) {
        char *text = file.nextValueLine();
        if (text == nullptr) {
            break;
        }
        long number = 0;
        uint64_t address = 0;
        switch (file.valueLineCount()) {
        case 1:
            if (!readControllerLine(KEL_HERE, text, request)) {
                return 0;
            }
            break;
        case 2:
            if (!readDigitLine(KEL_HERE, kInlineLineRules, text, "Drive No", &number)) {
                return 0;
            }
            request->driveNo = static_cast<uint8_t>(number);
            if (!DriveCheck(KEL_HERE, request->controllerNo, request->driveNo, kLogicalDrive)) {
                return 0;
            }
            showLogicalDriveNo(request->driveNo);
            break;
        case 3:
            if (!readNumberLine(KEL_HERE, kInlineLineRules, text, NumberSyntax{16, 8, 0}, "Address", &address)) {
                return 0;
            }
            *lba = static_cast<uint32_t>(address);
            showLogicalBlockAddress(*lba, dataHdd == nullptr ? "\n\n" : "\n");
            break;
        default:
            if (!readDigitLine(KEL_HERE, kInlineLineRules, text, "Data HDD", dataHdd)) {
                return 0;
            }
            break;
        }
        complete = file.valueLineCount() == lastLine;
    }
    file.reportReadError(KEL_HERE);
    file.close();
    if (!complete) {
        return reportIncompleteFile(KEL_HERE, 0);
    }
    request->interfaceType = KEL_IF_SAS;
    request->targetKind = KEL_TARGET_LOGICAL;
    return 1;
}

} // namespace

int readLogicalDriveTarget(const char *module, int line, char *controllerText, char *driveText,
                           PassThroughRequest *request) {
    if (!readDriveTarget(module, line, controllerText, driveText, kLogicalDrive, request)) {
        return 0;
    }
    request->interfaceType = KEL_IF_SAS;
    request->targetKind = KEL_TARGET_LOGICAL;
    return 1;
}

void showDataHdd(int dataHdd) {
    printf("Data HDD : %d\n\n", dataHdd);
    traceLine("## Data HDD : %d", dataHdd);
}

void startStripeCdb(PassThroughRequest *request, uint8_t direction, uint8_t opcode, const StripeCdbLayout &layout,
                    uint32_t shownBlocks) {
    request->direction = direction;
    request->cdbLength = layout.cdbLength;
    request->cdb[0] = opcode;
    putBigEndian(request->cdb + layout.lengthOffset, layout.lengthBytes, shownBlocks);
}

int transferStripeHalves(const char *module, int line, PassThroughRequest *request, const StripeCdbLayout &layout,
                         uint64_t lba, StripeCall call) {
    uint8_t *allocated = nullptr;
    if (!MakeAllocData(&allocated, kStripeHalfBytes)) {
        return 0;
    }
    const DataBuffer buffer(allocated);
    SenseArea sense;
    const bool reading = request->direction == KEL_DIR_IN;
    uint32_t rowsShown = 0;

    for (uint64_t half = 0; half < 2; half++) {
        uint32_t dataLength = kStripeHalfBytes;
        memset(buffer.get(), reading ? 0 : kTestPattern, kStripeHalfBytes);
        putBigEndian(request->cdb + layout.lbaOffset, layout.lbaBytes, lba + kStripeHalfBlocks * half);
        if (half == 0) {
            // The block is shown with the transfer length the handler set (the whole
            // stripe for the reads); each half then asks for its own 128 blocks.
            showCdb(*request);
            putBigEndian(request->cdb + layout.lengthOffset, layout.lengthBytes, kStripeHalfBlocks);
        }
        const int sent = call.dataIn != nullptr
                             ? sendDataIn(module, line, call.dataIn, request, buffer.get(), &dataLength, &sense)
                             : sendDataOut(module, line, call.dataOut, request, buffer.get(), kStripeHalfBytes, &sense);
        if (!sent) {
            return 0;
        }
        if (reading) {
            rowsShown = KelPasPrintData("Read Command(1 Stripe)", buffer.get(), dataLength, rowsShown,
                                        static_cast<int32_t>(kStripeBytes));
        }
    }
    return 1;
}

// r <ControllerNo> <LogicalDriveNo> <Address>
int32_t KelLDOneOneStripeRead2() {
    traceCall("KelLDOneOneStripeRead2");
    char **argv = functbl[kTblStripeRead].argv;
    PassThroughRequest request{};
    if (!readLogicalDriveTarget(KEL_HERE, argv[2], argv[3], &request)) {
        return 0;
    }
    startStripeCdb(&request, KEL_DIR_IN, kRead10, kStripeCdb10, kStripeBlocks);
    showControllerNo(request.controllerNo);
    showLogicalDriveNo(request.driveNo);

    uint32_t lba = 0;
    if (!readAddressArgument(KEL_HERE, argv[4], &lba)) {
        return 0;
    }
    showLogicalBlockAddress(lba, "\n\n");

    if (!transferStripeHalves(KEL_HERE, &request, kStripeCdb10, lba, StripeCall{KelPasReadExtend, nullptr})) {
        return 0;
    }
    printf("\n");
    return 1;
}

// w <ControllerNo> <LogicalDriveNo> <Address> <DataHDD>
int32_t KelLDOneOneStripeWrite2() {
    traceCall("KelLDOneOneStripeWrite2");
    char **argv = functbl[kTblStripeWrite].argv;
    PassThroughRequest request{};
    if (!readLogicalDriveTarget(KEL_HERE, argv[2], argv[3], &request)) {
        return 0;
    }
    long dataHdd = 0;
    if (!readNumberArgument(KEL_HERE, argv[5], "Data HDD", &dataHdd)) {
        return 0;
    }
    startStripeCdb(&request, KEL_DIR_OUT, kWrite10, kStripeCdb10, kStripeHalfBlocks);
    showControllerNo(request.controllerNo);
    showLogicalDriveNo(request.driveNo);

    uint32_t lba = 0;
    if (!readAddressArgument(KEL_HERE, argv[4], &lba)) {
        return 0;
    }
    showLogicalBlockAddress(lba, "\n");
    showDataHdd(static_cast<int>(dataHdd));

    return transferStripeHalves(KEL_HERE, &request, kStripeCdb10, lba, StripeCall{nullptr, KelPasWriteExtend});
}

// R <parameter filename>: controller, logical drive and address from the file.
int32_t KelLDOneOneStripeRead() {
    traceCall("KelLDOneOneStripeRead");
    char **argv = functbl[kTblStripeReadFile].argv;
    PassThroughRequest request{};
    uint32_t lba = 0;
    if (!readStripeParamFile(argv[2], &request, &lba, nullptr)) {
        return 0;
    }
    startStripeCdb(&request, KEL_DIR_IN, kRead10, kStripeCdb10, kStripeBlocks);

    if (!transferStripeHalves(KEL_HERE, &request, kStripeCdb10, lba, StripeCall{KelPasReadExtend, nullptr})) {
        return 0;
    }
    printf("\n");
    return 1;
}

// W <parameter filename>: controller, logical drive, address and DataHDD from the file.
int32_t KelLDOneOneStripeWrite() {
    traceCall("KelLDOneOneStripeWrite");
    char **argv = functbl[kTblStripeWriteFile].argv;
    PassThroughRequest request{};
    uint32_t lba = 0;
    long dataHdd = 0;
    if (!readStripeParamFile(argv[2], &request, &lba, &dataHdd)) {
        return 0;
    }
    startStripeCdb(&request, KEL_DIR_OUT, kWrite10, kStripeCdb10, kStripeHalfBlocks);
    showDataHdd(static_cast<int>(dataHdd));

    return transferStripeHalves(KEL_HERE, &request, kStripeCdb10, lba, StripeCall{nullptr, KelPasWriteExtend});
}
