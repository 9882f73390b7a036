// Parameter files: opening, the value-line loop and the check of each kind of value.
#define KEL_MODULE "KelPthCmd"
#include "kelpth/param_file.h"

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "kelpth/checks.h"
#include "kelpth/command_steps.h"
#include "kelpth/messages.h"
#include "kelpth/trace.h"

ParamFile::ParamFile(size_t bufferSize, size_t readSize)
    : buffer_(bufferSize, '\0'), readSize_(static_cast<int>(readSize < bufferSize ? readSize : bufferSize)) {}

ParamFile::~ParamFile() {
    close();
}

int ParamFile::open(const char *module, int line, const char *argument) {
    char resolved[PATH_MAX > sizeof resolvedPath_ ? PATH_MAX : sizeof resolvedPath_] = {};
    if (realpath(argument, resolved) == nullptr) {
        KelPthErr0004(module, line, "realpath", static_cast<uint32_t>(errno));
        KelPthErr0002(module, line);
        return 0;
    }
    snprintf(resolvedPath_, sizeof resolvedPath_, "%s", resolved);
    file_ = fopen(resolvedPath_, "rb");
    if (file_ == nullptr) {
        KelPthErr0006(module, line, errno);
        KelPthErr0002(module, line);
        return 0;
    }
    return 1;
}

char *ParamFile::nextValueLine() {
    if (file_ == nullptr) {
        return nullptr;
    }
    for (;;) {
        memset(buffer_.data(), 0, buffer_.size());
        if (fgets(buffer_.data(), readSize_, file_) == nullptr) {
            return nullptr;
        }
        const unsigned char first = static_cast<unsigned char>(buffer_[0]);
        if (first == '/' || isspace(first)) {
            continue;
        }
        valueLines_++;
        return buffer_.data();
    }
}

void ParamFile::reportReadError(const char *module, int line) {
    if (file_ != nullptr && ferror(file_)) {
        KelPthErr0004(module, line, "fgets", static_cast<uint32_t>(errno));
    }
}

void ParamFile::close() {
    if (file_ != nullptr) {
        fclose(file_);
        file_ = nullptr;
    }
}

void showParamFileName(const char *path) {
    printf("Parameter Filename :%s\n", path);
    traceLine("## Parameter Filename : %s", path);
}

int reportIncompleteFile(const char *module, int line, int32_t argNo) {
    KelPthErr0014(module, line, argNo);
    KelPthErr0002(module, line);
    return 0;
}

int reportBadParameterLine(const char *module, int line, int valueNo) {
    char detail[256] = {};
    snprintf(detail, sizeof detail, "%s(%d)", "Parameter", valueNo);
    KelPthErr0022(module, line, detail);
    KelPthErr0002(module, line);
    return 0;
}

namespace {

void traceEntry(const LineRules &rules) {
    if (rules.entryName == nullptr) {
        return;
    }
    if (rules.entryDetail == nullptr) {
        traceCall(rules.entryName);
    } else {
        traceLine("CALL - %s(%s)", rules.entryName, rules.entryDetail);
    }
}

int refuse(const char *module, int line, const char *label) {
    KelPthErr0022(module, line, label);
    KelPthErr0002(module, line);
    return 0;
}

bool isDigitInRange(char *text, const LineRules &rules, long highest, long *value) {
    long digit = 0;
    if (!readDigitValue(text, rules.convert, &digit) || digit > highest) {
        return false;
    }
    *value = digit;
    return true;
}

} // namespace

int readDigitLine(const char *module, int line, const LineRules &rules, char *text, const char *label, long *value) {
    traceEntry(rules);
    if (!isDigitInRange(text, rules, 9, value)) {
        return refuse(module, line, label);
    }
    return 1;
}

int readChoiceLine(const char *module, int line, const LineRules &rules, char *text, const char *label, long highest,
                   long *value) {
    traceEntry(rules);
    if (!isDigitInRange(text, rules, highest, value)) {
        return refuse(module, line, label);
    }
    return 1;
}

int readDirectionLine(const char *module, int line, const LineRules &rules, char *text, bool allowNoData,
                      uint8_t *direction) {
    traceEntry(rules);
    cutLineEnd(text);
    if (!isOneDecimalDigit(text)) {
        return refuse(module, line, "Direction");
    }
    if (rules.convert.clearErrno) {
        errno = 0;
    }
    switch (atoi(text)) {
    case 0:
        *direction = 1; // data from the drive
        break;
    case 1:
        *direction = 0; // data to the drive
        break;
    case 2:
        if (!allowNoData) {
            return refuse(module, line, "Direction");
        }
        *direction = 2;
        break;
    default:
        return refuse(module, line, "Direction");
    }
    if (errno == ERANGE || errno == EINVAL) {
        return refuse(module, line, "Direction");
    }
    return 1;
}

