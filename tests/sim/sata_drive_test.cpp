// Tests of the simulated SATA drive through its SCSI face: ATA PASS-THROUGH command blocks
// in, data and sense out, over an in-memory medium and settings store.
#include "drives/ata_device.h"
#include "drives/sata_drive.h"

#include "memory_device.h"

#include <gtest/gtest.h>

#include <map>
#include <numeric>
#include <vector>

namespace kelsim {
namespace {

// Byte 2 of the pass-through block: T_DIR, BYT_BLOK and T_LENGTH = count, or no data.
constexpr uint8_t kInBlocks = 0x0E, kOutBlocks = 0x06, kNoData = 0x00, kCheckCondition = 0x20;
constexpr uint8_t kNonData = 3, kPioIn = 4, kPioOut = 5, kDma = 6;
constexpr uint64_t kBlocks16T = 0x800000000ULL; // 16 TiB

struct Ata {
    uint8_t protocol = kNonData;
    uint8_t flags = kNoData;
    uint8_t command = 0;
    uint16_t features = 0;
    uint16_t count = 0;
    uint64_t lba = 0;
    bool extend = true;
};

// ATA PASS-THROUGH(16) as the host lays it out, register by register.
std::vector<uint8_t> cdb16(const Ata &ata) {
    std::vector<uint8_t> cdb = {0x85,
                                static_cast<uint8_t>(ata.protocol << 1 | (ata.extend ? 1 : 0)),
                                ata.flags,
                                static_cast<uint8_t>(ata.features >> 8),
                                static_cast<uint8_t>(ata.features),
                                static_cast<uint8_t>(ata.count >> 8),
                                static_cast<uint8_t>(ata.count)};
    for (int i = 0; i < 3; ++i) { // each LBA register: its previous (upper) byte, then its current byte
        cdb.push_back(static_cast<uint8_t>(ata.lba >> (24 + 8 * i)));
        cdb.push_back(static_cast<uint8_t>(ata.lba >> (8 * i)));
    }
    cdb.insert(cdb.end(), {0x40, ata.command, 0x00});
    return cdb;
}

uint16_t wordAt(const std::vector<uint8_t> &data, unsigned word) {
    return getWord(data.data(), word);
}

std::string ataString(const std::vector<uint8_t> &data, unsigned firstWord, unsigned words) {
    std::string text;
    for (unsigned word = firstWord; word < firstWord + words; ++word) {
        text += static_cast<char>(wordAt(data, word) >> 8);
        text += static_cast<char>(wordAt(data, word) & 0xFF);
    }
    return text.substr(0, text.find_last_not_of(' ') + 1);
}

uint8_t byteSum(const std::vector<uint8_t> &data) {
    return static_cast<uint8_t>(std::accumulate(data.begin(), data.end(), 0u));
}

class SataDriveTest : public ::testing::Test {
  protected:
    SataDriveTest() {
        identity.interface = DriveInterface::Sata;
        identity.vendor = "ATA";
        identity.product = "SIMSATA16T";
        identity.revision = "1A2B";
        identity.serial = "SN0123456789";
        identity.nativeBlocks = kBlocks16T;
        identity.writeUncorrectableSupported = true;
        powerCycle();
    }

    // A new device object over the same medium and settings, as a new process would build it.
    void powerCycle() { drive = makeSataDrive(identity, medium, settings); }

    ScsiResult run(const std::vector<uint8_t> &cdb, DataDirection direction, std::vector<uint8_t> *data = nullptr) {
        return execute(*drive, cdb, direction, data ? data->data() : nullptr, data ? data->size() : 0, true);
    }
    ScsiResult nonData(Ata ata) { return run(cdb16(ata), DataDirection::None); }
    ScsiResult readIn(Ata ata, std::vector<uint8_t> *data) {
        ata.protocol = ata.protocol == kNonData ? kPioIn : ata.protocol;
        ata.flags |= kInBlocks;
        return run(cdb16(ata), DataDirection::FromDevice, data);
    }
    ScsiResult writeOut(Ata ata, std::vector<uint8_t> *data) {
        ata.protocol = kPioOut;
        ata.flags |= kOutBlocks;
        return run(cdb16(ata), DataDirection::ToDevice, data);
    }

