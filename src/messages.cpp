// The numbered messages. Each reporter prints its text on the screen and hands the
// same text (ending in a newline) to the trace log, located at the module and line of
// the caller. KelIsErr picks the message for a failed pass-through status.
#define KEL_MODULE "KelPthCmd"
#include "kelpth/messages.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kelctl.h"
#include "kelpth.h"
#include "kelpth/trace.h"

namespace {

constexpr size_t kDetailTextSize = 512;

// What a library leaves in the 260-byte detail area need not be terminated.
constexpr size_t kDetailAreaSize = KEL_SENSE_SIZE;

const char kUsageBlock[] =
    "------------------------------------------------------------------------\n"
    "kelpth L\n"
    "kelpth F <firmware filename>\n"
    "kelpth P <parameter filename>\n"
    "kelpth E <parameter filename>\n"
    "kelpth N <parameter filename>\n"
    "kelpth R <parameter filename>\n"
    "kelpth W <parameter filename>\n"
    "kelpth D <ControllerNo> <PhysicalDriveNo> <Address> <Save Filename>\n"
    "kelpth r <ControllerNo> <LogicalDriveNo> <Address>\n"
    "kelpth w <ControllerNo> <LogicalDriveNo> <Address> <DataHDD>\n"
    "kelpth ANY <parameter filename>\n"
    "kelpth PDOneSectorRead <ControllerNo> <PhysicalDriveNo> <Address>\n"
    "kelpth PDPrintModePage <ControllerNo> <PhysicalDriveNo> <PageCode> <SubPageCode> <DataSize> \n"
    "kelpth PDOneSectorWrite <ControllerNo> <PhysicalDriveNo> <Address>\n"
    "kelpth PDHDDCapaChange <ControllerNo> <PhysicalDriveNo> <Capacity>\n"
    "kelpth LDOneSectorRead <ControllerNo> <LogicalDriveNo> <Address>\n"
    "kelpth LDOneSectorWrite <ControllerNo> <LogicalDriveNo> <Address>\n"
    "kelpth N5 <parameter filename>\n"
    "kelpth r64 <ControllerNo> <LogicalDriveNo> <Address>\n"
    "kelpth w64 <ControllerNo> <LogicalDriveNo> <Address> <DataHDD>\n"
    "kelpth A <parameter filename>\n"
    "kelpth e <parameter filename>\n"
    "------------------------------------------------------------------------\n";

// Drops a CR LF and everything after it, then one final LF.
void cutDetailLineEnd(char *text) {
    if (char *crlf = strstr(text, "\r\n")) {
        *crlf = '\0';
    }
    size_t length = strlen(text);
    if (length > 0 && text[length - 1] == '\n') {
        text[length - 1] = '\0';
    }
}

// strerror_r comes in two shapes; both leave the text somewhere, this finds it.
[[maybe_unused]] const char *strerrorText(int result, const char *buffer) {
    return result == 0 ? buffer : "";
}
[[maybe_unused]] const char *strerrorText(const char *result, const char *) {
    return result;
}

// The system's text for an error number, with its line end cut.
void errorDetailText(int errorNumber, char (&detail)[kDetailTextSize]) {
    char text[kDetailTextSize] = {};
    const char *found = strerrorText(strerror_r(errorNumber, text, sizeof text), text);
    snprintf(detail, sizeof detail, "%s", found);
    cutDetailLineEnd(detail);
}

// A message without arguments: puts on the screen, the text and a newline in the trace.
int reportPlain(const char *module, int line, const char *text) {
    puts(text);
    char traceText[kTraceLineSize] = {};
    snprintf(traceText, sizeof traceText, "%s\n", text);
    return writeTraceEntry(module, static_cast<uint32_t>(line), traceText, nullptr, 0);
}

// A message with arguments: formatted once, the same text on the screen and in the trace.
__attribute__((format(printf, 3, 4))) int reportFormatted(const char *module, int line, const char *fmt, ...) {
    char text[kTraceLineSize] = {};
    va_list args;
    va_start(args, fmt);
    vsnprintf(text, sizeof text, fmt, args);
    va_end(args);
    printf("%s", text);
    return writeTraceEntry(module, static_cast<uint32_t>(line), text, nullptr, 0);
}

// The detail area as a terminated text of at most its 260 bytes.
struct DetailText {
    char text[kDetailAreaSize + 1] = {};
    explicit DetailText(const uint8_t *area) {
        if (area != nullptr) {
            const char *source = reinterpret_cast<const char *>(area);
            memcpy(text, source, strnlen(source, kDetailAreaSize));
        }
    }
};

} // namespace