int readNumberLine(const char *module, int line, const LineRules &rules, char *text, NumberSyntax syntax,
                   const char *label, uint64_t *value) {
    traceEntry(rules);
    cutLineEnd(text);
    bool ok = scanHexNumber(text, syntax.maxDigits);
    unsigned long long converted = 0;
    if (ok) {
        std::vector<char> head(text, text + strlen(text) + 1);
        if (syntax.convertedChars != 0 && syntax.convertedChars < head.size()) {
            head[syntax.convertedChars] = '\0';
        }
        ok = convertULongLong(head.data(), syntax.base, rules.convert, &converted);
    }
    if (!ok) {
        return label == nullptr ? 0 : refuse(module, line, label);
    }
    *value = converted;
    return 1;
}

int readDataLengthLine(const char *module, int line, const LineRules &rules, char *text, uint32_t *length) {
    traceEntry(rules);
    uint32_t value = 0;
    if (!readHexValue32(text, 8, rules.convert, &value)) {
        return refuse(module, line, "Data Length");
    }
    if (value > kLargestDataLength) {
        return refuse(module, line, "Data Length: Send max size over 64K bytes");
    }
    *length = value;
    return 1;
}

int readCdbLine(const char *module, int line, const LineRules &rules, const char *text, size_t fixedBytes, uint8_t *cdb,
                uint32_t *cdbLength) {
    traceEntry(rules);
    constexpr size_t kCdbSize = 16;
    const size_t hexChars = hexStringLength(text, true);
    const size_t pairsRoom = kCdbSize - fixedBytes;
    const size_t pairs = hexChars < pairsRoom * 2 + 1 ? hexChars / 2 : pairsRoom;
    *cdbLength = static_cast<uint32_t>(pairs + fixedBytes);
    for (size_t i = 0; i < pairs; i++) {
        if (!convertHexPair(text + 2 * i, &cdb[fixedBytes + i])) {
            return refuse(module, line, "CDB");
        }
    }
    return 1;
}

int appendDataLine(const char *module, int line, const LineRules &rules, const char *text, DataOverflow overflow,
                   uint8_t *buffer, uint32_t capacity, uint32_t *filled) {
    traceEntry(rules);
    const size_t count = hexStringLength(text, false) / 2;
    std::vector<uint8_t> staged(count);
    for (size_t i = 0; i < count; i++) {
        if (!convertHexPair(text + 2 * i, &staged[i])) {
            return refuse(module, line, "Data");
        }
    }
    const size_t room = *filled < capacity ? capacity - *filled : 0;
    size_t stored = count;
    if (overflow == DataOverflow::PastRoomLeft) {
        if (count > room) {
            return refuse(module, line, "Data Length");
        }
    } else {
        if (count > capacity) {
            return refuse(module, line, "Data Length");
        }
        // What runs past the length would never be sent: drop it instead of writing it.
        stored = count < room ? count : room;
    }
    if (stored > 0) {
        memcpy(buffer + *filled, staged.data(), stored);
    }
    *filled += static_cast<uint32_t>(stored);
    return 1;
}

int readControllerLine(const char *module, int line, char *text, PassThroughRequest *request) {
    long controllerNo = 0;
    if (readDigitLine(module, line, kInlineLineRules, text, "Controller No", &controllerNo) == 0) {
        return 0;
    }
    request->controllerNo = static_cast<uint8_t>(controllerNo);
    if (ControllerCheck(module, line, request->controllerNo) == 0) {
        return 0;
    }
    showControllerNo(request->controllerNo);
    return 1;
}

int readPhysicalDriveLine(const char *module, int line, char *text, PassThroughRequest *request) {
    long driveNo = 0;
    if (readDigitLine(module, line, kInlineLineRules, text, "Drive No", &driveNo) == 0) {
        return 0;
    }
    request->driveNo = static_cast<uint8_t>(driveNo);
    request->cdb[1] = request->driveNo;
    if (DriveCheck(module, line, request->controllerNo, request->driveNo, kPhysicalDrive) == 0) {
        return 0;
    }
    showPhysicalDriveNo(request->driveNo);
    printf("\n");
    return 1;
}
