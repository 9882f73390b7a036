// The SATA module's parameter-line readers: each is the shared value check with the
// SATA module's rules, its own entry line and its own label.
#define KEL_MODULE "KelPthCmd_SATA"
#include "kelpth/sata_line_readers.h"

#include "kelpth/messages.h"
#include "kelpth/param_file.h"

namespace {
LineRules sataRules(const char *entryName, bool clearErrno = true) {
    return {{clearErrno, true}, entryName, nullptr};
}

constexpr uint64_t kLargest48BitAddress = 0xFFFFFFFFFFFFull;
} // namespace

int getContNoFromLineBuf(char *line, uint8_t *controllerNo) {
    long value = 0;
    if (readDigitLine(KEL_HERE, sataRules("getContNoFromLineBuf"), line, "Controller No", &value) == 0) {
        return 0;
    }
    *controllerNo = static_cast<uint8_t>(value);
    return 1;
}

int getPhyDrvNoFromLineBuf(char *line, uint8_t *driveNo) {
    long value = 0;
    if (readDigitLine(KEL_HERE, sataRules("getPhyDrvNoFromLineBuf", false), line, "Drive No", &value) == 0) {
        return 0;
    }
    *driveNo = static_cast<uint8_t>(value);
    return 1;
}

int freeMakeCdbFromLineBuf(char *line, uint8_t *cdb, int32_t *cdbLength) {
    uint32_t length = 0;
    const int result = readCdbLine(KEL_HERE, sataRules("freeMakeCdbFromLineBuf"), line, 0, cdb, &length);
    *cdbLength = static_cast<int32_t>(length);
    return result;
}

int getDirectionFromLineBuf(char *line, uint8_t *direction) {
    return readDirectionLine(KEL_HERE, sataRules("getDirectionFromLineBuf", false), line, true, direction);
}

int getDataLengthFromLineBuffer(char *line, uint32_t *length, int32_t *zeroLength) {
    if (readDataLengthLine(KEL_HERE, sataRules("getDataLengthFromLineBuffer"), line, length) == 0) {
        return 0;
    }
    if (*length == 0) {
        *zeroLength = 1;
    }
    return 1;
}

int getAddress48FromLineBuf(char *line, uint64_t *address) {
    // Only 17 characters are converted, so "0x" and sixteen digits lose the last digit.
    const NumberSyntax syntax{16, 16, 17};
    uint64_t value = 0;
    if (readNumberLine(KEL_HERE, sataRules("getAddress48FromLineBuf"), line, syntax, "Address", &value) == 0) {
        return 0;
    }
    if (value > kLargest48BitAddress) {
        KelPthErr0022(KEL_HERE, "Address");
        KelPthErr0002(KEL_HERE);
        return 0;
    }
    *address = value;
    return 1;
}

int getFlagOnOrNot(char *line, const char *label, int32_t *flag) {
    const LineRules rules{{true, true}, "getFlagOnOrNot", label};
    long value = 0;
    if (readChoiceLine(KEL_HERE, rules, line, label, 1, &value) == 0) {
        return 0;
    }
    *flag = static_cast<int32_t>(value);
    return 1;
}

int createWriteDataFromLineBuffer(char *line, uint32_t capacity, uint8_t *buffer, uint32_t *filled) {
    // The entry line is traced on the first Data line of the run only.
    static bool traced = false;
    const LineRules rules = sataRules(traced ? nullptr : "createWriteDataFromLineBuffer");
    traced = true;
    return appendDataLine(KEL_HERE, rules, line, DataOverflow::PastRoomLeft, buffer, capacity, filled);
}

int getNumberFromLineBuf(int base, char *line, int maxDigits, uint64_t *value) {
    const NumberSyntax syntax{base, maxDigits < 0 ? 0 : static_cast<size_t>(maxDigits), 0};
    return readNumberLine(KEL_HERE, sataRules("getNumberFromLineBuf"), line, syntax, nullptr, value);
}