int KelPthErr0000(const char *module, int line) {
    const int result = reportPlain(module, line, "KEL000-I The mistake is found in the parameter.");
    fputs(kUsageBlock, stdout);
    return result;
}

int KelPthErr0001(const char *module, int line) {
    char detail[kDetailTextSize] = {};
    errorDetailText(errno, detail);
    return reportFormatted(module, line, "KEL0001-E PassThrough Library load fail. detail=%s\n", detail);
}

int KelPthErr0002(const char *module, int line) {
    return reportPlain(module, line, "KEL0002-I PassThrough Tool abnormal end.");
}

int KelPthErr0003(const char *module, int line) {
    return reportPlain(module, line, "KEL0003-E Orvane Raid Controller is not found.");
}

int KelPthErr0004(const char *module, int line, const char *function, uint32_t errorNumber) {
    char detail[kDetailTextSize] = {};
    errorDetailText(static_cast<int>(errorNumber), detail);
    return reportFormatted(module, line, "KEL0004-E %s() failed. detail=%s\n", function, detail);
}

int KelPthErr0004e(const char *module, int line, const char *function, uint32_t errorNumber) {
    return KelPthErr0004(module, line, function, errorNumber);
}

int KelPthErr0004d(const char *module, int line, const char *function, uint32_t code) {
    return reportFormatted(module, line, "KEL0004-E %s() failed. detail=0x%08x\n", function, code);
}

int KelPthErr0005(const char *module, int line, const uint8_t *sense) {
    return reportFormatted(module, line, "KEL0005-E Request sense data  KEY:%02X  ASC:%02X  ASCQ:%02X\n",
                           sense[2] & 0x0F, sense[12], sense[13]);
}

int KelPthErr0006(const char *module, int line, int errorNumber) {
    return reportFormatted(module, line, "KEL0006-E Parameter file open error. errno=%d, detail=%s\n", errorNumber,
                           strerror(errorNumber));
}

int KelPthErr0007(const char *module, int line, int errorNumber, const char *detail) {
    return reportFormatted(module, line, "KEL0007-E Memory alloc fail. errno=%d detail=%s\n", errorNumber, detail);
}

int KelPthErr0008(const char *module, int line, int errorNumber) {
    return reportFormatted(module, line, "KEL0008-E Firmware data file open error. errno=%d\n", errorNumber);
}

int KelPthErr0009(const char *module, int line) {
    return reportPlain(module, line, "KEL0009-E Your target DeviceNo doesn't exist.");
}

int KelPthErr0010(const char *module, int line, int controllerNo, int portNo, const char *productId) {
    return reportFormatted(module, line, "KEL0010-I Controller No.%d : Port No.%d : Product_ID-%s\n", controllerNo,
                           portNo, productId);
}

int KelPthErr0011(const char *module, int line, int errorNumber) {
    return reportFormatted(module, line, "KEL0011-E Saved file open error. errno=%d\n", errorNumber);
}

int KelPthErr0012(const char *module, int line) {
    char detail[kDetailTextSize] = {};
    errorDetailText(errno, detail);
    return reportFormatted(module, line, "KEL0012-E PassThrough Library free fail. detail=%s\n", detail);
}

// The status text is "%04d" errno followed by the failing function's name.
int KelPthErr0013(const char *module, int line, const char *statusText) {
    const char *text = statusText != nullptr ? statusText : "";
    const size_t length = strnlen(text, kDetailAreaSize);
    char number[5] = {};
    memcpy(number, text, length < 4 ? length : 4);
    char function[kDetailAreaSize + 1] = {};
    if (length > 4) {
        memcpy(function, text + 4, length - 4);
    }
    const int errorNumber = atoi(number);
    char detail[kDetailTextSize] = {};
    errorDetailText(errorNumber, detail);
    return reportFormatted(module, line, "KEL0013-E %s() failed. errno=%d, detail=%s\n", function, errorNumber, detail);
}

