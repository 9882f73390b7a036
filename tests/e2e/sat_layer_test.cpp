// End to end: standard SCSI commands written by hand in ANY parameter files and sent to a
// SATA drive come back as the translation layer in front of it gives them, and agree with
// the drive's own IDENTIFY data read through ATA PASS-THROUGH.
#include <string>
#include <vector>

#include "harness.h"

namespace {

uint64_t be(const Bytes &data, size_t offset, int width) {
    uint64_t value = 0;
    for (int i = 0; i < width; ++i) {
        value = value << 8 | data.at(offset + i);
    }
    return value;
}

std::string ataText(const Bytes &identify, unsigned word, unsigned words) {
    std::string text;
    for (unsigned i = 0; i < 2 * words; ++i) {
        text.push_back(static_cast<char>(identify.at(2 * word + (i ^ 1))));
    }
    return text;
}

class SatLayer : public FarmTest {
  protected:
    // A read from SATA slot 4 through ANY: CDB, length in bytes, no word swap.
    Bytes readThroughAny(const std::string &cdb, const std::string &length) {
        writeFile("param.txt", paramFile({"0", "4", cdb, "0", length, "0", "0"}));
        RunResult run = kelpth({"ANY", "param.txt"});
        EXPECT_EQ(run.exitStatus, 0) << run.out;
        return resultBytes(run.out);
    }
};

TEST_F(SatLayer, HandWrittenScsiCommandsAgreeWithIdentify) {
    const Bytes identify = readThroughAny("85080E0000000100000000000000EC00", "0x200");
    ASSERT_EQ(identify.size(), 512u);

    const Bytes inquiry = readThroughAny("120000006000", "0x60");
    ASSERT_EQ(inquiry.size(), 96u);
    EXPECT_EQ(std::string(inquiry.begin() + 8, inquiry.begin() + 16), "ATA     ");
    EXPECT_EQ(std::string(inquiry.begin() + 16, inquiry.begin() + 32), ataText(identify, 27, 8));
    EXPECT_EQ(std::string(inquiry.begin() + 16, inquiry.begin() + 26), "MQX5108SIM");

    const Bytes serial = readThroughAny("120180004000", "0x40");
    ASSERT_GT(serial.size(), 4u);
    std::string identifySerial = ataText(identify, 10, 10);
    identifySerial.erase(identifySerial.find_last_not_of(' ') + 1);
    EXPECT_EQ(std::string(serial.begin() + 4, serial.end()), identifySerial);

    const Bytes ataInformation = readThroughAny("120189023C00", "0x23C");
    ASSERT_EQ(ataInformation.size(), 572u);
    EXPECT_EQ(Bytes(ataInformation.begin() + 60, ataInformation.end()), identify);

    const Bytes capacity = readThroughAny("9E100000000000000000000000200000", "0x20");
    ASSERT_EQ(capacity.size(), 32u);
    uint64_t userBlocks = 0;
    for (unsigned i = 0; i < 4; ++i) {
        userBlocks |= uint64_t(identify[200 + 2 * i] | identify[201 + 2 * i] << 8) << (16 * i);
    }
    EXPECT_EQ(be(capacity, 0, 8) + 1, userBlocks);
    EXPECT_EQ(be(capacity, 8, 4), 512u);

    const Bytes modePages = readThroughAny("5A003F0000000000FF00", "0xFF");
    ASSERT_GT(modePages.size(), 8u);
    std::vector<int> codes;
    size_t offset = 8 + be(modePages, 6, 2);
    while (offset + 1 < modePages.size()) {
        codes.push_back(modePages[offset] & 0x3F);
        offset += modePages[offset + 1] + 2;
    }
    EXPECT_EQ(codes, (std::vector<int>{0x01, 0x08, 0x0A, 0x1C}));
}

TEST_F(SatLayer, ReadTenSeesWhatAtaWroteAndThePatternKelpthWrites) {
    // kelpth writes its pattern to LBA 0x20 with WRITE SECTOR(S) EXT...
    ASSERT_EQ(kelpth({"PDOneSectorWrite", "0", "4", "0x20"}).exitStatus, 0);
    // ...and READ(10) through the layer reads it back.
    const Bytes block = readThroughAny("28000000002000000100", "0x200");
    EXPECT_EQ(block, Bytes(512, 0x5A));
    const Bytes untouched = readThroughAny("28000000002100000100", "0x200");
    EXPECT_EQ(untouched, Bytes(512, 0x00));
    const std::string journal = kelsim({"journal"}).out;
    EXPECT_NE(journal.find("KelPasAnyCommand ctl=0 pd=4 if=1 dir=1 ata=0 cdb=28 00 00 00 00 20 00 00 01 00 len=512 "
                           "status=0 sense=-"),
              std::string::npos)
        << journal;
}

} // namespace
