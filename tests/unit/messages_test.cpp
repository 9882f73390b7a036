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

TEST(Reporters, PrintTheirCataloguedTexts) {
    uint8_t sense[260] = {};
    sense[2] = 0x70; // response-code-like high bits: only the low four bits are the key
    sense[12] = 0x11;
    sense[13] = 0x04;
    char detailWithCrLf[] = "device gone\r\nsecond line";
    char detailWithLf[] = "busy\n";
    const std::vector<ReporterCase> cases = {
        {"0002", [] { KelPthErr0002(KEL_HERE); }, kAbnormalEnd},
        {"0003", [] { KelPthErr0003(KEL_HERE); }, "KEL0003-E Orvane Raid Controller is not found.\n"},
        {"0004", [] { KelPthErr0004(KEL_HERE, "fwrite", 2); },
         "KEL0004-E fwrite() failed. detail=No such file or directory\n"},
        {"0004d", [] { KelPthErr0004d(KEL_HERE, "getContInfo", 0xAB); },
         "KEL0004-E getContInfo() failed. detail=0x000000ab\n"},
        {"0004e with a percent", [] { KelPthErr0004e(KEL_HERE, "odd%sname", 2); },
         "KEL0004-E odd%sname() failed. detail=No such file or directory\n"},
        {"0005", [&] { KelPthErr0005(KEL_HERE, sense); }, "KEL0005-E Request sense data  KEY:00  ASC:11  ASCQ:04\n"},
        {"0006", [] { KelPthErr0006(KEL_HERE, 2); },
         "KEL0006-E Parameter file open error. errno=2, detail=No such file or directory\n"},
        {"0007", [] { KelPthErr0007(KEL_HERE, 12, "Failed in PassThrough"); },
         "KEL0007-E Memory alloc fail. errno=12 detail=Failed in PassThrough\n"},
        {"0009", [] { KelPthErr0009(KEL_HERE); }, "KEL0009-E Your target DeviceNo doesn't exist.\n"},
        {"0011", [] { KelPthErr0011(KEL_HERE, 13); }, "KEL0011-E Saved file open error. errno=13\n"},
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
        {"0021", [] { KelPthErr0021(KEL_HERE); }, "KEL0021-E Please do not specify 0 or less for a size of data.\n"},
        {"0022", [] { KelPthErr0022(KEL_HERE, "Address"); }, "KEL0022-E Ileagal Parameter. detail=Address\n"},
        {"0022 null", [] { KelPthErr0022(KEL_HERE, nullptr); }, "KEL0022-E Ileagal Parameter. detail=NULL\n"},
        {"0024", [] { KelPthErr0024(KEL_HERE, "SATA"); }, "KEL0024-E <SATA> drive does not support this command.\n"},
        {"0026", [] { KelPthErr0026(KEL_HERE, "MQX5108"); }, "KEL0026-I Supprted by MQX5108.\n"},
        {"0025", [] { KelPthErr0025(KEL_HERE); }, "KEL0025-E This command is vendor specific.\n"},
        {"0008", [] { KelPthErr0008(KEL_HERE, 2); }, "KEL0008-E Firmware data file open error. errno=2\n"},
        {"0010", [] { KelPthErr0010(KEL_HERE, 1, 3, "PX-7"); },
         "KEL0010-I Controller No.1 : Port No.3 : Product_ID-PX-7\n"},
        // The reporters that are never called read the current errno.
        {"0001",
         [] {
             errno = ENOENT;
             KelPthErr0001(KEL_HERE);
         },
         "KEL0001-E PassThrough Library load fail. detail=No such file or directory\n"},
        {"0012",
         [] {
             errno = EBUSY;
             KelPthErr0012(KEL_HERE);
         },
         "KEL0012-E PassThrough Library free fail. detail=Device or resource busy\n"},
        {"0018",
         [] {
             errno = ENOENT;
             KelPthErr0018(KEL_HERE);
         },
         "KEL0018-E It failed in the acquisition of the library function. detail=No such file or directory\n"},
        {"0019",
         [] {
             errno = EBUSY;
             KelPthErr0019(KEL_HERE);
         },
         "KEL0019-E Raid Controller cannot be used now. detail=Device or resource busy\n"},
        {"0020",
         [] {
             errno = ENODEV;
             KelPthErr0020(KEL_HERE);
         },
         "KEL0020-E Your target DeviceNo cannot be used now. detail=No such device\n"},
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
