// RAID volumes: the block layouts of RAID 0, 1 and 5 (left-symmetric, parity kept on
// every write), and reads that rebuild and repair what a member cannot give. The SCSI
// commands a logical drive answers are in raid_volume_scsi.cpp.
#include "raid_volume.h"

#include "byte_order.h"

#include <algorithm>
#include <cstring>

namespace kelsim {
namespace {

void xorInto(uint8_t *target, const uint8_t *source, size_t size) {
    for (size_t i = 0; i < size; i++) {
        target[i] ^= source[i];
    }
}

} // namespace

uint64_t raidCapacity(RaidLevel level, uint32_t stripBlocks, const std::vector<uint64_t> &memberBlocks) {
    if (memberBlocks.empty() || stripBlocks == 0) {
        return 0;
    }
    uint64_t smallest = *std::min_element(memberBlocks.begin(), memberBlocks.end());
    uint64_t perMember = smallest / stripBlocks * stripBlocks;
    uint64_t n = memberBlocks.size();
    switch (level) {
    case RaidLevel::Raid0:
        return perMember * n;
    case RaidLevel::Raid1:
        return perMember;
    case RaidLevel::Raid5:
        return n >= 3 ? perMember * (n - 1) : 0;
    }
    return 0;
}

RaidVolume::RaidVolume(RaidLevel level, uint32_t stripBlocks, std::vector<VolumeMember> members, std::string serial,
                       DriveSettings *settings)
    : level_(level), stripBlocks_(stripBlocks == 0 ? 1 : stripBlocks), members_(std::move(members)),
      serial_(std::move(serial)), settings_(settings) {
    std::vector<uint64_t> blocks;
    for (const VolumeMember &member : members_) {
        blocks.push_back(member.blocks);
    }
    capacity_ = raidCapacity(level_, stripBlocks_, blocks);
    loadState();
}

// RAID 0: strip k is on member k mod n, row k div n.
// RAID 5, left-symmetric: row r keeps its parity on member (n-1) - (r mod n); its data strips
// follow the parity member, wrapping round, so that consecutive strips visit every member.
StripExtent RaidVolume::locate(uint64_t volumeLba, uint32_t maxCount) const {
    StripExtent extent;
    extent.volumeLba = volumeLba;
    uint64_t strip = volumeLba / stripBlocks_;
    uint64_t offset = volumeLba % stripBlocks_;
    extent.count = static_cast<uint32_t>(std::min<uint64_t>(maxCount, stripBlocks_ - offset));
    uint64_t n = members_.size();
    switch (level_) {
    case RaidLevel::Raid0:
        extent.member = static_cast<int>(strip % n);
        extent.memberLba = strip / n * stripBlocks_ + offset;
        break;
    case RaidLevel::Raid1:
        extent.member = 0;
        extent.memberLba = volumeLba;
        break;
    case RaidLevel::Raid5: {
        uint64_t row = strip / (n - 1);
        uint64_t dataIndex = strip % (n - 1);
        uint64_t parity = (n - 1) - row % n;
        extent.parityMember = static_cast<int>(parity);
        extent.member = static_cast<int>((parity + 1 + dataIndex) % n);
        extent.memberLba = row * stripBlocks_ + offset;
        break;
    }
    }
    return extent;
}

bool RaidVolume::reconstruct(int missing, uint64_t memberLba, uint32_t count, uint8_t *out) {
    size_t size = static_cast<size_t>(count) * kBlockSize;
    std::vector<uint8_t> other(size);
    memset(out, 0, size);
    for (int m = 0; m < static_cast<int>(members_.size()); m++) {
        if (m == missing) {
            continue;
        }
        if (readMember(m, memberLba, count, other.data()).answer != Answer::Good) {
            return false; // two failures in one row: the data is gone
        }
        xorInto(out, other.data(), size);
    }
    return true;
}

bool RaidVolume::otherDataXor(const StripExtent &extent, uint8_t *out) {
    size_t size = static_cast<size_t>(extent.count) * kBlockSize;
    std::vector<uint8_t> other(size);
    memset(out, 0, size);
    for (int m = 0; m < static_cast<int>(members_.size()); m++) {
        if (m == extent.member || m == extent.parityMember) {
            continue;
        }
        if (readMember(m, extent.memberLba, extent.count, other.data()).answer != Answer::Good) {
            return false;
        }
        xorInto(out, other.data(), size);
    }
    return true;
}

void RaidVolume::repair(int member, uint64_t memberLba, uint32_t count, const uint8_t *data) {
    if (writeMember(member, memberLba, count, data) && repairObserver_) {
        repairObserver_(MemberRepair{member, memberLba, count});
    }
}

bool RaidVolume::readExtent(const StripExtent &extent, uint8_t *out, uint32_t *goodBlocks) {
    *goodBlocks = 0;
    switch (level_) {
    case RaidLevel::Raid0: {
        MemberRead read = readMember(extent.member, extent.memberLba, extent.count, out);
        *goodBlocks = read.goodBlocks;
        return read.answer == Answer::Good;
    }
    case RaidLevel::Raid1: {
        // The first mirror that gives the blocks wins; mirrors with a media error before it
        // get them written back.
        std::vector<int> damaged;
        for (int m = 0; m < static_cast<int>(members_.size()); m++) {
            MemberRead read = readMember(m, extent.memberLba, extent.count, out);
            if (read.answer == Answer::Good) {
                for (int bad : damaged) {
                    repair(bad, extent.memberLba, extent.count, out);
                }
                return true;
            }
            if (read.answer == Answer::MediumError) {
                damaged.push_back(m);
            }
            *goodBlocks = m == 0 ? read.goodBlocks : std::min(*goodBlocks, read.goodBlocks);
        }
        return false;
    }
    case RaidLevel::Raid5: {
        MemberRead read = readMember(extent.member, extent.memberLba, extent.count, out);
        if (read.answer == Answer::Good) {
            return true;
        }
        *goodBlocks = read.goodBlocks;
        if (!reconstruct(extent.member, extent.memberLba, extent.count, out)) {
            return false;
        }
        if (read.answer == Answer::MediumError) {
            repair(extent.member, extent.memberLba, extent.count, out);
        }
        return true;
    }
    }
    return false;
}

bool RaidVolume::writeExtent(const StripExtent &extent, const uint8_t *in) {
    switch (level_) {
    case RaidLevel::Raid0:
        return writeMember(extent.member, extent.memberLba, extent.count, in);
    case RaidLevel::Raid1: {
        bool anyWritten = false;
        for (int m = 0; m < static_cast<int>(members_.size()); m++) {
            anyWritten = writeMember(m, extent.memberLba, extent.count, in) || anyWritten;
        }
        return anyWritten;
    }
    case RaidLevel::Raid5:
        break;
    }
    // Read-modify-write: new parity = old parity ^ old data ^ new data. The old data and
    // the old parity are reconstructed when their own member cannot give them; when neither
    // can be had, the parity is made afresh from the row's other data and the new data.
    size_t size = static_cast<size_t>(extent.count) * kBlockSize;
    std::vector<uint8_t> parity(size), oldData(size);
    const bool haveOldData =
        readMember(extent.member, extent.memberLba, extent.count, oldData.data()).answer == Answer::Good ||
        reconstruct(extent.member, extent.memberLba, extent.count, oldData.data());
    const bool haveOldParity =
        haveOldData &&
        (readMember(extent.parityMember, extent.memberLba, extent.count, parity.data()).answer == Answer::Good ||
         reconstruct(extent.parityMember, extent.memberLba, extent.count, parity.data()));
    if (haveOldParity) {
        xorInto(parity.data(), oldData.data(), size);
    } else if (!otherDataXor(extent, parity.data())) {
        return false;
    }
    xorInto(parity.data(), in, size);
    bool dataWritten = writeMember(extent.member, extent.memberLba, extent.count, in);
    bool parityWritten = writeMember(extent.parityMember, extent.memberLba, extent.count, parity.data());
    return dataWritten || parityWritten;
}

ScsiResult RaidVolume::transfer(const ScsiCommand &command, uint64_t lba, uint32_t blocks, bool write, int lengthByte) {
    if (lba > capacity_ || blocks > capacity_ - lba || (blocks == 0 && lba == capacity_)) {
        return checkCondition(sense::kIllegalRequest, sense::kAscLbaOutOfRange, 0);
    }
    uint64_t bytes = static_cast<uint64_t>(blocks) * kBlockSize;
    DataDirection wanted = write ? DataDirection::ToDevice : DataDirection::FromDevice;
    if (blocks > 0 && (command.direction != wanted || command.data == nullptr || bytes > command.dataLength)) {
        return invalidFieldInCdb(static_cast<uint16_t>(lengthByte));
    }
    uint8_t *data = command.data;
    uint32_t done = 0;
    while (done < blocks) {
        StripExtent extent = locate(lba + done, blocks - done);
        uint8_t *at = data + static_cast<size_t>(done) * kBlockSize;
        uint32_t goodBlocks = 0;
        bool ok = write ? writeExtent(extent, at) : readExtent(extent, at, &goodBlocks);
        if (!ok) {
            ScsiResult failed = write ? checkCondition(sense::kMediumError, 0x0C, 0x00) // write error
                                      : mediumError(lba + done + goodBlocks);
            failed.transferred = (done + goodBlocks) * kBlockSize;
            return failed;
        }
        done += extent.count;
    }
    ScsiResult result;
    result.transferred = static_cast<uint32_t>(bytes);
    return result;
}

} // namespace kelsim
