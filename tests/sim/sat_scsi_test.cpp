// The translation layer in front of a SATA drive answering standard SCSI commands: what it
// reports must agree with the drive's own IDENTIFY data, and reads and writes must reach
// the same blocks that ATA commands reach.
#include "drives/sata_drive.h"
#include "memory_device.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace kelsim {
namespace {

using Bytes = std::vector<uint8_t>;
constexpr uint64_t kBlocks = 34359738368ull; // 16 TiB: more than READ CAPACITY(10) can say

class SatScsiTest : public ::testing::Test {
  protected:
    SatScsiTest() {
        identity = DriveIdentity{DriveInterface::Sata, "ATA", "SIMSATA16T", "1A2B", "SN0123456789", kBlocks, true};
        drive = makeSataDrive(identity, medium, settings);
    }
    ScsiResult send(const Bytes &cdb, DataDirection direction, Bytes *data) {
        ScsiResult result = execute(*drive, cdb, direction, data ? data->data() : nullptr, data ? data->size() : 0);
        if (data != nullptr && direction == DataDirection::FromDevice) {
            data->resize(result.transferred);
        }
        return result;
    }
    Bytes in(const Bytes &cdb, size_t size = 4096) {
        Bytes data(size, 0xEE);
        EXPECT_FALSE(send(cdb, DataDirection::FromDevice, &data).checkCondition);
        return data;
    }
    // IDENTIFY DEVICE through ATA PASS-THROUGH(16), as kelpth sends it.
    Bytes identify() {
        Bytes data(512);
        send({0x85, 0x08, 0x0E, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0xEC, 0}, DataDirection::FromDevice, &data);
        return data;
    }

