// One-sector read and write on a SATA drive (READ/WRITE SECTOR(S) EXT inside ATA
// PASS-THROUGH(16)), the 48-bit LBA layout of that block, and IDENTIFY DEVICE.
#define KEL_MODULE "KelPthCmd_SATA"
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
#include "kelpth/value_syntax.h"

namespace {

constexpr uint8_t kAtaPassThrough16 = 0x85;
constexpr uint8_t kDeviceLbaMode = 0x40;
constexpr size_t kMaxAddressDigits = 16;

// The request every command of this file starts from: a physical SATA drive, ATA command.
PassThroughRequest sataRequest(uint8_t direction) {
    PassThroughRequest request{};
    request.interfaceType = KEL_IF_SATA;
    request.targetKind = KEL_TARGET_PHYSICAL;
    request.direction = direction;
    request.ataCommandFlag = 1;
    return request;
}

// The address argument: optional "0x", at most 16 hex digits, and it must fit in 48 bits.
int readAddress48(char *text, uint64_t *lba) {
    cutLineEnd(text);
    unsigned long long value = 0;
    if (!scanHexNumber(text, kMaxAddressDigits) || !convertULongLong(text, 16, ConvertRules{true, true}, &value) ||
        (value >> 48) != 0) {
        KelPthErr0022(KEL_HERE, "Address");
        KelPthErr0002(KEL_HERE);
        return 0;
    }
    *lba = value;
    return 1;
}

// These commands only go to SATA drives; a drive known to be SAS is refused.
int refuseSasDrive(const PassThroughRequest &request) {
    uint32_t interfaceType = request.interfaceType;
    return refusesInterface(KEL_HERE, request.controllerNo, request.driveNo, &interfaceType, kInterfaceSas);
}

// READ or WRITE SECTOR(S) EXT of one sector at lba; protocol and direction bits by the caller.
int buildSectorCdb(PassThroughRequest *request, uint8_t protocol, uint8_t transfer, uint8_t command, uint64_t lba) {
    uint8_t *cdb = request->cdb;
    cdb[0] = kAtaPassThrough16;
    cdb[1] = protocol;
    cdb[2] = transfer;
    cdb[6] = 1; // sector count
    if (!setAtaAddress48bit(0, lba, &cdb[7])) {
        return 0;
    }
    cdb[13] = kDeviceLbaMode;
    cdb[14] = command;
    cdb[15] = 0;
    request->cdbLength = 16;
    return 1;
}

} // namespace

int setAtaAddress48bit(uint32_t mode, uint64_t lba, uint8_t *cdbByte7) {
    traceCall("setAtaAddress48bit");
    if ((lba >> 48) != 0) {
        KelPthErr0022(KEL_HERE, "Address");
        KelPthErr0002(KEL_HERE);
        return 0;
    }
    if (mode != 0) {
        KelPthErr0022(KEL_HERE, "Unknown Vendor");
        KelPthErr0002(KEL_HERE);
        return 0;
    }
    // Previous (high) byte before current (low) byte for each of LBA low, mid and high.
    cdbByte7[0] = static_cast<uint8_t>(lba >> 24);
    cdbByte7[1] = static_cast<uint8_t>(lba);
    cdbByte7[2] = static_cast<uint8_t>(lba >> 32);
    cdbByte7[3] = static_cast<uint8_t>(lba >> 8);
    cdbByte7[4] = static_cast<uint8_t>(lba >> 40);
    cdbByte7[5] = static_cast<uint8_t>(lba >> 16);
    return 1;
}

int getIdentifyDevice(int controllerNo, int driveNo, uint32_t /*ignored*/, uint8_t *buffer512) {
    traceCall("getIdentifyDevice");
    PassThroughRequest request = sataRequest(KEL_DIR_IN);
    SenseArea sense;
    memset(buffer512, 0, kSectorSize);
    request.controllerNo = static_cast<uint8_t>(controllerNo);
    request.driveNo = static_cast<uint8_t>(driveNo);
    request.cdb[0] = kAtaPassThrough16;
    request.cdb[1] = 0x08; // PIO data-in, 28-bit
    request.cdb[2] = 0x0E;
    request.cdb[6] = 1;
    request.cdb[14] = 0xEC;
    request.cdbLength = 16;
    showCdb(request);
    uint32_t dataLength = kSectorSize;
    return sendDataIn(KEL_HERE, KelPasReadSectorExt, &request, buffer512, &dataLength, &sense);
}

int32_t KelPDOneSectorRead_SATA() {
    traceCall("KelPDOneSectorRead_SATA");
    PassThroughRequest request = sataRequest(KEL_DIR_IN);
    uint8_t buffer[kSectorSize] = {};
    SenseArea sense;
    char **argv = functbl[kTblPDSectorRead].argv;

    if (!readDriveTarget(KEL_HERE, argv[2], argv[3], kPhysicalDrive, &request)) {
        return 0;
    }
    uint64_t lba = 0;
    if (!readAddress48(argv[4], &lba)) {
        return 0;
    }
    if (refuseSasDrive(request)) {
        return 0;
    }
    showWideLogicalBlockAddress(lba, 12);
    if (!buildSectorCdb(&request, 0x09, 0x0E, 0x24, lba)) { // PIO data-in, 48-bit; READ SECTOR(S) EXT
        return 0;
    }
    showCdb(request);

    uint32_t dataLength = kSectorSize;
    if (!sendDataIn(KEL_HERE, KelPasReadSectorExt, &request, buffer, &dataLength, &sense)) {
        return 0;
    }
    KelPasPrintData("Read Command(1 Sector)", buffer, dataLength, 0, static_cast<int32_t>(dataLength));
    printf("\n");
    return 1;
}

int32_t KelPDOneSectorWrite_SATA() {
    traceCall("KelPDOneSectorWrite_SATA");
    PassThroughRequest request = sataRequest(KEL_DIR_OUT);
    uint8_t buffer[kSectorSize] = {};
    SenseArea sense;
    char **argv = functbl[kTblPDSectorWrite].argv;

    if (!readDriveTarget(KEL_HERE, argv[2], argv[3], kPhysicalDrive, &request)) {
        return 0;
    }
    if (refuseSasDrive(request)) {
        return 0;
    }
    uint64_t lba = 0;
    if (!readAddress48(argv[4], &lba)) {
        return 0;
    }
    showWideLogicalBlockAddress(lba, 12);
    if (!buildSectorCdb(&request, 0x0B, 0x06, 0x34, lba)) { // PIO data-out, 48-bit; WRITE SECTOR(S) EXT
        return 0;
    }
    memset(buffer, 0x5A, sizeof buffer);
    showCdb(request);
    return sendDataOut(KEL_HERE, KelPasWriteSectorExt, &request, buffer, kSectorSize, &sense);
}