    std::vector<uint8_t> identify() {
        std::vector<uint8_t> data(512);
        Ata ata;
        ata.command = 0xEC;
        ata.count = 1;
        ata.extend = false;
        EXPECT_FALSE(readIn(ata, &data).checkCondition);
        return data;
    }
    ScsiResult readSectors(uint64_t lba, uint16_t count, std::vector<uint8_t> *data) {
        data->assign(count * 512u, 0xEE);
        return readIn({kPioIn, 0, 0x24, 0, count, lba}, data);
    }
    ScsiResult writeSectors(uint64_t lba, std::vector<uint8_t> data) {
        return writeOut({kPioOut, 0, 0x34, 0, static_cast<uint16_t>(data.size() / 512), lba}, &data);
    }
    ScsiResult readNativeMax(uint8_t flags = kNoData) { return nonData({kNonData, flags, 0x27}); }
    ScsiResult setMax(uint64_t address) { return nonData({kNonData, kNoData, 0x37, 0, 1, address}); }

    MemoryMedium medium;
    MemorySettings settings;
    DriveIdentity identity;
    std::unique_ptr<ScsiTarget> drive;
};

void expectSense(const ScsiResult &result, uint8_t key, uint8_t asc, uint8_t ascq) {
    ASSERT_TRUE(result.checkCondition);
    EXPECT_EQ(result.sense[2] & 0x0F, key);
    EXPECT_EQ(result.sense[12], asc);
    EXPECT_EQ(result.sense[13], ascq);
}

void expectAborted(const ScsiResult &result) {
    expectSense(result, sense::kAbortedCommand, 0x00, 0x00);
    EXPECT_EQ(result.sense[3], 0x04); // ATA error: ABRT
    EXPECT_EQ(result.sense[4], 0x51); // ATA status: ready, seek complete, error
}

// A 16 TiB drive with WRITE UNCORRECTABLE, and a small one without, whose size fits the 28-bit words.
TEST_F(SataDriveTest, IdentifyDescribesTheDriveWithValidIntegrityWord) {
    struct Case {
        const char *product;
        uint64_t blocks;
        bool writeUncorrectable;
        uint32_t blocks28;
        uint16_t word119;
    };
    for (const Case &c : {Case{"SIMSATA16T", kBlocks16T, true, 0x0FFFFFFF, 0x4004},
                          Case{"MQX5108SIM", 0x1000000, false, 0x1000000, 0x4000}}) {
        identity.product = c.product;
        identity.nativeBlocks = c.blocks;
        identity.writeUncorrectableSupported = c.writeUncorrectable;
        powerCycle();
        std::vector<uint8_t> data = identify();
        EXPECT_EQ(ataString(data, 27, 20), c.product);
        EXPECT_EQ(data[55], c.product[0]); // ATA strings: first character in the high byte of each word
        EXPECT_EQ(data[54], c.product[1]);
        EXPECT_EQ(ataString(data, 10, 10), "SN0123456789");
        EXPECT_EQ(ataString(data, 23, 4), "1A2B");
        EXPECT_TRUE(wordAt(data, 83) & 0x0400); // 48-bit addressing supported
        EXPECT_TRUE(wordAt(data, 86) & 0x0400); // and enabled
        EXPECT_EQ(wordAt(data, 60) | wordAt(data, 61) << 16, c.blocks28);
        uint64_t blocks48 = 0;
        for (unsigned i = 0; i < 4; ++i) {
            blocks48 |= uint64_t{wordAt(data, 100 + i)} << (16 * i);
        }
        EXPECT_EQ(blocks48, c.blocks);
        EXPECT_EQ(wordAt(data, 119) & 0xC004, c.word119);
        EXPECT_EQ(data[510], 0xA5);
        EXPECT_EQ(byteSum(data), 0);
    }
}

TEST_F(SataDriveTest, WriteCacheSettingShowsInIdentifyAndSurvivesPowerCycle) {
    EXPECT_TRUE(wordAt(identify(), 85) & 0x0020);
    EXPECT_FALSE(nonData({kNonData, kNoData, 0xEF, 0x82}).checkCondition);
    powerCycle();
    std::vector<uint8_t> data = identify();
    EXPECT_FALSE(wordAt(data, 85) & 0x0020);
    EXPECT_EQ(byteSum(data), 0);
    EXPECT_FALSE(nonData({kNonData, kNoData, 0xEF, 0x02}).checkCondition);
    EXPECT_TRUE(wordAt(identify(), 85) & 0x0020);
    expectAborted(nonData({kNonData, kNoData, 0xEF, 0x77}));
}

TEST_F(SataDriveTest, WriteAndReadBackAtA48BitAddress) {
    const uint64_t lba = 0x765432100ULL; // every LBA register byte differs
    std::vector<uint8_t> written(1024);
    std::iota(written.begin(), written.end(), 0);
    ScsiResult result = writeSectors(lba, written);
    EXPECT_FALSE(result.checkCondition);
    EXPECT_EQ(result.transferred, 1024u);
    ASSERT_EQ(medium.blocks.size(), 2u);
    EXPECT_EQ(medium.blocks.begin()->first, lba);
    EXPECT_EQ(medium.blocks[lba + 1][0], 0x00); // byte 512 of the pattern
    EXPECT_EQ(medium.blocks[lba + 1][1], 0x01);

    std::vector<uint8_t> read(1024);
    result = readIn({kDma, 0, 0x25, 0, 2, lba}, &read); // READ DMA EXT
    EXPECT_FALSE(result.checkCondition);
    EXPECT_EQ(result.transferred, 1024u);
    EXPECT_EQ(read, written);
}

TEST_F(SataDriveTest, SetMaxAddressFollowsTheAtaRules) {
    const uint64_t newMax = 0x100000 - 1;
    expectAborted(setMax(newMax)); // not preceded by READ NATIVE MAX ADDRESS EXT

    EXPECT_FALSE(readNativeMax().checkCondition);
    identify();
    expectAborted(setMax(newMax)); // another command came between

    EXPECT_FALSE(readNativeMax().checkCondition);
    expectAborted(setMax(kBlocks16T)); // above the native max

    EXPECT_FALSE(readNativeMax().checkCondition);
    EXPECT_FALSE(setMax(newMax).checkCondition);

    powerCycle(); // the new size is kept in the settings
    std::vector<uint8_t> data = identify();
    EXPECT_EQ(wordAt(data, 100) | wordAt(data, 101) << 16, newMax + 1);
    EXPECT_EQ(wordAt(data, 60) | wordAt(data, 61) << 16, newMax + 1);
    EXPECT_EQ(sataUserBlocks(identity, settings), newMax + 1);
    std::vector<uint8_t> block;
    EXPECT_FALSE(readSectors(newMax, 1, &block).checkCondition);
    expectSense(readSectors(newMax, 2, &block), sense::kIllegalRequest, sense::kAscLbaOutOfRange, 0);
    expectSense(writeSectors(newMax + 1, std::vector<uint8_t>(512)), sense::kIllegalRequest, sense::kAscLbaOutOfRange,
                0);

    EXPECT_FALSE(readNativeMax().checkCondition);
    EXPECT_FALSE(setMax(kBlocks16T - 1).checkCondition); // back to the native size
    EXPECT_FALSE(readNativeMax().checkCondition);
    expectAborted(setMax(newMax)); // one non-volatile change per power cycle
    EXPECT_EQ(sataUserBlocks(identity, settings), kBlocks16T);
}

TEST_F(SataDriveTest, CheckConditionBitReturnsTheCompletionRegisters) {
    ScsiResult result = readNativeMax(kCheckCondition);
    expectSense(result, sense::kRecoveredError, 0x00, 0x1D);
    const uint64_t nativeMax = kBlocks16T - 1;
    EXPECT_EQ(result.sense[4], 0x50);
    EXPECT_EQ(result.sense[8], 0x80 | 0x20); // EXTEND, LBA upper bytes not zero
    EXPECT_EQ(result.sense[9], nativeMax & 0xFF);
    EXPECT_EQ(result.sense[10], (nativeMax >> 8) & 0xFF);
    EXPECT_EQ(result.sense[11], (nativeMax >> 16) & 0xFF);
}

TEST_F(SataDriveTest, SmartStatusAndDataFollowTheSmartProtocol) {
    // RETURN STATUS with the key is one of the client probes; without the key it is aborted.
    const uint64_t smartKey = 0xC24F00;
    expectAborted(nonData({kNonData, kNoData, 0xB0, 0xDA, 0, 0}));

    std::vector<uint8_t> data(512);
    Ata readData{kPioIn, 0, 0xB0, 0xD0, 1, smartKey};
    readData.extend = false;
    EXPECT_FALSE(readIn(readData, &data).checkCondition);
    EXPECT_EQ(wordAt(data, 0), 0x0010);
    EXPECT_EQ(byteSum(data), 0);
}

TEST_F(SataDriveTest, ReadLogExtGivesTheDirectoryAndDeviceStatistics) {
    std::vector<uint8_t> data(512);
    EXPECT_FALSE(readIn({kPioIn, 0, 0x2F, 0, 1, 0x00}, &data).checkCondition);
    EXPECT_EQ(wordAt(data, 0), 0x0001);
    EXPECT_EQ(wordAt(data, 4), 2); // device statistics: two pages
    data.assign(1024, 0);
    EXPECT_FALSE(readIn({kPioIn, 0, 0x2F, 0, 2, 0x04}, &data).checkCondition);
    EXPECT_EQ(data[2], 0);   // page 0: the list
    EXPECT_EQ(data[514], 1); // page 1: general statistics
    data.assign(512, 0);
    expectAborted(readIn({kPioIn, 0, 0x2F, 0, 1, 0x0204}, &data)); // no page 2
    expectAborted(readIn({kPioIn, 0, 0x2F, 0, 1, 0x80}, &data));   // no such log
}

TEST_F(SataDriveTest, WriteUncorrectableMarksBlocksUntilRewritten) {
    std::vector<uint8_t> pattern(512, 0x5A);
    EXPECT_FALSE(writeSectors(8, std::vector<uint8_t>(1024, 0x5A)).checkCondition);
    EXPECT_FALSE(nonData({kNonData, kNoData, 0x45, 0x55, 1, 10}).checkCondition);
    EXPECT_TRUE(isSataBlockUncorrectable(settings, 10));
    EXPECT_FALSE(isSataBlockUncorrectable(settings, 9));

    powerCycle();
    std::vector<uint8_t> data;
    ScsiResult result = readSectors(8, 4, &data);
    expectSense(result, sense::kMediumError, sense::kAscUnrecoveredReadError, 0);
    EXPECT_EQ(result.sense[3], 0x40);     // ATA error: UNC
    EXPECT_EQ(result.sense[9], 10);       // at the marked block
    EXPECT_EQ(result.transferred, 1024u); // the two blocks before it arrived
    EXPECT_TRUE(std::equal(pattern.begin(), pattern.end(), data.begin() + 512));

    EXPECT_FALSE(writeSectors(10, pattern).checkCondition);
    EXPECT_FALSE(isSataBlockUncorrectable(settings, 10));
    EXPECT_FALSE(readSectors(8, 4, &data).checkCondition);
    expectAborted(nonData({kNonData, kNoData, 0x45, 0x12, 1, 10})); // not an uncorrectable kind

    identity.writeUncorrectableSupported = false;
    powerCycle();
    expectAborted(nonData({kNonData, kNoData, 0x45, 0x55, 1, 10}));
    EXPECT_FALSE(isSataBlockUncorrectable(settings, 10));
}

TEST_F(SataDriveTest, VendorErrorInjectionOnlyOnItsOwnModel) {
    std::vector<uint8_t> structure(512, 0);
    structure[0] = 1;
    structure[3] = 2;
    const Ata vendor{kPioOut, 0, 0xFE, 0, 1, 0x454900};
    expectAborted(writeOut(vendor, &structure));
    AtaSector kept{};
    EXPECT_FALSE(sataErrorInjectionData(settings, &kept));

    identity.product = "MQX5108SIM";
    powerCycle();
    EXPECT_FALSE(writeOut(vendor, &structure).checkCondition);
    ASSERT_TRUE(sataErrorInjectionData(settings, &kept));
    EXPECT_TRUE(std::equal(kept.begin(), kept.end(), structure.begin()));
}

TEST_F(SataDriveTest, UnknownAtaCommandIsAbortedAndUnknownScsiCommandsRefused) {
    expectAborted(nonData({kNonData, kNoData, 0x99}));
    std::vector<uint8_t> unknown{0xC5, 0, 0, 0, 0, 0};
    expectSense(run(unknown, DataDirection::None), sense::kIllegalRequest, sense::kAscInvalidOpcode, 0);
    // A translated READ(10) without a buffer for its block.
    std::vector<uint8_t> read10{0x28, 0, 0, 0, 0, 0, 0, 0, 1, 0};
    const ScsiResult refused = run(read10, DataDirection::None);
    expectSense(refused, sense::kIllegalRequest, sense::kAscInvalidFieldInCdb, 0);
    EXPECT_EQ(refused.sense[17], 7);
}

// A block that contradicts itself or the host buffer: INVALID FIELD IN CDB pointing at the field.
struct Contradiction {
    const char *name;
    Ata ata;
    DataDirection direction;
    size_t bufferLength;
    uint16_t fieldByte;
    int fieldBit; // -1: the whole byte
};

void PrintTo(const Contradiction &contradiction, std::ostream *out) {
    *out << contradiction.name;
}

class SataContradictionTest : public SataDriveTest, public ::testing::WithParamInterface<Contradiction> {};

TEST_P(SataContradictionTest, RefusedWithFieldPointer) {
    const Contradiction &bad = GetParam();
    std::vector<uint8_t> buffer(bad.bufferLength);
    ScsiResult result = run(cdb16(bad.ata), bad.direction, bad.bufferLength ? &buffer : nullptr);
    expectSense(result, sense::kIllegalRequest, sense::kAscInvalidFieldInCdb, 0);
    const uint8_t bitPointer = bad.fieldBit < 0 ? 0 : static_cast<uint8_t>(0x08 | bad.fieldBit);
    EXPECT_EQ(result.sense[15], 0x80 | 0x40 | bitPointer);
    EXPECT_EQ(result.sense[16] << 8 | result.sense[17], bad.fieldByte);
    EXPECT_EQ(result.transferred, 0u);
    EXPECT_TRUE(medium.blocks.empty());
}

INSTANTIATE_TEST_SUITE_P(
    CdbChecks, SataContradictionTest,
    ::testing::Values(
        Contradiction{
            "DataInProtocolWritingToDevice", {kPioIn, kInBlocks, 0x24, 0, 1}, DataDirection::ToDevice, 512, 1, 4},
        Contradiction{"NonDataWithBuffer", {kNonData, kNoData, 0xEA}, DataDirection::FromDevice, 512, 1, 4},
        Contradiction{"DataProtocolWithoutBuffer", {kPioOut, kOutBlocks, 0x34, 0, 1}, DataDirection::None, 0, 1, 4},
        Contradiction{
            "CountDisagreesWithBuffer", {kPioOut, kOutBlocks, 0x34, 0, 2}, DataDirection::ToDevice, 512, 5, -1},
        Contradiction{
            "TransferDirectionAgainstProtocol", {kPioIn, kOutBlocks, 0x24, 0, 1}, DataDirection::FromDevice, 512, 2, 3},
        Contradiction{"DataProtocolWithoutLength", {kPioIn, 0x08, 0x24, 0, 1}, DataDirection::FromDevice, 512, 2, 1},
        Contradiction{"NonDataWithLength", {kNonData, 0x0E, 0xEA, 0, 1}, DataDirection::None, 0, 2, 1},
        Contradiction{"UnknownProtocol", {7, kNoData, 0xEA}, DataDirection::None, 0, 1, 4}),
    [](const ::testing::TestParamInfo<Contradiction> &info) { return std::string(info.param.name); });

} // namespace
} // namespace kelsim
