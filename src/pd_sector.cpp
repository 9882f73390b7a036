// One-sector read, read-to-file and write on a physical drive. SAS drives get a READ(10)
// or WRITE(10) inside the controller's 12-byte wrapper; SATA drives are handed to the
// SATA module (the read-to-file refuses them).
#define KEL_MODULE "KelPthCmd"
#include <cerrno>
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

constexpr size_t kFileNameSize = 4096;

// The wrapped READ(10)/WRITE(10) stands two bytes later than its usual place: LBA in
// bytes 4..7, transfer length in 9..10.
void setWrappedLba(PassThroughRequest *request, uint32_t lba) {
    request->cdb[4] = static_cast<uint8_t>(lba >> 24);
    request->cdb[5] = static_cast<uint8_t>(lba >> 16);
    request->cdb[6] = static_cast<uint8_t>(lba >> 8);
    request->cdb[7] = static_cast<uint8_t>(lba);
    request->cdb[8] = 0x00;
    request->cdb[9] = 0x00;
    request->cdb[10] = 0x01;
    request->cdb[11] = 0x00;
    request->cdbLength = 12;
}

// Controller No and Drive No with their checks, then the wrapper and the wrapped opcode:
// the first steps every physical-drive sector command takes.
int readControllerAndDrive(int line, char **argv, uint8_t wrapper, uint8_t opcode, PassThroughRequest *request) {
    if (readDriveTarget(KEL_MODULE, line, argv[2], argv[3], kPhysicalDrive, request) == 0) {
        return 0;
    }
    request->direction = wrapper == kWrapDataIn ? KEL_DIR_IN : KEL_DIR_OUT;
    request->cdb[0] = wrapper;
    request->cdb[1] = request->driveNo;
    request->cdb[2] = opcode;
    request->cdb[3] = 0x00;
    return 1;
}

bool isSataDrive(PassThroughRequest *request) {
    return getHddType(request->controllerNo, request->driveNo, &request->interfaceType) == 1 &&
           request->interfaceType == kInterfaceSata;
}

} // namespace

int32_t KelPDOneSectorRead() {
    traceCall("KelPDOneSectorRead");
    char **argv = functbl[kTblPDSectorRead].argv;
    PassThroughRequest request;
    memset(&request, 0, sizeof request);
    uint8_t data[kSectorSize] = {};
    uint32_t dataLength = kSectorSize;
    SenseArea sense;

    if (readControllerAndDrive(__LINE__, argv, kWrapDataIn, kRead10, &request) == 0) {
        return 0;
    }
    showControllerNo(request.controllerNo);
    showPhysicalDriveNo(request.driveNo);
    if (isSataDrive(&request)) {
        return KelPDOneSectorRead_SATA();
    }
    uint32_t lba = 0;
    if (readAddressArgument(KEL_HERE, argv[4], &lba) == 0) {
        return 0;
    }
    showLogicalBlockAddress(lba, "\n\n");
    setWrappedLba(&request, lba);

    showCdb(request);
    if (sendDataIn(KEL_HERE, KelPasReadExtend, &request, data, &dataLength, &sense) == 0) {
        return 0;
    }
    KelPasPrintData("Read Command(1 Sector)", data, dataLength, 0, static_cast<int32_t>(dataLength));
    printf("\n");
    return 1;
}

int32_t KelPDOneSectorReadDump() {
    traceCall("KelPDOneSectorReadDump");
    char **argv = functbl[kTblSectorDump].argv;
    PassThroughRequest request;
    memset(&request, 0, sizeof request);
    uint8_t data[kSectorSize] = {};
    uint32_t dataLength = kSectorSize;
    SenseArea sense;
    char fileName[kFileNameSize] = {};

    if (readControllerAndDrive(__LINE__, argv, kWrapDataIn, kRead10, &request) == 0) {
        return 0;
    }
    uint32_t lba = 0;
    if (readAddressArgument(KEL_HERE, argv[4], &lba) == 0) {
        return 0;
    }
    showControllerNo(request.controllerNo);
    showPhysicalDriveNo(request.driveNo);
    if (refusesInterface(KEL_HERE, request.controllerNo, request.driveNo, &request.interfaceType, kInterfaceSata)) {
        return 0;
    }
    showLogicalBlockAddress(lba, "\n");
    snprintf(fileName, sizeof fileName, "%s", argv[5]);
    printf("Save FileName:%s\n\n", fileName);
    traceLine("## Save FileName : %s", fileName);
    setWrappedLba(&request, lba);

    showCdb(request);
    if (sendDataIn(KEL_HERE, KelPasReadExtend, &request, data, &dataLength, &sense) == 0) {
        return 0;
    }
    // The whole sector goes to the file, whatever length the library reported.
    FILE *file = fopen(fileName, "wb");
    if (file == nullptr) {
        KelPthErr0011(KEL_HERE, errno);
        KelPthErr0002(KEL_HERE);
        return 0;
    }
    fwrite(data, 1, kSectorSize, file);
    if (ferror(file) != 0) {
        const int writeError = errno;
        fclose(file);
        KelPthErr0004(KEL_HERE, "fwrite", static_cast<uint32_t>(writeError));
        KelPthErr0002(KEL_HERE);
        return 0;
    }
    fclose(file);
    return 1;
}

int32_t KelPDOneSectorWrite() {
    traceCall("KelPDOneSectorWrite");
    char **argv = functbl[kTblPDSectorWrite].argv;
    PassThroughRequest request;
    memset(&request, 0, sizeof request);
    uint8_t data[kSectorSize] = {};
    SenseArea sense;

    if (readControllerAndDrive(__LINE__, argv, kWrapDataOut, kWrite10, &request) == 0) {
        return 0;
    }
    showControllerNo(request.controllerNo);
    showPhysicalDriveNo(request.driveNo);
    if (isSataDrive(&request)) {
        return KelPDOneSectorWrite_SATA();
    }
    uint32_t lba = 0;
    if (readAddressArgument(KEL_HERE, argv[4], &lba) == 0) {
        return 0;
    }
    showLogicalBlockAddress(lba, "\n");
    setWrappedLba(&request, lba);
    memset(data, kTestPattern, sizeof data);

    showCdb(request);
    return sendDataOut(KEL_HERE, KelPasWriteExtend, &request, data, kSectorSize, &sense);
}
