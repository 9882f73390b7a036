// PDPrintModePage: one mode page of a SAS drive read with MODE SENSE(6), shown on the
// screen and appended as a text dump with CR LF lines to "Cnt<c>Dev<d>.txt".
#define KEL_MODULE "KelPthCmd"
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "kelpth.h"
#include "kelpth/checks.h"
#include "kelpth/command_codes.h"
#include "kelpth/command_steps.h"
#include "kelpth/diagnostics.h"
#include "kelpth/dump.h"
#include "kelpth/functbl.h"
#include "kelpth/handlers.h"
#include "kelpth/messages.h"
#include "kelpth/trace.h"
#include "kelpth/value_syntax.h"

namespace {

constexpr uint32_t kModeDataSize = 0x10000;
constexpr uint8_t kModeSense6 = 0x1A;
constexpr uint8_t kDisableBlockDescriptors = 0x08;
constexpr uint8_t kPageCodeMask = 0x3F;
constexpr size_t kFileNameSize = 64;

// A page code, sub page code or data size: one or two hex digits, no prefix.
int readHexByteArgument(const char *text, const char *label, uint8_t *value) {
    long converted = 0;
    const size_t length = strlen(text);
    const bool wellFormed = length >= 1 && length <= 2 && isxdigit(static_cast<unsigned char>(text[0])) &&
                            (length == 1 || isxdigit(static_cast<unsigned char>(text[1])));
    if (!wellFormed || !convertLong(text, 16, ConvertRules{true, false}, &converted)) {
        KelPthErr0022(KEL_HERE, label);
        KelPthErr0002(KEL_HERE);
        return 0;
    }
    *value = static_cast<uint8_t>(converted);
    return 1;
}

} // namespace

int32_t KelPDPrintModePage() {
    traceCall("KelPDPrintModePage");
    char **argv = functbl[kTblPrintModePage].argv;
    PassThroughRequest request;
    memset(&request, 0, sizeof request);
    SenseArea sense;
    uint32_t dataLength = kModeDataSize;
    char fileName[kFileNameSize] = {};

    if (readDriveTarget(KEL_HERE, argv[2], argv[3], kPhysicalDrive, &request) == 0) {
        return 0;
    }
    request.direction = KEL_DIR_IN;
    request.cdb[0] = kWrapDataIn;
    request.cdb[1] = request.driveNo;
    request.cdb[2] = kModeSense6;
    request.cdb[3] = kDisableBlockDescriptors;
    uint8_t pageCode = 0;
    uint8_t subPageCode = 0;
    uint8_t dataSize = 0;
    if (readHexByteArgument(argv[4], "Page Code", &pageCode) == 0 ||
        readHexByteArgument(argv[5], "Sub Page Code", &subPageCode) == 0 ||
        readHexByteArgument(argv[6], "Data Size", &dataSize) == 0) {
        return 0;
    }
    pageCode &= kPageCodeMask; // page control 0: current values
    request.cdb[4] = pageCode;
    request.cdb[5] = subPageCode;
    request.cdb[6] = dataSize;
    request.cdb[7] = 0x00;
    request.cdbLength = 8;

    showControllerNo(request.controllerNo);
    showPhysicalDriveNo(request.driveNo);
    if (getHddType(request.controllerNo, request.driveNo, &request.interfaceType) == 1 &&
        request.interfaceType == kInterfaceSata) {
        KelPthErr0024(KEL_HERE, "SATA");
        return 0;
    }
    printf("Page Code     : 0x%02X\n", pageCode);
    printf("Sub Page Code : 0x%02X\n", subPageCode);
    printf("Data Size     : 0x%02X\n\n", dataSize);
    traceLine("## Page Code     : 0x%02X", pageCode);
    traceLine("## Sub Page Code : 0x%02X", subPageCode);
    traceLine("## Data Size     : 0x%02X", dataSize);

    snprintf(fileName, sizeof fileName, "Cnt%dDev%d.txt", request.controllerNo, request.driveNo);
    showCdb(request);
    uint8_t *allocated = nullptr;
    if (MakeAllocData(&allocated, kModeDataSize) == 0) {
        return 0;
    }
    DataBuffer data(allocated);
    if (sendDataIn(KEL_HERE, KelPasModeSense, &request, data.get(), &dataLength, &sense) == 0) {
        return 0;
    }
    // The page is shown and saved as long as asked, whatever length came back.
    KelPasPrintData("Get HDD Mode Page", data.get(), dataSize, 0, dataSize);
    printf("\n");
    // A file that cannot be written is reported; the page has been shown all the same.
    FileWriteModePage(fileName, data.get(), dataSize);
    return 1;
}

int FileWriteModePage(const char *path, const uint8_t *data, uint32_t size) {
    if (path == nullptr) {
        KelPthErr0014(KEL_HERE, 1);
        KelPthErr0002(KEL_HERE);
        return 0;
    }
    if (data == nullptr) {
        KelPthErr0014(KEL_HERE, 2);
        KelPthErr0002(KEL_HERE);
        return 0;
    }
    FILE *file = fopen(path, "ab");
    if (file == nullptr) {
        KelPthErr0011(KEL_HERE, errno);
        KelPthErr0002(KEL_HERE);
        return 0;
    }
    fprintf(file, "[Get HDD Mode Page] Size=%d\r\n", static_cast<int>(size));
    fputs("-----------------------------------------------------------------------------\r\n", file);
    // The first offset stands even when there is no byte to show.
    if (size == 0) {
        fputs("00000000: ", file);
    }
    char row[kDumpRowSize];
    for (uint32_t first = 0; first < size; first += 16) {
        const uint32_t count = size - first < 16 ? size - first : 16;
        fwrite(row, 1, formatDumpRow(row, first, data + first, count, "\r\n"), file);
    }
    fputs("\r\n", file);
    const bool written = ferror(file) == 0;
    const int writeError = errno;
    const bool closed = fclose(file) == 0;
    if (!written || !closed) {
        KelPthErr0004(KEL_HERE, "fwrite", static_cast<uint32_t>(written ? errno : writeError));
        KelPthErr0002(KEL_HERE);
        return 0;
    }
    return 1;
}
