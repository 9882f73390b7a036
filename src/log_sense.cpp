// L: the log-sense report. For every SAS drive of every controller, LOG SENSE page 0x31
// (the errors the drive raised in the past) as a table, then page 0x32 (SMART counters)
// through the decoder of the drive's family. SATA drives are skipped with a trace line.
#define KEL_MODULE "KelPthCmd"
#include <cstdio>
#include <cstring>

#include "kelctl.h"
#include "kelpth.h"
#include "kelpth/checks.h"
#include "kelpth/command_codes.h"
#include "kelpth/command_steps.h"
#include "kelpth/diagnostics.h"
#include "kelpth/handlers.h"
#include "kelpth/messages.h"
#include "kelpth/trace.h"
#include "layouts/smart_log_layouts.h"

namespace {

constexpr int kSlotsPerController = 8;
constexpr uint8_t kLogSense = 0x4D;
constexpr uint8_t kInquiry = 0x12;

constexpr uint16_t kPage31Size = 13684; // a 4-byte header and 171 entries of 80 bytes
constexpr uint32_t kPage31EntrySize = 80;
constexpr uint32_t kInquirySize = 512;
constexpr uint8_t kInquiryAllocation = 0x52;

// Right-aligned decimal at least `width` characters wide, padded with `pad` ("%8u", "%02u").
char *putDecimal(char *out, uint32_t value, int width, char pad) {
    char digits[10];
    int count = 0;
    do {
        digits[count++] = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value != 0);
    for (int i = count; i < width; i++) {
        *out++ = pad;
    }
    while (count > 0) {
        *out++ = digits[--count];
    }
    return out;
}

char *putHexByte(char *out, uint8_t value) { // "%02X"
    static const char kDigits[] = "0123456789ABCDEF";
    *out++ = kDigits[value >> 4];
    *out++ = kDigits[value & 0x0F];
    return out;
}

// Hours (or minutes in hours) with two decimals, "%8u.%02u" of the whole and hundredths.
char *putHundredths(char *out, uint32_t whole, uint32_t hundredths) {
    out = putDecimal(out, whole, 8, ' ');
    *out++ = '.';
    return putDecimal(out, hundredths, 2, '0');
}

static_assert(kellayouts::kLayout147.walkLength <= kLogPage32BufferSize, "every page walk stays in the buffer");

// "\n<<<Logpage31:過去にHDDが挙げたエラーログ>>>" and "\n<<<Logpage32:HDD SMART系ログ>>>" (EUC-JP)
const char kPage31Title[] = "\n<<<Logpage31:\xB2\xE1\xB5\xEE\xA4\xCBHDD\xA4\xAC\xB5\xF3\xA4\xB2\xA4\xBF\xA5\xA8\xA5\xE9"
                            "\xA1\xBC\xA5\xED\xA5\xB0>>>";
const char kPage32Title[] = "\n<<<Logpage32:HDD SMART\xB7\xCF\xA5\xED\xA5\xB0>>>";
// "No.\t累積(h)\t\tP-On(m)\t\tｾﾝｽﾃﾞｰﾀ\tLBA\t\tCDB", the sense column in half-width katakana
const char kPage31Heading[] =
    "No.\t\xCE\xDF\xC0\xD1(h)\t\tP-On(m)\t\t\x8E\xBE\x8E\xDD\x8E\xBD\x8E\xC3\x8E\xDE\x8E\xB0\x8E"
    "\xC0\tLBA\t\tCDB";

// The decoder of each family; the page lengths come from the shared layouts.
struct SmartDecoder {
    const kellayouts::SmartLayout *layout;
    int (*print)(const uint8_t *page);
};
const SmartDecoder kSmartDecoders[] = {
    {&kellayouts::kLayout073, PrintLogPage32Fix73},
    {&kellayouts::kLayout147, PrintLogPage32Fix146},
    {&kellayouts::kLayout300, PrintLogPage32Fix146},
    {&kellayouts::kLayout036, PrintLogPage32Fix36},
};

uint32_t readBigEndian32(const uint8_t *bytes) {
    return static_cast<uint32_t>(bytes[0]) << 24 | static_cast<uint32_t>(bytes[1]) << 16 |
           static_cast<uint32_t>(bytes[2]) << 8 | bytes[3];
}

// A wrapped data-in request to one physical drive, the inner command from CDB byte 2.
void prepareWrappedRead(PassThroughRequest *request, int controllerNo, int driveNo) {
    memset(request, 0, sizeof *request);
    request->targetKind = KEL_TARGET_PHYSICAL;
    request->controllerNo = static_cast<uint8_t>(controllerNo);
    request->driveNo = static_cast<uint8_t>(driveNo);
    request->direction = KEL_DIR_IN;
    request->cdbLength = 12;
    request->cdb[0] = kWrapDataIn;
    request->cdb[1] = static_cast<uint8_t>(driveNo);
}

// LOG SENSE of one page with its allocation length in inner bytes 7..8.
void setLogSense(PassThroughRequest *request, uint8_t page, uint16_t allocation) {
    request->cdb[2] = kLogSense;
    request->cdb[4] = page;
    request->cdb[9] = static_cast<uint8_t>(allocation >> 8);
    request->cdb[10] = static_cast<uint8_t>(allocation);
}

} // namespace

