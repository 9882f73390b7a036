// Parameter files: the value-line loop (comments, indented lines, line splitting) and
// every kind of value line, through the main module's checks and the SATA readers.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "kelpth/param_file.h"
#include "kelpth/sata_line_readers.h"
#include "stdout_capture.h"
#include "support/scratch_folder.h"

namespace {

const std::string kAbnormalEnd = "KEL0002-I PassThrough Tool abnormal end.\n";

std::string illegal(const std::string &label) {
    return "KEL0022-E Ileagal Parameter. detail=" + label + "\n" + kAbnormalEnd;
}

// The value lines of a file as the loop hands them over.
std::vector<std::string> valueLines(const std::string &content, size_t bufferSize, size_t readSize) {
    ScratchFolder folder("kelpth-param");
    const std::string path = folder.path() + "/param.txt";
    std::ofstream(path, std::ios::binary) << content;
    ParamFile reader(bufferSize, readSize);
    std::vector<std::string> lines;
    EXPECT_EQ(reader.open("KelPthCmd", 1, path.c_str()), 1);
    while (char *line = reader.nextValueLine()) {
        lines.push_back(line);
        EXPECT_EQ(reader.valueLineCount(), static_cast<int>(lines.size()));
    }
    return lines;
}

TEST(ParamFileLoop, SkipsCommentsBlankAndIndentedLines) {
    const std::string content = "// Controller No\n0\n/one slash\n\n \t1\n\r\n\v\f2\n/\n3\r\n   \n4";
    EXPECT_EQ(valueLines(content, kLongLineBuffer, kShortLineRead), (std::vector<std::string>{"0\n", "3\r\n", "4"}));
}

TEST(ParamFileLoop, LongLinesAreSplitAtTheReadSize) {
    const std::string longLine(1500, 'A');
    const std::vector<std::string> shortReads = valueLines(longLine + "\n7\n", kShortLineRead, kShortLineRead);
    ASSERT_EQ(shortReads.size(), 3u);
    EXPECT_EQ(shortReads[0], std::string(1023, 'A'));
    EXPECT_EQ(shortReads[1], std::string(477, 'A') + "\n");
    EXPECT_EQ(shortReads[2], "7\n");

    // The SATA free pass-through reads 1025 bytes at a time into a larger buffer.
    const std::vector<std::string> sataReads = valueLines(longLine + "\n", kLongLineBuffer, kSataLineRead);
    ASSERT_EQ(sataReads.size(), 2u);
    EXPECT_EQ(sataReads[0].size(), 1024u);

    // A line that starts with a blank after the split is skipped like any indented line.
    const std::string splitOnBlank = std::string(1023, 'B') + " tail\n";
    EXPECT_EQ(valueLines(splitOnBlank, kShortLineRead, kShortLineRead).size(), 1u);
}

TEST(ParamFileLoop, EveryReadStartsFromACleanBuffer) {
    const std::vector<std::string> lines = valueLines("ABCDEFGH\nXY", kShortLineRead, kShortLineRead);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[1], "XY");
}

TEST(ParamFileOpen, FailuresAreReportedWithTheirCall) {
    ParamFile missing(kShortLineRead, kShortLineRead);
    std::string screen = screenOf([&] { EXPECT_EQ(missing.open("KelPthCmd", 1, "/nonexistent/param.txt"), 0); });
    EXPECT_EQ(screen, "KEL0004-E realpath() failed. detail=No such file or directory\n" + kAbnormalEnd);

    // A folder opens but cannot be read: the loop ends and the read error is reported.
    ParamFile folder(kShortLineRead, kShortLineRead);
    ASSERT_EQ(folder.open("KelPthCmd", 1, "/tmp"), 1);
    EXPECT_STREQ(folder.path(), "/tmp");
    screen = screenOf([&] {
        EXPECT_EQ(folder.nextValueLine(), nullptr);
        folder.reportReadError("KelPthCmd", 1);
    });
    EXPECT_EQ(screen, "KEL0004-E fgets() failed. detail=Is a directory\n");
}

