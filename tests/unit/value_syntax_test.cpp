// The controller/drive number and address syntax of the command-line sector commands.
#include <gtest/gtest.h>

#include <string>

#include "kelpth/value_syntax.h"

namespace {

const ConvertRules kArgumentRules{true, false};

struct DigitCase {
    const char *text;
    bool accepted;
    long value;
};

TEST(ReadDigitValue, OneDecimalDigitAfterTheLineEndCut) {
    const DigitCase cases[] = {{"7", true, 7},         {"0", true, 0},    {"9", true, 9},   {"7\r\n", true, 7},
                               {"7\n", true, 7},       {"10", false, 0},  {"a", false, 0},  {"", false, 0},
                               {" 7", false, 0},       {"7\r", false, 0}, {"7 ", false, 0}, {"\n", false, 0},
                               {"7\r\nrest", true, 7}, {"F", false, 0}};
    for (const DigitCase &c : cases) {
        std::string text = c.text;
        long value = -1;
        EXPECT_EQ(readDigitValue(text.data(), kArgumentRules, &value), c.accepted) << '"' << c.text << '"';
        if (c.accepted) {
            EXPECT_EQ(value, c.value) << '"' << c.text << '"';
        }
    }
}

struct AddressCase {
    const char *text;
    bool accepted;
    uint32_t lba;
};

TEST(ReadHexValue32, AtMostEightDigitsWithAnOptionalLowerCasePrefix) {
    const AddressCase cases[] = {
        {"", true, 0},
        {"0", true, 0},
        {"10", true, 0x10},
        {"FFFFFFFF", true, 0xFFFFFFFF},
        {"0xffffffff", true, 0xFFFFFFFF},
        {"0x1000\r\n", true, 0x1000},
        {"12345678", true, 0x12345678},
        {"0x", false, 0},
        {"0X10", false, 0},
        {"123456789", false, 0},
        {"0x123456789", false, 0},
        {"12G", false, 0},
        {"-1", false, 0},
        {" 1", false, 0},
    };
    for (const AddressCase &c : cases) {
        std::string text = c.text;
        uint32_t lba = 0xDEAD;
        EXPECT_EQ(readHexValue32(text.data(), 8, kArgumentRules, &lba), c.accepted) << '"' << c.text << '"';
        if (c.accepted) {
            EXPECT_EQ(lba, c.lba) << '"' << c.text << '"';
        }
    }
}

} // namespace
