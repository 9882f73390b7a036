// End to end on the default farm: the mode-page print with its file, the log-sense report
// over every controller and slot, and the firmware download to the drives it selects.
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "harness.h"

namespace {

const std::string kRule = std::string(77, '-') + "\n";
const std::string kAbnormalEnd = "KEL0002-I PassThrough Tool abnormal end.\n";
const std::string kPage31Title =
    "\n<<<Logpage31:\xB2\xE1\xB5\xEE\xA4\xCBHDD\xA4\xAC\xB5\xF3\xA4\xB2\xA4\xBF\xA5\xA8\xA5"
    "\xE9\xA1\xBC\xA5\xED\xA5\xB0>>>\n";
const std::string kPage32Title = "\n<<<Logpage32:HDD SMART\xB7\xCF\xA5\xED\xA5\xB0>>>\n";

size_t countOf(const std::string &text, const std::string &part) {
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
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
    struct Case {
        std::vector<std::string> args;
        std::string out;
    };
    const std::string sataRefusal = "RAID Controller No.0\nPhysical Drive No.4\n"
                                    "KEL0024-E <SATA> drive does not support this command.\n";
    for (const Case &c : std::vector<Case>{
             {{"a", "0", "3F", "00", "FF"}, "KEL0022-E Ileagal Parameter. detail=Controller No\n" + kAbnormalEnd},
             {{"0", "12", "3F", "00", "FF"}, "KEL0022-E Ileagal Parameter. detail=Drive No\n" + kAbnormalEnd},
             {{"0", "7", "3F", "00", "FF"}, "KEL0009-E Your target DeviceNo doesn't exist.\n" + kAbnormalEnd},
             {{"0", "0", "100", "00", "FF"}, "KEL0022-E Ileagal Parameter. detail=Page Code\n" + kAbnormalEnd},
             {{"0", "0", "G", "00", "FF"}, "KEL0022-E Ileagal Parameter. detail=Page Code\n" + kAbnormalEnd},
             {{"0", "0", "3F", "0x", "FF"}, "KEL0022-E Ileagal Parameter. detail=Sub Page Code\n" + kAbnormalEnd},
             {{"0", "0", "3F", "00", ""}, "KEL0022-E Ileagal Parameter. detail=Data Size\n" + kAbnormalEnd},
             {{"0", "4", "3F", "00", "FF"}, sataRefusal},
         }) {
        std::vector<std::string> args = c.args;
        args.insert(args.begin(), "PDPrintModePage");
        RunResult run = kelpth(args);
        EXPECT_EQ(run.exitStatus, 1) << c.out;
        EXPECT_EQ(run.out, c.out);
    }
    EXPECT_EQ(kelsim({"journal"}).out, "");
    EXPECT_EQ(access((workDir + "/Cnt0Dev4.txt").c_str(), F_OK), -1);
}

TEST_F(ModePagePrint, ACheckConditionIsReportedAndNoBlockIsWritten) {
    ASSERT_EQ(kelsim({"fault", "pass-status", "4", "--detail-hex", "700005000000000A000000002400"}).exitStatus, 0);
    RunResult run = kelpth({"PDPrintModePage", "0", "0", "3F", "00", "FF"});
    EXPECT_EQ(run.exitStatus, 1);
    EXPECT_NE(run.out.find("KEL0005-E Request sense data  KEY:05  ASC:24  ASCQ:00\n" + kAbnormalEnd),
              std::string::npos);
    EXPECT_EQ(access((workDir + "/Cnt0Dev0.txt").c_str(), F_OK), -1);
}

class LogSenseReport : public FarmTest {};

// Every SAS drive gets both titles (the MBA4SIM drive, whose family has no decoder, only
// the title of page 0x32); the SATA drives only a trace line.
TEST_F(LogSenseReport, WalksEverySasDriveAndSkipsSataDrivesInTheTrace) {
    RunResult run = kelpth({"L"});
    ASSERT_EQ(run.exitStatus, 0);
    const std::vector<std::pair<int, int>> sasDrives = {{0, 0}, {0, 1}, {0, 2}, {0, 3}, {0, 6}, {1, 0}};
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
    EXPECT_NE(run.out.find("Physical Drive No.6\n" + kPage31Title), std::string::npos);
    EXPECT_NE(run.out.find(kPage32Title + "RAID Controller No.1\nPhysical Drive No.0\n"), std::string::npos);

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
    const size_t failure = run.out.find("KEL0005-E Request sense data  KEY:03  ASC:11  ASCQ:00\n" + kAbnormalEnd +
                                        "\nRAID Controller No.0\nPhysical Drive No.1\n");
    EXPECT_NE(failure, std::string::npos) << run.out.substr(0, 600);
    EXPECT_EQ(countOf(run.out, kPage32Title), 5u);
}

class FirmwareDownload : public FarmTest {
  protected:
    void writeImage(const std::string &name, size_t size) {
        std::string image(size, '\0');
        for (size_t i = 0; i < size; ++i) {
            image[i] = static_cast<char>(i * 7 + 3);
        }
        writeFile(name, image);
    }
};

TEST_F(FirmwareDownload, PiecesOfSixtyFourKiBGoToTheSelectedDrivesOnly) {
    writeImage("fw.bin", 0x10001);
    RunResult run = kelpth({"F", "fw.bin"});
    ASSERT_EQ(run.exitStatus, 0) << run.out;
    EXPECT_NE(run.out.find("Vendor ID:SIMDISK \nProduct ID:MBA4SIM         \nProduct Rev:"), std::string::npos)
        << run.out;
    EXPECT_EQ(countOf(run.out, "[CDB] Size=12\n"), countOf(run.out, "Product ID:")) << "one CDB per drive";
    EXPECT_EQ(run.out.find("Product ID:SD"), std::string::npos);

    const std::vector<std::string> pieces = journalRows(kelsim({"journal"}).out, "KelPasWriteBuffer");
    ASSERT_EQ(pieces.size(), 2u * countOf(run.out, "Product ID:"));
    EXPECT_EQ(pieces[0], "KelPasWriteBuffer ctl=0 pd=6 if=0 dir=0 ata=0 cdb=BA 06 3B 07 00 00 00 00 01 00 00 00 "
                         "len=65536 status=0 sense=-");
    EXPECT_EQ(pieces[1], "KelPasWriteBuffer ctl=0 pd=6 if=0 dir=0 ata=0 cdb=BA 06 3B 07 00 01 00 00 00 00 01 00 "
                         "len=1 status=0 sense=-");
    EXPECT_EQ(countOf(traceLog(), "skipped for not supported [KelFirmwareUpdate] command."), 3u);
}

TEST_F(FirmwareDownload, ALongFileIsCutAndAnEmptyOneSendsNothing) {
    writeImage("big.bin", 0x100000);
    ASSERT_EQ(kelpth({"F", "big.bin"}).exitStatus, 0);
    std::vector<std::string> pieces = journalRows(kelsim({"journal"}).out, "KelPasWriteBuffer");
    ASSERT_EQ(pieces.size() % 12, 0u);
    EXPECT_NE(pieces[11].find("cdb=BA 06 3B 07 00 0B 00 00 01 00 00 00 len=65536"), std::string::npos) << pieces[11];

    ASSERT_EQ(kelsim({"journal", "--clear"}).exitStatus, 0);
    writeImage("empty.bin", 0);
    RunResult run = kelpth({"F", "empty.bin"});
    EXPECT_EQ(run.exitStatus, 0);
    EXPECT_NE(run.out.find("Product ID:MBA4SIM         \n"), std::string::npos);
    EXPECT_EQ(run.out.find("[CDB]"), std::string::npos);
    EXPECT_TRUE(journalRows(kelsim({"journal"}).out, "KelPasWriteBuffer").empty());
}

TEST_F(FirmwareDownload, AFileThatCannotBeFoundOrRead) {
    RunResult run = kelpth({"F", "missing.bin"});
    EXPECT_EQ(run.exitStatus, 1);
    EXPECT_EQ(run.out, "KEL0004-E realpath() failed. detail=No such file or directory\n" + kAbnormalEnd);
    if (geteuid() != 0) { // the superuser reads any file
        writeImage("locked.bin", 16);
        ASSERT_EQ(chmod((workDir + "/locked.bin").c_str(), 0), 0);
        run = kelpth({"F", "locked.bin"});
        EXPECT_EQ(run.exitStatus, 1);
        EXPECT_EQ(run.out, "KEL0008-E Firmware data file open error. errno=13\n" + kAbnormalEnd);
    }
    EXPECT_TRUE(journalRows(kelsim({"journal"}).out, "KelPasWriteBuffer").empty());
}

} // namespace
