// Steps shared by the command handlers: argument reading with its report, the echo of
// what was parsed, the command-block dump, and one pass-through call with its report.
#define KEL_MODULE "KelPthCmd"
#include "kelpth/command_steps.h"

#include <cstdio>

#include "kelpth/checks.h"
#include "kelpth/dump.h"
#include "kelpth/messages.h"
#include "kelpth/trace.h"
#include "kelpth/value_syntax.h"

namespace {
constexpr size_t kAddressDigits = 8;
constexpr uint32_t kLongestCdb = 16;
} // namespace

int readNumberArgument(const char *module, int line, char *text, const char *label, long *value) {
    if (!readDigitValue(text, ConvertRules{true, false}, value)) {
        KelPthErr0022(module, line, label);
        KelPthErr0002(module, line);
        return 0;
    }
    return 1;
}

int readDriveTarget(const char *module, int line, char *controllerText, char *driveText, int driveKind,
                    PassThroughRequest *request) {
    long controllerNo = 0;
    if (!readNumberArgument(module, line, controllerText, "Controller No", &controllerNo)) {
        return 0;
    }
    request->controllerNo = static_cast<uint8_t>(controllerNo);
    if (!ControllerCheck(module, line, request->controllerNo)) {
        return 0;
    }
    long driveNo = 0;
    if (!readNumberArgument(module, line, driveText, "Drive No", &driveNo)) {
        return 0;
    }
    request->driveNo = static_cast<uint8_t>(driveNo);
    return DriveCheck(module, line, request->controllerNo, request->driveNo, driveKind);
}

int readAddressArgument(const char *module, int line, char *text, uint32_t *lba) {
    if (!readHexValue32(text, kAddressDigits, ConvertRules{true, false}, lba)) {
        KelPthErr0022(module, line, "Address");
        KelPthErr0002(module, line);
        return 0;
    }
    return 1;
}

int refusesInterface(const char *module, int line, uint8_t controllerNo, uint8_t driveNo, uint32_t *interfaceType,
                     uint32_t refusedType) {
    if (getHddType(controllerNo, driveNo, interfaceType) != 1 || *interfaceType != refusedType) {
        return 0;
    }
    KelPthErr0024(module, line, refusedType == kInterfaceSata ? "SATA" : "SAS");
    return 1;
}

void showControllerNo(int controllerNo) {
    printf("RAID Controller No.%d\n", controllerNo);
    traceLine("## RAID Controller No.%d", controllerNo);
}

void showPhysicalDriveNo(int driveNo) {
    printf("Physical Drive No.%d\n", driveNo);
    traceLine("## Physical Drive No.%d", driveNo);
}

void showLogicalDriveNo(int driveNo) {
    printf("Logical Drive No.%d\n", driveNo);
    traceLine("## Logical Drive No.%d", driveNo);
}

void showLogicalBlockAddress(uint32_t lba, const char *screenLineEnd) {
    printf("Logical Block Address : 0x%08X%s", lba, screenLineEnd);
    traceLine("## Logical Block Address : 0x%08X", lba);
}

void showWideLogicalBlockAddress(uint64_t lba, int digits) {
    printf("Logical Block Address : 0x%0*llX\n", digits, static_cast<unsigned long long>(lba));
    traceLine("## Logical Block Address : 0x%0*llX", digits, static_cast<unsigned long long>(lba));
}

void showCdb(const PassThroughRequest &request) {
    const uint32_t length = request.cdbLength < kLongestCdb ? request.cdbLength : kLongestCdb;
    KelPasPrintData("CDB", request.cdb, length, 0, static_cast<int32_t>(length));
    printf("\n");
}

int sendDataIn(const char *module, int line, DataInCall call, PassThroughRequest *request, void *data,
               uint32_t *dataLength, SenseArea *sense) {
    const uint32_t bufferSize = *dataLength;
    const int status = call(request, data, dataLength, sense->bytes, &sense->size);
    // A library may report more than it was given room for; nothing past the buffer is used.
    if (*dataLength > bufferSize) {
        *dataLength = bufferSize;
    }
    if (status != 0) {
        return KelIsErr(module, line, static_cast<uint32_t>(status), sense->bytes);
    }
    return 1;
}

int sendDataOut(const char *module, int line, DataOutCall call, PassThroughRequest *request, void *data,
                uint32_t dataLength, SenseArea *sense) {
    const int status = call(request, data, dataLength, sense->bytes, &sense->size);
    if (status != 0) {
        return KelIsErr(module, line, static_cast<uint32_t>(status), sense->bytes);
    }
    return 1;
}