int KelPthErr0014(const char *module, int line, int32_t argNo) {
    if (argNo == 0) {
        return reportPlain(module, line, "KEL0014-E Parameter error. argno=*");
    }
    return reportFormatted(module, line, "KEL0014-E Parameter error. argno=%d\n", argNo);
}

int KelPthErr0015(const char *module, int line) {
    return reportPlain(module, line, "KEL0015-E Unsupported command error.");
}

// Cuts the caller's text at its line end before showing it.
int KelPthErr0016(const char *module, int line, char *detail) {
    char empty[1] = {};
    char *text = detail != nullptr ? detail : empty;
    cutDetailLineEnd(text);
    return reportFormatted(module, line, "KEL0016-E PassThrough execution error. detail=%s\n", text);
}

int KelPthErr0017(const char *module, int line) {
    return reportPlain(module, line, "KEL0017-E Read and Write command cannot be executed at the same time.");
}

int KelPthErr0018(const char *module, int line) {
    char detail[kDetailTextSize] = {};
    errorDetailText(errno, detail);
    return reportFormatted(module, line, "KEL0018-E It failed in the acquisition of the library function. detail=%s\n",
                           detail);
}

int KelPthErr0019(const char *module, int line) {
    char detail[kDetailTextSize] = {};
    errorDetailText(errno, detail);
    return reportFormatted(module, line, "KEL0019-E Raid Controller cannot be used now. detail=%s\n", detail);
}

int KelPthErr0020(const char *module, int line) {
    char detail[kDetailTextSize] = {};
    errorDetailText(errno, detail);
    return reportFormatted(module, line, "KEL0020-E Your target DeviceNo cannot be used now. detail=%s\n", detail);
}

int KelPthErr0021(const char *module, int line) {
    return reportPlain(module, line, "KEL0021-E Please do not specify 0 or less for a size of data.");
}

int KelPthErr0022(const char *module, int line, const char *detail) {
    return reportFormatted(module, line, "KEL0022-E Ileagal Parameter. detail=%s\n",
                           detail != nullptr ? detail : "NULL");
}

int KelPthErr0023(const char *module, int line) {
    return reportPlain(module, line, "KEL0023-E Request time out.");
}

int KelPthErr0024(const char *module, int line, const char *driveKind) {
    return reportFormatted(module, line, "KEL0024-E <%s> drive does not support this command.\n", driveKind);
}

int KelPthErr0025(const char *module, int line) {
    return reportPlain(module, line, "KEL0025-E This command is vendor specific.");
}

int KelPthErr0026(const char *module, int line, const char *driveName) {
    return reportFormatted(module, line, "KEL0026-I Supprted by %s.\n", driveName);
}

int KelIsErr(const char *module, int line, uint32_t status, uint8_t *detail) {
    static const uint8_t emptyArea[kDetailAreaSize] = {};
    const uint8_t *area = detail != nullptr ? detail : emptyArea;
    switch (status) {
    case KEL_STATUS_PARAMETER:
        KelPthErr0014(module, line, static_cast<int8_t>(area[0]));
        break;
    case KEL_STATUS_UNSUPPORTED:
        KelPthErr0015(module, line);
        break;
    case KEL_STATUS_EXECUTION: {
        DetailText text(area);
        KelPthErr0016(module, line, text.text);
        break;
    }
    case KEL_STATUS_CHECK_CONDITION:
        KelPthErr0005(module, line, area);
        break;
    case KEL_STATUS_SYSTEM_CALL: {
        DetailText text(area);
        KelPthErr0013(module, line, text.text);
        break;
    }
    case KEL_STATUS_READ_AND_WRITE:
        KelPthErr0017(module, line);
        break;
    case KEL_STATUS_NO_MEMORY: {
        DetailText text(area);
        KelPthErr0007(module, line, atoi(text.text), "Failed in Library");
        break;
    }
    case KEL_STATUS_TIMEOUT:
        KelPthErr0023(module, line);
        break;
    default:
        KelPthErr0004(module, line, "KelIsErr", status);
        break;
    }
    KelPthErr0002(module, line);
    return 0;
}
