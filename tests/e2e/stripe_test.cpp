// End to end: one-stripe reads and writes on the logical drives of the default farm,
// from the command line (r, w, r64, w64) and from parameter files (R, W): what the
// user sees, what the volumes' members hold afterwards, and what the controller got.
#include "harness.h"

#include <sstream>
#include <string>
#include <vector>

namespace {

// The dump of a whole stripe whose every byte is 0x5A ('Z').
std::string stripeOfZ() {
    return filledDump("Read Command(1 Stripe)", "5A", 'Z', 0x2000);
}

std::string header(int ld, const std::string &addressLine) {
    return "RAID Controller No.0\nLogical Drive No." + std::to_string(ld) + "\nLogical Block Address : " + addressLine;
}

class Stripe : public FarmTest {
  protected:
    // The journal's lines without their sequence numbers.
    std::vector<std::string> journal() {
        std::vector<std::string> rows = FarmTest::journal();
        for (std::string &row : rows) {
            row = row.substr(row.find(' ') + 1);
        }
        return rows;
    }
    void clearJournal() { ASSERT_EQ(kelsim({"journal", "--clear"}).exitStatus, 0); }

    // Whether one sector of a member disk, read past the volume, holds only this byte.
    bool memberHolds(int slot, const std::string &lba, const std::string &hexByte, char shown) {
        RunResult read = kelpth({"PDOneSectorRead", "0", std::to_string(slot), lba});
        return read.out.find(sectorOf(hexByte, shown)) != std::string::npos;
    }
};

// ---------------------------------------------------------------------------------
// w then r on each RAID level of controller 0

class StripeOnEachVolume : public Stripe, public ::testing::WithParamInterface<int> {};

TEST_P(StripeOnEachVolume, WriteThenReadShowsOneStripeOfThePattern) {
    const int ld = GetParam();
    const std::string ldText = std::to_string(ld);
    RunResult write = kelpth({"w", "0", ldText, "0x100", "0"});
    EXPECT_EQ(write.exitStatus, 0);
    EXPECT_EQ(write.out, header(ld, "0x00000100\nData HDD : 0\n\n") +
                             cdbDump(10, "2A 00 00 00 01 00 00 00  80 00                    .........."));

    RunResult read = kelpth({"r", "0", ldText, "0x100"});
    EXPECT_EQ(read.exitStatus, 0);
    EXPECT_TRUE(read.out == header(ld, "0x00000100\n\n") +
                                cdbDump(10, "28 00 00 00 01 00 00 01  00 00                    ..........") +
                                stripeOfZ() + "\n")
        << read.out.substr(0, 600);

    // The screen shows 256 blocks for the read, but each of the two commands asks for 128.
    const std::string target = "ctl=0 ld=" + ldText + " if=0 ";
    EXPECT_EQ(journal(), (std::vector<std::string>{
                             "KelPasWriteExtend " + target +
                                 "dir=0 ata=0 cdb=2A 00 00 00 01 00 00 00 80 00 "
                                 "len=65536 status=0 sense=-",
                             "KelPasWriteExtend " + target +
                                 "dir=0 ata=0 cdb=2A 00 00 00 01 80 00 00 80 00 "
                                 "len=65536 status=0 sense=-",
                             "KelPasReadExtend " + target +
                                 "dir=1 ata=0 cdb=28 00 00 00 01 00 00 00 80 00 "
                                 "len=65536 status=0 sense=-",
                             "KelPasReadExtend " + target +
                                 "dir=1 ata=0 cdb=28 00 00 00 01 80 00 00 80 00 "
                                 "len=65536 status=0 sense=-",
                         }));
}

INSTANTIATE_TEST_SUITE_P(Raid1Raid5Raid0, StripeOnEachVolume, ::testing::Values(0, 1, 2));

// Stripe 0x100 covers strips 2 and 3 (128 blocks each), blocks 0x80..0xFF of the members
// that hold them; RAID 1 mirrors the volume's blocks at the same LBA, 0x100..0x1FF. The
// blocks on either side stay untouched. RAID 5 over slots 2, 3, 6, left-symmetric: row 1
// keeps its parity on slot 3 (5A ^ 5A, zeros), strip 2 on slot 6 and strip 3 on slot 2.
// RAID 0 over slots 4, 5 (SATA): strip 2 on slot 4, strip 3 on slot 5.
TEST_F(Stripe, MembersHoldTheStripeWhereTheLayoutSays) {
    struct MemberLayout {
        int ld;
        std::vector<int> dataSlots;
        std::vector<int> zeroSlots; // members whose stripe blocks must read as zeros
        const char *before, *first, *last, *after;
    };
    for (const MemberLayout &c : std::vector<MemberLayout>{{0, {0, 1}, {}, "0xFF", "0x100", "0x1FF", "0x200"},
                                                           {1, {6, 2}, {3}, "0x7F", "0x80", "0xFF", "0x100"},
                                                           {2, {4, 5}, {}, "0x7F", "0x80", "0xFF", "0x100"}}) {
        ASSERT_EQ(kelpth({"w", "0", std::to_string(c.ld), "0x100", "0"}).exitStatus, 0);
        for (int slot : c.dataSlots) {
            EXPECT_TRUE(memberHolds(slot, c.first, "5A", 'Z')) << "slot " << slot;
            EXPECT_TRUE(memberHolds(slot, c.last, "5A", 'Z')) << "slot " << slot;
            EXPECT_TRUE(memberHolds(slot, c.before, "00", '.')) << "slot " << slot;
            EXPECT_TRUE(memberHolds(slot, c.after, "00", '.')) << "slot " << slot;
        }
        for (int slot : c.zeroSlots) {
            EXPECT_TRUE(memberHolds(slot, c.first, "00", '.')) << "slot " << slot;
            EXPECT_TRUE(memberHolds(slot, c.last, "00", '.')) << "slot " << slot;
        }
    }
}

// ---------------------------------------------------------------------------------
// What is shown against what is sent

TEST_F(Stripe, ReadsShowTheWholeStripeButSendTwoHalves) {
    const std::string lbaRow = "28 00 FF FF FF F0 00 01  00 00                    ..........";
    writeFile("r.txt", "// Controller No\n0\n// Drive No\n2\n// Address\nFFFFFFF0\n");
    for (const std::vector<std::string> &args :
         {std::vector<std::string>{"r", "0", "2", "FFFFFFF0"}, std::vector<std::string>{"R", "r.txt"}}) {
        clearJournal();
        RunResult read = kelpth(args);
        EXPECT_EQ(read.exitStatus, 0) << args[0];
        EXPECT_NE(read.out.find(header(2, "0xFFFFFFF0\n\n") + cdbDump(10, lbaRow)), std::string::npos) << args[0];
        // The second half wraps around in 32 bits to LBA 0x70.
        EXPECT_EQ(journal(), (std::vector<std::string>{
                                 "KelPasReadExtend ctl=0 ld=2 if=0 dir=1 ata=0 cdb=28 00 FF FF FF F0 00 00 80 00 "
                                 "len=65536 status=0 sense=-",
                                 "KelPasReadExtend ctl=0 ld=2 if=0 dir=1 ata=0 cdb=28 00 00 00 00 70 00 00 80 00 "
                                 "len=65536 status=0 sense=-"}))
            << args[0];
    }

    clearJournal();
    RunResult read64 = kelpth({"r64", "0", "2", "0x100000000"});
    EXPECT_EQ(read64.exitStatus, 0);
    EXPECT_NE(read64.out.find(header(2, "0x0000000100000000\n") +
                              cdbDump(16, "88 00 00 00 00 01 00 00  00 00 00 00 01 00 00 00  ................")),
              std::string::npos);
    EXPECT_EQ(journal(), (std::vector<std::string>{
                             "KelPasAnyCommand ctl=0 ld=2 if=0 dir=1 ata=0 "
                             "cdb=88 00 00 00 00 01 00 00 00 00 00 00 00 80 00 00 len=65536 status=0 sense=-",
                             "KelPasAnyCommand ctl=0 ld=2 if=0 dir=1 ata=0 "
                             "cdb=88 00 00 00 00 01 00 00 00 80 00 00 00 80 00 00 len=65536 status=0 sense=-"}));
}

TEST_F(Stripe, TheWrappedSecondHalfLandsAtTheStartOfTheVolume) {
    ASSERT_EQ(kelpth({"w", "0", "2", "FFFFFFF0", "0"}).exitStatus, 0);
    const std::string z = sectorOf("5A", 'Z'), zero = sectorOf("00", '.');
    EXPECT_NE(kelpth({"LDOneSectorRead", "0", "2", "0x6F"}).out.find(zero), std::string::npos);
    EXPECT_NE(kelpth({"LDOneSectorRead", "0", "2", "0x70"}).out.find(z), std::string::npos);
    EXPECT_NE(kelpth({"LDOneSectorRead", "0", "2", "0xEF"}).out.find(z), std::string::npos);
    EXPECT_NE(kelpth({"LDOneSectorRead", "0", "2", "0xF0"}).out.find(zero), std::string::npos);
    EXPECT_NE(kelpth({"LDOneSectorRead", "0", "2", "0xFFFFFFFF"}).out.find(z), std::string::npos);
}

TEST_F(Stripe, SixtyFourBitStripesReachPastTwoToThe32) {
    RunResult write = kelpth({"w64", "0", "2", "0x100000000", "abc"}); // DataHDD is never read
    EXPECT_EQ(write.exitStatus, 0);
    EXPECT_EQ(write.out, header(2, "0x0000000100000000\nData HDD : 0\n\n") +
                             cdbDump(16, "8A 00 00 00 00 01 00 00  00 00 00 00 00 80 00 00  ................"));
    EXPECT_EQ(journal(), (std::vector<std::string>{
                             "KelPasAnyCommand ctl=0 ld=2 if=0 dir=0 ata=0 "
                             "cdb=8A 00 00 00 00 01 00 00 00 00 00 00 00 80 00 00 len=65536 status=0 sense=-",
                             "KelPasAnyCommand ctl=0 ld=2 if=0 dir=0 ata=0 "
                             "cdb=8A 00 00 00 00 01 00 00 00 80 00 00 00 80 00 00 len=65536 status=0 sense=-"}));

    RunResult read = kelpth({"r64", "0", "2", "100000000"});
    EXPECT_EQ(read.exitStatus, 0);
    EXPECT_TRUE(read.out == header(2, "0x0000000100000000\n") +
                                cdbDump(16, "88 00 00 00 00 01 00 00  00 00 00 00 01 00 00 00  ................") +
                                stripeOfZ() + "\n")
        << read.out.substr(0, 600);
    // The same low 32 bits without the high ones address untouched blocks.
    EXPECT_NE(kelpth({"r64", "0", "2", "0"}).out.find("0001FFF0: 00 00 00 00"), std::string::npos);
}

TEST_F(Stripe, The64BitWrapIsCutShortAtTheEndOfTheVolume) {
    // The first half at FFFFFFFFFFFFFF80 lies past the end of any volume, so the wrapped
    // second half (LBA 0) is never sent.
    RunResult read = kelpth({"r64", "0", "2", "0xFFFFFFFFFFFFFF80"});
    EXPECT_EQ(read.exitStatus, 1);
    EXPECT_EQ(read.out, header(2, "0xFFFFFFFFFFFFFF80\n") +
                            cdbDump(16, "88 00 FF FF FF FF FF FF  FF 80 00 00 01 00 00 00  ................") +
                            senseError("05", "21", "00"));
    EXPECT_EQ(journal(), (std::vector<std::string>{
                             "KelPasAnyCommand ctl=0 ld=2 if=0 dir=1 ata=0 "
                             "cdb=88 00 FF FF FF FF FF FF FF 80 00 00 00 80 00 00 len=65536 status=4 sense=05/21/00"}));
}

TEST_F(Stripe, AStripePastTheEndFailsAfterItsFirstHalf) {
    // The volume's size, from the farm's own listing: "  ld 1  raid5 ... <n> blocks".
    const std::string show = kelsim({"show"}).out;
    const size_t ld1 = show.find("  ld 1  raid5");
    ASSERT_NE(ld1, std::string::npos) << show;
    const size_t blocksAt = show.rfind(' ', show.find(" blocks", ld1) - 1) + 1;
    const unsigned long long capacity = std::stoull(show.substr(blocksAt));
    char lastHalf[16];
    snprintf(lastHalf, sizeof lastHalf, "%08llX", capacity - 128);

    RunResult read = kelpth({"r", "0", "1", lastHalf});
    EXPECT_EQ(read.exitStatus, 1);
    const std::string failure = senseError("05", "21", "00");
    ASSERT_GE(read.out.size(), failure.size());
    EXPECT_EQ(read.out.substr(read.out.size() - failure.size()), failure);
    // The first half is shown in full before the second one fails.
    EXPECT_NE(read.out.find("0000FFF0: 00 00"), std::string::npos);
    EXPECT_EQ(read.out.find("00010000: "), std::string::npos);
    std::vector<std::string> sent = journal();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_NE(sent[0].find("status=0 sense=-"), std::string::npos);
    EXPECT_NE(sent[1].find("status=4 sense=05/21/00"), std::string::npos);
}

// ---------------------------------------------------------------------------------
// Parameter files

TEST_F(Stripe, ParameterFilesDoWhatTheCommandLineDoes) {
    writeFile("w.txt", "// Controller No\n0\n// Drive No\n1\n// Address\n0x100\n// Data HDD\n3\n");
    RunResult write = kelpth({"W", "w.txt"});
    EXPECT_EQ(write.exitStatus, 0);
    EXPECT_EQ(write.out, "Parameter Filename :" + workDir + "/w.txt\n" + header(1, "0x00000100\nData HDD : 3\n\n") +
                             cdbDump(10, "2A 00 00 00 01 00 00 00  80 00                    .........."));

    // CR LF line ends, an indented line that is skipped, and lines after the last one needed.
    writeFile("r.txt", "/ one slash is a comment too\r\n0\r\n 7\r\n1\r\n100\r\nanything\r\n");
    RunResult read = kelpth({"R", "r.txt"});
    EXPECT_EQ(read.exitStatus, 0);
    EXPECT_TRUE(read.out == "Parameter Filename :" + workDir + "/r.txt\n" + header(1, "0x00000100\n\n") +
                                cdbDump(10, "28 00 00 00 01 00 00 01  00 00                    ..........") +
                                stripeOfZ() + "\n")
        << read.out.substr(0, 600);

    EXPECT_NE(traceLog().find("## Data HDD : 3"), std::string::npos);
}

TEST_F(Stripe, DataHddIsCheckedByWButSelectsNothing) {
    ASSERT_EQ(kelpth({"w", "0", "0", "0x100", "0"}).exitStatus, 0);
    std::vector<std::string> withZero = journal();
    clearJournal();
    RunResult three = kelpth({"w", "0", "0", "0x100", "3"});
    EXPECT_NE(three.out.find("Data HDD : 3\n\n[CDB]"), std::string::npos);
    EXPECT_EQ(journal(), withZero);
}

// Files that end early are parameter errors without an argument number; every refusal
// sends nothing.
TEST_F(Stripe, RefusalsSendNothing) {
    const std::string kBadDataHdd = badValue("Data HDD");
    const std::string kBadAddress = badValue("Address");
    const std::string kNoDevice = "KEL0009-E Your target DeviceNo doesn't exist.\n" + kAbnormalEnd;
    const std::string kEarly = "KEL0014-E Parameter error. argno=*\n" + kAbnormalEnd;
    const std::string ld1 = "RAID Controller No.0\nLogical Drive No.1\n";
    const std::string file = "Parameter Filename :" + workDir + "/p.txt\n";
    struct Refusal {
        std::vector<std::string> args;
        const char *fileContent; // written to p.txt when not null
        std::string out;
    };
    for (const Refusal &c : std::vector<Refusal>{
             {{"w", "0", "0", "0x100", "12"}, nullptr, kBadDataHdd},
             {{"r", "0", "1", "123456789"}, nullptr, ld1 + kBadAddress},
             {{"r64", "0", "2", "12345678901234567"},
              nullptr,
              "RAID Controller No.0\nLogical Drive No.2\n" + kBadAddress},
             {{"w64", "0", "2", "0X10", "0"}, nullptr, "RAID Controller No.0\nLogical Drive No.2\n" + kBadAddress},
             {{"r", "0", "5", "0"}, nullptr, kNoDevice},
             {{"w64", "0", "8", "0", "0"}, nullptr, kNoDevice},
             {{"W", "p.txt"},
              "0\n0\n0x100\n12\n",
              file + "RAID Controller No.0\nLogical Drive No.0\nLogical Block Address : 0x00000100\n" + kBadDataHdd},
             {{"R", "p.txt"}, "0\n0\n0x\n", file + "RAID Controller No.0\nLogical Drive No.0\n" + kBadAddress},
             {{"R", "p.txt"}, "0 \n0\n0\n", file + badValue("Controller No")},
             {{"R", "missing.txt"},
              nullptr,
              "KEL0004-E realpath() failed. detail=No such file or directory\n" + kAbnormalEnd},
             {{"R", "p.txt"}, "", file + kEarly},
             {{"R", "p.txt"}, "// Controller No\n/ Drive No\n\n", file + kEarly},
             {{"R", "p.txt"}, "0\n1\n", file + ld1 + kEarly},
             {{"W", "p.txt"}, "0\n1\n0x100\n", file + ld1 + "Logical Block Address : 0x00000100\n" + kEarly},
             {{"W", "p.txt"}, "0\n1\n0x100\n  3\n", file + ld1 + "Logical Block Address : 0x00000100\n" + kEarly},
         }) {
        if (c.fileContent != nullptr) {
            writeFile("p.txt", c.fileContent);
        }
        const std::string command = c.args[0];
        expectScreens(command, {{std::vector<std::string>(c.args.begin() + 1, c.args.end()), c.out}});
    }
    EXPECT_EQ(journal(), std::vector<std::string>{});
}

} // namespace
