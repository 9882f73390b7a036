// End to end: the closed loop of a bad drive under a RAID volume on the default farm. A
// block made bad on a member through kelpth (E on SAS, e on SATA) is met by a read of
// the volume: RAID 1 and 5 give the data and repair the member, RAID 0 and a second bad
// block in the row fail. kelsim fails, rebuilds and checks the volumes.
#include "harness.h"

#include <string>
#include <vector>

namespace {

bool showsPattern(const RunResult &read) {
    return read.exitStatus == 0 &&
           read.out.find("000001F0: 5A 5A 5A 5A 5A 5A 5A 5A  5A 5A 5A 5A 5A 5A 5A 5A") != std::string::npos;
}

class RaidFaults : public FarmTest {
  protected:
    // Makes one block of a physical drive unreadable: E for a SAS slot, e for a SATA one.
    void makeBad(const std::string &command, const std::string &slot, const std::string &lba) {
        writeFile("bad.txt", paramFile({"0", slot, lba, "1", "1"}));
        RunResult set = kelpth({command, "bad.txt"});
        ASSERT_EQ(set.exitStatus, 0) << set.out;
    }
    RunResult readVolume(const std::string &ld, const std::string &lba) {
        return kelpth({"LDOneSectorRead", "0", ld, lba});
    }
    RunResult readDrive(const std::string &slot, const std::string &lba) {
        return kelpth({"PDOneSectorRead", "0", slot, lba});
    }
    void writeVolume(const std::string &ld, const std::string &lba) {
        ASSERT_EQ(kelpth({"LDOneSectorWrite", "0", ld, lba}).exitStatus, 0);
    }
    std::string journalText() { return kelsim({"journal"}).out; }
};

// A mirror gives the other copy, parity rebuilds the block; either writes it back to the
// bad member. Two bad blocks in the row leave nothing to give. Volume block 0x40 is on
// both mirrors of RAID 1 at 0x40, and in strip 0, row 0 of RAID 5: data on slot 2,
// parity on slot 6 (528-byte long blocks).
TEST_F(RaidFaults, RedundancyRepairsOneBadBlockButNotTwoInARow) {
    struct Case {
        const char *ld, *bad, *other;
    };
    for (const Case &c : {Case{"0", "0", "1"}, Case{"1", "2", "6"}}) {
        writeVolume(c.ld, "0x40");
        makeBad("E", c.bad, "0x40");
        EXPECT_TRUE(endsWith(readDrive(c.bad, "0x40").out, kMediumError));
        EXPECT_TRUE(showsPattern(readVolume(c.ld, "0x40"))) << "ld " << c.ld;
        EXPECT_NE(journalText().find(std::string("RaidRepair ld=") + c.ld + " lba=64 ctl=0 pd=" + c.bad),
                  std::string::npos)
            << journalText();
        EXPECT_TRUE(showsPattern(readDrive(c.bad, "0x40"))) << "the member reads well again";

        makeBad("E", c.bad, "0x40");
        makeBad("E", c.other, "0x40");
        RunResult read = readVolume(c.ld, "0x40");
        EXPECT_EQ(read.exitStatus, 1);
        EXPECT_TRUE(endsWith(read.out, kMediumError)) << read.out;
        writeVolume(c.ld, "0x40"); // the write replaces both, so the volume checks clean again
    }
}

TEST_F(RaidFaults, StripingFailsTheReadOnASataMembersBadBlock) {
    // Volume block 0x90 is in strip 1: slot 5, member block 0x10.
    writeVolume("2", "0x90");
    makeBad("e", "5", "0x10");
    RunResult read = readVolume("2", "0x90");
    EXPECT_EQ(read.exitStatus, 1);
    EXPECT_TRUE(endsWith(read.out, kMediumError)) << read.out;
    EXPECT_EQ(readVolume("2", "0x91").exitStatus, 0) << "the next block is good";
    writeVolume("2", "0x90");
    EXPECT_TRUE(showsPattern(readVolume("2", "0x90")));
}

TEST_F(RaidFaults, SataWriteLongLeavesABadBlockThatAWriteClears) {
    makeBad("e", "4", "0x1F400"); // slot 4 has no WRITE UNCORRECTABLE EXT: WRITE LONG
    EXPECT_NE(journalText().find("cdb=85 0B 06 00 00 00 01 00 00 00 F4 00 01 40 32 00 len=516 status=0"),
              std::string::npos)
        << journalText();
    EXPECT_TRUE(endsWith(readDrive("4", "0x1F400").out, kMediumError));
    ASSERT_EQ(kelpth({"PDOneSectorWrite", "0", "4", "0x1F400"}).exitStatus, 0);
    EXPECT_TRUE(showsPattern(readDrive("4", "0x1F400")));
}

TEST_F(RaidFaults, FailRebuildAndCheck) {
    writeVolume("0", "0x10");
    writeVolume("1", "0x200");
    EXPECT_EQ(kelsim({"check"}).exitStatus, 0);

    ASSERT_EQ(kelsim({"fail", "0", "1", "3"}).exitStatus, 0);
    EXPECT_NE(kelsim({"show"}).out.find("members 2,3,6  142265856 blocks (67.8 GiB)  degraded, slot 3 failed"),
              std::string::npos);
    // Degraded: still readable, and a write keeps the others' parity.
    EXPECT_TRUE(showsPattern(readVolume("1", "0x200")));
    writeVolume("1", "0x201");
    ASSERT_EQ(kelsim({"rebuild", "0", "1", "--blocks", "1"}).exitStatus, 0);
    EXPECT_NE(kelsim({"show"}).out.find("rebuilding slot 3"), std::string::npos);
    ASSERT_EQ(kelsim({"rebuild", "0", "1"}).exitStatus, 0);
    EXPECT_NE(kelsim({"show"}).out.find("members 2,3,6  142265856 blocks (67.8 GiB)  optimal"), std::string::npos);
    EXPECT_EQ(kelsim({"check"}).exitStatus, 0);
    EXPECT_NE(kelsim({"fail", "0", "2", "4"}).exitStatus, 0) << "RAID 0 cannot lose a member";

    // A write to one mirror behind the volume's back is a mismatch in its row.
    ASSERT_EQ(kelpth({"PDOneSectorWrite", "0", "1", "0x85"}).exitStatus, 0);
    RunResult check = kelsim({"check"});
    EXPECT_EQ(check.exitStatus, 1);
    EXPECT_NE(check.out.find("controller 0 ld 0 (raid1) row 1: mirror mismatch at member block 133"), std::string::npos)
        << check.out;
    checkVolumesAtEnd = false;
}

} // namespace
