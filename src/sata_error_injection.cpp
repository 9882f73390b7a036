// Command A: a vendor error-injection mode on the one SATA drive model that has it,
// set with the vendor ATA command 0xFE and one 512-byte structure built from the
// parameter file. The program only places the values; the drive gives them meaning.
#define KEL_MODULE "KelPthCmd_SATA"
#include <cstdio>
#include <cstring>

#include "kelctl.h"
#include "kelpth.h"
#include "kelpth/checks.h"
#include "kelpth/command_codes.h"
#include "kelpth/command_steps.h"
#include "kelpth/dump.h"
#include "kelpth/functbl.h"
#include "kelpth/handlers.h"
#include "kelpth/messages.h"
#include "kelpth/param_file.h"
#include "kelpth/pass_through.h"
#include "kelpth/sata_line_readers.h"
#include "kelpth/trace.h"
#include "kelpth/value_syntax.h"

namespace {

constexpr char kSupportedModel[] = "MQX5108";
constexpr char kSupportedDriveName[] = "Zolt Pinecrest2";
constexpr int kErrorTypeValue = 7;
constexpr int kFirstLengthValue = 8; // reaching it also sets bytes 4-5
constexpr int kLastValue = 12;
constexpr size_t kFlagsByte = 2;
constexpr size_t kErrorTypeByte = 3;

// Error types by name, in the order of their codes.
constexpr const char *kErrorTypes[] = {"CTO", "DCE", "IDNF", "AMNF", "CRC", "ECC"};

// A numeric value line: read in base with at most digits digits, then either one bit
// of singleBits (or 0), or at most highest; ORed little endian into width bytes at offset.
struct StructureValue {
    int base;
    int digits;
    uint32_t singleBits; // nonzero: the value is 0 or exactly one of these bits
    uint32_t highest;
    size_t offset;
    size_t width;
};

// Values 3 to 12; the error type (value 7) is a keyword and has no entry here.
constexpr StructureValue kValues[] = {
    {10, 1, 0x01, 0, kFlagsByte, 2}, // also clears the error-type byte
    {10, 1, 0x06, 0, kFlagsByte, 1}, {10, 1, 0x08, 0, kFlagsByte, 1}, {10, 2, 0x10, 0, kFlagsByte, 1},
    {0, 0, 0, 0, kErrorTypeByte, 1}, {16, 4, 0, 0xFFFF, 6, 2},        {10, 4, 0, 0xFF, 8, 1},
    {10, 4, 0, 0xFF, 9, 1},          {16, 8, 0, 0xFFFFFFFF, 10, 4},   {16, 8, 0, 0xFFFFFFFF, 14, 4},
};

bool isAccepted(const StructureValue &rule, uint64_t value) {
    if (rule.singleBits != 0) {
        return value == 0 || ((value & rule.singleBits) == value && (value & (value - 1)) == 0);
    }
    return value <= rule.highest;
}

void orLittleEndian(uint8_t *structure, size_t offset, size_t width, uint64_t value) {
    for (size_t i = 0; i < width; i++) {
        structure[offset + i] |= static_cast<uint8_t>(value >> (8 * i));
    }
}

// Value line valueNo (3 to 12) into the structure; false when it is bad.
bool placeValue(int valueNo, char *line, uint8_t *structure) {
    const StructureValue &rule = kValues[valueNo - 3];
    if (valueNo == kErrorTypeValue) {
        cutLineEnd(line);
        for (size_t code = 0; code < sizeof kErrorTypes / sizeof kErrorTypes[0]; code++) {
            if (strcmp(line, kErrorTypes[code]) == 0) {
                structure[kErrorTypeByte] |= static_cast<uint8_t>(code);
                return true;
            }
        }
        return false;
    }
    uint64_t value = 0;
    if (getNumberFromLineBuf(rule.base, line, rule.digits, &value) == 0 || !isAccepted(rule, value)) {
        return false;
    }
    if (valueNo == kFirstLengthValue) {
        orLittleEndian(structure, 4, 2, 16);
    }
    orLittleEndian(structure, rule.offset, rule.width, value);
    return true;
}

// Only the MQX5108 knows the command. A drive whose identification cannot be read is
// given the benefit of the doubt.
bool refusesOtherModel(uint8_t controllerNo, uint8_t driveNo) {
    PhysicalDriveInfo info;
    memset(&info, 0, sizeof info);
    if (getPhysicalDriveInfo(controllerNo, driveNo, &info) != 1 ||
        strncmp(info.productId, kSupportedModel, strlen(kSupportedModel)) == 0) {
        return false;
    }
    KelPthErr0025(KEL_HERE);
    KelPthErr0026(KEL_HERE, kSupportedDriveName);
    return true;
}

} // namespace