    DriveIdentity identity;
    MemoryMedium medium;
    MemorySettings settings;
    std::unique_ptr<ScsiTarget> drive;
};

std::string ataText(const Bytes &identifyData, unsigned word, unsigned words) {
    std::string text;
    for (unsigned i = 0; i < 2 * words; ++i) {
        text.push_back(static_cast<char>(identifyData.at(2 * word + (i ^ 1))));
    }
    return text;
}

TEST_F(SatScsiTest, InquiryAndItsPagesComeFromIdentify) {
    const Bytes ata = identify();
    ASSERT_EQ(ata.size(), 512u);
    Bytes data = in({0x12, 0, 0, 0, 96, 0});
    ASSERT_EQ(data.size(), 96u);
    EXPECT_EQ(data[0], 0x00); // direct-access block device
    EXPECT_EQ(std::string(data.begin() + 8, data.begin() + 16), "ATA     ");
    EXPECT_EQ(std::string(data.begin() + 16, data.begin() + 32), ataText(ata, 27, 8));
    EXPECT_EQ(std::string(data.begin() + 32, data.begin() + 36), "1A2B");

    data = in({0x12, 1, 0x00, 0, 0xFF, 0});
    EXPECT_EQ(data, (Bytes{0x00, 0x00, 0x00, 0x06, 0x00, 0x80, 0x83, 0x89, 0xB0, 0xB1}));
    data = in({0x12, 1, 0x80, 0, 0xFF, 0});
    EXPECT_EQ(std::string(data.begin() + 4, data.end()), "SN0123456789");

    data = in({0x12, 1, 0x89, 0x02, 0x3C, 0});
    ASSERT_EQ(data.size(), 572u);
    EXPECT_EQ(be(data, 2, 2), 0x238u);
    EXPECT_EQ(data[56], 0xEC);
    EXPECT_EQ(Bytes(data.begin() + 60, data.end()), ata) << "the IDENTIFY data, whole";
}

TEST_F(SatScsiTest, CapacityIsTheUserAddressSpace) {
    const Bytes ata = identify();
    uint64_t userBlocks = 0;
    for (unsigned i = 0; i < 4; ++i) {
        userBlocks |= uint64_t(ata[200 + 2 * i] | ata[201 + 2 * i] << 8) << (16 * i);
    }
    ASSERT_EQ(userBlocks, kBlocks);
    Bytes data = in({0x25, 0, 0, 0, 0, 0, 0, 0, 0, 0});
    EXPECT_EQ(data, (Bytes{0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 2, 0})) << "too large for the short form";
    data = in({0x9E, 0x10, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 32, 0, 0});
    ASSERT_EQ(data.size(), 32u);
    EXPECT_EQ(be(data, 0, 8), kBlocks - 1);
    EXPECT_EQ(be(data, 8, 4), 512u);
}

TEST_F(SatScsiTest, ReadsAndWritesReachTheBlocksAtaCommandsReach) {
    Bytes block(1024);
    for (size_t i = 0; i < block.size(); ++i) {
        block[i] = static_cast<uint8_t>(i * 3);
    }
    Bytes sent = block;
    ASSERT_FALSE(send({0x2A, 0, 0, 0, 0x10, 0x00, 0, 0, 2, 0}, DataDirection::ToDevice, &sent).checkCondition);
    // READ(16) and READ(6) see it, and so does ATA READ SECTOR(S) EXT.
    EXPECT_EQ(in({0x88, 0, 0, 0, 0, 0, 0, 0, 0x10, 0x00, 0, 0, 0, 2, 0, 0}), block);
    EXPECT_EQ(in({0x08, 0, 0x10, 0x01, 1, 0}), Bytes(block.begin() + 512, block.end()));
    Bytes ata(512);
    send({0x85, 0x09, 0x0E, 0, 0, 0, 1, 0, 0x00, 0, 0x10, 0, 0x00, 0x40, 0x24, 0}, DataDirection::FromDevice, &ata);
    EXPECT_EQ(ata, Bytes(block.begin(), block.begin() + 512));

    // WRITE(16) at the last block, then past the end.
    Bytes last(512, 0x77);
    const uint64_t lastLba = kBlocks - 1;
    Bytes cdb16 = {0x8A, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0};
    for (int i = 0; i < 8; ++i) {
        cdb16[2 + i] = static_cast<uint8_t>(lastLba >> (56 - 8 * i));
    }
    ASSERT_FALSE(send(cdb16, DataDirection::ToDevice, &last).checkCondition);
    cdb16[13] = 2;
    Bytes two(1024);
    const ScsiResult pastTheEnd = send(cdb16, DataDirection::ToDevice, &two);
    ASSERT_TRUE(pastTheEnd.checkCondition);
    EXPECT_EQ(pastTheEnd.sense[2] & 0x0F, 0x05);
    EXPECT_EQ(pastTheEnd.sense[12], 0x21);

    // REQUEST SENSE reports that error once; TEST UNIT READY and SYNCHRONIZE CACHE succeed.
    Bytes sense = in({0x03, 0, 0, 0, 18, 0});
    EXPECT_EQ(sense[12], 0x21);
    EXPECT_EQ(in({0x03, 0, 0, 0, 18, 0})[12], 0x00);
    EXPECT_FALSE(send({0x00, 0, 0, 0, 0, 0}, DataDirection::None, nullptr).checkCondition);
    EXPECT_FALSE(send({0x35, 0, 0, 0, 0, 0, 0, 0, 0, 0}, DataDirection::None, nullptr).checkCondition);
}

TEST_F(SatScsiTest, ModeSenseGivesTheLayersPagesAndLogSenseItsList) {
    Bytes data = in({0x5A, 0, 0x3F, 0, 0, 0, 0, 0x10, 0x00, 0});
    ASSERT_GE(data.size(), 16u);
    EXPECT_EQ(be(data, 0, 2) + 2, data.size());
    EXPECT_EQ(be(data, 6, 2), 8u) << "one block descriptor";
    EXPECT_EQ(be(data, 8, 4), 0xFFFFFFFFu);
    std::vector<int> codes;
    size_t offset = 16;
    while (offset + 1 < data.size()) {
        codes.push_back(data[offset] & 0x3F);
        offset += data[offset + 1] + 2;
    }
    EXPECT_EQ(offset, data.size());
    EXPECT_EQ(codes, (std::vector<int>{0x01, 0x08, 0x0A, 0x1C}));

    // The caching page tells the write cache state IDENTIFY reports (word 85 bit 5).
    const Bytes ata = identify();
    data = in({0x1A, 0x08, 0x08, 0, 0xFF, 0});
    EXPECT_EQ((data[4 + 2] & 0x04) != 0, (ata[170] & 0x20) != 0);

    for (const Bytes &refused : {Bytes{0x1A, 0, 0x19, 0, 0xFF, 0}, Bytes{0x1A, 0, 0x08, 0x01, 0xFF, 0},
                                 Bytes{0x4D, 0, 0x31, 0, 0, 0, 0, 0, 0xFF, 0}}) {
        Bytes room(255);
        const ScsiResult result = send(refused, DataDirection::FromDevice, &room);
        ASSERT_TRUE(result.checkCondition);
        EXPECT_EQ(result.sense[12], 0x24);
    }
    EXPECT_EQ(in({0x4D, 0, 0x00, 0, 0, 0, 0, 0, 0xFF, 0}), (Bytes{0, 0, 0, 1, 0}));
}

} // namespace
} // namespace kelsim
