// Value syntax shared by every argument and parameter-file check.
#include "kelpth/value_syntax.h"

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

void cutLineEnd(char *text) {
    if (char *crlf = strstr(text, "\r\n")) {
        *crlf = '\0';
    }
    size_t length = strlen(text);
    if (length > 0 && text[length - 1] == '\n') {
        text[length - 1] = '\0';
    }
}

bool isOneDecimalDigit(const char *text) {
    return strlen(text) == 1 && isdigit(static_cast<unsigned char>(text[0]));
}

bool scanHexNumber(const char *text, size_t maxDigits) {
    size_t length = strlen(text);
    size_t limit = maxDigits;
    for (size_t i = 0; i < length; i++) {
        if (i == 0 && text[0] == '0' && text[1] == 'x') {
            i = 2;
            limit = maxDigits + 2;
        }
        if (i >= limit) {
            return false; // one digit too many
        }
        if (!isxdigit(static_cast<unsigned char>(text[i]))) {
            return false; // also the end of a text that is just "0x"
        }
    }
    return true;
}

bool scanDecimalNumber(const char *text, size_t maxDigits) {
    size_t length = 0;
    for (; text[length] != '\0'; length++) {
        if (length >= maxDigits || !isdigit(static_cast<unsigned char>(text[length]))) {
            return false;
        }
    }
    return true;
}

namespace {
template <typename T, typename Convert>
bool convertWith(const char *text, int base, ConvertRules rules, T low, T high, Convert convert, T *out) {
    if (rules.clearErrno) {
        errno = 0;
    }
    char *end = nullptr;
    T value = convert(text, &end, base);
    if (rules.checkEnd && *end != '\0') {
        return false;
    }
    if (value == 0 && errno != 0) {
        return false;
    }
    if ((value == high || (low != 0 && value == low)) && errno == ERANGE) {
        return false;
    }
    *out = value;
    return true;
}
} // namespace

bool convertLong(const char *text, int base, ConvertRules rules, long *out) {
    return convertWith<long>(text, base, rules, LONG_MIN, LONG_MAX, strtol, out);
}

bool convertULong(const char *text, int base, ConvertRules rules, unsigned long *out) {
    return convertWith<unsigned long>(text, base, rules, 0, ULONG_MAX, strtoul, out);
}

bool convertULongLong(const char *text, int base, ConvertRules rules, unsigned long long *out) {
    return convertWith<unsigned long long>(text, base, rules, 0, ULLONG_MAX, strtoull, out);
}

bool readDigitValue(char *text, ConvertRules rules, long *out) {
    cutLineEnd(text);
    return isOneDecimalDigit(text) && convertLong(text, 16, rules, out);
}

bool readHexValue32(char *text, size_t maxDigits, ConvertRules rules, uint32_t *out) {
    cutLineEnd(text);
    unsigned long value = 0;
    if (!scanHexNumber(text, maxDigits) || !convertULong(text, 16, rules, &value)) {
        return false;
    }
    *out = static_cast<uint32_t>(value);
    return true;
}

bool readHexValue64(char *text, size_t maxDigits, ConvertRules rules, uint64_t *out) {
    cutLineEnd(text);
    unsigned long long value = 0;
    if (!scanHexNumber(text, maxDigits) || !convertULongLong(text, 16, rules, &value)) {
        return false;
    }
    *out = value;
    return true;
}

size_t hexStringLength(const char *line, bool noEndMeansEmpty) {
    size_t length = strlen(line);
    if (strstr(line, "\r\n") != nullptr) {
        return length - 2;
    }
    if (length > 0 && line[length - 1] == '\n') {
        return length - 1;
    }
    return noEndMeansEmpty ? 0 : length;
}

bool convertHexPair(const char *text, uint8_t *out) {
    if (!isxdigit(static_cast<unsigned char>(text[0])) || !isxdigit(static_cast<unsigned char>(text[1]))) {
        return false;
    }
    char pair[3] = {text[0], text[1], '\0'};
    *out = static_cast<uint8_t>(strtol(pair, nullptr, 16));
    return true;
}
