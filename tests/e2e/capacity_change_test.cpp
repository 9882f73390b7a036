// End to end: PDHDDCapaChange on a SAS drive (MODE SELECT block descriptor) and on a SATA
// drive (READ NATIVE MAX ADDRESS EXT then SET MAX ADDRESS EXT), and what later runs see.
#include "harness.h"

#include <cinttypes>
#include <cstdio>
#include <sstream>
#include <string>

namespace {

const std::string kLbaOutOfRange = senseError("05", "21", "00");

std::string hex(uint64_t value) {
    char text[32];
    snprintf(text, sizeof text, "0x%" PRIX64, value);
    return text;
}

class CapacityChange : public FarmTest {
  protected:
    // The native block count `kelsim show` gives for the drive of this model, read
    // before any change ("... <count> blocks (...)").
    uint64_t nativeBlocks(const std::string &model) {
        std::istringstream show(kelsim({"show"}).out);
        std::string line;
        while (std::getline(show, line)) {
            size_t modelAt = line.find(" " + model + " ");
            size_t blocksAt = line.find(" blocks");
            if (modelAt == std::string::npos || blocksAt == std::string::npos) {
                continue;
            }
            size_t countAt = line.rfind(' ', blocksAt - 1) + 1;
            return std::stoull(line.substr(countAt, blocksAt - countAt));
        }
        ADD_FAILURE() << "no capacity for " << model << " in kelsim show";
        return 0;
    }

