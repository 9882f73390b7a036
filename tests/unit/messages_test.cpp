// The reporters' screen texts, the reading of a pass-through detail area, and the
// message chosen for every library status.
#define KEL_MODULE "KelPthCmd"
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <vector>

#include "kelpth/messages.h"
#include "stdout_capture.h"

namespace {

const std::string kAbnormalEnd = "KEL0002-I PassThrough Tool abnormal end.\n";

struct ReporterCase {
    const char *name;
    std::function<void()> report;
    std::string screen;
};

// Only what a reporter does with its arguments: error numbers turned into texts, detail
// texts cut at their line end, a sense key masked, a null or a percent sign shown as it
// is. The catalogue's fixed texts are not typed again here.
TEST(Reporters, ShapeTheirArgumentsIntoTheText) {
    uint8_t sense[260] = {};
    sense[2] = 0x70; // response-code-like high bits: only the low four bits are the key
    sense[12] = 0x11;
    sense[13] = 0x04;
    char detailWithCrLf[] = "device gone\r\nsecond line";
    char detailWithLf[] = "busy\n";
    const std::vector<ReporterCase> cases = {
        {"0004", [] { KelPthErr0004(KEL_HERE, "fwrite", 2); },
         "KEL0004-E fwrite() failed. detail=No such file or directory\n"},
        {"0004e with a percent", [] { KelPthErr0004e(KEL_HERE, "odd%sname", 2); },
         "KEL0004-E odd%sname() failed. detail=No such file or directory\n"},
        {"0005", [&] { KelPthErr0005(KEL_HERE, sense); }, "KEL0005-E Request sense data  KEY:00  ASC:11  ASCQ:04\n"},
        {"0013", [] { KelPthErr0013(KEL_HERE, "0013fopen"); },
         "KEL0013-E fopen() failed. errno=13, detail=Permission denied\n"},
        {"0013 short text", [] { KelPthErr0013(KEL_HERE, "2"); },
         "KEL0013-E () failed. errno=2, detail=No such file or directory\n"},
        {"0014 named", [] { KelPthErr0014(KEL_HERE, 3); }, "KEL0014-E Parameter error. argno=3\n"},
        {"0014 unnamed", [] { KelPthErr0014(KEL_HERE, 0); }, "KEL0014-E Parameter error. argno=*\n"},
        {"0016 CR LF", [&] { KelPthErr0016(KEL_HERE, detailWithCrLf); },
         "KEL0016-E PassThrough execution error. detail=device gone\n"},
        {"0016 LF", [&] { KelPthErr0016(KEL_HERE, detailWithLf); },
         "KEL0016-E PassThrough execution error. detail=busy\n"},
        {"0022 null", [] { KelPthErr0022(KEL_HERE, nullptr); }, "KEL0022-E Ileagal Parameter. detail=NULL\n"},
        // A reporter that is never called reads the current errno.
        {"0001",
         [] {
             errno = ENOENT;
             KelPthErr0001(KEL_HERE);
         },
         "KEL0001-E PassThrough Library load fail. detail=No such file or directory\n"},
    };
    for (const ReporterCase &c : cases) {
        EXPECT_EQ(screenOf(c.report), c.screen) << c.name;
    }
}

TEST(Reporters, UsageShowsTheBlockAfterTheShortCode) {
    const std::string screen = screenOf([] { KelPthErr0000(KEL_HERE); });
    const std::string rule(72, '-');
    EXPECT_EQ(screen.rfind("KEL000-I The mistake is found in the parameter.\n" + rule + "\nkelpth L\n", 0), 0u);
    EXPECT_NE(screen.find("<DataSize> \n"), std::string::npos) << "the mode-page line keeps its blank";
    EXPECT_NE(screen.find("kelpth A <parameter filename>\nkelpth e <parameter filename>\n" + rule + "\n"),
              std::string::npos);
}

TEST(Reporters, StatusTextOfAFullUnterminatedDetailAreaStaysInside) {
    // Exactly the detail area's 260 bytes, no terminator: a reader must stop at its end.
    std::vector<char> area(260, 'x');
    memcpy(area.data(), "0013", 4);
    const std::string screen = screenOf([&] { KelIsErr(KEL_HERE, 5, reinterpret_cast<uint8_t *>(area.data())); });
    EXPECT_EQ(screen,
              "KEL0013-E " + std::string(256, 'x') + "() failed. errno=13, detail=Permission denied\n" + kAbnormalEnd);
    std::fill(area.begin(), area.end(), 'y');
    EXPECT_EQ(screenOf([&] { KelIsErr(KEL_HERE, 3, reinterpret_cast<uint8_t *>(area.data())); }),
              "KEL0016-E PassThrough execution error. detail=" + std::string(260, 'y') + "\n" + kAbnormalEnd);
}

struct StatusCase {
    uint32_t status;
    std::vector<uint8_t> detail;
    std::string message;
};

std::vector<uint8_t> textArea(const char *text) {
    std::vector<uint8_t> area(260, 0);
    memcpy(area.data(), text, strlen(text));
    return area;
}

class KelIsErrBranch : public ::testing::TestWithParam<StatusCase> {};

TEST_P(KelIsErrBranch, ReportsItsMessageThenTheAbnormalEnd) {
    std::vector<uint8_t> detail = GetParam().detail;
    detail.resize(260, 0);
    int result = -1;
    const std::string screen = screenOf([&] { result = KelIsErr(KEL_HERE, GetParam().status, detail.data()); });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(screen, GetParam().message + kAbnormalEnd);
}

INSTANTIATE_TEST_SUITE_P(
    EveryStatus, KelIsErrBranch,
    ::testing::Values(
        StatusCase{0, {}, "KEL0004-E KelIsErr() failed. detail=Success\n"},
        StatusCase{1, {0x03}, "KEL0014-E Parameter error. argno=3\n"},
        StatusCase{1, {0xFE}, "KEL0014-E Parameter error. argno=-2\n"}, // the byte is signed
        StatusCase{2, {}, "KEL0015-E Unsupported command error.\n"},
        StatusCase{3, textArea("path busy\r\nignored"), "KEL0016-E PassThrough execution error. detail=path busy\n"},
        StatusCase{4,
                   {0x70, 0x00, 0x03, 0, 0, 0, 0, 0x0A, 0, 0, 0, 0, 0x11, 0x00},
                   "KEL0005-E Request sense data  KEY:03  ASC:11  ASCQ:00\n"},
        StatusCase{5, textArea("0013fopen"), "KEL0013-E fopen() failed. errno=13, detail=Permission denied\n"},
        StatusCase{6, {}, "KEL0017-E Read and Write command cannot be executed at the same time.\n"},
        StatusCase{7, textArea("12"), "KEL0007-E Memory alloc fail. errno=12 detail=Failed in Library\n"},
        StatusCase{8, {}, "KEL0023-E Request time out.\n"},
        StatusCase{9, {}, "KEL0004-E KelIsErr() failed. detail=Bad file descriptor\n"}));

} // namespace
