// PDHDDCapaChange on a SATA drive: READ NATIVE MAX ADDRESS EXT, which SET MAX ADDRESS EXT
// must follow, then SET MAX ADDRESS EXT with the new address.
#define KEL_MODULE "KelPthCmd_SATA"
#include <cstdio>

#include "kelpth.h"
#include "kelpth/checks.h"
#include "kelpth/command_steps.h"
#include "kelpth/functbl.h"
#include "kelpth/handlers.h"
#include "kelpth/messages.h"
#include "kelpth/trace.h"
#include "kelpth/value_syntax.h"

namespace {

constexpr size_t kMaxCapacityDigits = 12;

void reportBadValue(const char *detail) {
    KelPthErr0022(KEL_HERE, detail);
    KelPthErr0002(KEL_HERE);
}

// The capacity argument, up to 48 bits. A bad text or a failed conversion is reported as
// "Capacity"; text after the number and a value past 48 bits as "Address".
int readCapacity48(char *text, uint64_t *capacity) {
    cutLineEnd(text);
    unsigned long long value = 0;
    if (!scanHexNumber(text, kMaxCapacityDigits) || !convertULongLong(text, 16, ConvertRules{true, false}, &value)) {
        reportBadValue("Capacity");
        return 0;
    }
    if (!convertULongLong(text, 16, ConvertRules{true, true}, &value) || (value >> 48) != 0) {
        reportBadValue("Address");
        return 0;
    }
    *capacity = value;
    return 1;
}

// A non-data ATA command to the drive: no buffer, length 0.
PassThroughRequest nonDataRequest(uint8_t controllerNo, uint8_t driveNo, uint8_t command) {
    PassThroughRequest request{};
    request.interfaceType = KEL_IF_SATA;
    request.targetKind = KEL_TARGET_PHYSICAL;
    request.controllerNo = controllerNo;
    request.driveNo = driveNo;
    request.direction = KEL_DIR_NONE;
    request.ataCommandFlag = 1;
    request.cdb[0] = 0x85;  // ATA PASS-THROUGH(16)
    request.cdb[1] = 0x07;  // non-data, 48-bit
    request.cdb[13] = 0x40; // LBA mode
    request.cdb[14] = command;
    request.cdbLength = 16;
    return request;
}

int sendNonData(PassThroughRequest *request) {
    SenseArea sense;
    uint32_t dataLength = 0;
    return sendDataIn(KEL_HERE, KelPasAnyCommand, request, nullptr, &dataLength, &sense);
}

} // namespace

int32_t KelPDHDDCapaChange_SATA() {
    traceCall("KelPDHDDCapaChange_SATA");
    char **argv = functbl[kTblCapaChange].argv;

    PassThroughRequest target{};
    if (!readDriveTarget(KEL_HERE, argv[2], argv[3], kPhysicalDrive, &target)) {
        return 0;
    }
    uint64_t capacity = 0;
    if (!readCapacity48(argv[4], &capacity)) {
        return 0;
    }
    uint32_t interfaceType = kInterfaceSata;
    if (refusesInterface(KEL_HERE, target.controllerNo, target.driveNo, &interfaceType, kInterfaceSas)) {
        return 0;
    }
    printf("Capacity : 0x%012llX\n\n", static_cast<unsigned long long>(capacity));
    traceLine("## Capacity : 0x%012llX", static_cast<unsigned long long>(capacity));

    // The drive only takes SET MAX ADDRESS EXT right after READ NATIVE MAX ADDRESS EXT;
    // the native address itself is not needed.
    PassThroughRequest readNativeMax = nonDataRequest(target.controllerNo, target.driveNo, 0x27);
    if (!sendNonData(&readNativeMax)) {
        return 0;
    }

    PassThroughRequest setMax = nonDataRequest(target.controllerNo, target.driveNo, 0x37);
    setMax.cdb[6] = 0x01; // sector count
    if (!setAtaAddress48bit(0, capacity, &setMax.cdb[7])) {
        return 0;
    }
    showCdb(setMax);
    return sendNonData(&setMax);
}