    RunResult readSector(const char *controller, const char *slot, uint64_t lba) {
        return kelpth({"PDOneSectorRead", controller, slot, hex(lba)});
    }
    // Block last of the drive in slot reads; the next one is past its end.
    void expectLastBlock(const char *slot, uint64_t last) {
        EXPECT_EQ(readSector("0", slot, last).exitStatus, 0) << hex(last);
        RunResult past = readSector("0", slot, last + 1);
        EXPECT_EQ(past.exitStatus, 1);
        EXPECT_TRUE(endsWith(past.out, kLbaOutOfRange)) << past.out;
    }
};

TEST_F(CapacityChange, SasShrinkIsSeenByTheNextRunAndGrowsBackToNative) {
    const uint64_t native = nativeBlocks("SD1K073RC");
    ASSERT_GT(native, 0x100000u);

    RunResult shrink = kelpth({"PDHDDCapaChange", "0", "0", "0x100000"});
    EXPECT_EQ(shrink.exitStatus, 0);
    EXPECT_EQ(shrink.out, "RAID Controller No.0\nPhysical Drive No.0\nCapacity : 0x00100000\n\n" +
                              cdbDump(8, "BA 00 15 01 00 00 0C 00                           ........"));
    EXPECT_EQ(kelsim({"journal"}).out, "1 KelPasModeSelect ctl=0 pd=0 if=0 dir=0 ata=0 cdb=BA 00 15 01 00 00 0C 00 "
                                       "len=12 status=0 sense=-\n");

    // The block descriptor held 00 10 00 00: block 0xFFFFF is the last one.
    expectLastBlock("0", 0xFFFFF);

    RunResult grow = kelpth({"PDHDDCapaChange", "0", "0", hex(native)});
    EXPECT_EQ(grow.exitStatus, 0) << grow.out;
    EXPECT_EQ(readSector("0", "0", 0x100000).exitStatus, 0);
    expectLastBlock("0", native - 1);
    // Another drive kept its own capacity throughout.
    EXPECT_EQ(readSector("0", "1", 0x100000).exitStatus, 0);
}

TEST_F(CapacityChange, Refusals) {
    const std::string slot0 = "RAID Controller No.0\nPhysical Drive No.0\n";
    const std::string slot4 = "RAID Controller No.0\nPhysical Drive No.4\n";
    expectScreens("PDHDDCapaChange",
                  {{{"0", "0", "123456789"}, slot0 + badValue("Capacity")},
                   {{"0", "0", "0x123456789"}, slot0 + badValue("Capacity")},
                   {{"0", "0", "0x"}, slot0 + badValue("Capacity")},
                   {{"0", "0", "0X100"}, slot0 + badValue("Capacity")},
                   {{"0", "7", "100"}, "KEL0009-E Your target DeviceNo doesn't exist.\n" + kAbnormalEnd},
                   {{"9", "0", "100"}, "KEL0003-E Orvane Raid Controller is not found.\n" + kAbnormalEnd},
                   {{"0", "4", "0x1000000000000"}, slot4 + badValue("Capacity")},
                   {{"0", "4", "1000000000000"}, slot4 + badValue("Capacity")},
                   {{"0", "4", "0x"}, slot4 + badValue("Capacity")},
                   {{"0", "4", "0X10"}, slot4 + badValue("Capacity")},
                   {{"0", "4", "12 34"}, slot4 + badValue("Capacity")}});
    EXPECT_EQ(kelsim({"journal"}).out, "") << "a refused argument sends nothing";

    // One block more than the drive has: the drive refuses the parameter list.
    const uint64_t native = nativeBlocks("SD1K073RC");
    RunResult tooBig = kelpth({"PDHDDCapaChange", "0", "0", hex(native + 1)});
    char capacityLine[32];
    snprintf(capacityLine, sizeof capacityLine, "Capacity : 0x%08" PRIX64, native + 1);
    EXPECT_EQ(tooBig.exitStatus, 1);
    EXPECT_EQ(tooBig.out, slot0 + capacityLine + "\n\n" +
                              cdbDump(8, "BA 00 15 01 00 00 0C 00                           ........") +
                              senseError("05", "26", "00"));
}

TEST_F(CapacityChange, SataShrinkIsSeenByTheNextRunAndGrowsBackToNative) {
    const uint64_t native = nativeBlocks("MQX5108SIM");
    ASSERT_GT(native, 0x200001u);

    RunResult shrink = kelpth({"PDHDDCapaChange", "0", "4", "0x200000"});
    EXPECT_EQ(shrink.exitStatus, 0);
    // The controller and drive lines come once, from the SAS path; only SET MAX is shown.
    EXPECT_EQ(shrink.out, "RAID Controller No.0\nPhysical Drive No.4\nCapacity : 0x000000200000\n\n" +
                              cdbDump(16, "85 07 00 00 00 00 01 00  00 00 00 00 20 40 37 00  ..............7."));
    EXPECT_EQ(kelsim({"journal"}).out,
              "1 KelPasAnyCommand ctl=0 pd=4 if=1 dir=2 ata=1 cdb=85 07 00 00 00 00 00 00 00 00 00 00 00 40 27 00 "
              "len=0 status=0 sense=-\n"
              "2 KelPasAnyCommand ctl=0 pd=4 if=1 dir=2 ata=1 cdb=85 07 00 00 00 00 01 00 00 00 00 00 20 40 37 00 "
              "len=0 status=0 sense=-\n");

    // SET MAX takes the highest address: 0x200000 itself is still there.
    expectLastBlock("4", 0x200000);

    RunResult grow = kelpth({"PDHDDCapaChange", "0", "4", hex(native - 1)});
    EXPECT_EQ(grow.exitStatus, 0) << grow.out;
    EXPECT_EQ(readSector("0", "4", 0x200001).exitStatus, 0);
    expectLastBlock("4", native - 1);

    std::string log = traceLog();
    size_t sasEntry = log.find("CALL - KelPDHDDCapaChange()");
    size_t sataEntry = log.find("CALL - KelPDHDDCapaChange_SATA()");
    EXPECT_NE(sasEntry, std::string::npos);
    EXPECT_NE(sataEntry, std::string::npos);
    EXPECT_LT(sasEntry, sataEntry);
    EXPECT_NE(log.find("## Capacity : 0x000000200000"), std::string::npos);
}

TEST_F(CapacityChange, SataCapacityLimits) {
    const std::string slot4 = "RAID Controller No.0\nPhysical Drive No.4\n";
    // Twelve digits pass; an address beyond the native one is the drive's to refuse.
    RunResult top = kelpth({"PDHDDCapaChange", "0", "4", "0xFFFFFFFFFFFF"});
    EXPECT_EQ(top.exitStatus, 1);
    const std::string shown = slot4 + "Capacity : 0xFFFFFFFFFFFF\n\n" +
                              cdbDump(16, "85 07 00 00 00 00 01 FF  FF FF FF FF FF 40 37 00  ..............7.");
    EXPECT_EQ(top.out.substr(0, shown.size()), shown);
    EXPECT_TRUE(endsWith(top.out, kAbnormalEnd));
    EXPECT_NE(top.out.find("KEL0005-E Request sense data  KEY:0B"), std::string::npos) << top.out;
    EXPECT_EQ(readSector("0", "4", 0x200001).exitStatus, 0) << "the capacity did not change";
}

TEST_F(CapacityChange, SataFailedReadNativeMaxSendsNothingMore) {
    ASSERT_EQ(kelsim({"fault", "pass-status", "8"}).exitStatus, 0);
    RunResult run = kelpth({"PDHDDCapaChange", "0", "4", "200000"});
    EXPECT_EQ(run.exitStatus, 1);
    EXPECT_EQ(run.out, "RAID Controller No.0\nPhysical Drive No.4\nCapacity : 0x000000200000\n\n"
                       "KEL0023-E Request time out.\n" +
                           kAbnormalEnd);
    EXPECT_EQ(kelsim({"journal"}).out,
              "1 KelPasAnyCommand ctl=0 pd=4 if=1 dir=2 ata=1 cdb=85 07 00 00 00 00 00 00 00 00 00 00 00 40 27 00 "
              "len=0 status=8 sense=-\n");
    EXPECT_EQ(readSector("0", "4", 0x200001).exitStatus, 0) << "the capacity did not change";
}

} // namespace
