// How a RAID volume reaches its members (block commands only, as any initiator), and
// its lasting state: the failed member, the rebuild that rewrites it, and the check that
// compares mirrors and parity.
#include "raid_volume.h"

#include "byte_order.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace kelsim {
namespace {

constexpr const char *kStateKey = "raid.state";
constexpr const char *kFailedKey = "raid.failed";
constexpr const char *kRebuildNextKey = "raid.rebuild-next";
// One command moves at most this many blocks (an ATA sector count holds 65536).
constexpr uint32_t kMostBlocksPerCommand = 0x8000;

// READ(16) or WRITE(16).
void scsiBlockCdb(bool write, uint64_t lba, uint32_t count, uint8_t *cdb) {
    cdb[0] = write ? 0x8A : 0x88;
    putBe(cdb + 2, 8, lba);
    putBe(cdb + 10, 4, count);
}

// ATA PASS-THROUGH(16): READ DMA EXT or WRITE DMA EXT, the length in 512-byte blocks in
// the sector count.
void ataBlockCdb(bool write, uint64_t lba, uint32_t count, uint8_t *cdb) {
    cdb[0] = 0x85;
    cdb[1] = 0x0D;                // DMA, EXTEND
    cdb[2] = write ? 0x06 : 0x0E; // T_DIR, BYT_BLOK, T_LENGTH in the sector count
    cdb[5] = static_cast<uint8_t>(count >> 8);
    cdb[6] = static_cast<uint8_t>(count);
    cdb[7] = static_cast<uint8_t>(lba >> 24);
    cdb[8] = static_cast<uint8_t>(lba);
    cdb[9] = static_cast<uint8_t>(lba >> 32);
    cdb[10] = static_cast<uint8_t>(lba >> 8);
    cdb[11] = static_cast<uint8_t>(lba >> 40);
    cdb[12] = static_cast<uint8_t>(lba >> 16);
    cdb[13] = 0x40; // LBA mode
    cdb[14] = write ? 0x35 : 0x25;
}

} // namespace

const char *volumeStateName(VolumeState state) {
    switch (state) {
    case VolumeState::Optimal:
        return "optimal";
    case VolumeState::Degraded:
        return "degraded";
    case VolumeState::Rebuilding:
        return "rebuilding";
    }
    return "?";
}

ScsiResult RaidVolume::sendToMember(int member, bool write, uint64_t lba, uint32_t count, uint8_t *data) {
    const VolumeMember &target = members_[static_cast<size_t>(member)];
    uint8_t cdb[16] = {};
    ScsiCommand command;
    command.cdb = cdb;
    command.cdbLength = sizeof cdb;
    command.direction = write ? DataDirection::ToDevice : DataDirection::FromDevice;
    command.data = data;
    command.dataLength = count * kBlockSize;
    if (target.protocol == MemberProtocol::AtaPassThrough) {
        ataBlockCdb(write, lba, count, cdb);
        command.blockTransferUnit = true;
    } else {
        scsiBlockCdb(write, lba, count, cdb);
    }
    if (target.target == nullptr) {
        return checkCondition(sense::kNotReady, 0x04, 0x00);
    }
    return target.target->execute(command);
}

RaidVolume::MemberRead RaidVolume::readMember(int member, uint64_t lba, uint32_t count, uint8_t *out) {
    MemberRead read;
    if (!readable(member)) {
        read.answer = Answer::Failed;
        return read;
    }
    while (read.goodBlocks < count) {
        const uint32_t piece = std::min(count - read.goodBlocks, kMostBlocksPerCommand);
        ScsiResult result =
            sendToMember(member, false, lba + read.goodBlocks, piece, out + size_t{read.goodBlocks} * kBlockSize);
        if (result.timedOut) {
            read.answer = Answer::Failed;
            return read;
        }
        if (result.checkCondition) {
            read.goodBlocks += std::min(result.transferred / kBlockSize, piece);
            read.answer = (result.sense[2] & 0x0F) == sense::kMediumError ? Answer::MediumError : Answer::Failed;
            return read;
        }
        read.goodBlocks += piece;
    }
    return read;
}

bool RaidVolume::writeMember(int member, uint64_t lba, uint32_t count, const uint8_t *in) {
    if (!writable(member)) {
        return false;
    }
    for (uint32_t done = 0; done < count;) {
        const uint32_t piece = std::min(count - done, kMostBlocksPerCommand);
        // The member only reads from the buffer of a write.
        uint8_t *data = const_cast<uint8_t *>(in + size_t{done} * kBlockSize);
        const ScsiResult result = sendToMember(member, true, lba + done, piece, data);
        if (result.checkCondition || result.timedOut) {
            return false;
        }
        done += piece;
    }
    return true;
}

bool RaidVolume::readable(int member) const {
    return member != failed_;
}

bool RaidVolume::writable(int member) const {
    return member != failed_ || state_ == VolumeState::Rebuilding;
}

