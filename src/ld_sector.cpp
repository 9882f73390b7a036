// One-sector read and write on a logical drive: a plain READ(10)/WRITE(10) addressed to
// the volume through the request's target kind and drive number.
#define KEL_MODULE "KelPthCmd"
#include <cstdio>
#include <cstring>

#include "kelpth.h"
#include "kelpth/checks.h"
#include "kelpth/command_codes.h"
#include "kelpth/command_steps.h"
#include "kelpth/dump.h"
#include "kelpth/functbl.h"
#include "kelpth/handlers.h"
#include "kelpth/messages.h"
#include "kelpth/trace.h"

namespace {

// Controller No and its check, LogicalDriveNo and its check, the Address, the echo of
// all three and the CDB: everything before the call, shared by the read and the write.
int prepareSectorCommand(int line, char **argv, uint8_t direction, uint8_t opcode, PassThroughRequest *request) {
    request->targetKind = KEL_TARGET_LOGICAL;
    if (readDriveTarget(KEL_MODULE, line, argv[2], argv[3], kLogicalDrive, request) == 0) {
        return 0;
    }
    request->direction = direction;
    request->cdb[0] = opcode;
    request->cdb[1] = 0x00;
    uint32_t lba = 0;
    if (readAddressArgument(KEL_MODULE, line, argv[4], &lba) == 0) {
        return 0;
    }

    showControllerNo(request->controllerNo);
    showLogicalDriveNo(request->driveNo);
    showLogicalBlockAddress(lba, "\n\n");

    request->cdb[2] = static_cast<uint8_t>(lba >> 24);
    request->cdb[3] = static_cast<uint8_t>(lba >> 16);
    request->cdb[4] = static_cast<uint8_t>(lba >> 8);
    request->cdb[5] = static_cast<uint8_t>(lba);
    request->cdb[6] = 0x00;
    request->cdb[7] = 0x00;
    request->cdb[8] = 0x01;
    request->cdb[9] = 0x00;
    request->cdbLength = 10;
    return 1;
}

} // namespace

int32_t KelLDOneSectorRead() {
    traceCall("KelLDOneSectorRead");
    char **argv = functbl[kTblLDSectorRead].argv;
    PassThroughRequest request;
    memset(&request, 0, sizeof request);
    uint8_t data[kSectorSize] = {};
    uint32_t dataLength = kSectorSize;
    SenseArea sense;

    if (prepareSectorCommand(__LINE__, argv, KEL_DIR_IN, kRead10, &request) == 0) {
        return 0;
    }
    showCdb(request);
    if (sendDataIn(KEL_HERE, KelPasReadExtend, &request, data, &dataLength, &sense) == 0) {
        return 0;
    }
    KelPasPrintData("Read Command(1 Sector)", data, dataLength, 0, static_cast<int32_t>(dataLength));
    printf("\n");
    return 1;
}

int32_t KelLDOneSectorWrite() {
    traceCall("KelLDOneSectorWrite");
    char **argv = functbl[kTblLDSectorWrite].argv;
    PassThroughRequest request;
    memset(&request, 0, sizeof request);
    uint8_t data[kSectorSize] = {};
    SenseArea sense;

    if (prepareSectorCommand(__LINE__, argv, KEL_DIR_OUT, kWrite10, &request) == 0) {
        return 0;
    }
    memset(data, kTestPattern, sizeof data);
    showCdb(request);
    return sendDataOut(KEL_HERE, KelPasWriteExtend, &request, data, kSectorSize, &sense);
}