TEST(ParamFileOpen, IncompleteFileNamesTheArgument) {
    const std::string mainModule = screenOf([] { reportIncompleteFile("KelPthCmd", 1, 0); });
    EXPECT_EQ(mainModule.rfind("KEL0014-E Parameter error. argno=*", 0), 0u) << mainModule;
    EXPECT_NE(mainModule.find(kAbnormalEnd), std::string::npos);
    EXPECT_EQ(screenOf([] { reportIncompleteFile("KelPthCmd_SATA", 1, 6); }),
              "KEL0014-E Parameter error. argno=6\n" + kAbnormalEnd);
}

struct DigitCase {
    const char *line;
    bool accepted;
    long value;
};

TEST(DigitLines, ExactlyOneDecimalDigit) {
    const DigitCase cases[] = {{"0\n", true, 0},   {"9\r\n", true, 9},  {"7", true, 7},    {"0 \n", false, 0},
                               {"10\n", false, 0}, {"A\n", false, 0},   {"0\r", false, 0}, {"0\r\n1", true, 0},
                               {"-1\n", false, 0}, {"\x01\n", false, 0}};
    for (const DigitCase &c : cases) {
        std::string line = c.line;
        long value = -1;
        std::string screen = screenOf([&] {
            EXPECT_EQ(readDigitLine("KelPthCmd", 1, kInlineLineRules, line.data(), "Controller No", &value),
                      c.accepted ? 1 : 0);
        });
        if (c.accepted) {
            EXPECT_EQ(value, c.value) << c.line;
            EXPECT_EQ(screen, "");
        } else {
            EXPECT_EQ(screen, illegal("Controller No")) << c.line;
        }
    }
}

TEST(DigitLines, OnlyTheDriveReaderSeesAnErrnoLeftByEarlierCalls) {
    std::string line = "0\n";
    uint8_t controllerNo = 0xFF;
    errno = EINVAL;
    EXPECT_EQ(getContNoFromLineBuf(line.data(), &controllerNo), 1);
    EXPECT_EQ(controllerNo, 0);

    line = "0\n";
    uint8_t driveNo = 0xFF;
    errno = EINVAL;
    EXPECT_EQ(screenOf([&] { EXPECT_EQ(getPhyDrvNoFromLineBuf(line.data(), &driveNo), 0); }), illegal("Drive No"));

    line = "5\n";
    errno = EINVAL;
    EXPECT_EQ(getPhyDrvNoFromLineBuf(line.data(), &driveNo), 1);
    EXPECT_EQ(driveNo, 5);
}

TEST(ChoiceLines, ContinuousnessAndFlagsAreZeroOrOne) {
    for (const char *text : {"0\n", "1\n"}) {
        std::string line = text;
        long value = -1;
        EXPECT_EQ(readChoiceLine("KelPthCmd", 1, kInlineLineRules, line.data(), "Continuousness", 1, &value), 1);
        EXPECT_EQ(value, text[0] - '0');
    }
    for (const char *text : {"2\n", "9\n", "01\n", "x\n"}) {
        std::string line = text;
        long value = -1;
        EXPECT_EQ(screenOf([&] {
                      readChoiceLine("KelPthCmd", 1, kInlineLineRules, line.data(), "Continuousness", 1, &value);
                  }),
                  illegal("Continuousness"))
            << text;
    }
    std::string line = "2\n";
    int32_t flag = -1;
    EXPECT_EQ(screenOf([&] { EXPECT_EQ(getFlagOnOrNot(line.data(), "Word block change on or not", &flag), 0); }),
              illegal("Word block change on or not"));
    line = "1\r\n";
    EXPECT_EQ(getFlagOnOrNot(line.data(), "A unit of transfer length", &flag), 1);
    EXPECT_EQ(flag, 1);
}

