// End to end on the default farm: the mode-page print with its file, the log-sense report
// over every controller and slot, and the firmware download to the drives it selects.
#include <iconv.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "harness.h"

namespace {

const std::string kPage31Title =
    "\n<<<Logpage31:\xB2\xE1\xB5\xEE\xA4\xCBHDD\xA4\xAC\xB5\xF3\xA4\xB2\xA4\xBF\xA5\xA8\xA5"
    "\xE9\xA1\xBC\xA5\xED\xA5\xB0>>>\n";
const std::string kPage32Title = "\n<<<Logpage32:HDD SMART\xB7\xCF\xA5\xED\xA5\xB0>>>\n";

std::string toUtf8(const std::string &eucJp) {
    iconv_t converter = iconv_open("UTF-8", "EUC-JP");
    std::string input = eucJp, output(eucJp.size() * 3 + 16, '\0');
    char *in = input.data(), *out = output.data();
    size_t inLeft = input.size(), outLeft = output.size();
    const size_t converted = iconv(converter, &in, &inLeft, &out, &outLeft);
    iconv_close(converter);
    EXPECT_NE(converted, static_cast<size_t>(-1)) << "not EUC-JP at byte " << input.size() - inLeft;
    output.resize(output.size() - outLeft);
    return output;
}

// The journal rows of one pass-through function, numbering and all.
std::vector<std::string> journalRows(const std::string &journal, const std::string &function) {
    std::vector<std::string> rows;
    size_t start = 0;
    while (start < journal.size()) {
        size_t end = journal.find('\n', start);
        const std::string row = journal.substr(start, end - start);
        if (row.find(" " + function + " ") != std::string::npos) {
            rows.push_back(row.substr(row.find(' ') + 1));
        }
        start = end == std::string::npos ? journal.size() : end + 1;
    }
    return rows;
}

class ModePagePrint : public FarmTest {};

TEST_F(ModePagePrint, ShowsThePageAndAppendsABlockPerRun) {
    const std::vector<std::string> args = {"PDPrintModePage", "0", "1", "FF", "00", "24"};
    RunResult first = kelpth(args);
    ASSERT_EQ(first.exitStatus, 0) << first.out;
    const std::string head = "RAID Controller No.0\nPhysical Drive No.1\n"
                             "Page Code     : 0x3F\nSub Page Code : 0x00\nData Size     : 0x24\n\n"
                             "[CDB] Size=8\n" +
                             kRule + "00000000: BB 01 1A 08 3F 00 24 00" + std::string(1 + 1 + 8 * 3 + 1, ' ') +
                             "........\n\n" + "[Get HDD Mode Page] Size=36\n" + kRule;
    ASSERT_EQ(first.out.substr(0, head.size()), head);
    // Three rows of the page, the last of four bytes, then an empty line.
    const std::string rows = first.out.substr(head.size());
    ASSERT_EQ(countOf(rows, "\n"), 4u) << rows;
    EXPECT_EQ(rows.substr(0, 10), "00000000: ");
    EXPECT_EQ(rows.substr(rows.find("00000020: ") + 10 + 4 * 3, 12 * 3 + 2), std::string(12 * 3 + 2, ' '));

    // The file holds the same rows with CR LF line ends.
    std::string fileRows;
    for (char c : rows) {
        fileRows += c == '\n' ? std::string("\r\n") : std::string(1, c);
    }
    const std::string block = "[Get HDD Mode Page] Size=36\r\n" + std::string(77, '-') + "\r\n" + fileRows;
    EXPECT_EQ(readFile("Cnt0Dev1.txt"), block);
    ASSERT_EQ(kelpth(args).exitStatus, 0);
    EXPECT_EQ(readFile("Cnt0Dev1.txt"), block + block);

    const std::string trace = traceLog();
    for (const char *line : {"## Page Code     : 0x3F", "## Sub Page Code : 0x00", "## Data Size     : 0x24"}) {
        EXPECT_NE(trace.find(line), std::string::npos) << line;
    }
}

TEST_F(ModePagePrint, BadValuesAndSataDrivesSendNothing) {
    const std::string sataRefusal = "RAID Controller No.0\nPhysical Drive No.4\n"
                                    "KEL0024-E <SATA> drive does not support this command.\n";
    expectScreens("PDPrintModePage",
                  {{{"a", "0", "3F", "00", "FF"}, badValue("Controller No")},
                   {{"0", "12", "3F", "00", "FF"}, badValue("Drive No")},
                   {{"0", "7", "3F", "00", "FF"}, "KEL0009-E Your target DeviceNo doesn't exist.\n" + kAbnormalEnd},
                   {{"0", "0", "100", "00", "FF"}, badValue("Page Code")},
                   {{"0", "0", "G", "00", "FF"}, badValue("Page Code")},
                   {{"0", "0", "3F", "0x", "FF"}, badValue("Sub Page Code")},
                   {{"0", "0", "3F", "00", ""}, badValue("Data Size")},
                   {{"0", "4", "3F", "00", "FF"}, sataRefusal}});
    EXPECT_EQ(kelsim({"journal"}).out, "");
    EXPECT_EQ(access((workDir + "/Cnt0Dev4.txt").c_str(), F_OK), -1);
}

TEST_F(ModePagePrint, ACheckConditionIsReportedAndNoBlockIsWritten) {
    ASSERT_EQ(kelsim({"fault", "pass-status", "4", "--detail-hex", "700005000000000A000000002400"}).exitStatus, 0);
    RunResult run = kelpth({"PDPrintModePage", "0", "0", "3F", "00", "FF"});
    EXPECT_EQ(run.exitStatus, 1);
    EXPECT_NE(run.out.find(senseError("05", "24", "00")), std::string::npos);
    EXPECT_EQ(access((workDir + "/Cnt0Dev0.txt").c_str(), F_OK), -1);
}

class LogSenseReport : public FarmTest {};

// Every SAS drive gets both titles (the MBA4SIM and MBB2SIM drives, whose family has no
// decoder, only the title of page 0x32); the SATA drives only a trace line.
TEST_F(LogSenseReport, WalksEverySasDriveAndSkipsSataDrivesInTheTrace) {
    RunResult run = kelpth({"L"});
    ASSERT_EQ(run.exitStatus, 0);
    const std::vector<std::pair<int, int>> sasDrives = {{0, 0}, {0, 1}, {0, 2}, {0, 3}, {0, 6}, {1, 0}, {1, 2}};
    EXPECT_EQ(countOf(run.out, kPage31Title), sasDrives.size());
    EXPECT_EQ(countOf(run.out, kPage32Title), sasDrives.size());
    EXPECT_EQ(run.out.find("RAID Controller No.0\nPhysical Drive No.0\n\n"), 0u);
    for (const auto &[controller, slot] : sasDrives) {
        const std::string drive =
            "RAID Controller No." + std::to_string(controller) + "\nPhysical Drive No." + std::to_string(slot) + "\n";
        EXPECT_NE(run.out.find((slot != 0 ? "\n\n" : "") + drive + kPage31Title), std::string::npos) << drive;
    }
    EXPECT_EQ(run.out.find("Physical Drive No.4"), std::string::npos);
    // Page 0x32 is asked with each family's length: 073 212, 147/300 308, 036 164.
    for (const char *cdb : {"BB 00 4D 00 32 00 00 00  00 00 D4 00", "BB 01 4D 00 32 00 00 00  00 01 34 00",
                            "BB 02 4D 00 32 00 00 00  00 01 34 00", "BB 03 4D 00 32 00 00 00  00 00 A4 00"}) {
        EXPECT_NE(run.out.find(cdb), std::string::npos) << cdb;
    }
    EXPECT_EQ(run.out.find("BB 06 4D 00 32"), std::string::npos) << "no decoder, nothing asked";
    EXPECT_EQ(countOf(run.out, "BB 02 4D 00 32"), 1u) << "controller 0's 300 drive, not controller 1's MBB2SIM";
    EXPECT_NE(run.out.find("Physical Drive No.6\n" + kPage31Title), std::string::npos);
    EXPECT_NE(run.out.find(kPage32Title + "RAID Controller No.1\nPhysical Drive No.0\n"), std::string::npos);
    EXPECT_EQ(run.out.substr(run.out.size() - kPage32Title.size()), kPage32Title) << "MBB2SIM ends the report";

    const std::string trace = traceLog();
    for (const auto &[controller, slot] : std::vector<std::pair<int, int>>{{0, 4}, {0, 5}, {1, 1}}) {
        const std::string skip = "[SATA] drive of controller[" + std::to_string(controller) + "] Hdd[" +
                                 std::to_string(slot) + "] skipped for not supported [KelPrintLogsense] command.";
        EXPECT_EQ(countOf(trace, skip), 1u) << skip;
    }
    EXPECT_EQ(countOf(run.out, "No.\t"), sasDrives.size());
    EXPECT_EQ(countOf(run.out, "\n171\t"), sasDrives.size()) << "all 171 entries of every page 0x31";
}

// A drive whose page 0x31 fails gets its message and no page 0x32; the walk goes on and
// the report still succeeds.
TEST_F(LogSenseReport, AFailingDriveDoesNotStopTheWalk) {
    ASSERT_EQ(kelsim({"fault", "pass-status", "4", "--detail-hex", "700003000000000A000000001100"}).exitStatus, 0);
    RunResult run = kelpth({"L"});
    EXPECT_EQ(run.exitStatus, 0);
    const std::string firstDrive = "RAID Controller No.0\nPhysical Drive No.0\n" + kPage31Title + "[CDB] Size=12\n";
    ASSERT_EQ(run.out.substr(0, firstDrive.size()), firstDrive);
    const size_t failure = run.out.find(senseError("03", "11", "00") + "\nRAID Controller No.0\nPhysical Drive No.1\n");
    EXPECT_NE(failure, std::string::npos) << run.out.substr(0, 600);
    EXPECT_EQ(countOf(run.out, kPage32Title), 6u);
}

// The report of one drive, turned to UTF-8, against a text written out by hand: slot 3 (a
// 036 drive) after a write, a read, a read past its end and a temperature kelsim set, with
// the drives' clock held by KELSIM_NOW.
TEST_F(LogSenseReport, OneDrivesReportTellsWhatItWentThrough) {
    checkVolumesAtEnd = false; // slot 3 is a RAID 5 member written here behind its volume
    const long long born = 1700000000;
    auto at = [&](long long seconds, const char *binary, std::vector<std::string> args) {
        args.insert(args.begin(), binary);
        return run(args, {"KELSIM_NOW=" + std::to_string(seconds)});
    };
    ASSERT_EQ(at(born, KELPTH_BINARY, {"PDOneSectorWrite", "0", "3", "0x10"}).exitStatus, 0);
    ASSERT_EQ(at(born + 60, KELPTH_BINARY, {"PDOneSectorRead", "0", "3", "0x10"}).exitStatus, 0);
    const std::string before = at(born + 60, KELPTH_BINARY, {"L"}).out;
    EXPECT_NE(before.find("Physical Drive No.3\n" + kPage31Title), std::string::npos);
    ASSERT_EQ(at(born + 5400, KELPTH_BINARY, {"PDOneSectorRead", "0", "3", "0x043D6720"}).exitStatus, 1);
    ASSERT_EQ(at(born + 5400, KELSIM_BINARY, {"temperature", "0", "3", "47"}).exitStatus, 0);
    const RunResult report = at(born + 7200, KELPTH_BINARY, {"L"});
    ASSERT_EQ(report.exitStatus, 0);

    const size_t start = report.out.find("RAID Controller No.0\nPhysical Drive No.3\n");
    const size_t end = report.out.find("\n\nRAID Controller No.", start);
    ASSERT_NE(start, std::string::npos);
    ASSERT_NE(end, std::string::npos);
    // Page 0x31 in full: the one error entry, then 170 empty ones.
    std::string expected = "RAID Controller No.0\n"
                           "Physical Drive No.3\n"
                           "\n"
                           "<<<Logpage31:過去にHDDが挙げたエラーログ>>>\n"
                           "[CDB] Size=12\n" +
                           kRule +
                           "00000000: BB 03 4D 00 31 00 00 00  00 35 74 00              ..M.1....5t.\n"
                           "\n"
                           "No.\t累積(h)\t\tP-On(m)\t\tｾﾝｽﾃﾞｰﾀ\tLBA\t\tCDB\n"
                           "001\t       1.50\t       1.50\t052100\t043D6720\t28\n";
    char line[64];
    for (int entry = 2; entry <= 171; ++entry) {
        snprintf(line, sizeof line, "%03d\t       0.00\t       0.00\t000000\t00000000\t00\n", entry);
        expected += line;
    }
    const std::string shown = toUtf8(report.out.substr(start, end + 1 - start));
    EXPECT_EQ(shown.substr(0, expected.size()), expected);
    // Of page 0x32, the lines the drive's history set, each in its place.
    size_t from = expected.size();
    for (const char *lineOf32 :
         {"00000000: BB 03 4D 00 32 00 00 00  00 00 A4 00              ..M.2.......\n", "累積稼動時間[h]:       2.00\n",
          "リードしたセクタ数[Head0]:         1\n", "ライトしたセクタ数[Head0]:         1\n",
          "シークしたセクタ数[Head0]:         2\n", "残り交替セクタ数: 2000\n", "今回のスピンアップ時間[s]:   7\n",
          "現在のCSS 回数:    1\n", "現在の装置温度: 47\n", "過去最大温度: 47\n",
          "最大温度を検出したときの時間[h]:       1.50\n", "現在の12V 電圧:12.0\n", "SMART ASC:00\n"}) {
        const size_t found = shown.find(lineOf32, from);
        EXPECT_NE(found, std::string::npos) << lineOf32;
        from = found == std::string::npos ? from : found;
    }
    EXPECT_EQ(shown.substr(shown.size() - 2), "\n\n");
    EXPECT_NE(kelsim({"journal"}).out.find("kelsim temperature 47 ctl=0 pd=3"), std::string::npos);
}

// What kelsim sets on a drive shows in kelsim show, in the journal and in the next report.
TEST_F(LogSenseReport, ConditionsSetWithKelsimReachTheReport) {
    ASSERT_EQ(kelsim({"voltage", "0", "0", "11.8"}).exitStatus, 0);
    ASSERT_EQ(kelsim({"smart-trip", "0", "1", "5D", "10"}).exitStatus, 0);
    struct Refusal {
        std::vector<std::string> args;
        int status;
    };
    for (const Refusal &refusal : std::vector<Refusal>{{{"voltage", "0", "0", "9.5"}, 2},
                                                       {{"temperature", "0", "0", "hot"}, 2},
                                                       {{"temperature", "0", "4", "50"}, 1}, // a SATA drive
                                                       {{"temperature", "0", "7", "50"}, 1}, // an empty slot
                                                       {{"check-condition", "0", "0", "3B", "--after"}, 2},
                                                       {{"image", "MBA4SIM", "12345", "x.bin"}, 2}}) {
        EXPECT_EQ(kelsim(refusal.args).exitStatus, refusal.status) << refusal.args[0] << " " << refusal.args.back();
    }
    const std::string show = kelsim({"show"}).out;
    EXPECT_NE(show.find("conditions: 35 C, 12 V at 11.8 V\n"), std::string::npos) << show;
    EXPECT_NE(show.find("conditions: 35 C, 12 V at 12.0 V, SMART trip 5D/10\n"), std::string::npos) << show;
    const std::string journal = kelsim({"journal"}).out;
    EXPECT_EQ(journal, "1 kelsim voltage 11.8 ctl=0 pd=0\n2 kelsim smart-trip 5D 10 ctl=0 pd=1\n");

    const std::string report = toUtf8(kelpth({"L"}).out);
    const size_t slot0 = report.find("Physical Drive No.0");
    const size_t slot1 = report.find("Physical Drive No.1");
    const std::string first = report.substr(slot0, slot1 - slot0);
    EXPECT_NE(first.find("現在の12V 電圧:11.8\n"), std::string::npos) << first;
    EXPECT_NE(first.find("最低電圧:11.8\n"), std::string::npos);
    // A 073 drive is asked for 212 bytes, which end before its SMART trip: slot 1 shows it.
    const std::string second = report.substr(slot1, report.find("Physical Drive No.2") - slot1);
    EXPECT_NE(second.find("SMART ASC:5D\nSMART ASCQ:10\n"), std::string::npos) << second;
}

class FirmwareDownload : public FarmTest {
  protected:
    // A firmware image from the sim's own tool.
    void makeImage(const std::string &name, const std::string &product, const std::string &revision, size_t size) {
        ASSERT_EQ(kelsim({"image", product, revision, name, "--size", std::to_string(size)}).exitStatus, 0);
    }
    // The revision INQUIRY gives through ANY ("12 00 00 00 24 00" to a SAS drive).
    std::string inquiryRevision(const std::string &controller, const std::string &slot) {
        writeFile("inquiry.txt", paramFile({controller, slot, "120000002400", "0", "0x24"}));
        RunResult run = kelpth({"ANY", "inquiry.txt"});
        EXPECT_EQ(run.exitStatus, 0) << run.out;
        const Bytes inquiry = resultBytes(run.out);
        return inquiry.size() < 36 ? "" : std::string(inquiry.begin() + 32, inquiry.begin() + 36);
    }
    std::string showLine(const std::string &product) {
        const std::string show = kelsim({"show"}).out;
        const size_t at = show.find(" " + product + " ");
        return at == std::string::npos
                   ? ""
                   : show.substr(show.rfind('\n', at) + 1, show.find('\n', at) - show.rfind('\n', at) - 1);
    }
};

// The default farm has one drive of each family F selects: MBA4SIM (controller 0 slot 6)
// and MBB2SIM (controller 1 slot 2). An image names one family: its drive takes it, and the
// other family's drive, sent the same image, refuses it when it completes (ILLEGAL REQUEST,
// ASC 0x26), which ends the run with KEL0005 and leaves that drive its firmware.
TEST_F(FirmwareDownload, AnImageUpdatesItsFamilyAndTheOtherFamilyRefusesIt) {
    makeImage("fw.bin", "MBA4SIM", "0202", 0x10001);
    RunResult run = kelpth({"F", "fw.bin"});
    EXPECT_EQ(run.exitStatus, 1);
    EXPECT_NE(run.out.find("RAID Controller No.0\nPhysical Drive No.6\nVendor ID:SIMDISK \nProduct ID:MBA4SIM    "
                           "     \nProduct Rev:0101\n\n"),
              std::string::npos)
        << run.out;
    EXPECT_NE(run.out.find("RAID Controller No.1\nPhysical Drive No.2\nVendor ID:SIMDISK \nProduct ID:MBB2SIM    "
                           "     \nProduct Rev:0201\n\n"),
              std::string::npos)
        << run.out;
    EXPECT_EQ(countOf(run.out, "[CDB] Size=12\n"), 2u) << "one CDB per drive";
    EXPECT_EQ(run.out.find("Product ID:SD"), std::string::npos);
    const std::string refused = senseError("05", "26", "00");
    EXPECT_EQ(run.out.substr(run.out.size() - refused.size()), refused) << run.out;

    const std::vector<std::string> pieces = journalRows(kelsim({"journal"}).out, "KelPasWriteBuffer");
    EXPECT_EQ(pieces, (std::vector<std::string>{
                          "KelPasWriteBuffer ctl=0 pd=6 if=0 dir=0 ata=0 cdb=BA 06 3B 07 00 00 00 00 01 00 00 00 "
                          "len=65536 status=0 sense=-",
                          "KelPasWriteBuffer ctl=0 pd=6 if=0 dir=0 ata=0 cdb=BA 06 3B 07 00 01 00 00 00 00 01 00 "
                          "len=1 status=0 sense=-",
                          "KelPasWriteBuffer ctl=1 pd=2 if=0 dir=0 ata=0 cdb=BA 02 3B 07 00 00 00 00 01 00 00 00 "
                          "len=65536 status=0 sense=-",
                          "KelPasWriteBuffer ctl=1 pd=2 if=0 dir=0 ata=0 cdb=BA 02 3B 07 00 01 00 00 00 00 01 00 "
                          "len=1 status=4 sense=05/26/00",
                      }));
    EXPECT_EQ(countOf(traceLog(), "skipped for not supported [KelFirmwareUpdate] command."), 3u);

    // The new revision from then on, in INQUIRY and in the farm's listing; the others keep theirs.
    EXPECT_EQ(inquiryRevision("0", "6"), "0202");
    EXPECT_NE(showLine("MBA4SIM").find(" 0202 "), std::string::npos) << showLine("MBA4SIM");
    EXPECT_EQ(inquiryRevision("1", "2"), "0201");
    EXPECT_NE(showLine("MBB2SIM").find(" 0201 "), std::string::npos) << showLine("MBB2SIM");
    EXPECT_EQ(inquiryRevision("0", "0"), "0104");
    RunResult again = kelpth({"F", "fw.bin"});
    EXPECT_NE(again.out.find("Product Rev:0202\n"), std::string::npos) << "getPhysicalDriveInfo and INQUIRY agree";
}

// The walk meets the MBA drive first; it refuses an image for MBB2SIM, and the download stops
// there: the MBB drive on controller 1 is never reached.
TEST_F(FirmwareDownload, TheFirstRefusalStopsTheDownloadBeforeTheNextDrive) {
    makeImage("mbb.bin", "MBB2SIM", "0303", 0x20000);
    RunResult run = kelpth({"F", "mbb.bin"});
    EXPECT_EQ(run.exitStatus, 1);
    EXPECT_NE(run.out.find(senseError("05", "26", "00")), std::string::npos) << run.out;
    EXPECT_EQ(run.out.find("Product ID:MBB2SIM"), std::string::npos) << run.out;
    const std::vector<std::string> pieces = journalRows(kelsim({"journal"}).out, "KelPasWriteBuffer");
    ASSERT_EQ(pieces.size(), 2u);
    EXPECT_NE(pieces[1].find("ctl=0 pd=6 "), std::string::npos) << pieces[1];
    EXPECT_NE(pieces[1].find("status=4 sense=05/26/00"), std::string::npos) << pieces[1];
    EXPECT_EQ(inquiryRevision("0", "6"), "0101");
    EXPECT_EQ(inquiryRevision("1", "2"), "0201");
}

// On a farm whose only MB[AB] drives are of one family, one image updates them all, on every
// controller; products beginning "MBC" or in lower case are left alone without a message.
TEST_F(FirmwareDownload, EveryDriveOfTheFamilyOnEveryControllerTakesTheImage) {
    checkVolumesAtEnd = false; // a farm of its own, without volumes
    ASSERT_EQ(mkdir(stateDir.c_str(), 0755), 0);
    writeFile("state/farm.conf", "controller 0\n"
                                 "slot 0 sas vendor=SIMDISK product=MBB2SIM revision=0201 serial=F0 blocks=100000\n"
                                 "slot 1 sas vendor=SIMDISK product=MBC2SIM revision=0201 serial=F1 blocks=100000\n"
                                 "slot 2 sas vendor=SIMDISK product=mbb2sim revision=0201 serial=F2 blocks=100000\n"
                                 "controller 1\n"
                                 "slot 3 sas vendor=SIMDISK product=MBB2SIM revision=0201 serial=F3 blocks=100000\n");
    makeImage("mbb.bin", "MBB2SIM", "0707", 0x30000);
    RunResult run = kelpth({"F", "mbb.bin"});
    EXPECT_EQ(run.exitStatus, 0) << run.out;
    EXPECT_EQ(countOf(run.out, "Product ID:"), 2u) << run.out;
    EXPECT_NE(run.out.find("RAID Controller No.1\nPhysical Drive No.3\n"), std::string::npos) << run.out;
    EXPECT_EQ(journalRows(kelsim({"journal"}).out, "KelPasWriteBuffer").size(), 6u);
    EXPECT_EQ(inquiryRevision("0", "0"), "0707");
    EXPECT_EQ(inquiryRevision("1", "3"), "0707");
    EXPECT_EQ(inquiryRevision("0", "1"), "0201");
    EXPECT_EQ(inquiryRevision("0", "2"), "0201");
}

TEST_F(FirmwareDownload, AFailureAtPieceThreeStopsTheDownloadAndKeepsTheOldFirmware) {
    makeImage("fw.bin", "MBA4SIM", "0303", 0xC0000);
    ASSERT_EQ(kelsim({"check-condition", "0", "6", "3B", "--after", "2"}).exitStatus, 0);
    EXPECT_NE(kelsim({"show"}).out.find("check condition 04/44/00 for opcode 3B after 2 more"), std::string::npos);
    EXPECT_NE(kelsim({"fault", "list"}).out.find("check-condition 0 6 3B after=2 sense=04/44/00\n"), std::string::npos);
    RunResult run = kelpth({"F", "fw.bin"});
    EXPECT_EQ(run.exitStatus, 1);
    EXPECT_NE(run.out.find(senseError("04", "44", "00")), std::string::npos) << run.out;
    const std::string journal = kelsim({"journal"}).out;
    const std::vector<std::string> pieces = journalRows(journal, "KelPasWriteBuffer");
    ASSERT_EQ(pieces.size(), 3u);
    EXPECT_NE(pieces[2].find("cdb=BA 06 3B 07 00 02 00 00 01 00 00 00 len=65536 status=4 sense=04/44/00"),
              std::string::npos)
        << pieces[2];
    EXPECT_NE(journal.find("kelsim check-condition 3B after 2 sense 04/44/00 ctl=0 pd=6"), std::string::npos)
        << journal;
    EXPECT_EQ(inquiryRevision("0", "6"), "0101");
    EXPECT_EQ(kelsim({"fault", "list"}).out.find("check-condition"), std::string::npos) << "used up";
}

TEST_F(FirmwareDownload, ALongFileIsCutAndAnEmptyOneSendsNothing) {
    // An image of 1 MiB is cut at 0xC0000 bytes: twelve pieces, and an image the drive never
    // sees complete, so it keeps its firmware.
    makeImage("big.bin", "MBA4SIM", "0404", 0x100000);
    ASSERT_EQ(kelpth({"F", "big.bin"}).exitStatus, 0);
    std::vector<std::string> pieces = journalRows(kelsim({"journal"}).out, "KelPasWriteBuffer");
    ASSERT_EQ(pieces.size(), 24u) << "twelve to each of the two drives";
    EXPECT_NE(pieces[11].find("ctl=0 pd=6 if=0 dir=0 ata=0 cdb=BA 06 3B 07 00 0B 00 00 01 00 00 00 len=65536"),
              std::string::npos)
        << pieces[11];
    EXPECT_NE(pieces[23].find("ctl=1 pd=2 if=0 dir=0 ata=0 cdb=BA 02 3B 07 00 0B 00 00 01 00 00 00 len=65536"),
              std::string::npos)
        << pieces[23];
    EXPECT_EQ(inquiryRevision("0", "6"), "0101");
    EXPECT_EQ(inquiryRevision("1", "2"), "0201");

    ASSERT_EQ(kelsim({"journal", "--clear"}).exitStatus, 0);
    writeFile("empty.bin", "");
    RunResult run = kelpth({"F", "empty.bin"});
    EXPECT_EQ(run.exitStatus, 0);
    EXPECT_NE(run.out.find("Product ID:MBA4SIM         \n"), std::string::npos);
    EXPECT_NE(run.out.find("Product ID:MBB2SIM         \n"), std::string::npos);
    EXPECT_EQ(run.out.find("[CDB]"), std::string::npos);
    EXPECT_TRUE(journalRows(kelsim({"journal"}).out, "KelPasWriteBuffer").empty());
}

TEST_F(FirmwareDownload, AFileThatCannotBeFoundOrRead) {
    RunResult run = kelpth({"F", "missing.bin"});
    EXPECT_EQ(run.exitStatus, 1);
    EXPECT_EQ(run.out, "KEL0004-E realpath() failed. detail=No such file or directory\n" + kAbnormalEnd);
    if (geteuid() != 0) { // the superuser reads any file
        writeFile("locked.bin", std::string(16, 'x'));
        ASSERT_EQ(chmod((workDir + "/locked.bin").c_str(), 0), 0);
        run = kelpth({"F", "locked.bin"});
        EXPECT_EQ(run.exitStatus, 1);
        EXPECT_EQ(run.out, "KEL0008-E Firmware data file open error. errno=13\n" + kAbnormalEnd);
    }
    EXPECT_TRUE(journalRows(kelsim({"journal"}).out, "KelPasWriteBuffer").empty());
}

} // namespace