int32_t KelPDHDDErrorInjectionSet_SATA() {
    traceCall("KelPDHDDErrorInjectionSet_SATA");
    PassThroughRequest request;
    memset(&request, 0, sizeof request);
    SenseArea sense;
    uint8_t structure[kSectorSize] = {};
    uint8_t shown[kSectorSize] = {};

    ParamFile file(kLongLineBuffer, kLongLineBuffer);
    if (file.open(KEL_HERE, functbl[kTblErrorInjectionSata].argv[2]) == 0) {
        return 0;
    }
    showParamFileName(file.path());
    structure[0] = 1; // 16-bit 1 at bytes 0-1

    bool complete = false;
    while (!complete) {
        char *line = file.nextValueLine();
        if (line == nullptr) {
            break;
        }
        const int valueNo = file.valueLineCount();
        if (valueNo == 1) {
            if (getContNoFromLineBuf(line, &request.controllerNo) == 0 ||
                ControllerCheck(KEL_HERE, request.controllerNo) == 0) {
                return 0;
            }
            showControllerNo(request.controllerNo);
        } else if (valueNo == 2) {
            if (getPhyDrvNoFromLineBuf(line, &request.driveNo) == 0 ||
                DriveCheck(KEL_HERE, request.controllerNo, request.driveNo, kPhysicalDrive) == 0) {
                return 0;
            }
            showPhysicalDriveNo(request.driveNo);
            printf("\n");
            if (refusesInterface(KEL_HERE, request.controllerNo, request.driveNo, &request.interfaceType,
                                 kInterfaceSas) ||
                refusesOtherModel(request.controllerNo, request.driveNo)) {
                return 0;
            }
        } else {
            if (!placeValue(valueNo, line, structure)) {
                return reportBadParameterLine(KEL_HERE, valueNo);
            }
            complete = valueNo == kLastValue;
        }
    }
    file.reportReadError(KEL_HERE);
    if (!complete) {
        return reportIncompleteFile(KEL_HERE, file.valueLineCount());
    }

    request.interfaceType = KEL_IF_SATA;
    request.targetKind = KEL_TARGET_PHYSICAL;
    request.direction = KEL_DIR_OUT;
    request.ataCommandFlag = 1;
    const uint8_t cdb[16] = {0x85, 0x0B, 0x06, 0, 0, 0, 0x01, 0, 0, 0, 0x49, 0, 0x45, 0x40, 0xFE, 0};
    memcpy(request.cdb, cdb, sizeof cdb);
    request.cdbLength = sizeof cdb;
    showCdb(request);

    // The dump shows every 16-bit word swapped against what the drive is sent.
    endianChange(0, structure, kSectorSize, shown);
    KelPasPrintData("Data structure for set error injection mode command.(1 Sector)", shown, kSectorSize, 0,
                    kSectorSize);
    printf("\n");
    uint32_t dataLength = kSectorSize;
    return sendDataIn(KEL_HERE, KelPasAnyCommand, &request, structure, &dataLength, &sense);
}