TEST(DirectionLines, ZeroReadsOneWritesTwoOnlyForSata) {
    struct Case {
        const char *line;
        int mainDirection; // -1: refused
        int sataDirection;
    };
    const Case cases[] = {{"0\n", 1, 1}, {"1\n", 0, 0}, {"2\n", -1, 2}, {"3\n", -1, -1}, {"1 \n", -1, -1}};
    for (const Case &c : cases) {
        std::string line = c.line;
        uint8_t direction = 0xEE;
        std::string screen =
            screenOf([&] { readDirectionLine("KelPthCmd", 1, kInlineLineRules, line.data(), false, &direction); });
        EXPECT_EQ(screen, c.mainDirection < 0 ? illegal("Direction") : "") << c.line;
        if (c.mainDirection >= 0) {
            EXPECT_EQ(direction, c.mainDirection) << c.line;
        }
        line = c.line;
        errno = 0;
        direction = 0xEE;
        screen = screenOf([&] { getDirectionFromLineBuf(line.data(), &direction); });
        EXPECT_EQ(screen, c.sataDirection < 0 ? illegal("Direction") : "") << c.line;
        if (c.sataDirection >= 0) {
            EXPECT_EQ(direction, c.sataDirection) << c.line;
        }
    }
    // The SATA reader does not clear errno first, so an old ERANGE fails a good digit.
    std::string line = "1\n";
    uint8_t direction = 0;
    errno = ERANGE;
    EXPECT_EQ(screenOf([&] { EXPECT_EQ(getDirectionFromLineBuf(line.data(), &direction), 0); }), illegal("Direction"));
}

TEST(DataLengthLines, AtMostEightHexDigitsAndSixtyFourKiB) {
    struct Case {
        const char *line;
        const char *refusal; // null: accepted
        uint32_t length;
    };
    const Case cases[] = {
        {"0x200\n", nullptr, 0x200},
        {"200\r\n", nullptr, 0x200},
        {"0x10000\n", nullptr, 0x10000},
        {"0\n", nullptr, 0},
        {"0X10\n", "Data Length", 0},
        {"123456789\n", "Data Length", 0},
        {"0x\n", "Data Length", 0},
        {"20 \n", "Data Length", 0},
        {"0x10001\n", "Data Length: Send max size over 64K bytes", 0},
        {"FFFFFFFF\n", "Data Length: Send max size over 64K bytes", 0},
    };
    for (const Case &c : cases) {
        std::string line = c.line;
        uint32_t length = 0xDEAD;
        std::string screen = screenOf([&] {
            EXPECT_EQ(readDataLengthLine("KelPthCmd", 1, kInlineLineRules, line.data(), &length), c.refusal ? 0 : 1);
        });
        EXPECT_EQ(screen, c.refusal ? illegal(c.refusal) : "") << c.line;
        if (c.refusal == nullptr) {
            EXPECT_EQ(length, c.length) << c.line;
        }
    }
    // The SATA reader flags a zero length and leaves the flag alone otherwise.
    std::string line = "0\n";
    uint32_t length = 1;
    int32_t zero = 0;
    EXPECT_EQ(getDataLengthFromLineBuffer(line.data(), &length, &zero), 1);
    EXPECT_EQ(zero, 1);
    line = "0x20\n";
    zero = 0;
    EXPECT_EQ(getDataLengthFromLineBuffer(line.data(), &length, &zero), 1);
    EXPECT_EQ(length, 0x20u);
    EXPECT_EQ(zero, 0);
}

struct CdbCase {
    std::string line;
    uint32_t length;
    std::vector<uint8_t> leading; // the first CDB bytes expected
};

