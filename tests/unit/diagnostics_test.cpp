// The diagnostic helpers on pages made up here: the mode-page file block, the page-0x31
// table with its hour arithmetic, and the page-0x32 decoders, whose EUC-JP output is
// turned back to UTF-8 with iconv(3) and compared with the labels as a person reads them.
#include "support/scratch_folder.h"
#include <gtest/gtest.h>
#include <iconv.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "kelpth/diagnostics.h"
#include "layouts/smart_log_layouts.h"
#include "stdout_capture.h"

namespace {

const std::string kAbnormalEnd = "KEL0002-I PassThrough Tool abnormal end.\n";
const std::string kFileRule = std::string(77, '-') + "\r\n";

std::string toUtf8(const std::string &eucJp) {
    iconv_t converter = iconv_open("UTF-8", "EUC-JP");
    EXPECT_NE(converter, reinterpret_cast<iconv_t>(-1));
    std::string input = eucJp;
    std::string output(input.size() * 3 + 16, '\0');
    char *in = input.data();
    size_t inLeft = input.size();
    char *out = output.data();
    size_t outLeft = output.size();
    const size_t converted = iconv(converter, &in, &inLeft, &out, &outLeft);
    iconv_close(converter);
    EXPECT_NE(converted, static_cast<size_t>(-1)) << "not EUC-JP at byte " << input.size() - inLeft;
    output.resize(output.size() - outLeft);
    return output;
}

void putBe(std::vector<uint8_t> &page, size_t offset, uint32_t value, int width) {
    for (int i = width - 1; i >= 0; --i) {
        page[offset + i] = static_cast<uint8_t>(value);
        value >>= 8;
    }
}

class TempFolder : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_FALSE(folder_.path().empty()); }

    std::string path(const char *name) const { return folder_.path() + "/" + name; }
    static std::string read(const std::string &file) {
        std::stringstream text;
        text << std::ifstream(file, std::ios::binary).rdbuf();
        return text.str();
    }

    ScratchFolder folder_{"kelpth-diag"};
};

using ModePageFile = TempFolder;

TEST_F(ModePageFile, BlocksOfEverySizeAppendToTheFile) {
    std::vector<uint8_t> data(0x24);
    for (size_t i = 0; i < data.size(); ++i) {
        data[i] = static_cast<uint8_t>(0x30 + i); // '0'.. then ':' and on
    }
    data[0x20] = 0x80; // above 0x7F: never a character
    data[0x21] = 'z';
    struct Case {
        uint32_t size;
        std::string block;
    };
    const std::vector<Case> cases = {
        {0, "[Get HDD Mode Page] Size=0\r\n" + kFileRule + "00000000: \r\n"},
        {0x24, "[Get HDD Mode Page] Size=36\r\n" + kFileRule +
                   "00000000: 30 31 32 33 34 35 36 37  38 39 3A 3B 3C 3D 3E 3F  0123456789......\r\n"
                   "00000010: 40 41 42 43 44 45 46 47  48 49 4A 4B 4C 4D 4E 4F  .ABCDEFGHIJKLMNO\r\n"
                   "00000020: 80 7A 52 53" +
                   std::string(1 + 12 * 3 + 1 + 1, ' ') + ".zRS\r\n\r\n"},
        {16, "[Get HDD Mode Page] Size=16\r\n" + kFileRule +
                 "00000000: 30 31 32 33 34 35 36 37  38 39 3A 3B 3C 3D 3E 3F  0123456789......\r\n\r\n"},
    };
    std::string expected;
    const std::string file = path("Cnt0Dev3.txt");
    for (const Case &c : cases) {
        int result = 0;
        EXPECT_EQ(screenOf([&] { result = FileWriteModePage(file.c_str(), data.data(), c.size); }), "");
        EXPECT_EQ(result, 1);
        expected += c.block;
        EXPECT_EQ(read(file), expected) << "after the block of " << c.size << " bytes";
    }
}

