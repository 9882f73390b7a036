// The syntax of every value kelpth reads from its command line or a parameter file:
// one decimal digit, a hex number with an optional "0x" and a digit limit, a hex byte
// string. Command-line arguments, the main module's inline file checks and the SATA
// module's line readers all use these; where they differ, ConvertRules says how.
#pragma once

#include <cstddef>
#include <cstdint>

struct ConvertRules {
    bool clearErrno = true; // set errno to 0 before converting (one SATA reader does not)
    bool checkEnd = false;  // the conversion must consume the whole text
};

// Cuts the text at its first "\r\n" and then drops one final '\n'. A lone CR stays.
void cutLineEnd(char *text);

// Exactly one character, a decimal digit.
bool isOneDecimalDigit(const char *text);

// Optional "0x" (lower-case x), then hex digits up to the end, at most maxDigits of them.
// The character after a "0x" must be a hex digit ("0x" alone fails); an empty text passes.
bool scanHexNumber(const char *text, size_t maxDigits);

// Decimal digits up to the end, at most maxDigits of them; an empty text passes.
bool scanDecimalNumber(const char *text, size_t maxDigits);

// strtol/strtoul/strtoull with kelpth's failure tests: the extreme value with ERANGE,
// 0 with errno set, and (checkEnd) text left after the number.
bool convertLong(const char *text, int base, ConvertRules rules, long *out);
bool convertULong(const char *text, int base, ConvertRules rules, unsigned long *out);
bool convertULongLong(const char *text, int base, ConvertRules rules, unsigned long long *out);

// Cut the line end, require one decimal digit, convert it base 16.
bool readDigitValue(char *text, ConvertRules rules, long *out);

// Cut the line end, scan as a hex number of at most maxDigits, convert base 16.
bool readHexValue32(char *text, size_t maxDigits, ConvertRules rules, uint32_t *out);
bool readHexValue64(char *text, size_t maxDigits, ConvertRules rules, uint64_t *out);

// Number of hex characters of a byte-string line: its length less "\r\n" or "\n";
// a line with no line end counts as 0 when noEndMeansEmpty, else its full length.
size_t hexStringLength(const char *line, bool noEndMeansEmpty);

// Converts the pair of hex digits at text[0..1]; false when either is not a hex digit.
bool convertHexPair(const char *text, uint8_t *out);