VolumeState readVolumeState(DriveSettings &settings, size_t memberCount, int *failedMember) {
    std::string value;
    VolumeState state = VolumeState::Optimal;
    if (settings.get(kStateKey, &value)) {
        state = value == "degraded"     ? VolumeState::Degraded
                : value == "rebuilding" ? VolumeState::Rebuilding
                                        : VolumeState::Optimal;
    }
    *failedMember = -1;
    if (state != VolumeState::Optimal) {
        *failedMember = settings.get(kFailedKey, &value) ? atoi(value.c_str()) : -1;
        if (*failedMember < 0 || *failedMember >= static_cast<int>(memberCount)) {
            *failedMember = -1;
            state = VolumeState::Optimal;
        }
    }
    return state;
}

void RaidVolume::loadState() {
    if (settings_ != nullptr) {
        state_ = readVolumeState(*settings_, members_.size(), &failed_);
    }
}

void RaidVolume::saveState(VolumeState state, int failed, uint64_t next) {
    state_ = state;
    failed_ = state == VolumeState::Optimal ? -1 : failed;
    if (settings_ != nullptr) {
        settings_->set(kStateKey, volumeStateName(state));
        settings_->set(kFailedKey, std::to_string(failed_));
        settings_->set(kRebuildNextKey, std::to_string(next));
    }
}

uint64_t RaidVolume::rebuildNext() const {
    std::string value;
    if (settings_ == nullptr || !settings_->get(kRebuildNextKey, &value)) {
        return 0;
    }
    return strtoull(value.c_str(), nullptr, 10);
}

VolumeState RaidVolume::state() const {
    return state_;
}

int RaidVolume::failedMember() const {
    return failed_;
}

bool RaidVolume::failMember(int member, std::string *error) {
    if (level_ == RaidLevel::Raid0) {
        *error = "a RAID 0 volume has no redundancy to lose a member";
        return false;
    }
    if (member < 0 || member >= static_cast<int>(members_.size())) {
        *error = "no such member";
        return false;
    }
    if (failed_ >= 0 && failed_ != member) {
        *error = "member " + std::to_string(failed_) + " has already failed";
        return false;
    }
    saveState(VolumeState::Degraded, member, 0);
    return true;
}

bool RaidVolume::rebuild(const std::vector<uint64_t> &memberLbas, uint64_t maxBlocks, std::string *error) {
    if (failed_ < 0) {
        *error = "no member to rebuild";
        return false;
    }
    const int target = failed_;
    uint64_t next = state_ == VolumeState::Rebuilding ? rebuildNext() : 0;
    saveState(VolumeState::Rebuilding, target, next);
    std::vector<uint8_t> block(kBlockSize);
    uint64_t done = 0;
    for (uint64_t lba : memberLbas) {
        if (lba < next) {
            continue;
        }
        if (maxBlocks != 0 && done == maxBlocks) {
            saveState(VolumeState::Rebuilding, target, lba);
            return true;
        }
        // The rebuilt member is readable to nobody until it is whole: mirrors copy the
        // first other member, parity volumes XOR the others.
        bool rebuilt = false;
        if (level_ == RaidLevel::Raid1) {
            for (int m = 0; m < static_cast<int>(members_.size()) && !rebuilt; m++) {
                rebuilt = m != target && readMember(m, lba, 1, block.data()).answer == Answer::Good;
            }
        } else {
            rebuilt = reconstruct(target, lba, 1, block.data());
        }
        if (!rebuilt || !writeMember(target, lba, 1, block.data())) {
            saveState(VolumeState::Rebuilding, target, lba);
            *error = "member block " + std::to_string(lba) + " cannot be rebuilt";
            return false;
        }
        done++;
    }
    saveState(VolumeState::Optimal, -1, 0);
    return true;
}

std::vector<RowMismatch> RaidVolume::check(const std::vector<uint64_t> &memberLbas) {
    std::vector<RowMismatch> mismatches;
    if (level_ == RaidLevel::Raid0) {
        return mismatches;
    }
    const size_t n = members_.size();
    std::vector<uint8_t> first(kBlockSize), block(kBlockSize);
    for (uint64_t lba : memberLbas) {
        if (lba >= capacity_ / (level_ == RaidLevel::Raid1 ? 1 : n - 1)) {
            continue; // past the strips the volume uses
        }
        RowMismatch found{lba, false};
        bool differs = false;
        std::fill(first.begin(), first.end(), 0);
        for (size_t m = 0; m < n; m++) {
            if (!readable(static_cast<int>(m))) {
                continue;
            }
            if (readMember(static_cast<int>(m), lba, 1, block.data()).answer != Answer::Good) {
                found.unreadable = true;
                break;
            }
            if (level_ == RaidLevel::Raid1) {
                differs = differs || (m > 0 && block != first);
                if (m == 0) {
                    first = block;
                }
            } else {
                for (size_t i = 0; i < kBlockSize; i++) {
                    first[i] ^= block[i];
                }
            }
        }
        if (level_ == RaidLevel::Raid5 && failed_ < 0) {
            differs = std::any_of(first.begin(), first.end(), [](uint8_t byte) { return byte != 0; });
        }
        if (found.unreadable || differs) {
            mismatches.push_back(found);
        }
    }
    return mismatches;
}

} // namespace kelsim