namespace {

// One drive of the report: both pages, the second only when the first came back.
int reportDrive(int controllerNo, int slot, void *) {
    if (slot != 0) {
        printf("\n");
    }
    showControllerNo(controllerNo);
    showPhysicalDriveNo(slot);
    puts(kPage31Title);
    if (LogPage31Command(controllerNo, slot) != 0) {
        puts(kPage32Title);
        LogPage32Command(controllerNo, slot);
    }
    return 1; // a failing drive does not stop the walk
}

} // namespace

int32_t KelPrintLogsense() {
    traceCall("KelPrintLogsense");
    walkSasDrives("KelPrintLogsense", reportDrive, nullptr);
    return 1;
}

int walkSasDrives(const char *handlerName, SasDriveVisit visit, void *context) {
    uint8_t controllerCount = 0;
    getContNum(&controllerCount);
    for (int controllerNo = 0; controllerNo < controllerCount; controllerNo++) {
        for (int slot = 0; slot < kSlotsPerController; slot++) {
            if (DriveCheck_Silence(controllerNo, slot) != 1) {
                continue;
            }
            uint32_t interfaceType = kInterfaceSas;
            if (getHddType(controllerNo, slot, &interfaceType) == 1 && interfaceType == kInterfaceSata) {
                traceLine("[%s] drive of controller[%d] Hdd[%d] skipped for not supported [%s] command.", "SATA",
                          controllerNo, slot, handlerName);
                continue;
            }
            if (visit(controllerNo, slot, context) == 0) {
                return 0;
            }
        }
    }
    return 1;
}

int LogPage31Command(int controllerNo, int driveNo) {
    PassThroughRequest request;
    uint8_t data[kPage31Size] = {};
    uint32_t dataLength = kPage31Size;
    SenseArea sense;
    prepareWrappedRead(&request, controllerNo, driveNo);
    setLogSense(&request, 0x31, kPage31Size);

    showCdb(request);
    if (sendDataIn(KEL_HERE, KelPasLogSense, &request, data, &dataLength, &sense) == 0) {
        return 0;
    }
    PrintLogPage31(data, kPage31Size);
    return 1;
}

