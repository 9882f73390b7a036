// End to end: the parameter-file pass-through commands P and ANY (SAS and SATA) on the
// default farm, checked on the screen, in the exit status and in the sim's journal.
#include "harness.h"

#include <sstream>
#include <string>
#include <vector>

#include <unistd.h>

namespace {

const std::string kRead10 = "28000000000000000100";
const std::string kWrite10 = "2A000000000000000100";
// ATA PASS-THROUGH(16) blocks: IDENTIFY DEVICE, and READ/WRITE SECTOR(S) EXT of one
// block at LBA 0x100, FLUSH CACHE EXT (no data).
const std::string kIdentify = "85080E0000000100000000000000EC00";
const std::string kReadExt = "85090E00000001000000010000402400";
const std::string kWriteExt = "850B0600000001000000010000403400";
const std::string kFlushCacheExt = "8507000000000000000000000040EA00";

class PassThrough : public FarmTest {
  protected:
    RunResult runWith(const std::string &command, const std::string &content) {
        writeFile("param.txt", content);
        return kelpth({command, "param.txt"});
    }
    std::string header() { return "Parameter Filename :" + workDir + "/param.txt\n"; }
};

TEST_F(PassThrough, FixedReadIsSplitIntoChunksWhoseAddressMovesByTheByteCount) {
    // READ(10) of 0x100 blocks from LBA 0x1000 of slot 2.
    RunResult run = runWith("P", paramFile({"0", "0", "2", "28000000100000010000", "0"}));
    EXPECT_EQ(run.exitStatus, 0) << run.out;
    const std::string expectedStart = header() + "RAID Controller No.0\nPhysical Drive No.2\n\n[CDB] Size=12\n" +
                                      kRule +
                                      "00000000: BB 02 28 00 00 00 10 00  00 01 00 00              ............\n\n"
                                      "[Command Result] Size=131072\n" +
                                      kRule + "00000000: ";
    EXPECT_EQ(run.out.substr(0, expectedStart.size()), expectedStart);
    EXPECT_NE(run.out.find("\n00001FF0: "), std::string::npos) << "offsets run on across the chunks";
    EXPECT_EQ(run.out.find("[Command Result]", expectedStart.size()), std::string::npos) << "one header only";

    const std::vector<std::string> sent = journal();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(journalCall(sent[0]),
              "KelPasAnyCommand ctl=0 pd=2 if=0 dir=1 ata=0 cdb=BB 02 28 00 00 00 10 00 00 00 80 00");
    EXPECT_EQ(journalCall(sent[1]),
              "KelPasAnyCommand ctl=0 pd=2 if=0 dir=1 ata=0 cdb=BB 02 28 00 00 01 10 00 00 00 80 00");
    EXPECT_EQ(journalField(sent[0], "len"), "65536");
    EXPECT_EQ(journalField(sent[1], "len"), "65536");
}

TEST_F(PassThrough, FixedWriteFillsFFAndItsSecondChunkLandsAByteCountFurther) {
    checkVolumesAtEnd = false; // writes a volume member behind the volume
    RunResult run = runWith("P", paramFile({"0", "0", "2", "2A000000200000010000", "1"}));
    EXPECT_EQ(run.exitStatus, 0) << run.out;
    EXPECT_EQ(run.out, header() + "RAID Controller No.0\nPhysical Drive No.2\n\n[CDB] Size=12\n" + kRule +
                           "00000000: BA 02 2A 00 00 00 20 00  00 01 00 00              ............\n\n");
    std::vector<std::string> sent = journal();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(journalCall(sent[1]),
              "KelPasAnyCommand ctl=0 pd=2 if=0 dir=0 ata=0 cdb=BA 02 2A 00 00 01 20 00 00 00 80 00");

    // Block 0x12000 holds the second chunk; block 0x2080 was never written.
    const std::string ffRow = repeatByte("FF", 8) + " " + repeatByte("FF", 8) + " " + std::string(16, '.') + "\n";
    run = runWith("ANY", paramFile({"0", "2", "28000001200000000100", "0", "0x200"}));
    EXPECT_EQ(run.exitStatus, 0) << run.out;
    EXPECT_NE(run.out.find("000001F0: " + ffRow), std::string::npos) << run.out;
    run = runWith("ANY", paramFile({"0", "2", "28000000208000000100", "0", "0x200"}));
    EXPECT_EQ(run.out.find("FF FF"), std::string::npos) << run.out;
}

TEST_F(PassThrough, FixedCommandsWithFixedLengths) {
    // TEST UNIT READY: one command with a one-byte buffer, shown as one byte.
    RunResult run = runWith("P", paramFile({"0", "x", "0", "000000000000", "0"}));
    EXPECT_EQ(run.exitStatus, 0) << run.out;
    EXPECT_NE(run.out.find("[Command Result] Size=1\n" + kRule + "00000000: "), std::string::npos) << run.out;
    EXPECT_EQ(journalField(onlyCall(), "len"), "1");

    // INQUIRY with allocation length 0x60: one 96-byte read, the CDB as written.
    ASSERT_EQ(kelsim({"journal", "--clear"}).exitStatus, 0);
    run = runWith("P", paramFile({"0", "0", "0", "120000006000", "0"}));
    EXPECT_EQ(run.exitStatus, 0) << run.out;
    EXPECT_NE(run.out.find("[Command Result] Size=96\n"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("SIMDISK"), std::string::npos) << run.out;
    EXPECT_EQ(journalCall(onlyCall()), "KelPasAnyCommand ctl=0 pd=0 if=0 dir=1 ata=0 cdb=BB 00 12 00 00 00 60 00");

    // An opcode the command does not know has no length: nothing is sent.
    ASSERT_EQ(kelsim({"journal", "--clear"}).exitStatus, 0);
    run = runWith("P", paramFile({"0", "0", "0", "A00000000000", "0"}));
    EXPECT_EQ(run.exitStatus, 0) << run.out;
    EXPECT_EQ(run.out.find("Command Result"), std::string::npos);
    EXPECT_TRUE(journal().empty());
}

TEST_F(PassThrough, FixedRefusesSataDrivesBeforeTheCdb) {
    RunResult run = runWith("P", paramFile({"0", "0", "4", "not a cdb", "0"}));
    EXPECT_EQ(run.exitStatus, 1);
    EXPECT_EQ(run.out, header() + "RAID Controller No.0\nPhysical Drive No.4\n\n"
                                  "KEL0024-E <SATA> drive does not support this command.\n");
    EXPECT_TRUE(journal().empty());
}

TEST_F(PassThrough, ParameterFilesThatCannotBeResolvedOrOpened) {
    for (const char *command : {"P", "ANY"}) {
        RunResult missing = kelpth({command, "missing.txt"});
        EXPECT_EQ(missing.exitStatus, 1);
        EXPECT_EQ(missing.out, "KEL0004-E realpath() failed. detail=No such file or directory\n" + kAbnormalEnd);
    }
    // A write-only kernel attribute cannot be opened for reading, even by root.
    const char *writeOnly = "/sys/bus/pci/rescan";
    if (access(writeOnly, F_OK) != 0) {
        GTEST_SKIP() << writeOnly << " is not on this machine";
    }
    for (const char *command : {"P", "ANY"}) {
        RunResult unreadable = kelpth({command, writeOnly});
        EXPECT_EQ(unreadable.exitStatus, 1);
        EXPECT_EQ(unreadable.out,
                  "KEL0006-E Parameter file open error. errno=13, detail=Permission denied\n" + kAbnormalEnd);
    }
    EXPECT_TRUE(journal().empty());
}

TEST_F(PassThrough, FreeInquiryReturnsTheDriveIdentification) {
    RunResult run = runWith("ANY", paramFile({"0", "0", "120000006000", "0", "0x60"}));
    EXPECT_EQ(run.exitStatus, 0) << run.out;
    EXPECT_EQ(run.out.substr(0, run.out.find("[Command Result]")),
              header() + "RAID Controller No.0\nPhysical Drive No.0\n\n[CDB] Size=8\n" + kRule +
                  "00000000: BB 00 12 00 00 00 60 00                           ........\n\n");
    EXPECT_NE(run.out.find("SIMDISK"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("SD1K073RC"), std::string::npos) << run.out;
    EXPECT_EQ(journalField(onlyCall(), "len"), "96");
}

TEST_F(PassThrough, FreeWriteRepeatsItsDataAndReadsBack) {
    checkVolumesAtEnd = false; // writes a volume member behind the volume
    // Write one block at LBA 0x10 of slot 1, filled by repeating eight bytes.
    RunResult run =
        runWith("ANY", paramFile({"0", "1", "2A000000001000000100", "1", "0x200", "1", "0011223344556677"}));
    EXPECT_EQ(run.exitStatus, 0) << run.out;
    EXPECT_EQ(run.out, header() + "RAID Controller No.0\nPhysical Drive No.1\n\n[CDB] Size=12\n" + kRule +
                           "00000000: BA 01 2A 00 00 00 00 10  00 00 01 00              ............\n\n");

    run = runWith("ANY", paramFile({"0", "1", "28000000001000000100", "0", "0x200"}));
    EXPECT_EQ(run.exitStatus, 0) << run.out;
    const std::string row = "00 11 22 33 44 55 66 77  00 11 22 33 44 55 66 77  ...3DUfw...3DUfw\n";
    EXPECT_NE(run.out.find("[Command Result] Size=512\n" + kRule + "00000000: " + row), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("000001F0: " + row), std::string::npos) << run.out;

    // Without repetition the Data lines follow each other and the rest stays zeros.
    run = runWith("ANY", paramFile({"0", "1", "2A000000002000000100", "1", "0x200", "0", "AABB", "CC"}));
    EXPECT_EQ(run.exitStatus, 0) << run.out;
    run = runWith("ANY", paramFile({"0", "1", "28000000002000000100", "0", "0x200"}));
    EXPECT_NE(run.out.find("00000000: AA BB CC 00 00 00 00 00  00 00"), std::string::npos) << run.out;

    // A Data line that runs past the length is stored up to the length; lines after
    // that are ignored.
    const std::string fullLine(1022, 'E'); // 511 bytes of 0xEE
    run =
        runWith("ANY", paramFile({"0", "1", "2A000000003000000100", "1", "0x200", "0", fullLine, "1122", "33", "zz"}));
    EXPECT_EQ(run.exitStatus, 0) << run.out;
    run = runWith("ANY", paramFile({"0", "1", "28000000003000000100", "0", "0x200"}));
    EXPECT_NE(run.out.find("000001F0: " + repeatByte("EE", 8) + " " + repeatByte("EE", 7) + "11 "), std::string::npos)
        << run.out;
}

TEST_F(PassThrough, FreeWriteOfLengthZeroSendsTheCdbAlone) {
    RunResult run = runWith("ANY", paramFile({"0", "3", "35000000000000000000", "1", "0"}));
    EXPECT_EQ(run.exitStatus, 0) << run.out;
    EXPECT_EQ(journalField(onlyCall(), "len"), "0");
}

TEST_F(PassThrough, FreeLibraryFailureIsReported) {
    ASSERT_EQ(kelsim({"fault", "pass-status", "8"}).exitStatus, 0);
    RunResult run = runWith("ANY", paramFile({"0", "3", "28000000000000000100", "0", "0x200"}));
    EXPECT_EQ(run.exitStatus, 1);
    EXPECT_NE(run.out.find("\n\nKEL0023-E Request time out.\n" + kAbnormalEnd), std::string::npos) << run.out;
}

TEST_F(PassThrough, SataIdentifyWithWordSwapShowsTheModel) {
    RunResult run = runWith("ANY", paramFile({"0", "4", kIdentify, "0", "1", "1", "1"}));
    EXPECT_EQ(run.exitStatus, 0) << run.out;
    EXPECT_EQ(run.out.substr(0, run.out.find("[Command Result]")),
              header() + "RAID Controller No.0\nPhysical Drive No.4\n\n[CDB] Size=16\n" + kRule +
                  "00000000: 85 08 0E 00 00 00 01 00  00 00 00 00 00 00 EC 00  ................\n\n");
    EXPECT_NE(run.out.find("[Command Result] Size=512\n"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("MQX5108SIM"), std::string::npos) << run.out;
    const std::string call = onlyCall();
    EXPECT_EQ(journalCall(call), "KelPasAnyCommand ctl=0 pd=4 if=1 dir=1 ata=1 cdb=85 08 0E 00 00 00 01 00 00 00 "
                                 "00 00 00 00 EC 00");
    EXPECT_EQ(journalField(call, "len"), "512");
    EXPECT_NE(traceLog().find("CALL - getFlagOnOrNot(Word block change on or not)"), std::string::npos);

    // Unswapped, the model's characters come pairwise reversed.
    run = runWith("ANY", paramFile({"0", "4", kIdentify, "0", "1", "1", "0"}));
    EXPECT_EQ(run.out.find("MQX5108SIM"), std::string::npos);
    EXPECT_NE(run.out.find("QM5X01S8MI"), std::string::npos) << run.out;
}

TEST_F(PassThrough, SataNoDataEndsTheFile) {
    // FLUSH CACHE EXT with direction 2 ends the file: no buffer, no length, no result.
    RunResult run = runWith("ANY", paramFile({"0", "4", kFlushCacheExt, "2"}));
    EXPECT_EQ(run.exitStatus, 0) << run.out;
    EXPECT_EQ(run.out.find("Command Result"), std::string::npos);
    const std::string call = onlyCall();
    EXPECT_EQ(journalField(call, "dir"), "2");
    EXPECT_EQ(journalField(call, "len"), "0");
}

TEST_F(PassThrough, SataWriteBlocksAndReadBack) {
    // WRITE SECTOR(S) EXT of one block at LBA 0x100, length counted in blocks, data repeated.
    RunResult run = runWith("ANY", paramFile({"0", "5", kWriteExt, "1", "1", "1", "1", "C0FFEE"}));
    EXPECT_EQ(run.exitStatus, 0) << run.out;
    std::vector<std::string> sent = journal();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(journalField(sent[0], "ata"), "1");
    EXPECT_EQ(journalField(sent[0], "len"), "512");

    // READ SECTOR(S) EXT of the same block, length in bytes, no swap.
    run = runWith("ANY", paramFile({"0", "5", kReadExt, "0", "0x200", "0", "0"}));
    EXPECT_EQ(run.exitStatus, 0) << run.out;
    EXPECT_NE(run.out.find("00000000: C0 FF EE C0 FF EE C0 FF  EE C0 FF EE C0 FF EE C0"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("\n000001F0: "), std::string::npos);
    sent = journal();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(journalField(sent[1], "ata"), "0");
}

// Every label a bad line of these commands is refused with, the other refusals, and that
// nothing is sent.
TEST_F(PassThrough, RefusalsSendNothing) {
    const std::string kIncomplete = "KEL0014-E Parameter error. argno=";
    struct Refusal {
        const char *command;
        std::vector<std::string> values;
        std::string tail; // how the screen ends
    };
    for (const Refusal &c : std::vector<Refusal>{
             {"P", {"A", "0", "0", kRead10, "0"}, badValue("Controller No")},
             {"ANY", {"10", "0", kRead10, "0", "0x200"}, badValue("Controller No")},
             {"P", {"0", "0", "0 ", kRead10, "0"}, badValue("Drive No")},
             {"ANY", {"0", "x", kRead10, "0", "0x200"}, badValue("Drive No")},
             {"P", {"0", "0", "0", "28G0", "0"}, badValue("CDB")},
             {"ANY", {"0", "0", "2800 00", "0", "0x200"}, badValue("CDB")},
             {"ANY", {"0", "4", "85ZZ", "0", "1"}, badValue("CDB")},
             {"P", {"0", "0", "0", kRead10, "2"}, badValue("Direction")},
             {"ANY", {"0", "0", kRead10, "2", "0x200"}, badValue("Direction")},
             {"ANY", {"0", "4", kIdentify, "3", "1"}, badValue("Direction")},
             {"P", {"0", "0", "0", "2800001", "0"}, badValue("Address")},
             {"P", {"0", "0", "0", "2800000010000001", "0"}, badValue("Data Length")},
             {"ANY", {"0", "0", kRead10, "0", "0X10"}, badValue("Data Length")},
             {"ANY", {"0", "4", kIdentify, "0", "123456789"}, badValue("Data Length")},
             {"ANY", {"0", "0", kWrite10, "1", "2", "0", "001122"}, badValue("Data Length")},
             {"ANY", {"0", "0", kRead10, "0", "0x10001"}, badValue("Data Length: Send max size over 64K bytes")},
             {"ANY", {"0", "4", kIdentify, "0", "0x10001"}, badValue("Data Length: Send max size over 64K bytes")},
             {"ANY",
              {"0", "4", kIdentify, "0", "0x81", "1", "1"},
              badValue("Data Length: Send max size over 64K bytes")},
             {"ANY",
              {"0", "4", kIdentify, "0", "0x10000", "0", "1"},
              badValue("Data Length: When Tx unit is BYTE send max size over 64K bytes - 1")},
             {"ANY", {"0", "0", kWrite10, "1", "0x200", "2", "00"}, badValue("Continuousness")},
             {"ANY", {"0", "4", kWriteExt, "1", "1", "1", "9", "00"}, badValue("Continuousness")},
             {"ANY", {"0", "4", kIdentify, "0", "1", "2", "1"}, badValue("A unit of transfer length")},
             {"ANY", {"0", "4", kIdentify, "0", "1", "1", "01"}, badValue("Word block change on or not")},
             {"ANY", {"0", "0", kWrite10, "1", "0x200", "0", "00G1"}, badValue("Data")},
             {"ANY", {"0", "0", kWrite10, "1", "0x200", "1", "A"}, badValue("Data")},
             {"ANY", {"0", "4", kWriteExt, "1", "1", "1", "0", "XY"}, badValue("Data")},
             {"ANY", {"0", "4", kWriteExt, "1", "2", "0", "0", "001122"}, badValue("Data Length")},
             // A read of length 0 is refused by the allocation.
             {"ANY",
              {"0", "3", kRead10, "0", "0"},
              "KEL0021-E Please do not specify 0 or less for a size of data.\n" + kAbnormalEnd},
             // A write with a length and Continuousness but no Data line is incomplete; on a SATA
             // drive the message names the number of lines read.
             {"ANY", {"0", "3", kWrite10, "1", "0x200", "1"}, kIncomplete + "*\n" + kAbnormalEnd},
             {"ANY", {"0", "4", kIdentify, "0", "1", "1"}, kIncomplete + "6\n" + kAbnormalEnd},
             {"ANY", {"0", "4", kWriteExt, "1", "1", "1", "1"}, kIncomplete + "7\n" + kAbnormalEnd},
         }) {
        RunResult run = runWith(c.command, paramFile(c.values));
        EXPECT_EQ(run.exitStatus, 1) << c.tail;
        EXPECT_TRUE(endsWith(run.out, c.tail)) << run.out;
    }
    EXPECT_TRUE(journal().empty());
}

} // namespace
