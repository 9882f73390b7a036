// Parameter files: opening one, walking its value lines, and checking each kind of
// value a line can hold. Every command that reads a parameter file uses these; the
// main module's inline checks and the SATA module's line readers differ only in the
// LineRules they pass and in the module and line they report from (KEL_HERE).
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "kelpth.h"
#include "kelpth/value_syntax.h"

// Where one caller's checks differ from another's.
struct LineRules {
    ConvertRules convert;              // errno cleared before converting; end pointer checked
    const char *entryName = nullptr;   // traced "CALL - <entryName>()" on entry (SATA readers)
    const char *entryDetail = nullptr; // with entryName: "CALL - <entryName>(<entryDetail>)"
};

// The main module's inline checks: errno cleared, end pointer checked, no entry line.
constexpr LineRules kInlineLineRules{{true, true}, nullptr, nullptr};

// Line buffers: P, ANY, E, R, W and e read 1024 bytes at a time; N, N5 and A read whole
// 65536-byte lines; the SATA free pass-through reads 1025 into a 65536-byte buffer.
constexpr size_t kShortLineRead = 1024;
constexpr size_t kSataLineRead = 1025;
constexpr size_t kLongLineBuffer = 65536;

// An open parameter file and its line buffer; closes itself.
class ParamFile {
  public:
    ParamFile(size_t bufferSize, size_t readSize);
    ~ParamFile();
    ParamFile(const ParamFile &) = delete;
    ParamFile &operator=(const ParamFile &) = delete;

    // realpath into a 4096-byte buffer (failure: KEL0004 "realpath" with errno), then
    // fopen "rb" (failure: KEL0006 with errno); each failure adds KEL0002 and gives 0.
    int open(const char *module, int line, const char *argument);
    const char *path() const { return resolvedPath_; }

    // Reads on to the next value line: the buffer is cleared before every read, lines
    // starting with '/' or white space are skipped. Returns the line as read (line end
    // included) or null at the end of the file or on a read error.
    char *nextValueLine();
    // Value lines read so far, counted from 1.
    int valueLineCount() const { return valueLines_; }

    // After the loop: a read error is reported as KEL0004 "fgets" with errno.
    void reportReadError(const char *module, int line);
    void close();

  private:
    FILE *file_ = nullptr;
    std::vector<char> buffer_;
    int readSize_;
    int valueLines_ = 0;
    char resolvedPath_[4096] = {};
};

// "Parameter Filename :%s" on the screen and "## Parameter Filename : %s" in the trace.
void showParamFileName(const char *path);

// The file ended before its last required line: KEL0014 with argNo, KEL0002; gives 0.
int reportIncompleteFile(const char *module, int line, int32_t argNo);

// A numbered value line that is bad: KEL0022 with "Parameter(<valueNo>)", KEL0002; gives 0.
int reportBadParameterLine(const char *module, int line, int valueNo);

// Each check below cuts the line end of a value (byte strings count it instead), and on
// a bad value reports KEL0022 with the label and KEL0002 and gives 0; otherwise it
// stores the value and gives 1.

// Exactly one decimal digit, converted base 16.
int readDigitLine(const char *module, int line, const LineRules &rules, char *text, const char *label, long *value);

// The main module's controller line: one digit, ControllerCheck, then its progress line.
// Gives 0 after the failure's messages.
int readControllerLine(const char *module, int line, char *text, PassThroughRequest *request);

// The main module's physical-drive line: one digit, also put in the wrapper's byte 1,
// DriveCheck, then its progress line and a blank line. Gives 0 after the failure's messages.
int readPhysicalDriveLine(const char *module, int line, char *text, PassThroughRequest *request);

// One decimal digit (atoi) from 0 to highest.
int readChoiceLine(const char *module, int line, const LineRules &rules, char *text, const char *label, long highest,
                   long *value);

// A Direction line: "0" reads from the drive (1), "1" writes to it (0) and, with
// allowNoData, "2" sends no data (2). When errno is not cleared first, an ERANGE or
// EINVAL left by earlier calls still fails the line.
int readDirectionLine(const char *module, int line, const LineRules &rules, char *text, bool allowNoData,
                      uint8_t *direction);

struct NumberSyntax {
    int base = 16;             // the digits are always scanned as hex, then converted in base
    size_t maxDigits = 8;      // after an optional "0x"
    size_t convertedChars = 0; // only this many leading characters are converted (0: all)
};

// A number of the given syntax. A null label reports nothing.
int readNumberLine(const char *module, int line, const LineRules &rules, char *text, NumberSyntax syntax,
                   const char *label, uint64_t *value);

// A "Data Length" line: at most 8 hex digits and at most 65536 (larger values report
// "Data Length: Send max size over 64K bytes").
constexpr uint32_t kLargestDataLength = 0x10000;
int readDataLengthLine(const char *module, int line, const LineRules &rules, char *text, uint32_t *length);

// A "CDB" line of hex pairs. fixedBytes command bytes lead the CDB (2 for the wrapped
// SAS form, 0 for a whole SATA CDB); the pairs fill the rest, at most 16 - fixedBytes of
// them, and the CDB length becomes pairs + fixedBytes. A line with no line end holds no
// pairs. The pairs go to cdb[fixedBytes] onward.
int readCdbLine(const char *module, int line, const LineRules &rules, const char *text, size_t fixedBytes, uint8_t *cdb,
                uint32_t *cdbLength);

// How a Data line that runs past the data length is treated.
enum class DataOverflow {
    LineLongerThanLength, // refused only when the line alone is longer than the length;
                          // otherwise what fits is stored and the rest dropped
    PastRoomLeft,         // refused when it would run past the length; nothing stored
};

// A "Data" line of hex pairs (a bad pair reports "Data", an overflow "Data Length"),
// appended to buffer at *filled; buffer holds at least capacity bytes.
int appendDataLine(const char *module, int line, const LineRules &rules, const char *text, DataOverflow overflow,
                   uint8_t *buffer, uint32_t capacity, uint32_t *filled);
