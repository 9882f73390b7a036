// PDHDDCapaChange on a SAS drive: MODE SELECT(6) with a block descriptor that holds the
// new number of blocks. SATA drives go to the SATA module's variant.
#define KEL_MODULE "KelPthCmd"
#include <cstdio>
#include <cstdlib>
#include <memory>

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

constexpr uint32_t kParameterListLength = 12;
constexpr size_t kMaxCapacityDigits = 8;

// Mode parameter header (no mode data, no medium type) and one block descriptor:
// the number of blocks, then a block length of 512.
void buildCapacityParameterList(uint8_t *list, uint32_t blocks) {
    list[3] = 0x08; // block descriptor length
    list[4] = static_cast<uint8_t>(blocks >> 24);
    list[5] = static_cast<uint8_t>(blocks >> 16);
    list[6] = static_cast<uint8_t>(blocks >> 8);
    list[7] = static_cast<uint8_t>(blocks);
    list[9] = 0x00;
    list[10] = 0x02;
    list[11] = 0x00;
}

} // namespace

int32_t KelPDHDDCapaChange() {
    traceCall("KelPDHDDCapaChange");
    PassThroughRequest request{};
    SenseArea sense;
    char **argv = functbl[kTblCapaChange].argv;

    if (!readDriveTarget(KEL_HERE, argv[2], argv[3], kPhysicalDrive, &request)) {
        return 0;
    }
    request.direction = KEL_DIR_OUT;
    request.cdb[0] = kWrapDataOut;
    request.cdb[1] = request.driveNo;
    request.cdb[2] = 0x15; // MODE SELECT(6)
    request.cdb[3] = 0x01; // SP: the drive keeps the new capacity
    request.cdb[6] = kParameterListLength;
    request.cdbLength = 8;

    showControllerNo(request.controllerNo);
    showPhysicalDriveNo(request.driveNo);

    if (getHddType(request.controllerNo, request.driveNo, &request.interfaceType) == 1 &&
        request.interfaceType == kInterfaceSata) {
        return KelPDHDDCapaChange_SATA();
    }

    uint32_t capacity = 0;
    if (!readHexValue32(argv[4], kMaxCapacityDigits, ConvertRules{true, false}, &capacity)) {
        KelPthErr0022(KEL_HERE, "Capacity");
        KelPthErr0002(KEL_HERE);
        return 0;
    }
    printf("Capacity : 0x%08X\n\n", capacity);
    traceLine("## Capacity : 0x%08X", capacity);

    uint8_t *allocated = nullptr;
    if (!MakeAllocData(&allocated, kParameterListLength)) {
        return 0;
    }
    DataBuffer parameterList(allocated);
    buildCapacityParameterList(parameterList.get(), capacity);
    showCdb(request);
    return sendDataOut(KEL_HERE, KelPasModeSelect, &request, parameterList.get(), kParameterListLength, &sense);
}
