// Tests of the simulated SAS drive over an in-memory medium and settings store.
#include "drives/sas_drive.h"

#include "memory_device.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <vector>

namespace kelsim {
namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint64_t kNative = 0x1000000;

class SasDriveTest : public ::testing::Test {
  protected:
    void SetUp() override { useProduct("SD1K073RC", kNative); }
    void useProduct(const std::string &product, uint64_t blocks) {
        identity = DriveIdentity{DriveInterface::Sas, "SIMDISK", product, "A1B2", "SER0042XYZ", blocks, false};
        drive = makeSasDrive(identity, medium, settings);
    }

    ScsiResult in(const Bytes &cdb, Bytes *data, size_t hostSize = 0x10000) {
        Bytes host(hostSize, 0xEE); // a fresh allocation, so that an overrun shows
        ScsiResult result = send(cdb, DataDirection::FromDevice, host.data(), hostSize);
        EXPECT_LE(result.transferred, hostSize);
        data->assign(host.begin(), host.begin() + std::min<size_t>(result.transferred, hostSize));
        return result;
    }
    ScsiResult out(const Bytes &cdb, Bytes data) {
        return send(cdb, DataDirection::ToDevice, data.data(), static_cast<uint32_t>(data.size()));
    }
    ScsiResult none(const Bytes &cdb) { return send(cdb, DataDirection::None, nullptr, 0); }
    ScsiResult send(const Bytes &cdb, DataDirection direction, uint8_t *data, size_t size) {
        return execute(*drive, cdb, direction, data, size);
    }