TEST_F(ModePageFile, AFileThatCannotBeOpenedIsReportedWithItsErrno) {
    const uint8_t byte = 0;
    int result = -1;
    EXPECT_EQ(screenOf([&] { result = FileWriteModePage(folder_.path().c_str(), &byte, 1); }),
              "KEL0011-E Saved file open error. errno=21\n" + kAbnormalEnd);
    EXPECT_EQ(result, 0);
}

TEST(LogPage31, EntriesShowHoursAndTheSenseTheDriveRecorded) {
    std::vector<uint8_t> page(4 + 2 * 80);
    uint8_t *entry = &page[4];
    entry[1] = 7;
    putBe(page, 4 + 8, 5400, 4);        // 1.50 h of accumulated seconds
    putBe(page, 4 + 12, 119, 4);        // 119 minutes: 1.98 h (truncated)
    entry[18] = 0xF3;                   // only the low four bits are the key
    putBe(page, 4 + 19, 0x0012ABCD, 4); // LBA
    entry[28] = 0x11;
    entry[29] = 0x04;
    entry[64] = 0x28;
    putBe(page, 84 + 8, 0xFFFFFFFF, 4);
    putBe(page, 84 + 12, 0xFFFFFFFF, 4);

    int result = 0;
    const std::string screen =
        screenOf([&] { result = PrintLogPage31(page.data(), static_cast<uint16_t>(page.size())); });
    EXPECT_EQ(result, 1);
    EXPECT_EQ(toUtf8(screen), "No.\t累積(h)\t\tP-On(m)\t\tｾﾝｽﾃﾞｰﾀ\tLBA\t\tCDB\n"
                              "007\t       1.50\t       1.98\t031104\t0012ABCD\t28\n"
                              "000\t 1193046.47\t71582788.25\t000000\t00000000\t00\n");
}

TEST(LogPage31, AnEntryCutShortReadsAsZeros) {
    std::vector<uint8_t> shortPage(4 + 2, 0);
    shortPage[5] = 9; // entry number of an entry the data cuts after two bytes
    const std::string screen = screenOf([&] { EXPECT_EQ(PrintLogPage31(shortPage.data(), 6), 1); });
    EXPECT_EQ(screen.substr(screen.find('\n') + 1), "009\t       0.00\t       0.00\t000000\t00000000\t00\n");
}

