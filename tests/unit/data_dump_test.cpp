// The hex dump's layout and row numbering, and the data-buffer helpers' size rules.
#include <gtest/gtest.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "kelpth/dump.h"
#include "stdout_capture.h"

namespace {

const std::string kRule = std::string(77, '-') + "\n";

std::string dumpOf(const char *title, const std::vector<uint8_t> &data, uint32_t startRow, int32_t totalSize,
                   uint32_t *nextRow) {
    return screenOf([&] {
        *nextRow = KelPasPrintData(title, data.data(), static_cast<uint32_t>(data.size()), startRow, totalSize);
    });
}

TEST(KelPasPrintData, ShortRowsArePaddedInTheHexColumnOnly) {
    const std::vector<uint8_t> cdb = {0xBB, 0x03, 0x28, 0x00, 0x00, 0x00, 0x10, 0x00, 0x00, 0x00, 0x01, 0x00};
    uint32_t next = 0;
    EXPECT_EQ(dumpOf("CDB", cdb, 0, 12, &next),
              "[CDB] Size=12\n" + kRule + "00000000: BB 03 28 00 00 00 10 00  00 00 01 00              ............\n");
    EXPECT_EQ(next, 1u);

    std::vector<uint8_t> seventeen;
    for (int i = 0; i < 17; i++) {
        seventeen.push_back(static_cast<uint8_t>('a' + i));
    }
    EXPECT_EQ(dumpOf("Command Result", seventeen, 0, 17, &next),
              "[Command Result] Size=17\n" + kRule +
                  "00000000: 61 62 63 64 65 66 67 68  69 6A 6B 6C 6D 6E 6F 70  abcdefghijklmnop\n"
                  "00000010: 71 " +
                  std::string(3 * 15 + 1, ' ') + " q\n"); // fifteen empty fields and the middle blank
    EXPECT_EQ(next, 2u);
}

TEST(KelPasPrintData, OnlyAsciiLettersAndDigitsShowAsCharacters) {
    const std::vector<uint8_t> row = {'0', '9',  'A',  'Z',  'a',  'z',  ' ',  '.',
                                      '%', 0x00, 0x7F, 0x80, 0xC1, 0xE9, 0xFF, '_'};
    uint32_t next = 0;
    const std::string screen = dumpOf("Data", row, 0, 16, &next);
    EXPECT_EQ(screen.substr(screen.size() - 17), "09AZaz..........\n");
    EXPECT_EQ(next, 1u);
}

TEST(KelPasPrintData, PiecesOfOneObjectContinueTheOffsets) {
    const std::vector<uint8_t> block(512, 0x5A);
    uint32_t next = 0;
    std::string screen = dumpOf("Read Command(1 Stripe)", block, 0, 1024, &next);
    EXPECT_EQ(next, 32u);
    screen += dumpOf("Read Command(1 Stripe)", block, next, 1024, &next);
    EXPECT_EQ(next, 64u);

    EXPECT_EQ(screen.rfind("[Read Command(1 Stripe)] Size=1024\n" + kRule, 0), 0u);
    EXPECT_EQ(screen.find("] Size="), screen.rfind("] Size=")) << "one header only";
    EXPECT_EQ(screen.find(kRule), screen.rfind(kRule)) << "one rule only";
    const std::string row = "5A 5A 5A 5A 5A 5A 5A 5A  5A 5A 5A 5A 5A 5A 5A 5A  ZZZZZZZZZZZZZZZZ\n";
    EXPECT_NE(screen.find("00000200: " + row), std::string::npos);
    EXPECT_EQ(screen.substr(screen.size() - row.size() - 10), "000003F0: " + row);
}

// Every byte value, in full rows of a later piece (no header) at offsets with the high
// hex digits, against rows built with printf.
TEST(KelPasPrintData, EveryByteValueMatchesPrintf) {
    std::vector<uint8_t> all(256);
    for (int i = 0; i < 256; i++) {
        all[static_cast<size_t>(i)] = static_cast<uint8_t>(i);
    }
    const uint32_t startRow = 0x89ABCDE0u / 16;
    uint32_t next = 0;
    const std::string screen = dumpOf("Data", all, startRow, 512, &next);
    std::string expected;
    for (int row = 0; row < 16; row++) {
        char text[96];
        int n = snprintf(text, sizeof text, "%08X: ", (startRow + static_cast<uint32_t>(row)) * 16);
        for (int column = 0; column < 16; column++) {
            n += snprintf(text + n, sizeof text - static_cast<size_t>(n), column == 8 ? " %02X " : "%02X ",
                          row * 16 + column);
        }
        expected += std::string(text, static_cast<size_t>(n)) + " ";
        for (int column = 0; column < 16; column++) {
            expected += static_cast<char>(isalnum(row * 16 + column) ? row * 16 + column : '.');
        }
        expected += "\n";
    }
    EXPECT_EQ(screen, expected);
    EXPECT_EQ(next, startRow + 16);
}

TEST(KelPasPrintData, EmptyBlockPrintsHeaderAndBlankLine) {
    uint32_t next = 99;
    EXPECT_EQ(dumpOf("CDB", {}, 0, 0, &next), "[CDB] Size=0\n\n");
    EXPECT_EQ(next, 0u);
}

TEST(MakeAllocData, RefusesZeroAndCutsLargeSizes) {
    uint8_t *buffer = reinterpret_cast<uint8_t *>(1);
    int result = -1;
    EXPECT_EQ(screenOf([&] { result = MakeAllocData(&buffer, 0); }),
              "KEL0021-E Please do not specify 0 or less for a size of data.\n"
              "KEL0002-I PassThrough Tool abnormal end.\n");
    EXPECT_EQ(result, 0);

    buffer = nullptr;
    ASSERT_EQ(MakeAllocData(&buffer, 0x20000), 1);
    ASSERT_NE(buffer, nullptr);
    // Cleared over the 64 KiB actually allocated (the sanitizer build catches a read beyond).
    EXPECT_EQ(std::string(reinterpret_cast<char *>(buffer), 0x10000), std::string(0x10000, '\0'));
    free(buffer);
}

TEST(MakeAllocData, NullDestinationIsAnAllocationFailure) {
    int result = -1;
    const std::string screen = screenOf([&] { result = MakeAllocData(nullptr, 16); });
    EXPECT_EQ(result, 0);
    EXPECT_NE(screen.find("detail=Failed in PassThrough\nKEL0002-I PassThrough Tool abnormal end.\n"),
              std::string::npos)
        << screen;
}

TEST(CopyWriteData, RepeatsThePatternAndCutsTheLastCopy) {
    std::string buffer = "abc?????";
    ASSERT_EQ(CopyWriteData(reinterpret_cast<uint8_t *>(buffer.data()), 8, 3), 1);
    EXPECT_EQ(buffer, "abcabcab");

    std::string whole = "xy";
    ASSERT_EQ(CopyWriteData(reinterpret_cast<uint8_t *>(whole.data()), 2, 2), 1);
    EXPECT_EQ(whole, "xy");
}

TEST(CopyWriteData, BadArgumentsAreRefusedNotLoopedOrOverrun) {
    int result = -1;
    EXPECT_EQ(screenOf([&] { result = CopyWriteData(nullptr, 8, 3); }),
              "KEL0014-E Parameter error. argno=1\nKEL0002-I PassThrough Tool abnormal end.\n");
    EXPECT_EQ(result, 0);

    std::vector<uint8_t> buffer(8, 0x11);
    EXPECT_EQ(screenOf([&] { result = CopyWriteData(buffer.data(), 8, 0); }),
              "KEL0014-E Parameter error. argno=3\nKEL0002-I PassThrough Tool abnormal end.\n");
    EXPECT_EQ(result, 0);

    // A pattern larger than the 64 KiB helper buffer is still copied whole.
    std::vector<uint8_t> large(0x30000);
    for (size_t i = 0; i < 0x18000; i++) {
        large[i] = static_cast<uint8_t>(i * 7);
    }
    ASSERT_EQ(CopyWriteData(large.data(), 0x30000, 0x18000), 1);
    EXPECT_TRUE(std::equal(large.begin(), large.begin() + 0x18000, large.begin() + 0x18000));
}

} // namespace