int PrintLogPage31(const uint8_t *data, uint16_t length) {
    if (data == nullptr) {
        KelPthErr0014(KEL_HERE, 1);
        KelPthErr0002(KEL_HERE);
        return 0;
    }
    if (length == 0) {
        KelPthErr0014(KEL_HERE, 2);
        KelPthErr0002(KEL_HERE);
        return 0;
    }
    puts(kPage31Heading);
    for (uint32_t offset = 4; offset < length; offset += kPage31EntrySize) {
        // An entry cut by the end of the data reads as zeros past it.
        uint8_t entry[kPage31EntrySize] = {};
        memcpy(entry, data + offset, length - offset < kPage31EntrySize ? length - offset : kPage31EntrySize);
        const uint32_t seconds = readBigEndian32(&entry[8]);
        const uint32_t minutes = readBigEndian32(&entry[12]);
        // One line an entry, put together by hand: a report holds 171 of them a drive.
        char line[96];
        char *out = putDecimal(line, entry[1], 3, '0');
        *out++ = '\t';
        out = putHundredths(out, seconds / 3600, (seconds % 3600) * 100 / 3600);
        *out++ = '\t';
        out = putHundredths(out, minutes / 60, (minutes % 60) * 100 / 60);
        *out++ = '\t';
        for (uint8_t byte : {static_cast<uint8_t>(entry[18] & 0x0F), entry[28], entry[29]}) {
            out = putHexByte(out, byte);
        }
        *out++ = '\t';
        for (uint8_t byte : {entry[19], entry[20], entry[21], entry[22]}) {
            out = putHexByte(out, byte);
        }
        *out++ = '\t';
        out = putHexByte(out, entry[64]);
        *out++ = '\n';
        fwrite(line, 1, static_cast<size_t>(out - line), stdout);
    }
    return 1;
}

int LogPage32Command(int controllerNo, int driveNo) {
    char vendor[9] = {};
    char product[17] = {};
    char revision[5] = {};
    if (GetInquiry(controllerNo, driveNo, vendor, product, revision, 1) == 0) {
        return 0;
    }
    const SmartDecoder *decoder = nullptr;
    for (const SmartDecoder &candidate : kSmartDecoders) {
        if (strncmp(product + 4, candidate.layout->family, 3) == 0) {
            decoder = &candidate;
        }
    }
    if (decoder == nullptr) {
        return 1; // a model without a decoder: the title stands alone
    }
    PassThroughRequest request;
    uint8_t data[kLogPage32BufferSize] = {};
    uint32_t dataLength = kLogPage32BufferSize;
    SenseArea sense;
    prepareWrappedRead(&request, controllerNo, driveNo);
    setLogSense(&request, 0x32, decoder->layout->allocationLength);

    showCdb(request);
    if (sendDataIn(KEL_HERE, KelPasLogSense, &request, data, &dataLength, &sense) == 0) {
        return 0;
    }
    decoder->print(data);
    return 1;
}

int GetInquiry(int controllerNo, int driveNo, char *vendorOut, char *productOut, char *revisionOut, int reportErrors) {
    const struct {
        const void *buffer;
        int argNo;
    } outputs[] = {{vendorOut, 3}, {productOut, 4}, {revisionOut, 5}};
    for (const auto &output : outputs) {
        if (output.buffer == nullptr) {
            KelPthErr0014(KEL_HERE, output.argNo);
            KelPthErr0002(KEL_HERE);
            return 0;
        }
    }
    PassThroughRequest request;
    uint8_t data[kInquirySize] = {};
    uint32_t dataLength = kInquirySize;
    SenseArea sense;
    prepareWrappedRead(&request, controllerNo, driveNo);
    request.cdb[2] = kInquiry;
    request.cdb[6] = kInquiryAllocation;
    request.cdb[10] = kInquiryAllocation; // beyond the INQUIRY command; the controller has always had it
    const int status = KelPasInquiry(&request, data, &dataLength, sense.bytes, &sense.size);
    if (status != 0) {
        if (reportErrors == 1) {
            KelIsErr(KEL_HERE, static_cast<uint32_t>(status), sense.bytes);
        }
        return 0;
    }
    memcpy(vendorOut, data + 8, 8);
    memcpy(productOut, data + 16, 16);
    memcpy(revisionOut, data + 32, 4);
    return 1;
}
