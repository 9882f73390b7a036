// RAID volumes over in-memory members: where blocks land, parity, reconstruction and the
// SCSI answers of a logical drive.
#include "raid_volume.h"

#include "memory_device.h"

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <vector>

namespace kelsim {
namespace {

class MarkedBlocks : public MemberMediaErrors {
  public:
    bool anyBad(uint64_t lba, uint32_t count) override {
        for (uint64_t b : bad) {
            if (b >= lba && b < lba + count) {
                return true;
            }
        }
        return false;
    }
    void cleared(uint64_t lba, uint32_t count) override {
        for (uint64_t b = lba; b < lba + count; b++) {
            bad.erase(b);
        }
    }
    std::set<uint64_t> bad;
};

struct Array {
    Array(RaidLevel level, int members, uint64_t blocks = 1 << 20, uint32_t strip = 128)
        : media(static_cast<size_t>(members)), marks(static_cast<size_t>(members)) {
        std::vector<VolumeMember> list;
        for (int i = 0; i < members; i++) {
            list.push_back({&media[static_cast<size_t>(i)], blocks, &marks[static_cast<size_t>(i)]});
        }
        volume = std::make_unique<RaidVolume>(level, strip, std::move(list), "TESTLD");
    }
    std::vector<MemoryMedium> media;
    std::vector<MarkedBlocks> marks;
    std::unique_ptr<RaidVolume> volume;
};

std::vector<uint8_t> cdb10(uint8_t opcode, uint32_t lba, uint16_t blocks) {
    return {opcode,
            0,
            static_cast<uint8_t>(lba >> 24),
            static_cast<uint8_t>(lba >> 16),
            static_cast<uint8_t>(lba >> 8),
            static_cast<uint8_t>(lba),
            0,
            static_cast<uint8_t>(blocks >> 8),
            static_cast<uint8_t>(blocks),
            0};
}

std::vector<uint8_t> cdb16(uint8_t opcode, uint64_t lba, uint32_t blocks) {
    std::vector<uint8_t> cdb(16);
    cdb[0] = opcode;
    for (int i = 0; i < 8; i++) {
        cdb[2 + i] = static_cast<uint8_t>(lba >> (56 - 8 * i));
    }
    for (int i = 0; i < 4; i++) {
        cdb[10 + i] = static_cast<uint8_t>(blocks >> (24 - 8 * i));
    }
    return cdb;
}

ScsiResult run(RaidVolume &volume, const std::vector<uint8_t> &cdb, DataDirection direction,
               std::vector<uint8_t> *data) {
    ScsiCommand command;
    command.cdb = cdb.data();
    command.cdbLength = cdb.size();
    command.direction = direction;
    command.data = data->empty() ? nullptr : data->data();
    command.dataLength = static_cast<uint32_t>(data->size());
    return volume.execute(command);
}

// Writes blocks [lba, lba+count) each filled with its own tag byte, tag = first + i.
void writeTagged(RaidVolume &volume, uint32_t lba, uint16_t count, uint8_t first) {
    std::vector<uint8_t> data(static_cast<size_t>(count) * kBlockSize);
    for (uint16_t i = 0; i < count; i++) {
        std::fill_n(data.begin() + i * kBlockSize, kBlockSize, static_cast<uint8_t>(first + i));
    }
    ScsiResult result = run(volume, cdb10(0x2A, lba, count), DataDirection::ToDevice, &data);
    ASSERT_FALSE(result.checkCondition);
    ASSERT_EQ(result.transferred, data.size());
}

std::vector<uint8_t> readBack(RaidVolume &volume, uint64_t lba, uint32_t count, ScsiResult *result = nullptr) {
    std::vector<uint8_t> data(static_cast<size_t>(count) * kBlockSize, 0xEE);
    ScsiResult answer = run(volume, cdb16(0x88, lba, count), DataDirection::FromDevice, &data);
    if (result != nullptr) {
        *result = answer;
    }
    return data;
}

TEST(RaidLayout, Raid0StripesRoundRobin) {
    Array array(RaidLevel::Raid0, 2, 1000, 128);
    EXPECT_EQ(array.volume->capacity(), 2u * 896); // each member cut to whole strips
    writeTagged(*array.volume, 120, 272, 1);       // strips 0 to 3
    // Strip 0 -> member 0 blocks 0..127, strip 1 -> member 1 blocks 0..127, strip 2 -> member 0
    // blocks 128..255, strip 3 -> member 1 blocks 128..
    EXPECT_EQ(array.media[0].firstByte(120), 1);
    EXPECT_EQ(array.media[0].firstByte(127), 8);
    EXPECT_EQ(array.media[1].firstByte(0), 9);
    EXPECT_EQ(array.media[1].firstByte(127), 136);
    EXPECT_EQ(array.media[0].firstByte(128), 137);
    EXPECT_EQ(array.media[0].firstByte(128 + 127), static_cast<uint8_t>(264));
    EXPECT_EQ(array.media[1].firstByte(128), static_cast<uint8_t>(265));
    EXPECT_EQ(array.media[1].blocks.count(136), 0u);
    std::vector<uint8_t> back = readBack(*array.volume, 120, 272);
    for (int i = 0; i < 272; i++) {
        ASSERT_EQ(back[static_cast<size_t>(i) * kBlockSize], static_cast<uint8_t>(1 + i)) << i;
    }
}

TEST(RaidLayout, Raid1MirrorsAndReadsTheOtherCopyOfABadBlock) {
    Array array(RaidLevel::Raid1, 2, 5000);
    writeTagged(*array.volume, 300, 2, 0x40);
    for (auto &medium : array.media) {
        EXPECT_EQ(medium.firstByte(300), 0x40);
        EXPECT_EQ(medium.firstByte(301), 0x41);
    }
    array.marks[0].bad.insert(301);
    ScsiResult result;
    EXPECT_EQ(readBack(*array.volume, 300, 2, &result)[kBlockSize], 0x41);
    EXPECT_FALSE(result.checkCondition);
    array.marks[1].bad.insert(301);
    readBack(*array.volume, 300, 2, &result);
    EXPECT_TRUE(result.checkCondition);
    EXPECT_EQ(result.sense[2], sense::kMediumError);
    EXPECT_EQ(result.sense[12], 0x11);
    // A write replaces the bad copies.
    writeTagged(*array.volume, 301, 1, 0x77);
    EXPECT_TRUE(array.marks[0].bad.empty() && array.marks[1].bad.empty());
}

TEST(RaidLayout, Raid5RotatesParityLeftSymmetric) {
    Array array(RaidLevel::Raid5, 3, 10000, 128);
    // Row 0: parity on member 2, data strips 0,1 on members 0,1.
    // Row 1: parity on member 1, strips 2,3 on members 2,0.
    // Row 2: parity on member 0, strips 4,5 on members 1,2.
    const int expectedMember[] = {0, 1, 2, 0, 1, 2};
    const int expectedParity[] = {2, 2, 1, 1, 0, 0};
    for (int strip = 0; strip < 6; strip++) {
        StripExtent extent = array.volume->locate(static_cast<uint64_t>(strip) * 128 + 5, 1000);
        EXPECT_EQ(extent.member, expectedMember[strip]) << strip;
        EXPECT_EQ(extent.parityMember, expectedParity[strip]) << strip;
        EXPECT_EQ(extent.memberLba, static_cast<uint64_t>(strip / 2) * 128 + 5) << strip;
        EXPECT_EQ(extent.count, 123u);
    }
    writeTagged(*array.volume, 2 * 128 + 7, 1, 0x33); // strip 2: member 2, row 1
    EXPECT_EQ(array.media[2].firstByte(128 + 7), 0x33);
    EXPECT_EQ(array.media[1].firstByte(128 + 7), 0x33); // parity of a row with one written block
}

TEST(RaidLayout, Raid5ParityIsTheXorOfItsRowAfterOverlappingWrites) {
    Array array(RaidLevel::Raid5, 4, 20000, 16);
    writeTagged(*array.volume, 0, 200, 1);
    writeTagged(*array.volume, 10, 50, 0x80);
    writeTagged(*array.volume, 47, 3, 0xF0);
    writeTagged(*array.volume, 190, 30, 0x11);
    for (uint64_t lba = 0; lba < 20 * 16; lba++) {
        uint8_t x = 0;
        std::vector<uint8_t> block(kBlockSize);
        std::vector<uint8_t> sum(kBlockSize, 0);
        for (auto &medium : array.media) {
            medium.read(lba, 1, block.data());
            for (size_t i = 0; i < kBlockSize; i++) {
                sum[i] ^= block[i];
            }
        }
        for (uint8_t byte : sum) {
            x |= byte;
        }
        ASSERT_EQ(x, 0) << "member row block " << lba;
    }
    std::vector<uint8_t> back = readBack(*array.volume, 45, 6);
    EXPECT_EQ(back[0], 0x80 + 35);
    EXPECT_EQ(back[2 * kBlockSize], 0xF0);
    EXPECT_EQ(back[4 * kBlockSize], 0xF2);
    EXPECT_EQ(back[5 * kBlockSize], 0x80 + 40);
}

TEST(RaidLayout, Raid5RebuildsABadStripAndRaid0Cannot) {
    Array raid5(RaidLevel::Raid5, 3, 4096, 128);
    writeTagged(*raid5.volume, 130, 4, 0x21);
    StripExtent extent = raid5.volume->locate(131, 1);
    raid5.marks[static_cast<size_t>(extent.member)].bad.insert(extent.memberLba);
    ScsiResult result;
    std::vector<uint8_t> back = readBack(*raid5.volume, 130, 4, &result);
    EXPECT_FALSE(result.checkCondition);
    EXPECT_EQ(back[kBlockSize], 0x22);
    // Writing over the bad block still keeps parity right (old data rebuilt first).
    writeTagged(*raid5.volume, 131, 1, 0x99);
    raid5.marks[static_cast<size_t>(extent.member)].bad.insert(extent.memberLba);
    EXPECT_EQ(readBack(*raid5.volume, 131, 1)[0], 0x99);

    Array raid0(RaidLevel::Raid0, 2, 4096, 128);
    writeTagged(*raid0.volume, 0, 1, 0x05);
    raid0.marks[0].bad.insert(0);
    readBack(*raid0.volume, 0, 1, &result);
    EXPECT_TRUE(result.checkCondition);
    EXPECT_EQ(result.sense[2], sense::kMediumError);
}

TEST(RaidCommands, RangeAndOpcodeRefusals) {
    Array array(RaidLevel::Raid1, 2, 1024);
    ScsiResult result;
    readBack(*array.volume, 1023, 2, &result);
    EXPECT_TRUE(result.checkCondition);
    EXPECT_EQ(result.sense[2], sense::kIllegalRequest);
    EXPECT_EQ(result.sense[12], sense::kAscLbaOutOfRange);
    readBack(*array.volume, 1023, 1, &result);
    EXPECT_FALSE(result.checkCondition); // the last block itself is fine

    std::vector<uint8_t> none;
    result = run(*array.volume, {0x35, 0, 0, 0, 0, 0, 0, 0, 0, 0}, DataDirection::None, &none);
    EXPECT_EQ(result.sense[12], sense::kAscInvalidOpcode);

    // A transfer bigger than the host buffer is refused rather than overrun.
    std::vector<uint8_t> small(kBlockSize);
    result = run(*array.volume, cdb10(0x28, 0, 2), DataDirection::FromDevice, &small);
    EXPECT_EQ(result.sense[12], sense::kAscInvalidFieldInCdb);
}

TEST(RaidCommands, CapacityBeyondFourGigablocks) {
    Array array(RaidLevel::Raid0, 2, 3907029168ULL, 128);
    uint64_t capacity = array.volume->capacity();
    EXPECT_GT(capacity, 1ULL << 32);

    std::vector<uint8_t> data(8);
    ScsiResult result = run(*array.volume, {0x25, 0, 0, 0, 0, 0, 0, 0, 0, 0}, DataDirection::FromDevice, &data);
    EXPECT_EQ(result.transferred, 8u);
    EXPECT_EQ(std::vector<uint8_t>(data.begin(), data.begin() + 4), std::vector<uint8_t>(4, 0xFF));

    std::vector<uint8_t> cdb(16);
    cdb[0] = 0x9E;
    cdb[1] = 0x10;
    cdb[13] = 12; // allocation length cuts the 32-byte answer
    data.assign(32, 0xEE);
    result = run(*array.volume, cdb, DataDirection::FromDevice, &data);
    EXPECT_EQ(result.transferred, 12u);
    uint64_t lastLba = 0;
    for (int i = 0; i < 8; i++) {
        lastLba = lastLba << 8 | data[static_cast<size_t>(i)];
    }
    EXPECT_EQ(lastLba, capacity - 1);
    EXPECT_EQ(data[12], 0xEE);

    // A block past 2^32 lands on the member the layout says.
    uint64_t lba = (1ULL << 32) + 300;
    std::vector<uint8_t> block(kBlockSize, 0x3C);
    ASSERT_FALSE(run(*array.volume, cdb16(0x8A, lba, 1), DataDirection::ToDevice, &block).checkCondition);
    uint64_t strip = lba / 128;
    EXPECT_EQ(array.media[strip % 2].firstByte(strip / 2 * 128 + lba % 128), 0x3C);
}

TEST(RaidCommands, InquiryStandardAndSerialPage) {
    Array array(RaidLevel::Raid5, 3);
    std::vector<uint8_t> data(64);
    ScsiResult result = run(*array.volume, {0x12, 0, 0, 0, 64, 0}, DataDirection::FromDevice, &data);
    EXPECT_EQ(result.transferred, 36u);
    EXPECT_EQ(std::string(data.begin() + 16, data.begin() + 28), "RAID5 VOLUME");
    result = run(*array.volume, {0x12, 1, 0x80, 0, 64, 0}, DataDirection::FromDevice, &data);
    EXPECT_EQ(std::string(data.begin() + 4, data.begin() + 4 + data[3]), "TESTLD");
    result = run(*array.volume, {0x12, 0, 0x80, 0, 64, 0}, DataDirection::FromDevice, &data);
    EXPECT_EQ(result.sense[12], sense::kAscInvalidFieldInCdb);
}

} // namespace
} // namespace kelsim
