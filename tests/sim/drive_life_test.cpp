// The life a simulated SAS drive keeps and shows: log page 0x31 filled by the check
// conditions it raised, page 0x32 built from live counters in the shared layout, the
// power-on clock, the conditions kelsim sets, a scripted check condition, and firmware
// images arriving with WRITE BUFFER.
#include "drives/microcode_image.h"
#include "drives/sas_drive.h"
#include "drives/sas_life.h"
#include "layouts/smart_log_layouts.h"
#include "memory_device.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <vector>

namespace kelsim {
namespace {

using Bytes = std::vector<uint8_t>;
constexpr int64_t kBirth = 1700000000;

class DriveLifeTest : public ::testing::Test {
  protected:
    void SetUp() override {
        setNow(kBirth);
        useProduct("SD1K147RC");
        loadDriveCounters(settings); // the drive's clock starts now
    }
    void TearDown() override { unsetenv("KELSIM_NOW"); }
    static void setNow(int64_t seconds) { setenv("KELSIM_NOW", std::to_string(seconds).c_str(), 1); }
    void useProduct(const std::string &product) {
        identity = DriveIdentity{DriveInterface::Sas, "SIMDISK", product, "0101", "SER0001", 0x1000000, false};
        drive = makeSasDrive(identity, medium, settings);
    }
    ScsiResult send(Bytes cdb, DataDirection direction, Bytes *data) {
        ScsiResult result = execute(*drive, cdb, direction, data->data(), data->size());
        if (direction == DataDirection::FromDevice) {
            data->resize(result.transferred);
        }
        return result;
    }
    ScsiResult readWrite10(uint8_t opcode, uint32_t lba, uint16_t blocks) {
        Bytes data(blocks * 512u, 0x5A);
        return send({opcode, 0, uint8_t(lba >> 24), uint8_t(lba >> 16), uint8_t(lba >> 8), uint8_t(lba), 0,
                     uint8_t(blocks >> 8), uint8_t(blocks), 0},
                    opcode == 0x2A ? DataDirection::ToDevice : DataDirection::FromDevice, &data);
    }
    ScsiResult write10(uint32_t lba, uint16_t blocks) { return readWrite10(0x2A, lba, blocks); }
    ScsiResult read10(uint32_t lba, uint16_t blocks) { return readWrite10(0x28, lba, blocks); }
    Bytes logPage(uint8_t code) {
        Bytes data(0x4000);
        EXPECT_FALSE(send({0x4D, 0, code, 0, 0, 0, 0, 0x40, 0x00, 0}, DataDirection::FromDevice, &data).checkCondition);
        return data;
    }
    // The value of a page-0x32 field, found through the family's layout.
    uint64_t smartValue(const Bytes &page, kellayouts::SmartQuantity quantity, uint8_t head = kellayouts::kNoHead) {
        const kellayouts::SmartLayout *layout = &kellayouts::kLayout073;
        for (const kellayouts::SmartLayout *candidate : kellayouts::kSmartLayouts) {
            if (identity.product.compare(4, 3, candidate->family) == 0) {
                layout = candidate;
            }
        }
        size_t at = kellayouts::kPageHeaderLength;
        for (size_t b = 0; b < layout->blockCount; ++b) {
            for (size_t f = 0; f < layout->blocks[b].fieldCount; ++f) {
                const kellayouts::SmartField &field = layout->blocks[b].fields[f];
                if (field.quantity == quantity && field.head == head) {
                    return be(page, at + field.offset, static_cast<int>(kellayouts::widthOf(field.format)));
                }
            }
            at += layout->blocks[b].length;
        }
        ADD_FAILURE() << "no such field";
        return 0;
    }