// The 073 page of a drive with known counters, printed as the report shows it.
TEST(SmartDecoders, Family073PrintsEveryCounterWithItsLabel) {
    std::vector<uint8_t> page(kLogPage32BufferSize, 0);
    putBe(page, 8, 0x5A, 4); // power-on: 90 minutes
    putBe(page, 12 + 10, 123456789, 4);
    putBe(page, 12 + 14, 3, 2);
    putBe(page, 12 + 16, 4, 2);
    putBe(page, 12 + 42, 9, 2);
    putBe(page, 56 + 10, 42, 4);
    putBe(page, 100 + 42, 65535, 2);
    putBe(page, 144 + 4, 1999, 2);
    page[150 + 6] = 7;
    page[150 + 7] = 8;
    page[150 + 8] = 255;
    putBe(page, 150 + 10, 61, 4);
    putBe(page, 164 + 6, 12, 2);
    page[172 + 4] = 38;
    page[172 + 6] = 51;
    putBe(page, 172 + 8, 600, 4);
    page[190 + 4] = 0x20;
    page[190 + 6] = 0x23;
    putBe(page, 190 + 8, 59, 4);
    page[190 + 12] = 0x19;
    putBe(page, 190 + 14, 1, 4);
    page[208 + 6] = 0x5D;
    page[208 + 7] = 0x0A;
    putBe(page, 208 + 8, 30, 4);

    int result = 0;
    const std::string screen = screenOf([&] { result = PrintLogPage32Fix73(page.data()); });
    EXPECT_EQ(result, 1);
    EXPECT_EQ(toUtf8(screen), "累積稼動時間[h]:       1.50\n\n"
                              "リードしたセクタ数[Head0]: 123456789\n"
                              "現在のリードエラー数[Head0]:    3\n"
                              "前回のリードエラー数[Head0]:    4\n"
                              "過去ワーストエラー数:    9\n\n"
                              "ライトしたセクタ数[Head0]:" +
                                  std::string(8, ' ') +
                                  "42\n"
                                  "現在のライトエラー数[Head0]:    0\n"
                                  "前回のライトエラー数[Head0]:    0\n"
                                  "過去ワーストエラー数:    0\n\n"
                                  "シークしたセクタ数[Head0]:" +
                                  std::string(9, ' ') +
                                  "0\n"
                                  "現在のシークエラー数[Head0]:    0\n"
                                  "前回のシークエラー数[Head0]:    0\n"
                                  "過去ワーストエラー数:65535\n\n"
                                  "残り交替セクタ数: 1999\n\n"
                                  "今回のスピンアップ時間[s]:   7\n"
                                  "前回のスピンアップ時間[s]:   8\n"
                                  "最大スピンアップ時間[s]: 255\n"
                                  "最大時間を要した時の発生時間[h]:       1.01\n\n"
                                  "現在のCSS 回数:   12\n\n"
                                  "現在の装置温度: 38\n"
                                  "過去最大温度: 51\n"
                                  "最大温度を検出したときの時間[h]:      10.00\n\n"
                                  "現在の12V 電圧:12.0\n"
                                  "最大電圧:12.3\n"
                                  "最大電圧を検出したときの時間[h]:       0.98\n"
                                  "最低電圧:11.9\n"
                                  "最低電圧を検出したときの時間[h]:       0.01\n\n"
                                  "SMART ASC:5D\n"
                                  "SMART ASCQ:0A\n"
                                  "SMART 警告を検出した時間[h]:       0.50\n\n");
}

// Families 147/300 and 036 carry the same blocks with their own head groups: each head's
// counters are read where the layout puts them, and the walk ends at the page's end.
TEST(SmartDecoders, EightHeadAndSmallFamiliesReadTheirOwnOffsets) {
    std::vector<uint8_t> page(kLogPage32BufferSize, 0);
    // 146: groups of 72 bytes from offset 12; head h at 4 + 8h; worst at 68.
    for (uint32_t head = 0; head < 8; ++head) {
        putBe(page, 12 + 4 + 8 * head, 1000 + head, 4);
        putBe(page, 12 + 8 + 8 * head, 10 + head, 2);
        putBe(page, 12 + 10 + 8 * head, 20 + head, 2);
    }
    putBe(page, 12 + 68, 77, 2);
    putBe(page, 12 + 3 * 72 + 4, 1500, 2);               // spare sectors after the three groups
    page[12 + 3 * 72 + 6 + 14 + 8 + 18 + 18 + 6] = 0x5D; // SMART ASC, the last field

    std::string screen = toUtf8(screenOf([&] { EXPECT_EQ(PrintLogPage32Fix146(page.data()), 1); }));
    EXPECT_NE(screen.find("リードしたセクタ数[Head0]:      1000\n"
                          "現在のリードエラー数[Head0]:   10\n"
                          "前回のリードエラー数[Head0]:   20\n"
                          "リードしたセクタ数[Head1]:      1001\n"),
              std::string::npos)
        << screen;
    EXPECT_NE(
        screen.find("前回のリードエラー数[Head7]:   27\n過去ワーストエラー数:   77\n\nライトしたセクタ数[Head0]:"),
        std::string::npos)
        << screen;
    EXPECT_NE(screen.find("シークしたセクタ数[Head7]:"), std::string::npos);
    EXPECT_NE(screen.find("残り交替セクタ数: 1500\n"), std::string::npos);
    EXPECT_NE(screen.find("SMART ASC:5D\n"), std::string::npos);

    // 036: groups of 24 bytes; sectors at 8, errors at 12 and 14, worst at 22.
    std::vector<uint8_t> small(kLogPage32BufferSize, 0);
    putBe(small, 12 + 8, 555, 4);
    putBe(small, 12 + 12, 6, 2);
    putBe(small, 12 + 14, 7, 2);
    putBe(small, 12 + 22, 8, 2);
    putBe(small, 12 + 3 * 24 + 4, 321, 2);
    screen = toUtf8(screenOf([&] { EXPECT_EQ(PrintLogPage32Fix36(small.data()), 1); }));
    EXPECT_NE(screen.find("リードしたセクタ数[Head0]:       555\n"
                          "現在のリードエラー数[Head0]:    6\n"
                          "前回のリードエラー数[Head0]:    7\n"
                          "過去ワーストエラー数:    8\n\n"),
              std::string::npos)
        << screen;
    EXPECT_EQ(screen.find("[Head1]"), std::string::npos);
    EXPECT_NE(screen.find("残り交替セクタ数:  321\n"), std::string::npos);
}

