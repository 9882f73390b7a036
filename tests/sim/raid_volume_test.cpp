// RAID volumes over in-memory members: where blocks land, parity, reconstruction and the
// SCSI answers of a logical drive.
#include "raid_volume.h"

#include "memory_device.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <set>
#include <vector>

namespace kelsim {
namespace {

struct Array {
    Array(RaidLevel level, int members, uint64_t blocks = 1 << 20, uint32_t strip = 128)
        : disks(static_cast<size_t>(members)) {
        std::vector<VolumeMember> list;
        for (int i = 0; i < members; i++) {
            list.push_back({&disks[static_cast<size_t>(i)], blocks, MemberProtocol::Scsi});
        }
        volume = std::make_unique<RaidVolume>(level, strip, std::move(list), "TESTLD", &settings);
    }
    MemoryMedium &medium(size_t member) { return disks[member].medium; }
    std::set<uint64_t> &bad(size_t member) { return disks[member].bad; }
    std::vector<MemoryDisk> disks;
    MemorySettings settings;
    std::unique_ptr<RaidVolume> volume;
};

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

// The 10-byte form: the low four LBA bytes and the low two length bytes of the 16-byte one.
std::vector<uint8_t> cdb10(uint8_t opcode, uint32_t lba, uint16_t blocks) {
    const std::vector<uint8_t> wide = cdb16(opcode, lba, blocks);
    return {opcode, 0, wide[6], wide[7], wide[8], wide[9], 0, wide[12], wide[13], 0};
}

ScsiResult run(RaidVolume &volume, const std::vector<uint8_t> &cdb, DataDirection direction,
               std::vector<uint8_t> *data) {
    return execute(volume, cdb, direction, data->empty() ? nullptr : data->data(), data->size());
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
    EXPECT_EQ(array.medium(0).firstByte(120), 1);
    EXPECT_EQ(array.medium(0).firstByte(127), 8);
    EXPECT_EQ(array.medium(1).firstByte(0), 9);
    EXPECT_EQ(array.medium(1).firstByte(127), 136);
    EXPECT_EQ(array.medium(0).firstByte(128), 137);
    EXPECT_EQ(array.medium(0).firstByte(128 + 127), static_cast<uint8_t>(264));
    EXPECT_EQ(array.medium(1).firstByte(128), static_cast<uint8_t>(265));
    EXPECT_EQ(array.medium(1).blocks.count(136), 0u);
    std::vector<uint8_t> back = readBack(*array.volume, 120, 272);
    for (int i = 0; i < 272; i++) {
        ASSERT_EQ(back[static_cast<size_t>(i) * kBlockSize], static_cast<uint8_t>(1 + i)) << i;
    }
}

TEST(RaidLayout, Raid1MirrorsAndRepairsABadCopyFromTheOther) {
    Array array(RaidLevel::Raid1, 2, 5000);
    std::vector<MemberRepair> repairs;
    array.volume->onRepair([&](const MemberRepair &repair) { repairs.push_back(repair); });
    writeTagged(*array.volume, 300, 2, 0x40);
    for (auto &disk : array.disks) {
        EXPECT_EQ(disk.medium.firstByte(300), 0x40);
        EXPECT_EQ(disk.medium.firstByte(301), 0x41);
    }
    array.bad(0).insert(301);
    ScsiResult result;
    EXPECT_EQ(readBack(*array.volume, 300, 2, &result)[kBlockSize], 0x41);
    EXPECT_FALSE(result.checkCondition);
    EXPECT_TRUE(array.bad(0).empty()) << "the bad copy was written back";
    ASSERT_EQ(repairs.size(), 1u);
    EXPECT_EQ(repairs[0].member, 0);
    EXPECT_EQ(repairs[0].memberLba, 300u);

    // Both copies bad: the read fails and names the volume block.
    array.bad(0).insert(301);
    array.bad(1).insert(301);
    readBack(*array.volume, 300, 2, &result);
    EXPECT_TRUE(result.checkCondition);
    EXPECT_EQ(result.sense[2], sense::kMediumError);
    EXPECT_EQ(result.sense[12], 0x11);
    EXPECT_EQ(result.sense[0], 0xF0) << "VALID";
    EXPECT_EQ(result.sense[6], 45) << "volume block 301 = 0x12D";
    EXPECT_EQ(result.transferred, kBlockSize);
    writeTagged(*array.volume, 301, 1, 0x77);
    EXPECT_TRUE(array.bad(0).empty() && array.bad(1).empty());
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
    EXPECT_EQ(array.medium(2).firstByte(128 + 7), 0x33);
    EXPECT_EQ(array.medium(1).firstByte(128 + 7), 0x33); // parity of a row with one written block
}

TEST(RaidLayout, Raid5ParityIsTheXorOfItsRowAfterOverlappingWrites) {
    Array array(RaidLevel::Raid5, 4, 20000, 16);
    writeTagged(*array.volume, 0, 200, 1);
    writeTagged(*array.volume, 10, 50, 0x80);
    writeTagged(*array.volume, 47, 3, 0xF0);
    writeTagged(*array.volume, 190, 30, 0x11);
    for (uint64_t lba = 0; lba < 20 * 16; lba++) {
        std::vector<uint8_t> block(kBlockSize), sum(kBlockSize, 0);
        for (auto &disk : array.disks) {
            disk.medium.read(lba, 1, block.data());
            std::transform(sum.begin(), sum.end(), block.begin(), sum.begin(), std::bit_xor<uint8_t>());
        }
        ASSERT_EQ(sum, std::vector<uint8_t>(kBlockSize, 0)) << "member row block " << lba;
    }
    std::vector<uint8_t> back = readBack(*array.volume, 45, 6);
    EXPECT_EQ(back[0], 0x80 + 35);
    EXPECT_EQ(back[2 * kBlockSize], 0xF0);
    EXPECT_EQ(back[4 * kBlockSize], 0xF2);
    EXPECT_EQ(back[5 * kBlockSize], 0x80 + 40);
}

TEST(RaidLayout, Raid5RebuildsABadBlockWritesItBackAndRaid0Cannot) {
    Array raid5(RaidLevel::Raid5, 3, 4096, 128);
    writeTagged(*raid5.volume, 130, 4, 0x21);
    StripExtent extent = raid5.volume->locate(131, 1);
    const size_t member = static_cast<size_t>(extent.member);
    raid5.bad(member).insert(extent.memberLba);
    ScsiResult result;
    std::vector<uint8_t> back = readBack(*raid5.volume, 130, 4, &result);
    EXPECT_FALSE(result.checkCondition);
    EXPECT_EQ(back[kBlockSize], 0x22);
    EXPECT_TRUE(raid5.bad(member).empty());
    EXPECT_EQ(raid5.medium(member).firstByte(extent.memberLba), 0x22) << "written back";
    // Writing over a bad block still keeps parity right (old data rebuilt first).
    raid5.bad(member).insert(extent.memberLba);
    writeTagged(*raid5.volume, 131, 1, 0x99);
    raid5.bad(member).insert(extent.memberLba);
    EXPECT_EQ(readBack(*raid5.volume, 131, 1)[0], 0x99);
    // Two bad blocks in one row cannot be rebuilt.
    raid5.bad(member).insert(extent.memberLba);
    raid5.bad(static_cast<size_t>(extent.parityMember)).insert(extent.memberLba);
    readBack(*raid5.volume, 131, 1, &result);
    EXPECT_TRUE(result.checkCondition);
    EXPECT_EQ(result.sense[2], sense::kMediumError);

    Array raid0(RaidLevel::Raid0, 2, 4096, 128);
    writeTagged(*raid0.volume, 128, 3, 0x05);
    raid0.bad(1).insert(1); // volume block 129
    back = readBack(*raid0.volume, 128, 3, &result);
    EXPECT_TRUE(result.checkCondition);
    EXPECT_EQ(result.sense[2], sense::kMediumError);
    EXPECT_EQ(result.sense[6], 129);
    EXPECT_EQ(result.transferred, kBlockSize);
    EXPECT_EQ(raid0.bad(1).count(1), 1u) << "RAID 0 has nothing to repair with";
}

TEST(RaidState, AFailedMemberIsLeftAloneUntilItIsRebuilt) {
    Array array(RaidLevel::Raid5, 3, 4096, 16);
    writeTagged(*array.volume, 0, 64, 0x10);
    std::string error;
    ASSERT_TRUE(array.volume->failMember(1, &error)) << error;
    EXPECT_EQ(array.volume->state(), VolumeState::Degraded);
    array.disks[1].stopped = true;
    const int before = array.disks[1].commands;
    // Reads rebuild its strips, writes keep the parity of the others.
    std::vector<uint8_t> back = readBack(*array.volume, 0, 64);
    for (int i = 0; i < 64; i++) {
        ASSERT_EQ(back[static_cast<size_t>(i) * kBlockSize], static_cast<uint8_t>(0x10 + i)) << i;
    }
    writeTagged(*array.volume, 16, 16, 0x60); // strip 1: on member 1
    EXPECT_EQ(readBack(*array.volume, 20, 1)[0], 0x64);
    EXPECT_EQ(array.disks[1].commands, before) << "no command reaches a failed member";

    // The state lasts: a new volume over the same settings is still degraded.
    RaidVolume again(RaidLevel::Raid5, 16, {{&array.disks[0], 4096}, {&array.disks[1], 4096}, {&array.disks[2], 4096}},
                     "TESTLD", &array.settings);
    EXPECT_EQ(again.state(), VolumeState::Degraded);
    EXPECT_EQ(again.failedMember(), 1);

    array.disks[1].stopped = false;
    array.disks[1].medium.blocks.clear(); // a new disk
    std::vector<uint64_t> rows;
    for (uint64_t lba = 0; lba < 32; lba++) {
        rows.push_back(lba);
    }
    ASSERT_TRUE(array.volume->rebuild(rows, 10, &error)) << error;
    EXPECT_EQ(array.volume->state(), VolumeState::Rebuilding);
    ASSERT_TRUE(array.volume->rebuild(rows, 0, &error)) << error;
    EXPECT_EQ(array.volume->state(), VolumeState::Optimal);
    EXPECT_TRUE(array.volume->check(rows).empty());
    EXPECT_EQ(array.medium(1).firstByte(4), 0x64) << "strip 1 back on member 1";

    EXPECT_FALSE(Array(RaidLevel::Raid0, 2).volume->failMember(0, &error));
}

TEST(RaidState, CheckFindsMirrorAndParityMismatches) {
    Array mirror(RaidLevel::Raid1, 2, 4096);
    writeTagged(*mirror.volume, 5, 3, 0x31);
    std::vector<uint8_t> other(kBlockSize, 0xAB);
    mirror.medium(1).write(6, 1, other.data());
    mirror.bad(0).insert(7);
    std::vector<RowMismatch> found = mirror.volume->check({5, 6, 7});
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(found[0].memberLba, 6u);
    EXPECT_FALSE(found[0].unreadable);
    EXPECT_TRUE(found[1].unreadable);

    Array parity(RaidLevel::Raid5, 3, 4096, 16);
    writeTagged(*parity.volume, 0, 40, 0x01);
    EXPECT_TRUE(parity.volume->check({0, 1, 2, 20}).empty());
    parity.medium(2).write(2, 1, other.data());
    found = parity.volume->check({0, 1, 2, 20});
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].memberLba, 2u);
}

TEST(RaidCommands, RangeAndBufferRefusals) {
    Array array(RaidLevel::Raid1, 2, 1024);
    ScsiResult result;
    readBack(*array.volume, 1023, 2, &result);
    EXPECT_TRUE(result.checkCondition);
    EXPECT_EQ(result.sense[2], sense::kIllegalRequest);
    EXPECT_EQ(result.sense[12], sense::kAscLbaOutOfRange);
    readBack(*array.volume, 1023, 1, &result);
    EXPECT_FALSE(result.checkCondition); // the last block itself is fine

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
    EXPECT_EQ(array.medium(strip % 2).firstByte(strip / 2 * 128 + lba % 128), 0x3C);
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