    DriveIdentity identity;
    MemoryMedium medium;
    MemorySettings settings;
    std::unique_ptr<ScsiTarget> drive;
};

using Q = kellayouts::SmartQuantity;

TEST_F(DriveLifeTest, CountersFollowWhatTheDriveDoes) {
    Bytes page = logPage(0x32);
    ASSERT_EQ(page.size(), 308u);
    EXPECT_EQ(smartValue(page, Q::PowerOnMinutes), 0u);
    EXPECT_EQ(smartValue(page, Q::SpareSectors), 2000u);
    EXPECT_EQ(smartValue(page, Q::StartStopCount), 1u);
    EXPECT_EQ(smartValue(page, Q::VoltageNow), 0x20u);

    // Zones of 2048 blocks go round the eight heads.
    ASSERT_FALSE(write10(0x10, 8).checkCondition);
    ASSERT_FALSE(write10(3 * 2048 + 1, 4).checkCondition);
    ASSERT_FALSE(read10(3 * 2048, 16).checkCondition);
    ASSERT_FALSE(write10(2046, 4).checkCondition); // two blocks on head 0, two on head 1
    setNow(kBirth + 90 * 60);
    page = logPage(0x32);
    EXPECT_EQ(smartValue(page, Q::PowerOnMinutes), 90u);
    EXPECT_EQ(smartValue(page, Q::SectorsWritten, 0), 10u);
    EXPECT_EQ(smartValue(page, Q::SectorsWritten, 1), 2u);
    EXPECT_EQ(smartValue(page, Q::SectorsWritten, 3), 4u);
    EXPECT_EQ(smartValue(page, Q::SectorsRead, 3), 16u);
    EXPECT_EQ(smartValue(page, Q::SectorsSought, 3), 2u);

    // Spin-ups move the error counts of this start into the previous ones.
    countMediumError(settings, identity, false, 3 * 2048);
    countMediumError(settings, identity, false, 3 * 2048);
    Bytes none;
    ASSERT_FALSE(send({0x1B, 0, 0, 0, 0x00, 0}, DataDirection::None, &none).checkCondition);
    ASSERT_FALSE(send({0x1B, 0, 0, 0, 0x01, 0}, DataDirection::None, &none).checkCondition);
    countMediumError(settings, identity, false, 3 * 2048);
    countReassignedBlock(settings);
    page = logPage(0x32);
    EXPECT_EQ(smartValue(page, Q::ReadErrorsNow, 3), 1u);
    EXPECT_EQ(smartValue(page, Q::ReadErrorsBefore, 3), 2u);
    EXPECT_EQ(smartValue(page, Q::ReadErrorsWorst), 2u);
    EXPECT_EQ(smartValue(page, Q::StartStopCount), 2u);
    EXPECT_EQ(smartValue(page, Q::SpareSectors), 1999u);

    // Conditions set from outside, with the minute their extremes were reached.
    setNow(kBirth + 120 * 60);
    setDriveTemperature(settings, 58);
    setDriveTemperature(settings, 40);
    setDriveVoltage(settings, 0x18);
    setSmartTrip(settings, 0x5D, 0x10);
    Bytes sense(18);
    ASSERT_FALSE(send({0x03, 0, 0, 0, 18, 0}, DataDirection::FromDevice, &sense).checkCondition);
    EXPECT_EQ(sense[2] & 0x0F, 0x00);
    EXPECT_EQ(sense[12], 0x5D) << "the trip, reported on request";
    EXPECT_EQ(sense[13], 0x10);
    page = logPage(0x32);
    EXPECT_EQ(smartValue(page, Q::TemperatureNow), 40u);
    EXPECT_EQ(smartValue(page, Q::TemperatureHighest), 58u);
    EXPECT_EQ(smartValue(page, Q::TemperatureHighestAtMinutes), 120u);
    EXPECT_EQ(smartValue(page, Q::VoltageLowest), 0x18u);
    EXPECT_EQ(smartValue(page, Q::VoltageHighest), 0x20u);
    EXPECT_EQ(smartValue(page, Q::SmartTripAsc), 0x5Du);
    EXPECT_EQ(smartValue(page, Q::SmartTripAtMinutes), 120u);

    // A read that meets a bad block (marked with WRITE LONG, WR_UNCOR) counts an error on
    // that block's head.
    Bytes noData;
    ASSERT_FALSE(send({0x3F, 0x40, 0, 0, 0x28, 0x00, 0, 0, 0, 0}, DataDirection::ToDevice, &noData).checkCondition);
    const ScsiResult bad = read10(5 * 2048, 1);
    ASSERT_TRUE(bad.checkCondition);
    ASSERT_EQ(bad.sense[2] & 0x0F, 0x03);
    page = logPage(0x32);
    EXPECT_EQ(smartValue(page, Q::ReadErrorsNow, 5), 1u);
    EXPECT_EQ(smartValue(page, Q::SectorsRead, 5), 0u) << "nothing was read";

    // Writing the bad block reallocates it: a spare sector goes, the error history gains a
    // recovered write error naming the block, and the write itself ends GOOD.
    ASSERT_FALSE(write10(5 * 2048 - 1, 3).checkCondition);
    EXPECT_FALSE(read10(5 * 2048, 1).checkCondition);
    EXPECT_EQ(smartValue(logPage(0x32), Q::SpareSectors), 1998u);
    const Bytes history = logPage(0x31);
    EXPECT_EQ(history[4 + 18], 0x01);
    EXPECT_EQ(be(history, 4 + 19, 4), 5 * 2048u);
    EXPECT_EQ(history[4 + 28], 0x0C);
    EXPECT_EQ(history[4 + 29], 0x01);
    EXPECT_EQ(history[4 + 64], 0x2A);
    ASSERT_FALSE(write10(5 * 2048, 1).checkCondition);
    EXPECT_EQ(smartValue(logPage(0x32), Q::SpareSectors), 1998u) << "a good block takes no spare";

    // The clock persists: a drive built again over the same settings keeps its age.
    drive = makeSasDrive(identity, medium, settings);
    EXPECT_EQ(smartValue(logPage(0x32), Q::PowerOnMinutes), 120u);
}

TEST_F(DriveLifeTest, EveryCheckConditionGoesIntoTheErrorHistory) {
    setNow(kBirth + 7200);
    ASSERT_TRUE(read10(0x1000000, 1).checkCondition); // past the end
    Bytes none;
    ASSERT_TRUE(send({0xC5, 0, 0, 0, 0, 0}, DataDirection::None, &none).checkCondition); // unknown opcode
    Bytes page = logPage(0x31);
    ASSERT_EQ(page.size(), 4 + 171 * 80u);
    // Newest first: the unknown opcode, then the read past the end.
    EXPECT_EQ(page[4 + 1], 1);
    EXPECT_EQ(page[4 + 18], 0x05);
    EXPECT_EQ(page[4 + 28], 0x20);
    EXPECT_EQ(page[4 + 64], 0xC5);
    const size_t second = 4 + 80;
    EXPECT_EQ(page[second + 1], 2);
    EXPECT_EQ(be(page, second + 8, 4), 7200u);
    EXPECT_EQ(be(page, second + 12, 4), 120u);
    EXPECT_EQ(page[second + 18], 0x05);
    EXPECT_EQ(be(page, second + 19, 4), 0x1000000u);
    EXPECT_EQ(page[second + 28], 0x21);
    EXPECT_EQ(page[second + 64], 0x28);
    EXPECT_EQ(page[4 + 2 * 80 + 28], 0) << "the rest is empty";

    for (int i = 0; i < 200; ++i) {
        read10(0x1000000 + i, 1);
    }
    page = logPage(0x31);
    EXPECT_EQ(be(page, 4 + 19, 4), 0x1000000u + 199) << "the newest is kept";
    EXPECT_EQ(be(page, 4 + 170 * 80 + 19, 4), 0x1000000u + 29);
}

TEST_F(DriveLifeTest, AScriptedCheckConditionFailsTheCommandAfterN) {
    ScriptedCheck check;
    check.opcode = 0x2A;
    check.after = 2;
    check.senseKey = 0x03;
    check.asc = 0x0C;
    check.ascq = 0x02;
    storeScriptedCheck(settings, check);
    EXPECT_FALSE(read10(0, 1).checkCondition) << "another opcode passes untouched";
    EXPECT_FALSE(write10(0, 1).checkCondition);
    EXPECT_FALSE(write10(1, 1).checkCondition);
    const ScsiResult failed = write10(2, 1);
    ASSERT_TRUE(failed.checkCondition);
    EXPECT_EQ(failed.sense[2] & 0x0F, 0x03);
    EXPECT_EQ(failed.sense[12], 0x0C);
    EXPECT_EQ(failed.sense[13], 0x02);
    EXPECT_FALSE(write10(3, 1).checkCondition) << "used up";
    EXPECT_EQ(logPage(0x31)[4 + 28], 0x0C) << "in the history like any other";
}

TEST(MicrocodeImage, BuiltImagesCheckAndDamagedOnesDoNot) {
    const Bytes image = buildMicrocodeImage("MBA4SIM", "0202", 4096);
    ASSERT_EQ(image.size(), 4096u);
    EXPECT_EQ(announcedImageSize(image.data(), 64), 4096u);
    EXPECT_EQ(announcedImageSize(image.data(), 63), 0u);
    std::string revision;
    EXPECT_EQ(checkMicrocodeImage(image.data(), image.size(), "MBA4SIM", &revision), ImageVerdict::Good);
    EXPECT_EQ(revision, "0202");
    EXPECT_EQ(checkMicrocodeImage(image.data(), image.size(), "SD1K073RC", &revision), ImageVerdict::OtherProduct);
    for (size_t at : {size_t{40}, size_t{64}, size_t{4095}}) {
        Bytes damaged = image;
        damaged[at] ^= 0x01;
        EXPECT_EQ(checkMicrocodeImage(damaged.data(), damaged.size(), "MBA4SIM", &revision), ImageVerdict::BadChecksum)
            << at;
    }
    EXPECT_EQ(checkMicrocodeImage(image.data(), 4000, "MBA4SIM", &revision), ImageVerdict::NotAnImage);
}

TEST_F(DriveLifeTest, WriteBufferActivatesAGoodImageAndKeepsTheOldFirmwareOtherwise) {
    useProduct("MBA4SIM");
    auto piece = [&](const Bytes &image, uint32_t offset, uint32_t length) {
        Bytes data(image.begin() + offset, image.begin() + offset + length);
        return send({0x3B, 0x07, 0, uint8_t(offset >> 16), uint8_t(offset >> 8), uint8_t(offset), uint8_t(length >> 16),
                     uint8_t(length >> 8), uint8_t(length), 0},
                    DataDirection::ToDevice, &data);
    };
    const Bytes good = buildMicrocodeImage("MBA4SIM", "0202", 0x18000);
    ASSERT_FALSE(piece(good, 0, 0x10000).checkCondition);
    EXPECT_EQ(sasDriveRevision(identity, settings), "0101") << "not before the last piece";
    ASSERT_FALSE(piece(good, 0x10000, 0x8000).checkCondition);
    EXPECT_EQ(sasDriveRevision(identity, settings), "0202");

    struct Refusal {
        Bytes image;
        uint8_t asc;
    };
    const Bytes other = buildMicrocodeImage("SD1K073RC", "0303", 0x18000);
    Bytes broken = buildMicrocodeImage("MBA4SIM", "0303", 0x18000);
    broken[0x12345] ^= 0x80;
    for (const Refusal &refusal : {Refusal{other, 0x26}, Refusal{broken, 0x26}}) {
        ASSERT_FALSE(piece(refusal.image, 0, 0x10000).checkCondition);
        const ScsiResult last = piece(refusal.image, 0x10000, 0x8000);
        ASSERT_TRUE(last.checkCondition);
        EXPECT_EQ(last.sense[2] & 0x0F, 0x05);
        EXPECT_EQ(last.sense[12], refusal.asc);
        EXPECT_EQ(sasDriveRevision(identity, settings), "0202");
    }
    // Pieces out of order are refused at the offset field.
    ASSERT_FALSE(piece(good, 0, 0x8000).checkCondition);
    const ScsiResult skipped = piece(good, 0x10000, 0x8000);
    ASSERT_TRUE(skipped.checkCondition);
    EXPECT_EQ(skipped.sense[12], 0x24);
    EXPECT_EQ(skipped.sense[16] << 8 | skipped.sense[17], 3);
}

} // namespace
} // namespace kelsim