// A missing input or output of any helper is named by its argument number, and nothing is done.
TEST(DiagnosticsRefusals, EachMissingArgumentIsNamedByItsNumber) {
    const uint8_t byte = 0;
    char vendor[9] = {}, product[17] = {}, revision[5] = {};
    struct Case {
        std::function<int()> call;
        int argNo;
    };
    const Case cases[] = {
        {[&] { return FileWriteModePage(nullptr, &byte, 1); }, 1},
        {[&] { return FileWriteModePage("x.txt", nullptr, 1); }, 2},
        {[&] { return PrintLogPage31(nullptr, 10); }, 1},
        {[&] { return PrintLogPage31(&byte, 0); }, 2},
        {[&] { return PrintLogPage32Fix73(nullptr); }, 1},
        {[&] { return PrintLogPage32Fix146(nullptr); }, 1},
        {[&] { return PrintLogPage32Fix36(nullptr); }, 1},
        {[&] { return GetInquiry(0, 0, nullptr, product, revision, 0); }, 3},
        {[&] { return GetInquiry(0, 0, vendor, nullptr, revision, 0); }, 4},
        {[&] { return GetInquiry(0, 0, vendor, product, nullptr, 0); }, 5},
    };
    for (const Case &c : cases) {
        int result = -1;
        EXPECT_EQ(screenOf([&] { result = c.call(); }),
                  "KEL0014-E Parameter error. argno=" + std::to_string(c.argNo) + "\n" + kAbnormalEnd);
        EXPECT_EQ(result, 0);
    }
}

// Every field of every layout lies inside its block, and no two fields of a block share a
// byte: a slip in the tables would make the drive and the report disagree.
TEST(SmartLayouts, FieldsFitTheirBlocksWithoutOverlapping) {
    for (const kellayouts::SmartLayout *layout : kellayouts::kSmartLayouts) {
        size_t walked = kellayouts::kPageHeaderLength;
        for (size_t b = 0; b < layout->blockCount; ++b) {
            const kellayouts::SmartBlock &block = layout->blocks[b];
            std::vector<bool> used(block.length, false);
            for (size_t f = 0; f < block.fieldCount; ++f) {
                const kellayouts::SmartField &field = block.fields[f];
                EXPECT_GE(field.offset, 4u) << layout->family << " block " << b << ": inside the parameter header";
                for (size_t i = 0; i < kellayouts::widthOf(field.format); ++i) {
                    ASSERT_LT(field.offset + i, block.length) << layout->family << " block " << b << " field " << f;
                    EXPECT_FALSE(used[field.offset + i]) << layout->family << " block " << b << " field " << f;
                    used[field.offset + i] = true;
                }
            }
            walked += block.length;
        }
        EXPECT_EQ(walked, layout->walkLength) << layout->family;
        EXPECT_LE(walked, kLogPage32BufferSize) << layout->family;
    }
}

} // namespace
