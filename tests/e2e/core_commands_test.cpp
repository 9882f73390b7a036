// End to end: the dispatcher, the one-sector commands on physical and logical drives,
// and every library status and controller-library failure as the user sees it.
#include "harness.h"

#include <sys/stat.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

namespace {

class Dispatcher : public FarmTest {};

// The usage screen: the short-coded message, then the block of command lines between two
// rules of 72 dashes. Returns the command lines.
std::vector<std::string> usageLines(const std::string &screen) {
    const std::string rule(72, '-');
    const std::string head = "KEL000-I The mistake is found in the parameter.\n" + rule + "\n";
    EXPECT_EQ(screen.rfind(head, 0), 0u) << screen;
    EXPECT_EQ(screen.size() - screen.rfind(rule + "\n"), rule.size() + 1) << "the block ends with the rule";
    std::vector<std::string> lines;
    std::istringstream in(screen.substr(head.size()));
    for (std::string line; std::getline(in, line) && line != rule;) {
        lines.push_back(line);
    }
    return lines;
}

TEST_F(Dispatcher, UsageErrorsNeverOpenTheController) {
    // With no controller at all, a usage error must still be a usage error.
    ASSERT_EQ(kelsim({"fault", "no-controller", "--count", "9"}).exitStatus, 0);
    const std::string usage = kelpth({}).out;
    EXPECT_EQ(usageLines(usage).size(), 22u);
    for (const auto &args :
         std::vector<std::vector<std::string>>{{"l"}, {"LX"}, {"L", "extra"}, {"P"}, {"PDOneSectorRead", "0", "0"}}) {
        RunResult run = kelpth(args);
        EXPECT_EQ(run.exitStatus, 1);
        EXPECT_EQ(run.out, usage) << "arguments: " << args.size();
    }
    EXPECT_NE(traceLog().find("KEL000-I The mistake is found in the parameter.\n"), std::string::npos);
    EXPECT_EQ(traceLog().find("kelpth L\n"), std::string::npos) << "the usage block is screen-only";
}

TEST_F(Dispatcher, UsageLinesGiveTheArgumentCountsTheDispatcherTakes) {
    // Each line, run as it reads (placeholders for the arguments), gets past the argument
    // check; one argument more or one fewer gets the usage again.
    ASSERT_EQ(kelsim({"fault", "no-controller", "--count", "100"}).exitStatus, 0);
    const std::string usage = kelpth({}).out;
    for (const std::string &line : usageLines(usage)) {
        std::istringstream words(line);
        std::string program, word;
        words >> program >> word;
        EXPECT_EQ(program, "kelpth");
        // One argument per placeholder: "<Save Filename>" is one.
        std::vector<std::string> args = {word};
        args.resize(1 + static_cast<size_t>(std::count(line.begin(), line.end(), '<')), "0");
        EXPECT_NE(kelpth(args).out, usage) << line;
        args.push_back("0");
        EXPECT_EQ(kelpth(args).out, usage) << line << " with one more";
        args.pop_back();
        args.pop_back();
        EXPECT_EQ(kelpth(args).out, usage) << line << " with one fewer";
    }
}

// Each failure of the controller library, scripted in the sim, and the message it gets.
TEST_F(Dispatcher, ControllerLibraryFailuresReportTheLibraryCode) {
    struct Case {
        std::vector<std::string> fault;
        const char *command;
        std::string out;
    };
    for (const Case &c : std::vector<Case>{
             {{"init-fail", "0x1234"}, "PDOneSectorRead", "KEL0004-E initContData() failed. detail=0x00001234\n"},
             {{"no-controller"}, "LDOneSectorRead", "KEL0003-E Orvane Raid Controller is not found.\n"},
             {{"continfo-fail", "0x5"}, "PDOneSectorRead", "KEL0004-E getContInfo() failed. detail=0x00000005\n"},
             {{"continfo-fail", "0x20000"}, "PDOneSectorRead", "KEL0003-E Orvane Raid Controller is not found.\n"},
             {{"raidstatus-fail", "0x7"}, "LDOneSectorRead", "KEL0004-E getRaidStatus() failed. detail=0x00000007\n"},
         }) {
        std::vector<std::string> fault = {"fault"};
        fault.insert(fault.end(), c.fault.begin(), c.fault.end());
        ASSERT_EQ(kelsim(fault).exitStatus, 0) << c.fault[0];
        expectScreens(c.command, {{{"0", "0", "0"}, c.out + kAbnormalEnd}});
    }
}

TEST_F(Dispatcher, TraceLogRecordsHistoryEntryLinesAndTheCdb) {
    ASSERT_EQ(kelpth({"PDOneSectorRead", "0", "0", "0x10"}).exitStatus, 0);
    std::string log = traceLog();
    // History line: absolute path of the program, then the arguments separated by blanks.
    EXPECT_NE(log.find(std::string(KELPTH_BINARY) + " PDOneSectorRead 0 0 0x10"), std::string::npos) << log;
    for (const char *line :
         {"CALL - signal_setup()", "CALL - KelPDOneSectorRead()", "CALL - getHddType()", "## RAID Controller No.0",
          "## Physical Drive No.0", "## Logical Block Address : 0x00000010", "## CDB"}) {
        EXPECT_NE(log.find(line), std::string::npos) << line;
    }
    EXPECT_LT(log.find("CALL - signal_setup()"), log.find("CALL - KelPDOneSectorRead()"));
}

class PhysicalSector : public FarmTest {};

TEST_F(PhysicalSector, WriteThenReadShowsThePattern) {
    checkVolumesAtEnd = false; // writes a volume member behind the volume
    RunResult write = kelpth({"PDOneSectorWrite", "0", "0", "0x10"});
    EXPECT_EQ(write.exitStatus, 0);
    EXPECT_EQ(write.out, "RAID Controller No.0\nPhysical Drive No.0\nLogical Block Address : 0x00000010\n" +
                             cdbDump(12, "BA 00 2A 00 00 00 00 10  00 00 01 00              ............"));

    RunResult read = kelpth({"PDOneSectorRead", "0", "0", "0x10"});
    EXPECT_EQ(read.exitStatus, 0);
    EXPECT_EQ(read.out, "RAID Controller No.0\nPhysical Drive No.0\nLogical Block Address : 0x00000010\n\n" +
                            cdbDump(12, "BB 00 28 00 00 00 00 10  00 00 01 00              ............") +
                            sectorOf("5A", 'Z') + "\n");

    std::string journal = kelsim({"journal"}).out;
    EXPECT_NE(journal.find("KelPasWriteExtend ctl=0 pd=0 if=0 dir=0 ata=0 cdb=BA 00 2A 00 00 00 00 10 00 00 01 00 "
                           "len=512 status=0 sense=-"),
              std::string::npos)
        << journal;
}

TEST_F(PhysicalSector, DumpSavesExactlyOneSector) {
    checkVolumesAtEnd = false; // writes a volume member behind the volume
    ASSERT_EQ(kelpth({"PDOneSectorWrite", "0", "2", "7"}).exitStatus, 0);
    RunResult dump = kelpth({"D", "0", "2", "7", "sector.bin"});
    EXPECT_EQ(dump.exitStatus, 0);
    EXPECT_EQ(dump.out, "RAID Controller No.0\nPhysical Drive No.2\nLogical Block Address : 0x00000007\n"
                        "Save FileName:sector.bin\n\n" +
                            cdbDump(12, "BB 02 28 00 00 00 00 07  00 00 01 00              ............"));
    EXPECT_EQ(readFile("sector.bin"), std::string(512, 'Z'));

    // The file is opened only after a successful read; an unwritable path fails after it.
    RunResult unwritable = kelpth({"D", "0", "2", "7", "no/such/folder/sector.bin"});
    EXPECT_EQ(unwritable.exitStatus, 1);
    EXPECT_NE(unwritable.out.find("[CDB] Size=12"), std::string::npos);
    EXPECT_NE(unwritable.out.find("KEL0011-E Saved file open error. errno=2\n" + kAbnormalEnd), std::string::npos);
}

TEST_F(PhysicalSector, ArgumentErrorsSendNothing) {
    struct Case {
        std::vector<std::string> args;
        std::string detail;
    };
    for (const Case &c : std::vector<Case>{{{"0", "10", "0"}, "Drive No"},
                                           {{"a", "0", "0"}, "Controller No"},
                                           {{"", "0", "0"}, "Controller No"},
                                           {{"0", " 7", "0"}, "Drive No"},
                                           {{"0", "0", "0x"}, "Address"},
                                           {{"0", "0", "0X10"}, "Address"},
                                           {{"0", "0", "123456789"}, "Address"},
                                           {{"0", "0", "0x123456789"}, "Address"}}) {
        std::vector<std::string> args = {"PDOneSectorWrite"};
        args.insert(args.end(), c.args.begin(), c.args.end());
        RunResult run = kelpth(args);
        EXPECT_EQ(run.exitStatus, 1) << c.detail;
        EXPECT_NE(run.out.find("KEL0022-E Ileagal Parameter. detail=" + c.detail + "\n" + kAbnormalEnd),
                  std::string::npos)
            << run.out;
    }
    EXPECT_EQ(kelsim({"journal"}).out, "");
}

TEST_F(PhysicalSector, AcceptedAddressForms) {
    for (const char *address : {"", "0", "FFFFFFFF", "0xffffffff", "7\r\n"}) {
        RunResult run = kelpth({"PDOneSectorRead", "0", "0", address});
        EXPECT_EQ(run.out.find("detail=Address"), std::string::npos) << address;
    }
    EXPECT_NE(kelpth({"PDOneSectorRead", "0", "6\n", "0"}).out.find("Physical Drive No.6"), std::string::npos);
}

TEST_F(PhysicalSector, MissingDrivesControllersAndVolumes) {
    const std::string noDevice = "KEL0009-E Your target DeviceNo doesn't exist.\n" + kAbnormalEnd;
    expectScreens("PDOneSectorRead",
                  {{{"0", "7", "0"}, noDevice}, // empty slot
                   {{"0", "8", "0"}, noDevice}, // past the last slot
                   {{"5", "0", "0"}, "KEL0003-E Orvane Raid Controller is not found.\n" + kAbnormalEnd}});
    expectScreens("LDOneSectorRead", {{{"0", "5", "0"}, noDevice}, {{"0", "0", "0x"}, badValue("Address")}});
}

TEST_F(PhysicalSector, AnLbaPastTheEndIsACheckCondition) {
    RunResult run = kelpth({"PDOneSectorRead", "0", "0", "FFFFFFFF"});
    EXPECT_EQ(run.exitStatus, 1);
    EXPECT_NE(run.out.find(senseError("05", "21", "00")), std::string::npos) << run.out;
}

class LogicalSector : public FarmTest {};

TEST_F(LogicalSector, Raid1WriteLandsOnBothMirrors) {
    RunResult write = kelpth({"LDOneSectorWrite", "0", "0", "0x30"});
    EXPECT_EQ(write.exitStatus, 0);
    EXPECT_EQ(write.out, "RAID Controller No.0\nLogical Drive No.0\nLogical Block Address : 0x00000030\n\n"
                         "[CDB] Size=10\n" +
                             kRule + "00000000: 2A 00 00 00 00 30 00 00  01 00                    .....0....\n\n");
    for (const char *slot : {"0", "1"}) {
        RunResult member = kelpth({"PDOneSectorRead", "0", slot, "0x30"});
        EXPECT_NE(member.out.find(sectorOf("5A", 'Z')), std::string::npos) << "slot " << slot;
    }
    RunResult read = kelpth({"LDOneSectorRead", "0", "0", "0x30"});
    EXPECT_EQ(read.exitStatus, 0);
    EXPECT_NE(read.out.find(sectorOf("5A", 'Z') + "\n"), std::string::npos);
}

// Each library status, scripted in the sim, comes out as its own message.
TEST_F(PhysicalSector, EachLibraryStatusIsReportedByItsMessage) {
    struct StatusCase {
        const char *status;
        std::vector<std::string> detail;
        std::string message;
    };
    for (const StatusCase &c : std::vector<StatusCase>{
             {"1", {"--detail-hex", "03"}, "KEL0014-E Parameter error. argno=3\n"},
             {"2", {}, "KEL0015-E Unsupported command error.\n"},
             {"3",
              {"--detail-text", "path busy\r\nignored"},
              "KEL0016-E PassThrough execution error. detail=path busy\n"},
             {"4",
              {"--detail-hex", "700004000000000A000000004400"},
              "KEL0005-E Request sense data  KEY:04  ASC:44  ASCQ:00\n"},
             {"5", {"--detail-text", "0013fopen"}, "KEL0013-E fopen() failed. errno=13, detail=Permission denied\n"},
             {"6", {}, "KEL0017-E Read and Write command cannot be executed at the same time.\n"},
             {"7", {"--detail-text", "12"}, "KEL0007-E Memory alloc fail. errno=12 detail=Failed in Library\n"},
             {"8", {}, "KEL0023-E Request time out.\n"},
             {"9", {}, "KEL0004-E KelIsErr() failed. detail=Bad file descriptor\n"}}) {
        std::vector<std::string> fault = {"fault", "pass-status", c.status};
        fault.insert(fault.end(), c.detail.begin(), c.detail.end());
        ASSERT_EQ(kelsim(fault).exitStatus, 0);
        RunResult run = kelpth({"PDOneSectorRead", "0", "0", "0"});
        EXPECT_EQ(run.exitStatus, 1) << c.status;
        EXPECT_TRUE(endsWith(run.out, c.message + kAbnormalEnd)) << run.out;
        EXPECT_EQ(countOf(traceLog(), c.message), 1u) << c.message;
    }
}

class ControllerLibraryFailure : public FarmTest {};

TEST_F(ControllerLibraryFailure, UnknownDriveTypeGoesTheSasWay) {
    // Without drive information a SATA slot is treated as SAS: the wrapped READ(10) reaches
    // the library, which refuses a SCSI wrapper for an ATA drive.
    ASSERT_EQ(kelsim({"fault", "driveinfo-fail"}).exitStatus, 0);
    RunResult run = kelpth({"PDOneSectorRead", "0", "4", "0"});
    EXPECT_NE(run.out.find("BB 04 28"), std::string::npos) << run.out;
}

} // namespace

namespace {

class OtherLibraries : public FarmTest {};

TEST_F(OtherLibraries, PutFirstInTheLibraryPathTheyReplaceTheSim) {
    RunResult run = this->run({KELPTH_BINARY, "PDOneSectorRead", "0", "0", "0"}, {"LD_LIBRARY_PATH=" ALTLIB_DIR});
    EXPECT_EQ(run.exitStatus, 0) << run.out << run.err;
    EXPECT_NE(run.out.find("00000000: A5 A5 A5 A5 A5 A5 A5 A5  A5 A5 A5 A5 A5 A5 A5 A5  ................"),
              std::string::npos)
        << run.out;
}

} // namespace