TEST(CdbLines, WrappedFormLeavesTwoBytesForTheCommand) {
    const CdbCase cases[] = {
        {"28000000100000010000\n", 12, {0, 0, 0x28, 0, 0, 0, 0x10, 0, 0, 0x01, 0, 0}},
        {"28000000100000010000\r\n", 12, {0, 0, 0x28}},
        {"2800000\n", 5, {0, 0, 0x28, 0, 0}}, // an odd last digit is ignored
        {"28000000000000000100", 2, {0, 0}},  // no line end: no pairs
        {"0102030405060708090A0B0C0D0E\n", 16, {0, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 0x0A, 0x0B, 0x0C, 0x0D, 0x0E}},
        {std::string(40, 'F') + "\n", 16, {0, 0, 0xFF, 0xFF}}, // 28 digits used, the rest ignored
        {"0102030405060708090A0B0C0D0\n", 15, {0, 0, 1}},      // 27 digits: 13 pairs
    };
    for (const CdbCase &c : cases) {
        uint8_t cdb[16] = {};
        uint32_t length = 0;
        EXPECT_EQ(readCdbLine("KelPthCmd", 1, kInlineLineRules, c.line.c_str(), 2, cdb, &length), 1) << c.line;
        EXPECT_EQ(length, c.length) << c.line;
        EXPECT_EQ(std::vector<uint8_t>(cdb, cdb + c.leading.size()), c.leading) << c.line;
    }
}

TEST(CdbLines, SataFormTakesTheWholeCdb) {
    const CdbCase cases[] = {
        {"85080E0000000100000000000000EC00\n", 16, {0x85, 0x08, 0x0E, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0xEC, 0}},
        {"85080E0000000100000000000000EC0011\n", 16, {0x85, 0x08}},
        {"EC\r\n", 1, {0xEC, 0}},
        {"85080E00", 0, {0, 0}},
    };
    for (const CdbCase &c : cases) {
        uint8_t cdb[16] = {};
        int32_t length = -1;
        std::string line = c.line;
        EXPECT_EQ(freeMakeCdbFromLineBuf(line.data(), cdb, &length), 1) << c.line;
        EXPECT_EQ(length, static_cast<int32_t>(c.length)) << c.line;
        EXPECT_EQ(std::vector<uint8_t>(cdb, cdb + c.leading.size()), c.leading) << c.line;
    }
    uint8_t cdb[16] = {};
    int32_t length = 0;
    std::string bad = "85G8\n";
    EXPECT_EQ(screenOf([&] { EXPECT_EQ(freeMakeCdbFromLineBuf(bad.data(), cdb, &length), 0); }), illegal("CDB"));
    uint32_t wrappedLength = 0;
    EXPECT_EQ(screenOf([&] { readCdbLine("KelPthCmd", 1, kInlineLineRules, "12 0\n", 2, cdb, &wrappedLength); }),
              illegal("CDB"));
}

// One data line through the free pass-through's reader.
int appendData(const char *line, uint8_t *buffer, uint32_t length, uint32_t *filled) {
    return appendDataLine("KelPthCmd", 1, kInlineLineRules, line, DataOverflow::LineLongerThanLength, buffer, length,
                          filled);
}

TEST(DataLines, PairsAppendAtTheFilledCount) {
    uint8_t buffer[8] = {};
    uint32_t filled = 0;
    EXPECT_EQ(appendData("0011\r\n", buffer, sizeof buffer, &filled), 1);
    EXPECT_EQ(appendData("223", buffer, sizeof buffer, &filled), 1);
    EXPECT_EQ(filled, 3u);
    EXPECT_EQ(std::vector<uint8_t>(buffer, buffer + 4), (std::vector<uint8_t>{0x00, 0x11, 0x22, 0x00}));
    EXPECT_EQ(appendData("5\n", buffer, sizeof buffer, &filled), 1);
    EXPECT_EQ(filled, 3u) << "a single digit holds no byte";
    EXPECT_EQ(screenOf([&] { appendData("00x1\n", buffer, sizeof buffer, &filled); }), illegal("Data"));
    EXPECT_EQ(filled, 3u);
}

