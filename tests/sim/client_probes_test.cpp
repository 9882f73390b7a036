// What the Linux kernel's disk probe and the storage tools (sg3_utils, smartctl, mke2fs)
// send to an exported drive or volume, CDB for CDB, and the answer fields they rely on:
// the same probe runs against a SAS drive, a SATA drive behind its translation layer and a
// RAID 5 volume over SAS drive models.
#include "drives/sas_drive.h"
#include "drives/sas_life.h"
#include "drives/sata_drive.h"
#include "memory_device.h"
#include "raid_volume.h"
#include "scsi_pages.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

namespace kelsim {
namespace {

using Bytes = std::vector<uint8_t>;

struct Reply {
    ScsiResult result;
    Bytes data;
    uint8_t key() const { return result.sense[2] & 0x0F; }
    uint8_t asc() const { return result.sense[12]; }
};

Reply send(ScsiTarget &target, const Bytes &cdb, DataDirection direction = DataDirection::FromDevice,
           Bytes data = Bytes(4096, 0xEE)) {
    const bool none = direction == DataDirection::None;
    Reply reply{execute(target, cdb, direction, none ? nullptr : data.data(), none ? 0 : data.size()), {}};
    if (direction == DataDirection::FromDevice) {
        data.resize(reply.result.transferred);
        reply.data = data;
    }
    return reply;
}

Bytes cdb16(uint8_t opcode, uint64_t lba, uint32_t blocks, uint8_t flags = 0) {
    Bytes cdb(16, 0);
    cdb[0] = opcode;
    cdb[1] = flags;
    for (int i = 0; i < 8; ++i) {
        cdb[2 + i] = static_cast<uint8_t>(lba >> (56 - 8 * i));
    }
    for (int i = 0; i < 4; ++i) {
        cdb[10 + i] = static_cast<uint8_t>(blocks >> (24 - 8 * i));
    }
    return cdb;
}

enum class Kind { Sas, Sata, Raid5 };

// One exported disk of each kind, with the models the farm uses.
struct Exported {
    explicit Exported(Kind kind) {
        for (int i = 0; i < 3; ++i) {
            const DriveInterface interface = kind == Kind::Sata ? DriveInterface::Sata : DriveInterface::Sas;
            const std::string serial = "SN00" + std::to_string(i);
            identities[i] = DriveIdentity{interface,   interface == DriveInterface::Sata ? "ATA" : "SIMDISK",
                                          "SD1K036RC", "0001",
                                          serial,      kDriveBlocks};
            identities[i].writeUncorrectableSupported = interface == DriveInterface::Sata;
            drives[i] = interface == DriveInterface::Sata ? makeSataDrive(identities[i], media[i], settings[i])
                                                          : makeSasDrive(identities[i], media[i], settings[i]);
        }
        if (kind == Kind::Raid5) {
            std::vector<VolumeMember> members;
            for (auto &drive : drives) {
                members.push_back({drive.get(), kDriveBlocks, MemberProtocol::Scsi});
            }
            volume =
                std::make_unique<RaidVolume>(RaidLevel::Raid5, 128, std::move(members), "ORV0LD1", &volumeSettings);
        }
        target = volume ? static_cast<ScsiTarget *>(volume.get()) : drives[0].get();
    }
    static constexpr uint64_t kDriveBlocks = 1 << 20;
    DriveIdentity identities[3];
    MemoryMedium media[3];
    MemorySettings settings[3];
    std::unique_ptr<ScsiTarget> drives[3];
    MemorySettings volumeSettings;
    std::unique_ptr<RaidVolume> volume;
    ScsiTarget *target = nullptr;
};

class ClientProbeTest : public ::testing::TestWithParam<Kind> {
  protected:
    Exported disk{GetParam()};
    ScsiTarget &target = *disk.target;
};

TEST_P(ClientProbeTest, StandardInquiryIsWhatTheScanExpects) {
    Reply reply = send(target, {0x12, 0, 0, 0, 36, 0});
    ASSERT_FALSE(reply.result.checkCondition);
    ASSERT_EQ(reply.data.size(), 36u);
    EXPECT_EQ(reply.data[0], 0x00);        // direct-access block device
    EXPECT_GE(reply.data[2], 0x05);        // SPC-3 or later: the kernel asks for VPD pages
    EXPECT_EQ(reply.data[3] & 0x0F, 0x02); // response data format
    const size_t whole = reply.data[4] + 5u;
    EXPECT_GE(whole, 36u);
    EXPECT_EQ(send(target, {0x12, 0, 0, 0, 0xFF, 0}).data.size(), whole); // the additional length is true
}

TEST_P(ClientProbeTest, EveryListedVitalProductPageAnswersAndNoOtherDoes) {
    // The kernel asks for a page's header first (4 bytes), then for the whole page.
    Reply header = send(target, {0x12, 1, 0x00, 0, 4, 0});
    ASSERT_EQ(header.data.size(), 4u);
    Bytes list = send(target, {0x12, 1, 0x00, 0, 0xFF, 0}).data;
    ASSERT_EQ(list.size(), be(header.data, 2, 2) + 4);
    ASSERT_GE(list.size(), 9u);
    for (uint8_t page : {0x00, 0x80, 0x83, 0xB0, 0xB1}) {
        EXPECT_NE(std::find(list.begin() + 4, list.end(), page), list.end()) << std::hex << int(page);
    }
    EXPECT_EQ(std::find(list.begin() + 4, list.end(), 0xB2), list.end()) << "no thin provisioning";
    for (size_t i = 4; i < list.size(); ++i) {
        EXPECT_TRUE(i == 4 || list[i] > list[i - 1]) << "ascending";
        Reply page = send(target, {0x12, 1, list[i], 0x10, 0x00, 0});
        ASSERT_FALSE(page.result.checkCondition) << std::hex << int(list[i]);
        EXPECT_EQ(page.data[1], list[i]);
        EXPECT_EQ(be(page.data, 2, 2) + 4, page.data.size()) << std::hex << int(list[i]);
    }
    Reply refused = send(target, {0x12, 1, 0xB2, 0, 0xFF, 0});
    ASSERT_TRUE(refused.result.checkCondition);
    EXPECT_EQ(refused.key(), sense::kIllegalRequest);
    EXPECT_EQ(refused.asc(), sense::kAscInvalidFieldInCdb);
    EXPECT_EQ(refused.result.sense[15], 0xC0); // SKSV, in the CDB
    EXPECT_EQ(be(Bytes(refused.result.sense.begin(), refused.result.sense.end()), 16, 2), 2u);
}

TEST_P(ClientProbeTest, IdentificationAndLimitsPagesHoldWhatTheKernelReads) {
    Bytes ids = send(target, {0x12, 1, 0x83, 0, 0xFF, 0}).data;
    bool naaFound = false;
    for (size_t at = 4; at + 4 <= ids.size(); at += 4 + ids[at + 3]) {
        const bool logicalUnit = (ids[at + 1] & 0x30) == 0;
        if (logicalUnit && (ids[at + 1] & 0x0F) == 0x03 && ids[at + 3] == 8) {
            naaFound = true;
            EXPECT_EQ(ids[at + 4] >> 4, 5) << "NAA 5, IEEE registered";
        }
    }
    EXPECT_TRUE(naaFound);

    Bytes limits = send(target, {0x12, 1, 0xB0, 0, 0xFF, 0}).data;
    ASSERT_EQ(limits.size(), 64u); // the kernel reads WRITE SAME limits only from a 64-byte page
    EXPECT_EQ(be(limits, 8, 4), kMaxTransferBlocks);
    const uint64_t writeSameLimit = GetParam() == Kind::Sata ? 0 : kMaxTransferBlocks; // SATA: none at all
    EXPECT_EQ(be(limits, 36, 8), writeSameLimit);
    Bytes characteristics = send(target, {0x12, 1, 0xB1, 0, 0xFF, 0}).data;
    ASSERT_EQ(characteristics.size(), 64u);
    EXPECT_EQ(characteristics[8] & 0x30, 0) << "not zoned";
}

TEST_P(ClientProbeTest, CapacityAgreesInBothSizes) {
    Reply ten = send(target, {0x25, 0, 0, 0, 0, 0, 0, 0, 0, 0});
    Reply sixteen = send(target, {0x9E, 0x10, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 32, 0, 0});
    ASSERT_EQ(ten.data.size(), 8u);
    ASSERT_EQ(sixteen.data.size(), 32u);
    EXPECT_EQ(be(ten.data, 0, 4), be(sixteen.data, 0, 8));
    EXPECT_EQ(be(sixteen.data, 8, 4), kBlockSize);
    EXPECT_EQ(sixteen.data[12] & 0x01, 0) << "no protection";
    EXPECT_EQ(sixteen.data[14] & 0x80, 0) << "no logical block provisioning";
    const uint64_t expected = GetParam() == Kind::Raid5 ? 2 * Exported::kDriveBlocks : Exported::kDriveBlocks;
    EXPECT_EQ(be(sixteen.data, 0, 8) + 1, expected);
}

// sd reads the write-protect bit and the caching page with MODE SENSE(6), first 4 bytes,
// then the whole answer; sg_modes -a asks MODE SENSE(10) for every page.
TEST_P(ClientProbeTest, ModeSenseGivesTheCachingPageInEveryForm) {
    Reply header = send(target, {0x1A, 0, 0x3F, 0, 4, 0});
    ASSERT_EQ(header.data.size(), 4u);
    EXPECT_EQ(header.data[2] & 0x80, 0) << "not write protected";
    struct Case {
        Bytes cdb;
        size_t headerLength;
    };
    const Case cases[] = {
        {{0x1A, 0x00, 0x08, 0, 0xFF, 0}, 4},
        {{0x1A, 0x08, 0x08, 0, 0xFF, 0}, 4},
        {{0x1A, 0x00, 0x3F, 0, 0xFF, 0}, 4},
        {{0x5A, 0x00, 0x3F, 0, 0, 0, 0, 0x10, 0x00, 0}, 8},
        {{0x5A, 0x08, 0x3F, 0xFF, 0, 0, 0, 0x10, 0x00, 0}, 8},
    };
    for (const Case &c : cases) {
        Reply reply = send(target, c.cdb);
        ASSERT_FALSE(reply.result.checkCondition) << std::hex << int(c.cdb[0]) << " " << int(c.cdb[2]);
        const Bytes &data = reply.data;
        const bool ten = c.headerLength == 8;
        EXPECT_EQ((ten ? be(data, 0, 2) + 2 : data[0] + 1u), data.size());
        const size_t descriptors = ten ? be(data, 6, 2) : data[3];
        EXPECT_EQ(descriptors, (c.cdb[1] & 0x08) ? 0u : 8u) << "DBD";
        bool caching = false;
        for (size_t at = c.headerLength + descriptors; at + 2 <= data.size(); at += 2 + data[at + 1]) {
            EXPECT_EQ(data[at] & 0x40, 0) << "no subpage format";
            if ((data[at] & 0x3F) == 0x08) {
                caching = data[at + 1] == 0x12;
            }
        }
        EXPECT_TRUE(caching);
    }
    Reply unknown = send(target, {0x1A, 0, 0x05, 0, 0xFF, 0});
    EXPECT_EQ(unknown.asc(), sense::kAscInvalidFieldInCdb);
}

// sg_logs -p 0x00: every target lists its log pages, itself first.
TEST_P(ClientProbeTest, LogSenseListsTheSupportedPages) {
    Reply list = send(target, {0x4D, 0, 0x40, 0, 0, 0, 0, 0x00, 0xFF, 0});
    ASSERT_FALSE(list.result.checkCondition);
    ASSERT_GE(list.data.size(), 5u);
    EXPECT_EQ(list.data[0], 0x00);
    EXPECT_EQ(be(list.data, 2, 2) + 4, list.data.size());
    EXPECT_EQ(list.data[4], 0x00);
}

// Refused as a drive refuses, and REQUEST SENSE hands the sense over afterwards.
TEST_P(ClientProbeTest, UnsupportedCommandsAreWellFormedRefusals) {
    const Bytes refusedOpcodes[] = {
        {0xA3, 0x0C, 0x01, 0x12, 0, 0, 0, 0, 0x02, 0, 0, 0}, // REPORT SUPPORTED OPERATION CODES
        {0x1E, 0, 0, 0, 0x01, 0},                            // PREVENT ALLOW MEDIUM REMOVAL
        {0x42, 0, 0, 0, 0, 0, 0, 0, 0x18, 0},                // UNMAP
    };
    for (const Bytes &cdb : refusedOpcodes) {
        Reply reply = send(target, cdb, DataDirection::None);
        ASSERT_TRUE(reply.result.checkCondition) << std::hex << int(cdb[0]);
        EXPECT_EQ(reply.result.sense[0] & 0x7F, 0x70);
        EXPECT_EQ(reply.key(), sense::kIllegalRequest);
        EXPECT_EQ(reply.asc(), sense::kAscInvalidOpcode);
        Reply pending = send(target, {0x03, 0, 0, 0, 18, 0});
        ASSERT_EQ(pending.data.size(), 18u);
        EXPECT_EQ(pending.data[2] & 0x0F, sense::kIllegalRequest);
        EXPECT_EQ(pending.data[12], sense::kAscInvalidOpcode);
    }
    Reply clean = send(target, {0x03, 0, 0, 0, 18, 0});
    EXPECT_EQ(clean.data.at(2) & 0x0F, sense::kNoSense) << "handed over once";
}

// sd's and sg_dd's block commands: FUA writes, reads of either size, cache flushes, VERIFY.
TEST_P(ClientProbeTest, BlockCommandsOfTheKernelAndSgDd) {
    Bytes data(64 * kBlockSize);
    for (size_t i = 0; i < data.size(); ++i) {
        data[i] = static_cast<uint8_t>(i * 7 + i / kBlockSize);
    }
    constexpr uint8_t kFua = 0x08;
    EXPECT_FALSE(send(target, cdb16(0x8A, 1000, 64, kFua), DataDirection::ToDevice, data).result.checkCondition);
    Reply back =
        send(target, {0x28, kFua, 0, 0, 0x03, 0xE8, 0, 0, 64, 0}, DataDirection::FromDevice, Bytes(data.size()));
    EXPECT_FALSE(back.result.checkCondition);
    EXPECT_EQ(back.data, data);
    for (const Bytes &cdb :
         {Bytes{0x35, 0, 0, 0, 0, 0, 0, 0, 0, 0}, cdb16(0x91, 0, 0), cdb16(0x8F, 1000, 64),
          Bytes{0x2F, 0, 0, 0, 0x03, 0xE8, 0, 0, 64, 0}, Bytes{0x00, 0, 0, 0, 0, 0}, Bytes{0x1B, 0, 0, 0, 0x01, 0}}) {
        EXPECT_FALSE(send(target, cdb, DataDirection::None).result.checkCondition) << std::hex << int(cdb[0]);
    }
    Reply beyond = send(target, cdb16(0x8F, 1ull << 40, 1), DataDirection::None);
    EXPECT_EQ(beyond.asc(), sense::kAscLbaOutOfRange);

    // WRITE SAME, as the kernel zeroes: within the announced limit on SAS drives and volumes;
    // a SATA drive has none (its ATA Information page keeps the kernel from trying).
    const Bytes zeros(kBlockSize, 0);
    Reply same = send(target, cdb16(0x93, 2000, 8), DataDirection::ToDevice, zeros);
    Reply tooLong = send(target, cdb16(0x93, 0, kMaxTransferBlocks + 1), DataDirection::ToDevice, zeros);
    if (GetParam() == Kind::Sata) {
        EXPECT_EQ(same.asc(), sense::kAscInvalidOpcode);
    } else {
        EXPECT_FALSE(same.result.checkCondition);
        EXPECT_EQ(tooLong.asc(), sense::kAscInvalidFieldInCdb);
    }
}

INSTANTIATE_TEST_SUITE_P(EveryKind, ClientProbeTest, ::testing::Values(Kind::Sas, Kind::Sata, Kind::Raid5),
                         [](const ::testing::TestParamInfo<Kind> &info) {
                             return std::string(info.param == Kind::Sas    ? "Sas"
                                                : info.param == Kind::Sata ? "Sata"
                                                                           : "Raid5");
                         });

// WRITE SAME on a volume, as the kernel zeroes a range: one block's pattern everywhere, no unmap.
TEST(VolumeProbeTest, WriteSameFillsTheRangeAndRefusesUnmap) {
    Exported disk(Kind::Raid5);
    Bytes pattern(kBlockSize, 0x5A);
    EXPECT_FALSE(send(*disk.target, cdb16(0x93, 100, 300), DataDirection::ToDevice, pattern).result.checkCondition);
    Reply back = send(*disk.target, cdb16(0x88, 99, 302), DataDirection::FromDevice, Bytes(302 * kBlockSize));
    ASSERT_EQ(back.data.size(), 302 * kBlockSize);
    EXPECT_EQ(back.data[0], 0x00);
    EXPECT_EQ(back.data[kBlockSize], 0x5A);
    EXPECT_EQ(back.data[301 * kBlockSize - 1], 0x5A);
    EXPECT_EQ(back.data[301 * kBlockSize], 0x00);
    Reply tooLong = send(*disk.target, cdb16(0x93, 0, kMaxTransferBlocks + 1), DataDirection::ToDevice, pattern);
    EXPECT_EQ(tooLong.asc(), sense::kAscInvalidFieldInCdb);
    EXPECT_EQ(tooLong.result.sense[17], 10) << "the length field";
    Reply unmap = send(*disk.target, cdb16(0x93, 100, 8, 0x08), DataDirection::ToDevice, pattern);
    EXPECT_EQ(unmap.asc(), sense::kAscInvalidFieldInCdb);
    EXPECT_EQ(unmap.result.sense[15], 0xC8 | 3); // bit 3 of byte 1
    // A full stripe (two data strips of 128 blocks) is the optimal transfer, a strip its granularity.
    Bytes limits = send(*disk.target, {0x12, 1, 0xB0, 0, 0xFF, 0}).data;
    EXPECT_EQ(be(limits, 6, 2), 128u);
    EXPECT_EQ(be(limits, 12, 4), 256u);
}

// smartctl -d sat -i -H -A -l error, through ATA PASS-THROUGH(16) as it sends them.
Bytes ataPassThrough(uint8_t command, uint8_t features, uint8_t lbaLow, bool dataIn, bool checkCondition) {
    Bytes cdb(16, 0);
    cdb[0] = 0x85;
    cdb[1] = dataIn ? 0x08 : 0x06; // PIO data-in or non-data
    cdb[2] = static_cast<uint8_t>((checkCondition ? 0x20 : 0) | (dataIn ? 0x0E : 0));
    cdb[4] = features;
    cdb[6] = dataIn ? 1 : 0;
    cdb[8] = lbaLow;
    if (command == 0xB0) {
        cdb[10] = 0x4F; // the SMART key in LBA mid and high
        cdb[12] = 0xC2;
    }
    cdb[14] = command;
    return cdb;
}

bool sumsToZero(const Bytes &sector) {
    uint8_t sum = 0;
    for (uint8_t byte : sector) {
        sum = static_cast<uint8_t>(sum + byte);
    }
    return sector.size() == kBlockSize && sum == 0;
}

TEST(SmartProbeTest, SmartctlReadsDataThresholdsStatusAndErrorLog) {
    Exported disk(Kind::Sata);
    ScsiTarget &drive = *disk.target;
    auto sector = [&](uint8_t features, uint8_t log) {
        Reply reply =
            send(drive, ataPassThrough(0xB0, features, log, true, false), DataDirection::FromDevice, Bytes(kBlockSize));
        EXPECT_FALSE(reply.result.checkCondition) << std::hex << int(features);
        EXPECT_TRUE(sumsToZero(reply.data)) << std::hex << int(features);
        return reply.data;
    };
    Bytes values = sector(0xD0, 0);
    Bytes thresholds = sector(0xD1, 0);
    for (size_t at = 2; at < 362 && values[at] != 0; at += 12) {
        EXPECT_EQ(thresholds[at], values[at]) << "the same attribute in the same entry";
        EXPECT_GT(values[at + 3], thresholds[at + 1]) << "no attribute at its threshold";
    }
    EXPECT_EQ(sector(0xD5, 0x01)[0], 0x01); // summary error log version
    Bytes directory =
        send(drive, ataPassThrough(0xB0, 0xD5, 0x00, true, false), DataDirection::FromDevice, Bytes(kBlockSize)).data;
    EXPECT_EQ(directory[2 * 0x01], 1) << "one page of summary error log";

    // RETURN STATUS answers in the LBA mid and high registers, returned with CK_COND.
    Reply status = send(drive, ataPassThrough(0xB0, 0xDA, 0, false, true), DataDirection::None);
    ASSERT_TRUE(status.result.checkCondition);
    EXPECT_EQ(status.result.sense[0], 0xF0); // fixed format with the registers in it
    EXPECT_EQ(status.key(), sense::kRecoveredError);
    EXPECT_EQ(status.result.sense[13], 0x1D); // ATA pass-through information available
    EXPECT_EQ(status.result.sense[10], 0x4F);
    EXPECT_EQ(status.result.sense[11], 0xC2);
}

// A read that meets an unreadable block: MEDIUM ERROR naming it, and an entry in the
// summary error log that smartctl -l error shows.
TEST(SmartProbeTest, AMediaErrorIsLoggedInTheSummaryErrorLog) {
    Exported disk(Kind::Sata);
    ScsiTarget &drive = *disk.target;
    Bytes writeUncorrectable(16, 0); // WRITE UNCORRECTABLE EXT (pseudo) of block 0x1234
    writeUncorrectable[0] = 0x85;
    writeUncorrectable[1] = 0x07; // non-data, EXTEND
    writeUncorrectable[4] = 0x55;
    writeUncorrectable[6] = 1;
    writeUncorrectable[8] = 0x34;
    writeUncorrectable[10] = 0x12;
    writeUncorrectable[13] = 0x40;
    writeUncorrectable[14] = 0x45;
    ASSERT_FALSE(send(drive, writeUncorrectable, DataDirection::None).result.checkCondition);

    Reply read = send(drive, {0x28, 0, 0, 0, 0x12, 0x30, 0, 0, 8, 0}, DataDirection::FromDevice, Bytes(8 * kBlockSize));
    ASSERT_EQ(read.key(), sense::kMediumError);
    EXPECT_EQ(read.asc(), sense::kAscUnrecoveredReadError);
    EXPECT_EQ(be(Bytes(read.result.sense.begin(), read.result.sense.end()), 3, 4), 0x1234u);
    EXPECT_EQ(read.data.size(), 4 * kBlockSize) << "the blocks before it";

    Bytes log =
        send(drive, ataPassThrough(0xB0, 0xD5, 0x01, true, false), DataDirection::FromDevice, Bytes(kBlockSize)).data;
    ASSERT_TRUE(sumsToZero(log));
    EXPECT_EQ(log[1], 1) << "the newest entry";
    EXPECT_EQ(log[452], 1) << "device error count";
    const size_t command = 2 + 48, error = 2 + 60;
    EXPECT_EQ(log[command + 7], 0x24) << "READ SECTOR(S) EXT, as the layer sent it";
    EXPECT_EQ(log[error + 1], 0x40) << "UNC";
    EXPECT_EQ(log[error + 3], 0x34);
    EXPECT_EQ(log[error + 4], 0x12);
}

TEST(SmartProbeTest, PowerModeFollowsStartStopUnit) {
    Exported disk(Kind::Sata);
    ScsiTarget &drive = *disk.target;
    auto powerMode = [&] {
        return send(drive, ataPassThrough(0xE5, 0, 0, false, true), DataDirection::None).result.sense[6];
    };
    EXPECT_EQ(powerMode(), 0xFF);
    EXPECT_FALSE(send(drive, {0x1B, 0, 0, 0, 0x00, 0}, DataDirection::None).result.checkCondition);
    EXPECT_EQ(powerMode(), 0x00); // standby
    send(drive, cdb16(0x88, 0, 1), DataDirection::FromDevice, Bytes(kBlockSize));
    EXPECT_EQ(powerMode(), 0xFF); // the read spun it up
    Reply eject = send(drive, {0x1B, 0, 0, 0, 0x02, 0}, DataDirection::None);
    EXPECT_EQ(eject.asc(), sense::kAscInvalidFieldInCdb);
}

TEST(SmartProbeTest, WorldWideNameIsTheSameInIdentifyAndDeviceIdentification) {
    Exported disk(Kind::Sata);
    Bytes identify =
        send(*disk.target, ataPassThrough(0xEC, 0, 0, true, false), DataDirection::FromDevice, Bytes(kBlockSize)).data;
    ASSERT_EQ(identify.size(), kBlockSize);
    EXPECT_TRUE(identify[2 * 87 + 1] & 0x01) << "word 87 bit 8: the world wide name is there";
    uint64_t worldWideName = 0;
    for (unsigned word = 108; word < 112; ++word) {
        worldWideName = worldWideName << 16 | (identify[2 * word + 1] << 8) | identify[2 * word];
    }
    Bytes ids = send(*disk.target, {0x12, 1, 0x83, 0, 0xFF, 0}).data;
    ASSERT_GE(ids.size(), 16u);
    EXPECT_EQ(ids[5], 0x03); // the first designator: logical unit, NAA
    EXPECT_EQ(be(ids, 8, 8), worldWideName);
}

// sg_logs -p 0x00 (and its subpage list), and what smartctl reads of a SAS drive for -H and -A.
TEST(SasLogProbeTest, ListedLogPagesAnswerAndTellTheDrivesConditions) {
    Exported disk(Kind::Sas);
    ScsiTarget &drive = *disk.target;
    Bytes list = send(drive, {0x4D, 0, 0x00, 0, 0, 0, 0, 0x00, 0xFF, 0}).data;
    ASSERT_GE(list.size(), 4u);
    for (size_t i = 4; i < list.size(); ++i) {
        Reply page = send(drive, {0x4D, 0, static_cast<uint8_t>(0x40 | list[i]), 0, 0, 0, 0, 0xFF, 0xFF, 0},
                          DataDirection::FromDevice, Bytes(0xFFFF));
        ASSERT_FALSE(page.result.checkCondition) << std::hex << int(list[i]);
        EXPECT_EQ(page.data[0] & 0x3F, list[i]);
        EXPECT_EQ(be(page.data, 2, 2) + 4, page.data.size());
    }
    Bytes subpages = send(drive, {0x4D, 0, 0x00, 0xFF, 0, 0, 0, 0x00, 0xFF, 0}).data;
    ASSERT_EQ(subpages.size(), 4 + 2 * (list.size() - 4 + 1));
    EXPECT_EQ(subpages[0], 0x40); // SPF
    EXPECT_EQ(subpages[1], 0xFF);

    setDriveTemperature(disk.settings[0], 47);
    setSmartTrip(disk.settings[0], 0x5D, 0x10);
    Bytes temperature = send(drive, {0x4D, 0, 0x4D, 0, 0, 0, 0, 0x00, 0xFF, 0}).data;
    ASSERT_EQ(temperature.size(), 16u);
    EXPECT_EQ(temperature[9], 47);
    Bytes exceptions = send(drive, {0x4D, 0, 0x6F, 0, 0, 0, 0, 0x00, 0xFF, 0}).data;
    ASSERT_EQ(exceptions.size(), 12u);
    EXPECT_EQ(exceptions[8], 0x5D);
    EXPECT_EQ(exceptions[9], 0x10);
    EXPECT_EQ(exceptions[10], 47);
}

} // namespace
} // namespace kelsim