    DriveIdentity identity;
    MemoryMedium medium;
    MemorySettings settings;
    std::unique_ptr<ScsiTarget> drive;
};

Bytes rw10(uint8_t opcode, uint32_t lba, uint16_t blocks) {
    return {opcode,       0, uint8_t(lba >> 24),   uint8_t(lba >> 16), uint8_t(lba >> 8),
            uint8_t(lba), 0, uint8_t(blocks >> 8), uint8_t(blocks),    0};
}
Bytes long10(uint8_t opcode, uint32_t lba, uint16_t bytes, uint8_t flags = 0) {
    Bytes cdb = rw10(opcode, lba, bytes);
    cdb[1] = flags;
    return cdb;
}
Bytes modeSelect6(const Bytes &list, bool save) {
    return {0x15, uint8_t(save ? 0x11 : 0x10), 0, 0, uint8_t(list.size()), 0};
}
Bytes capacityList(uint32_t blocks, uint32_t blockLength = 512) {
    Bytes list = {0, 0, 0, 8};
    for (int shift = 24; shift >= 0; shift -= 8) {
        list.push_back(uint8_t(blocks >> shift));
    }
    for (int shift = 24; shift >= 0; shift -= 8) {
        list.push_back(uint8_t(blockLength >> shift)); // the top byte is the reserved one
    }
    return list;
}

uint8_t key(const ScsiResult &r) {
    return r.sense[2] & 0x0F;
}
uint8_t asc(const ScsiResult &r) {
    return r.sense[12];
}
uint16_t fieldPointer(const ScsiResult &r) {
    return uint16_t(r.sense[16] << 8 | r.sense[17]);
}
uint32_t information(const ScsiResult &r) {
    return uint32_t(r.sense[3]) << 24 | r.sense[4] << 16 | r.sense[5] << 8 | r.sense[6];
}
std::string text(const Bytes &data, size_t offset, size_t size) {
    return std::string(data.begin() + offset, data.begin() + offset + size);
}

TEST_F(SasDriveTest, WrittenBlocksReadBackThroughEveryReadSize) {
    Bytes pattern(3 * kBlockSize);
    for (size_t i = 0; i < pattern.size(); ++i) {
        pattern[i] = uint8_t(i * 7 + 1);
    }
    ASSERT_FALSE(out(rw10(0x2A, 0x100, 3), pattern).checkCondition);

    Bytes data;
    EXPECT_FALSE(in(rw10(0x28, 0x100, 3), &data).checkCondition);
    EXPECT_EQ(data, pattern);
    EXPECT_FALSE(in({0x88, 0, 0, 0, 0, 0, 0, 0, 0x01, 0x01, 0, 0, 0, 2, 0, 0}, &data).checkCondition);
    EXPECT_EQ(data, Bytes(pattern.begin() + 512, pattern.end()));
    EXPECT_FALSE(in({0xA8, 0, 0, 0, 0x01, 0x02, 0, 0, 0, 1, 0, 0}, &data).checkCondition);
    EXPECT_EQ(data, Bytes(pattern.begin() + 1024, pattern.end()));
    EXPECT_FALSE(in({0x08, 0, 0x01, 0x00, 1, 0}, &data).checkCondition);
    EXPECT_EQ(data, Bytes(pattern.begin(), pattern.begin() + 512));

    // Never-written blocks read as zeros; a short host buffer gets only what fits.
    EXPECT_FALSE(in(rw10(0x28, 0x5000, 1), &data).checkCondition);
    EXPECT_EQ(data, Bytes(512, 0));
    EXPECT_FALSE(in(rw10(0x28, 0x100, 3), &data, 700).checkCondition);
    EXPECT_EQ(data, Bytes(pattern.begin(), pattern.begin() + 700));
}

TEST_F(SasDriveTest, RefusesAddressesPastTheEndAndShortWriteBuffers) {
    Bytes data;
    EXPECT_FALSE(in(rw10(0x28, kNative - 1, 1), &data).checkCondition);
    for (const Bytes &cdb : {rw10(0x28, kNative, 1), rw10(0x28, kNative - 1, 2),
                             Bytes{0x88, 0, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 1, 0, 0}}) {
        ScsiResult result = in(cdb, &data);
        EXPECT_EQ(key(result), sense::kIllegalRequest);
        EXPECT_EQ(asc(result), sense::kAscLbaOutOfRange);
        EXPECT_EQ(result.transferred, 0u);
    }

    // Two blocks announced, one block of data given: refused, nothing written.
    ScsiResult result = out(rw10(0x2A, 0x10, 2), Bytes(512, 0x5A));
    EXPECT_EQ(asc(result), sense::kAscInvalidFieldInCdb);
    EXPECT_EQ(result.sense[15], 0xC0); // SKSV, C/D, no bit pointer
    EXPECT_EQ(fieldPointer(result), 7);
    EXPECT_TRUE(medium.blocks.empty());
}

TEST_F(SasDriveTest, SenseForUnknownOpcodesAndBadFields) {
    ScsiResult result = none({0xC7, 0, 0, 0, 0, 0});
    EXPECT_EQ(key(result), sense::kIllegalRequest);
    EXPECT_EQ(asc(result), sense::kAscInvalidOpcode);
    EXPECT_EQ(result.sense[0], 0x70);
    EXPECT_EQ(result.sense[7], 10);

    Bytes data;
    result = in({0x9E, 0x11, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 32, 0, 0}, &data); // not READ CAPACITY(16)
    EXPECT_EQ(asc(result), sense::kAscInvalidFieldInCdb);
    EXPECT_EQ(result.sense[15], 0xCC); // SKSV, C/D, BPV, bit 4
    EXPECT_EQ(fieldPointer(result), 1);

    result = none({0x00, 0, 0, 0, 0, 0x04}); // NACA
    EXPECT_EQ(fieldPointer(result), 5);
}

TEST_F(SasDriveTest, InquiryStandardDataAndVitalProductPages) {
    Bytes data;
    ASSERT_FALSE(in({0x12, 0, 0, 0, 0x52, 0}, &data).checkCondition);
    ASSERT_EQ(data.size(), 0x52u);
    EXPECT_EQ(text(data, 8, 8), "SIMDISK ");
    EXPECT_EQ(text(data, 16, 16), "SD1K073RC       ");
    EXPECT_EQ(text(data, 32, 4), "A1B2");
    EXPECT_EQ(data[4] + 5, 96); // more is available than was asked for
    in({0x12, 0, 0, 0, 0xFF, 0}, &data);
    EXPECT_EQ(data.size(), 96u);

    ScsiResult result = in({0x12, 0, 0x80, 0, 0xFF, 0}, &data); // page code without EVPD
    EXPECT_EQ(asc(result), sense::kAscInvalidFieldInCdb);
    EXPECT_EQ(fieldPointer(result), 2);
    EXPECT_EQ(asc(in({0x12, 1, 0xB7, 0, 0xFF, 0}, &data)), sense::kAscInvalidFieldInCdb);

    in({0x12, 1, 0x80, 0, 0xFF, 0}, &data);
    EXPECT_EQ(be(data, 2, 2), identity.serial.size());
    EXPECT_EQ(text(data, 4, identity.serial.size()), identity.serial);

    in({0x12, 1, 0x83, 0, 0xFF, 0}, &data);
    ASSERT_GE(data.size(), 16u);
    EXPECT_EQ(be(data, 2, 2) + 4, data.size());
    EXPECT_EQ(data[5] & 0x3F, 0x03); // logical unit, NAA
    EXPECT_EQ(data[7], 8);
    EXPECT_EQ(data[8] >> 4, 5); // IEEE registered
    // A drive with another serial number has another name.
    Bytes first(data.begin() + 8, data.begin() + 16);
    identity.serial = "SER0043XYZ";
    drive = makeSasDrive(identity, medium, settings);
    in({0x12, 1, 0x83, 0, 0xFF, 0}, &data);
    EXPECT_NE(first, Bytes(data.begin() + 8, data.begin() + 16));
}

TEST_F(SasDriveTest, ReadCapacityReportsBothFormsAndCapsTheShortOne) {
    Bytes data;
    in({0x25, 0, 0, 0, 0, 0, 0, 0, 0, 0}, &data);
    EXPECT_EQ(data, (Bytes{0x00, 0xFF, 0xFF, 0xFF, 0, 0, 2, 0}));

    useProduct("SD1K300RC", 0x180000000ULL);
    in({0x25, 0, 0, 0, 0, 0, 0, 0, 0, 0}, &data);
    EXPECT_EQ(be(data, 0, 4), 0xFFFFFFFFu);
    in({0x9E, 0x10, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 32, 0, 0}, &data);
    ASSERT_EQ(data.size(), 32u);
    EXPECT_EQ(be(data, 0, 8), 0x17FFFFFFFULL);
    EXPECT_EQ(be(data, 8, 4), 512u);
    in({0x9E, 0x10, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 12, 0, 0}, &data);
    EXPECT_EQ(data.size(), 12u);
}

TEST_F(SasDriveTest, ModeSenseWalksRealPagesWithBlockDescriptor) {
    Bytes data;
    ASSERT_FALSE(in({0x1A, 0, 0x3F, 0, 0xFF, 0}, &data).checkCondition);
    ASSERT_EQ(data[0] + 1u, data.size());
    ASSERT_EQ(data[3], 8);
    EXPECT_EQ(be(data, 4, 4), kNative);
    EXPECT_EQ(be(data, 9, 3), 512u);
    std::vector<int> codes;
    size_t offset = 12;
    while (offset < data.size()) {
        EXPECT_TRUE(data[offset] & 0x80); // saveable
        codes.push_back(data[offset] & 0x3F);
        offset += data[offset + 1] + 2;
    }
    EXPECT_EQ(offset, data.size());
    EXPECT_EQ(codes, (std::vector<int>{0x01, 0x08, 0x0A, 0x19, 0x1C, 0x22}));

    // DBD drops the descriptor; a short allocation cuts the data but not its length field.
    in({0x1A, 0x08, 0x08, 0, 8, 0}, &data);
    ASSERT_EQ(data.size(), 8u);
    EXPECT_EQ(data[0], 3 + 20);
    EXPECT_EQ(data[3], 0);
    EXPECT_EQ(data[4], 0x88);

    in({0x1A, 0x08, 0x48, 0, 0xFF, 0}, &data); // changeable values of the caching page
    EXPECT_EQ(data[4 + 2], 0x05);              // WCE, RCD

    in({0x5A, 0x10, 0x01, 0, 0, 0, 0, 0, 0xFF, 0}, &data); // MODE SENSE(10), long LBA descriptor
    EXPECT_EQ(be(data, 0, 2) + 2, data.size());
    EXPECT_EQ(data[4] & 1, 1);
    EXPECT_EQ(be(data, 6, 2), 16u);
    EXPECT_EQ(be(data, 8, 8), kNative);
    EXPECT_EQ(data[24], 0x81);

    EXPECT_EQ(fieldPointer(in({0x1A, 0, 0x1B, 0, 0xFF, 0}, &data)), 2);        // no such page
    EXPECT_EQ(fieldPointer(in({0x1A, 0, 0x08, 1, 0xFF, 0}, &data)), 3);        // no subpages
    ASSERT_FALSE(in({0x1A, 0x08, 0x1C, 0xFF, 0xFF, 0}, &data).checkCondition); // "all subpages" of one page
    EXPECT_EQ(Bytes(data.begin() + 4, data.end()),
              (Bytes{0x9C, 0x0A, 0x10, 0x06, 0, 0, 0, 0, 0, 0, 0, 0})); // EWASC, MRIE 6
}

TEST_F(SasDriveTest, ModeSelectBlockDescriptorChangesCapacityPersistently) {
    Bytes list = capacityList(0x100000);
    ASSERT_FALSE(out(modeSelect6(list, true), list).checkCondition);
    Bytes data;
    in({0x25, 0, 0, 0, 0, 0, 0, 0, 0, 0}, &data);
    EXPECT_EQ(be(data, 0, 4), 0xFFFFFu);

    // A new drive object over the same settings (the next run) still sees it.
    drive = makeSasDrive(identity, medium, settings);
    EXPECT_EQ(sasDriveBlocks(identity, settings), 0x100000u);
    EXPECT_EQ(asc(in(rw10(0x28, 0x100000, 1), &data)), sense::kAscLbaOutOfRange);
    in({0x1A, 0, 0x3F, 0, 0xFF, 0}, &data);
    EXPECT_EQ(be(data, 4, 4), 0x100000u);
    in({0x1A, 0, 0xBF, 0, 0xFF, 0}, &data); // default values: the native capacity
    EXPECT_EQ(be(data, 4, 4), kNative);

    for (const Bytes &bad : {capacityList(kNative + 1), capacityList(0x1000, 1024)}) {
        ScsiResult result = out(modeSelect6(bad, true), bad);
        EXPECT_EQ(key(result), sense::kIllegalRequest);
        EXPECT_EQ(asc(result), sense::kAscInvalidFieldInParameterList);
        EXPECT_EQ(result.sense[15] & 0x40, 0); // points into the parameter list, not the CDB
    }
    EXPECT_EQ(fieldPointer(out(modeSelect6(capacityList(0x1000, 1024), true), capacityList(0x1000, 1024))), 9);
    EXPECT_EQ(sasDriveBlocks(identity, settings), 0x100000u);

    list = capacityList(0); // keep
    EXPECT_FALSE(out(modeSelect6(list, false), list).checkCondition);
    EXPECT_EQ(sasDriveBlocks(identity, settings), 0x100000u);
    list = capacityList(0xFFFFFFFF); // back to the largest
    EXPECT_FALSE(out(modeSelect6(list, false), list).checkCondition);
    EXPECT_EQ(sasDriveBlocks(identity, settings), kNative);

    // The list announced in the CDB must be there.
    ScsiResult result = out(modeSelect6(Bytes(12), true), Bytes(8));
    EXPECT_EQ(asc(result), sense::kAscInvalidFieldInCdb);
    EXPECT_EQ(fieldPointer(result), 4);
}

TEST_F(SasDriveTest, ModeSelectPagesCurrentSavedAndRefusals) {
    Bytes data;
    in({0x1A, 0x08, 0x08, 0, 0xFF, 0}, &data);
    Bytes list(4, 0);
    list.insert(list.end(), data.begin() + 4, data.end());
    ASSERT_EQ(list.size(), 4 + 20u);
    list.at(4) &= 0x3F;
    list.at(4 + 2) |= 0x04; // WCE
    ASSERT_FALSE(out(modeSelect6(list, false), list).checkCondition);
    in({0x1A, 0x08, 0x08, 0, 0xFF, 0}, &data);
    EXPECT_EQ(data[4 + 2] & 0x04, 0x04);
    in({0x1A, 0x08, 0xC8, 0, 0xFF, 0}, &data); // saved values unchanged without SP
    EXPECT_EQ(data[4 + 2] & 0x04, 0);
    ASSERT_FALSE(out(modeSelect6(list, true), list).checkCondition);
    in({0x1A, 0x08, 0xC8, 0, 0xFF, 0}, &data);
    EXPECT_EQ(data[4 + 2] & 0x04, 0x04);

    Bytes fixedField = list;
    fixedField[4 + 4] ^= 0x01; // disable pre-fetch transfer length is not changeable
    ScsiResult result = out(modeSelect6(fixedField, false), fixedField);
    EXPECT_EQ(asc(result), sense::kAscInvalidFieldInParameterList);
    EXPECT_EQ(fieldPointer(result), 8);
    Bytes unknownPage = {0, 0, 0, 0, 0x19, 0x02, 0, 0};
    EXPECT_EQ(asc(out(modeSelect6(unknownPage, false), unknownPage)), sense::kAscInvalidFieldInParameterList);

    // The vendor error-injection page takes both its forms and keeps what it is given.
    for (uint8_t length : {0x1C, 0x20}) {
        Bytes injection = {0, 0, 0, 0, 0x22, length};
        for (uint8_t i = 0; i < length; ++i) {
            injection.push_back(uint8_t(i + length));
        }
        ASSERT_FALSE(out(modeSelect6(injection, true), injection).checkCondition);
        in({0x1A, 0x08, 0x22, 0, 0xFF, 0}, &data);
        EXPECT_EQ(Bytes(data.begin() + 5, data.end()), Bytes(injection.begin() + 5, injection.end()));
    }
    Bytes wrongLength = {0, 0, 0, 0, 0x22, 0x10};
    wrongLength.resize(4 + 2 + 0x10);
    EXPECT_EQ(fieldPointer(out(modeSelect6(wrongLength, false), wrongLength)), 5);
    // A vendor page needs PF.
    Bytes injection = {0, 0, 0, 0, 0x22, 0x1C};
    injection.resize(4 + 2 + 0x1C);
    ScsiResult noPageFormat = out({0x15, 0x01, 0, 0, uint8_t(injection.size()), 0}, injection);
    EXPECT_EQ(key(noPageFormat), sense::kIllegalRequest);
    EXPECT_EQ(asc(noPageFormat), sense::kAscInvalidFieldInParameterList);
}

TEST_F(SasDriveTest, WriteLongMarksMediaErrorsUntilANormalWrite) {
    // READ LONG with a plain block length tells the long length through the residue.
    Bytes data;
    ScsiResult result = in(long10(0x3E, 0x10000, 512), &data, 512);
    EXPECT_EQ(key(result), sense::kIllegalRequest);
    EXPECT_EQ(result.sense[0], 0xF0); // VALID
    EXPECT_EQ(result.sense[2], 0x25); // ILI
    EXPECT_EQ(information(result), 0xFFFFFFF8u);
    EXPECT_EQ(0x200 + (0x100 - result.sense[6]), 520);

    // Reading a long block and writing it back unchanged leaves the block good.
    ASSERT_FALSE(in(long10(0x3E, 0x20, 520), &data).checkCondition);
    ASSERT_EQ(data.size(), 520u);
    ASSERT_FALSE(out(long10(0x3F, 0x20, 520), data).checkCondition);
    EXPECT_FALSE(sasBlockHasMediaError(settings, 0x20));

    ASSERT_FALSE(out(long10(0x3F, 0x22, 520), Bytes(520, 0xFF)).checkCondition);
    EXPECT_TRUE(sasBlockHasMediaError(settings, 0x22));
    ASSERT_FALSE(out(long10(0x3F, 0x24, 0, 0x40), {}).checkCondition); // WR_UNCOR
    uint64_t bad = 0;
    EXPECT_TRUE(sasFirstMediaError(settings, 0x23, 4, &bad));
    EXPECT_EQ(bad, 0x24u);

    // A read over the range stops at the first bad block, with its LBA in the sense.
    result = in(rw10(0x28, 0x20, 4), &data);
    EXPECT_EQ(key(result), sense::kMediumError);
    EXPECT_EQ(asc(result), sense::kAscUnrecoveredReadError);
    EXPECT_EQ(information(result), 0x22u);
    EXPECT_EQ(data.size(), 2 * 512u);
    EXPECT_EQ(asc(in({0x2F, 0, 0, 0, 0, 0x24, 0, 0, 1, 0}, &data)), sense::kAscUnrecoveredReadError);

    // A new drive object still sees the mark; a normal write clears it.
    drive = makeSasDrive(identity, medium, settings);
    EXPECT_EQ(key(in(rw10(0x28, 0x22, 1), &data)), sense::kMediumError);
    ASSERT_FALSE(out(rw10(0x2A, 0x22, 3), Bytes(3 * 512, 0x5A)).checkCondition);
    EXPECT_FALSE(in(rw10(0x28, 0x20, 8), &data).checkCondition);
    EXPECT_FALSE(sasFirstMediaError(settings, 0, kNative, &bad));

    EXPECT_EQ(information(out(long10(0x3F, 0x30, 512), Bytes(512, 0xFF))), 0xFFFFFFF8u);
    EXPECT_EQ(asc(out(long10(0x3F, kNative, 520), Bytes(520, 0xFF))), sense::kAscLbaOutOfRange);
}

TEST_F(SasDriveTest, LongBlocksOfTheDrivesOwnLengthAndCorrctOnABadBlock) {
    identity.longBlockBytes = 528;
    drive = makeSasDrive(identity, medium, settings);
    Bytes data;
    ScsiResult probe = in(long10(0x3E, 0x10000, 512), &data, 512);
    EXPECT_EQ(information(probe), 0xFFFFFFF0u) << "512 - 528";
    EXPECT_EQ(asc(in(long10(0x3E, 0x40, 520), &data)), sense::kAscInvalidFieldInCdb);
    ASSERT_FALSE(in(long10(0x3E, 0x40, 528), &data).checkCondition);
    ASSERT_EQ(data.size(), 528u);
    // The 16 check bytes written back unchanged keep the block good; any change breaks it.
    ASSERT_FALSE(out(long10(0x3F, 0x40, 528), data).checkCondition);
    EXPECT_FALSE(sasBlockHasMediaError(settings, 0x40));
    data[520] ^= 1;
    ASSERT_FALSE(out(long10(0x3F, 0x40, 528), data).checkCondition);
    EXPECT_TRUE(sasBlockHasMediaError(settings, 0x40));
    // READ LONG of the bad block: MEDIUM ERROR naming it, unless CORRCT asks for the data.
    ScsiResult bad = in(long10(0x3E, 0x40, 528), &data);
    EXPECT_EQ(key(bad), sense::kMediumError);
    EXPECT_EQ(information(bad), 0x40u);
    EXPECT_FALSE(in(long10(0x3E, 0x40, 528, 0x02), &data).checkCondition);
}

TEST_F(SasDriveTest, LogPagesHaveTheirFamilyLayouts) {
    Bytes data;
    in({0x4D, 0, 0x00, 0, 0, 0, 0, 0, 0xFF, 0}, &data);
    EXPECT_EQ(data, (Bytes{0, 0, 0, 5, 0x00, 0x0D, 0x2F, 0x31, 0x32}));

    ASSERT_FALSE(in({0x4D, 0, 0x31, 0, 0, 0, 0, 0x35, 0x74, 0}, &data).checkCondition);
    ASSERT_EQ(data.size(), 13684u);
    EXPECT_EQ(be(data, 2, 2), 13680u);
    for (int entry = 0; entry < 171; ++entry) {
        EXPECT_EQ(data[4 + 80 * entry + 1], entry + 1);
    }

    struct Family {
        const char *product;
        size_t length;
    };
    for (const Family &family :
         {Family{"SD1K073RC", 220}, Family{"SD1K147RC", 308}, Family{"SD1K300RC", 308}, Family{"SD1K036RC", 164}}) {
        useProduct(family.product, kNative);
        in({0x4D, 0, 0x32, 0, 0, 0, 0, 0x01, 0x78, 0}, &data);
        EXPECT_EQ(data.size(), family.length) << family.product;
        EXPECT_EQ(be(data, 2, 2) + 4, family.length);
        size_t offset = 4; // the parameters tile the page exactly
        while (offset < data.size()) {
            offset += 4 + data[offset + 3];
        }
        EXPECT_EQ(offset, data.size()) << family.product;
    }
    useProduct("SD1K073RC", kNative);
    in({0x4D, 0, 0x32, 0, 0, 0, 0, 0, 0xD4, 0}, &data); // what the report asks of a 073 drive
    EXPECT_EQ(data.size(), 212u);

    EXPECT_EQ(fieldPointer(in({0x4D, 0, 0x15, 0, 0, 0, 0, 0, 0xFF, 0}, &data)), 2); // not listed
    in({0x4D, 0, 0x31, 0, 0, 0, 0xAA, 0x01, 0x00, 0}, &data);                       // from parameter 0xAA on
    EXPECT_EQ(data.size(), 4 + 2 * 80u);

    // Default values (page control 3) are a new drive's: an error raised since does not show.
    none({0xC5, 0, 0, 0, 0, 0});
    in({0x4D, 0, 0xF1, 0, 0, 0, 0, 0x35, 0x74, 0}, &data);
    EXPECT_EQ(data[4 + 28], 0);
    in({0x4D, 0, 0x31, 0, 0, 0, 0, 0x35, 0x74, 0}, &data);
    EXPECT_EQ(data[4 + 28], 0x20);
}

TEST_F(SasDriveTest, DataBufferReadsBackWhatWasWritten) {
    Bytes pattern(0x300);
    for (size_t i = 0; i < pattern.size(); ++i) {
        pattern[i] = uint8_t(i);
    }
    ASSERT_FALSE(out({0x3B, 0x02, 0, 0x00, 0x01, 0x00, 0x00, 0x03, 0x00, 0}, pattern).checkCondition);
    Bytes data;
    in({0x3C, 0x02, 0, 0x00, 0x01, 0x80, 0x00, 0x01, 0x00, 0}, &data);
    EXPECT_EQ(data, Bytes(pattern.begin() + 0x80, pattern.begin() + 0x180));
    EXPECT_EQ(fieldPointer(in({0x3C, 0x02, 0, 0x00, 0xFF, 0x00, 0x00, 0x10, 0x00, 0}, &data)), 6);
}

TEST_F(SasDriveTest, StoppedDriveIsNotReadyForMediaAccess) {
    ASSERT_FALSE(none({0x1B, 0, 0, 0, 0x00, 0}).checkCondition);
    drive = makeSasDrive(identity, medium, settings);
    Bytes data;
    for (const Bytes &cdb : {Bytes{0x00, 0, 0, 0, 0, 0}, rw10(0x28, 0, 1)}) {
        ScsiResult result = in(cdb, &data);
        EXPECT_EQ(key(result), sense::kNotReady);
        EXPECT_EQ(asc(result), 0x04);
        EXPECT_EQ(result.sense[13], 0x02);
    }
    EXPECT_FALSE(in({0x12, 0, 0, 0, 36, 0}, &data).checkCondition);
    ASSERT_FALSE(none({0x1B, 0, 0, 0, 0x01, 0}).checkCondition);
    EXPECT_FALSE(none({0x00, 0, 0, 0, 0, 0}).checkCondition);
}

TEST_F(SasDriveTest, VerifyComparesAndReportLunsListsOneUnit) {
    ASSERT_FALSE(out(rw10(0x2A, 0x40, 2), Bytes(1024, 0x5A)).checkCondition);
    Bytes verify = {0x2F, 0x02, 0, 0, 0, 0x40, 0, 0, 2, 0};
    EXPECT_FALSE(out(verify, Bytes(1024, 0x5A)).checkCondition);
    Bytes differing(1024, 0x5A);
    differing[700] = 0;
    ScsiResult result = out(verify, differing);
    EXPECT_EQ(key(result), 0x0E);
    EXPECT_EQ(information(result), 700u) << "the offset of the first differing byte";

    Bytes data;
    in({0xA0, 0, 0, 0, 0, 0, 0, 0, 0x01, 0, 0, 0}, &data);
    EXPECT_EQ(data, (Bytes{0, 0, 0, 8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(fieldPointer(in({0xA0, 0, 0, 0, 0, 0, 0, 0, 0, 8, 0, 0}, &data)), 6);
}

} // namespace
} // namespace kelsim