TEST(DataLines, OverflowRulesOfTheTwoModules) {
    // Free pass-through: a line longer than the whole length is refused; one that only
    // runs past the room left is stored up to the length and the rest dropped.
    uint8_t buffer[5] = {};
    uint32_t filled = 0;
    const uint32_t length = 4;
    EXPECT_EQ(screenOf([&] { EXPECT_EQ(appendData("0102030405\n", buffer, length, &filled), 0); }),
              illegal("Data Length"));
    EXPECT_EQ(filled, 0u);
    EXPECT_EQ(appendData("AABBCC\n", buffer, length, &filled), 1);
    EXPECT_EQ(appendData("DDEEFF\n", buffer, length, &filled), 1);
    EXPECT_EQ(filled, length);
    EXPECT_EQ(std::vector<uint8_t>(buffer, buffer + 5), (std::vector<uint8_t>{0xAA, 0xBB, 0xCC, 0xDD, 0x00}));

    // SATA: a line that would run past the length is refused and stores nothing.
    uint8_t sataBuffer[5] = {};
    uint32_t sataFilled = 0;
    std::string line = "AABBCC\n";
    EXPECT_EQ(createWriteDataFromLineBuffer(line.data(), length, sataBuffer, &sataFilled), 1);
    line = "DDEE\n";
    EXPECT_EQ(
        screenOf([&] { EXPECT_EQ(createWriteDataFromLineBuffer(line.data(), length, sataBuffer, &sataFilled), 0); }),
        illegal("Data Length"));
    EXPECT_EQ(sataFilled, 3u);
    EXPECT_EQ(sataBuffer[3], 0x00);
    line = "DD\n";
    EXPECT_EQ(createWriteDataFromLineBuffer(line.data(), length, sataBuffer, &sataFilled), 1);
    EXPECT_EQ(sataFilled, length);
}

TEST(NumberLines, AddressesOfFortyEightBits) {
    struct Case {
        const char *line;
        bool accepted;
        uint64_t address;
    };
    const Case cases[] = {
        {"FFFFFFFFFFFF\n", true, 0xFFFFFFFFFFFF},
        {"0x123\n", true, 0x123},
        {"1000000000000\n", false, 0},
        {"0x0000123456789ABC\n", true, 0x0000123456789AB}, // only 17 characters are converted
        {"00000000000000001\n", false, 0},                 // 17 digits
        {"0x00000000000000001\n", false, 0},
        {"12 \n", false, 0},
    };
    for (const Case &c : cases) {
        std::string line = c.line;
        uint64_t address = 0xDEAD;
        std::string screen = screenOf([&] { getAddress48FromLineBuf(line.data(), &address); });
        EXPECT_EQ(screen, c.accepted ? "" : illegal("Address")) << c.line;
        if (c.accepted) {
            EXPECT_EQ(address, c.address) << c.line;
        }
    }
}

TEST(NumberLines, OtherBasesAreScannedAsHexAndMustBeConsumedWhole) {
    struct Case {
        int base;
        const char *line;
        int maxDigits;
        bool accepted;
        uint64_t value;
    };
    const Case cases[] = {
        {10, "123\n", 3, true, 123}, {10, "1234\n", 3, false, 0},   {10, "12A\n", 3, false, 0},
        {10, "0x12\n", 3, false, 0}, {16, "0x12\n", 2, true, 0x12}, {16, "0x123\n", 2, false, 0},
        {8, "17\n", 2, true, 15},    {8, "18\n", 2, false, 0},      {16, "FFFF\r\n", 4, true, 0xFFFF},
    };
    for (const Case &c : cases) {
        std::string line = c.line;
        uint64_t value = 0xDEAD;
        std::string screen = screenOf([&] {
            EXPECT_EQ(getNumberFromLineBuf(c.base, line.data(), c.maxDigits, &value), c.accepted ? 1 : 0) << c.line;
        });
        EXPECT_EQ(screen, "") << "the caller reports";
        if (c.accepted) {
            EXPECT_EQ(value, c.value) << c.line;
        }
    }
}

} // namespace
