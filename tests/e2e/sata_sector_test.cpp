// End to end: one-sector read and write on SATA drives through ATA PASS-THROUGH(16),
// with 48-bit addresses, as the screen, the exit status and the journal show them.
#include "harness.h"

#include <string>
#include <vector>

namespace {

const std::string kSlot4Lines = "RAID Controller No.0\nPhysical Drive No.4\n";

bool hasLine(const std::string &text, const std::string &line) {
    return ("\n" + text).find("\n" + line + "\n") != std::string::npos;
}

class SataSector : public FarmTest {};

TEST_F(SataSector, WriteThenReadShowsThePatternAndTheAtaBlocks) {
    RunResult write = kelpth({"PDOneSectorWrite", "0", "4", "0x1234"});
    EXPECT_EQ(write.exitStatus, 0);
    EXPECT_EQ(write.out, kSlot4Lines + "Logical Block Address : 0x000000001234\n" +
                             cdbDump(16, "85 0B 06 00 00 00 01 00  34 00 12 00 00 40 34 00  ........4.....4."));

    RunResult read = kelpth({"PDOneSectorRead", "0", "4", "0x1234"});
    EXPECT_EQ(read.exitStatus, 0);
    EXPECT_EQ(read.out, kSlot4Lines + "Logical Block Address : 0x000000001234\n" +
                            cdbDump(16, "85 09 0E 00 00 00 01 00  34 00 12 00 00 40 24 00  ........4.......") +
                            sectorOf("5A", 'Z') + "\n");

    // A neighbouring sector was not touched.
    RunResult neighbour = kelpth({"PDOneSectorRead", "0", "4", "1235"});
    EXPECT_EQ(neighbour.exitStatus, 0);
    EXPECT_NE(neighbour.out.find(sectorOf("00", '.') + "\n"), std::string::npos) << neighbour.out;

    std::string journal = kelsim({"journal"}).out;
    EXPECT_TRUE(hasLine(journal, "1 KelPasWriteSectorExt ctl=0 pd=4 if=1 dir=0 ata=1 "
                                 "cdb=85 0B 06 00 00 00 01 00 34 00 12 00 00 40 34 00 len=512 status=0 sense=-"))
        << journal;
    EXPECT_TRUE(hasLine(journal, "2 KelPasReadSectorExt ctl=0 pd=4 if=1 dir=1 ata=1 "
                                 "cdb=85 09 0E 00 00 00 01 00 34 00 12 00 00 40 24 00 len=512 status=0 sense=-"))
        << journal;

    std::string log = traceLog();
    for (const char *line : {"CALL - KelPDOneSectorWrite_SATA()", "CALL - KelPDOneSectorRead_SATA()",
                             "CALL - setAtaAddress48bit()", "## Logical Block Address : 0x000000001234"}) {
        EXPECT_NE(log.find(line), std::string::npos) << line;
    }
}

TEST_F(SataSector, AddressesAboveFourGigablocksReachTheSixteenTebibyteDrive) {
    // Slot 5 holds more than 2^32 blocks: the upper LBA bytes must arrive in the
    // "previous" register bytes.
    ASSERT_EQ(kelpth({"PDOneSectorWrite", "0", "5", "0x76543210A"}).exitStatus, 0);
    RunResult read = kelpth({"PDOneSectorRead", "0", "5", "76543210A"});
    EXPECT_EQ(read.exitStatus, 0);
    EXPECT_EQ(read.out, "RAID Controller No.0\nPhysical Drive No.5\nLogical Block Address : 0x00076543210A\n" +
                            cdbDump(16, "85 09 0E 00 00 00 01 65  0A 07 21 00 43 40 24 00  .......e....C...") +
                            sectorOf("5A", 'Z') + "\n");
    // The same low 32 bits without the high byte is another sector.
    RunResult low = kelpth({"PDOneSectorRead", "0", "5", "0x6543210A"});
    EXPECT_NE(low.out.find(sectorOf("00", '.') + "\n"), std::string::npos);
}

TEST_F(SataSector, AddressLimits) {
    // All 48 bits set passes the syntax and shows twelve digits; the drive is smaller.
    RunResult top = kelpth({"PDOneSectorRead", "0", "4", "FFFFFFFFFFFF"});
    EXPECT_EQ(top.exitStatus, 1);
    EXPECT_EQ(top.out, kSlot4Lines + "Logical Block Address : 0xFFFFFFFFFFFF\n" +
                           cdbDump(16, "85 09 0E 00 00 00 01 FF  FF FF FF FF FF 40 24 00  ................") +
                           senseError("05", "21", "00"));
    // Sixteen digits behind "0x" pass the scan when the top four are zero.
    RunResult sixteen = kelpth({"PDOneSectorWrite", "0", "4", "0x0000FFFFFFFFFFFF"});
    EXPECT_NE(sixteen.out.find("Logical Block Address : 0xFFFFFFFFFFFF\n"), std::string::npos) << sixteen.out;

    ASSERT_EQ(kelsim({"journal", "--clear"}).exitStatus, 0);
    for (const char *address : {"1000000000000", "0x0001000000000000", "10000000000000000", "0x10000000000000000", "0x",
                                "0X10", "12G4", "-1", " 1"}) {
        for (const char *command : {"PDOneSectorRead", "PDOneSectorWrite"}) {
            RunResult run = kelpth({command, "0", "4", address});
            EXPECT_EQ(run.exitStatus, 1) << command << " " << address;
            EXPECT_EQ(run.out, kSlot4Lines + badValue("Address")) << command << " " << address;
        }
    }
    EXPECT_EQ(kelsim({"journal"}).out, "") << "a refused address sends nothing";
    // The refusal is raised by the SATA module.
    std::string log = traceLog();
    EXPECT_NE(log.find("KelPthCmd_SATA"), std::string::npos);
}

TEST_F(SataSector, LibraryFailuresAreReportedAfterTheCdb) {
    ASSERT_EQ(kelsim({"fault", "pass-status", "4", "--detail-hex", "70000B00000000000A0000004700"}).exitStatus, 0);
    RunResult run = kelpth({"PDOneSectorWrite", "0", "4", "8"});
    EXPECT_EQ(run.exitStatus, 1);
    EXPECT_EQ(run.out, kSlot4Lines + "Logical Block Address : 0x000000000008\n" +
                           cdbDump(16, "85 0B 06 00 00 00 01 00  08 00 00 00 00 40 34 00  ..............4.") +
                           senseError("0B", "47", "00"));

    ASSERT_EQ(kelsim({"fault", "pass-status", "8"}).exitStatus, 0);
    run = kelpth({"PDOneSectorRead", "0", "4", "8"});
    EXPECT_EQ(run.exitStatus, 1);
    EXPECT_TRUE(hasLine(run.out, "KEL0023-E Request time out.")) << run.out;
    EXPECT_EQ(run.out.find("[Read Command(1 Sector)]"), std::string::npos);
}

TEST_F(SataSector, DumpToFileRefusesSataDrives) {
    RunResult run = kelpth({"D", "0", "4", "0", "sector.bin"});
    EXPECT_EQ(run.exitStatus, 1);
    EXPECT_TRUE(hasLine(run.out, "KEL0024-E <SATA> drive does not support this command.")) << run.out;
    EXPECT_EQ(readFile("sector.bin"), "");
    EXPECT_EQ(kelsim({"journal"}).out, "");
}

} // namespace
