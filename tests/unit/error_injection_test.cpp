// Packing the values of N and N5 into the page 0x22 parameter list: where each lands,
// how values share a byte, and which texts are refused.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "kelpth/error_injection.h"

namespace {

using kellayouts::InjectionLayout;
using kellayouts::kPage28;
using kellayouts::kPage32;

// Packs values 4 onward (a shorter list leaves the rest out); false at the first refusal.
bool pack(const InjectionLayout &layout, const std::vector<std::string> &values, std::vector<uint8_t> *list) {
    list->assign(64, 0xEE);
    for (size_t i = 0; i < values.size(); i++) {
        std::string text = values[i] + "\n";
        if (!packInjectionValue(layout, static_cast<int>(i) + 4, text.data(), list->data())) {
            return false;
        }
    }
    return true;
}

// Every value 0, except those given by value number.
std::vector<std::string> zerosBut(const InjectionLayout &layout, const std::map<int, std::string> &given) {
    std::vector<std::string> values(layout.fieldCount, "0");
    for (const auto &[valueNo, text] : given) {
        values[valueNo - 4] = text;
    }
    return values;
}

TEST(InjectionPage, ShortFormPlacesEveryValueOfTheExample) {
    std::vector<uint8_t> list;
    ASSERT_TRUE(pack(kPage28,
                     {"1", "0", "0x3", "0x0100", "16", "0x05", "0x00012000", "0x00000008", "0x01",   "0x00",  "0xFF",
                      "1", "0", "3",   "0x0010", "0",  "0",    "0x02",       "0x07",       "0x0004", "0x0000"},
                     &list));
    const std::vector<uint8_t> expected = {0,    0,    0,    0,    0x22, 0x1C, 0x01, 0x03, 0x01, 0x00, 0x10, 0x05,
                                           0x00, 0x01, 0x20, 0x00, 0x00, 0x00, 0x00, 0x08, 0x01, 0x00, 0xFF, 0x00,
                                           0x23, 0x00, 0x00, 0x10, 0x02, 0x07, 0x00, 0x04, 0x00, 0x00};
    EXPECT_EQ(std::vector<uint8_t>(list.begin(), list.begin() + 34), expected);
    EXPECT_EQ(list[34], 0xEE) << "nothing written past the 34-byte list";
}

TEST(InjectionPage, SharedBytesAndTruncation) {
    struct Case {
        const char *what;
        const InjectionLayout &layout;
        std::map<int, std::string> values;
        size_t at;
        std::vector<uint8_t> bytes;
    };
    const std::vector<Case> cases = {
        {"value 5 doubled into byte 6", kPage28, {{4, "1"}, {5, "3"}}, 6, {0x07}},
        {"hex with or without 0x", kPage28, {{7, "1234"}}, 8, {0x12, 0x34}},
        {"hex with or without 0x", kPage28, {{7, "0x1234"}}, 8, {0x12, 0x34}},
        {"three digits keep their low byte", kPage28, {{8, "300"}}, 10, {0x2C}},
        {"15 to 17 by 32, 8 and 1, spilling", kPage28, {{15, "9"}}, 24, {0x20}},
        {"19 to 21 ORed without a shift", kPage28, {{19, "1"}, {20, "1"}, {21, "0x01"}}, 28, {0x01}},
        {"32-bit big endian", kPage28, {{11, "0xA1B2C3D4"}}, 16, {0xA1, 0xB2, 0xC3, 0xD4}},
        {"long form: byte 7 stays 0", kPage32, {{6, "0x3"}}, 7, {0x00, 0x00, 0x03}},
        {"long form: byte 24 by 8 and 1", kPage32, {{14, "1"}, {15, "3"}}, 24, {0x0B}},
        {"long form: header", kPage32, {}, 4, {0x22, 0x20}},
        {"long form: last four bytes", kPage32, {{24, "1"}, {25, "2"}, {26, "3"}, {27, "0xFF"}}, 34, {1, 2, 3, 0xFF}},
    };
    for (const Case &c : cases) {
        std::vector<uint8_t> list;
        ASSERT_TRUE(pack(c.layout, zerosBut(c.layout, c.values), &list)) << c.what;
        EXPECT_EQ(std::vector<uint8_t>(list.begin() + c.at, list.begin() + c.at + c.bytes.size()), c.bytes) << c.what;
    }
}

TEST(InjectionPage, RefusesTextsOutsideTheirForm) {
    struct Case {
        int valueNo;
        std::string text;
    };
    for (const Case &c : std::vector<Case>{{7, "12345"},
                                           {7, "0x"},
                                           {7, "0X1F"},
                                           {6, "0x10"},
                                           {4, "10"},
                                           {4, "a"},
                                           {4, "1 "},
                                           {8, "1000"},
                                           {10, "123456789"},
                                           {9, "0x1G"}}) {
        std::map<int, std::string> values{{c.valueNo, c.text}};
        std::vector<uint8_t> list;
        EXPECT_FALSE(pack(kPage28, zerosBut(kPage28, values), &list)) << c.valueNo << " " << c.text;
    }
    // Past the last value of the form.
    std::vector<uint8_t> list(64, 0);
    std::string text = "0\n";
    EXPECT_FALSE(packInjectionValue(kPage28, 25, text.data(), list.data()));
    EXPECT_FALSE(packInjectionValue(kPage32, 3, text.data(), list.data()));
}

TEST(InjectionPage, LineEndsAreCutBeforeTheCheck) {
    std::vector<uint8_t> list(64, 0);
    std::string crlf = "0x12\r\n";
    std::string loneCr = "0x12\r";
    ASSERT_TRUE(packInjectionValue(kPage28, 4, std::string("1\r\n").data(), list.data()));
    EXPECT_TRUE(packInjectionValue(kPage28, 9, crlf.data(), list.data()));
    EXPECT_EQ(list[11], 0x12);
    EXPECT_FALSE(packInjectionValue(kPage28, 9, loneCr.data(), list.data()));
}

} // namespace
