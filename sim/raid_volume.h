// A logical drive: a RAID 0, 1 or 5 volume that answers plain SCSI block commands. It
// reaches its members only as any initiator would, by sending them block commands, so
// whatever a member does (a media error, an injected error, a stop, a smaller capacity)
// reaches the volume by itself. RAID 1 and 5 rebuild what a member cannot give and write
// it back to that member.
#pragma once

#include "device.h"
#include "scsi_pages.h"
#include "topology.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kelsim {

// How a member takes block commands: READ(16)/WRITE(16), or (a SATA drive behind its
// translation layer) ATA PASS-THROUGH(16) with READ/WRITE DMA EXT.
enum class MemberProtocol { Scsi, AtaPassThrough };

struct VolumeMember {
    ScsiTarget *target = nullptr;
    uint64_t blocks = 0; // the member's capacity when the volume was made
    MemberProtocol protocol = MemberProtocol::Scsi;
};

// Where one run of volume blocks (never crossing a strip) lives on the members.
struct StripExtent {
    uint64_t volumeLba = 0;
    uint32_t count = 0;
    int member = 0;         // the data member (RAID 1: the first mirror)
    uint64_t memberLba = 0; // the same on every member of the row
    int parityMember = -1;  // RAID 5 only
};

enum class VolumeState { Optimal, Degraded, Rebuilding };
const char *volumeStateName(VolumeState state); // "optimal", "degraded", "rebuilding"

// A volume's state as kept in its settings, and its failed member (-1 when none).
VolumeState readVolumeState(DriveSettings &settings, size_t memberCount, int *failedMember);

// A member's blocks that the volume rewrote from the other members after a media error.
struct MemberRepair {
    int member = 0;
    uint64_t memberLba = 0;
    uint32_t count = 0;
};

// Blocks of a member row that disagree: mirrors that differ, or parity that is not the
// XOR of its row; unreadable when a member could not give them.
struct RowMismatch {
    uint64_t memberLba = 0;
    bool unreadable = false;
};

// The volume's size: the smallest member cut to whole strips, times the data members.
uint64_t raidCapacity(RaidLevel level, uint32_t stripBlocks, const std::vector<uint64_t> &memberBlocks);

class RaidVolume : public ScsiTarget {
  public:
    // The state (which member failed, how far a rebuild came) is kept in settings, when
    // given, so that it lasts from run to run.
    RaidVolume(RaidLevel level, uint32_t stripBlocks, std::vector<VolumeMember> members, std::string serial,
               DriveSettings *settings = nullptr);

    uint64_t capacity() const { return capacity_; }
    uint32_t stripBlocks() const { return stripBlocks_; }
    size_t memberCount() const { return members_.size(); }
    // The extent holding volumeLba, cut at the end of its strip and after maxCount blocks.
    StripExtent locate(uint64_t volumeLba, uint32_t maxCount) const;

    ScsiResult execute(const ScsiCommand &command) override;

    VolumeState state() const;
    int failedMember() const; // -1 when none
    // Takes a member out of the volume (RAID 1 and 5 only): the volume is degraded.
    bool failMember(int member, std::string *error);
    // Rewrites the failed member, row by row, from the others: the member blocks given
    // (sorted; any block not listed must read as zeros on every member), then the volume
    // is optimal again. With maxBlocks the rebuild stops after that many blocks and stays
    // rebuilding; the next call goes on from there.
    bool rebuild(const std::vector<uint64_t> &memberLbas, uint64_t maxBlocks, std::string *error);
    // Reads the given member blocks of every member and reports the ones whose copies or
    // parity disagree. RAID 0 has nothing to compare.
    std::vector<RowMismatch> check(const std::vector<uint64_t> &memberLbas);

    // Called for every repair the volume makes.
    void onRepair(std::function<void(const MemberRepair &)> observer) { repairObserver_ = std::move(observer); }

  private:
    enum class Answer { Good, MediumError, Failed };
    struct MemberRead {
        Answer answer = Answer::Good;
        uint32_t goodBlocks = 0; // the blocks before the first that failed
    };

    // The SCSI commands (raid_volume_scsi.cpp).
    ScsiResult dispatch(const ScsiCommand &command, const uint8_t *cdb);
    ScsiResult inquiry(const ScsiCommand &command, const uint8_t *cdb);
    ScsiResult modeSense(const ScsiCommand &command, const uint8_t *cdb);
    ScsiResult readCapacity(const ScsiCommand &command, const uint8_t *cdb, bool sixteen);
    ScsiResult blockCommand(const ScsiCommand &command, const uint8_t *cdb);
    // VERIFY reads every block and writes nothing; WRITE SAME writes one block everywhere.
    ScsiResult verify(uint64_t lba, uint32_t blocks);
    ScsiResult writeSame(const ScsiCommand &command, uint64_t lba, uint32_t blocks, uint16_t lengthByte);
    // Reads or writes whole volume blocks through the layout (raid_volume.cpp).
    ScsiResult transfer(const ScsiCommand &command, uint64_t lba, uint32_t blocks, bool write, int lengthByte);

    // A read that fails names the first volume block it could not give.
    bool readExtent(const StripExtent &extent, uint8_t *out, uint32_t *goodBlocks);
    bool writeExtent(const StripExtent &extent, const uint8_t *in);
    // The blocks of one member rebuilt from the XOR of all the others (RAID 5).
    bool reconstruct(int missing, uint64_t memberLba, uint32_t count, uint8_t *out);
    // The XOR of the row's data members other than the extent's own (RAID 5).
    bool otherDataXor(const StripExtent &extent, uint8_t *out);
    // A member that gave a media error gets the rebuilt blocks written back.
    void repair(int member, uint64_t memberLba, uint32_t count, const uint8_t *data);

    // Every member access goes through these: one block command per piece.
    MemberRead readMember(int member, uint64_t lba, uint32_t count, uint8_t *out);
    bool writeMember(int member, uint64_t lba, uint32_t count, const uint8_t *in);
    ScsiResult sendToMember(int member, bool write, uint64_t lba, uint32_t count, uint8_t *data);
    // Reads avoid a member that failed or is being rebuilt; writes skip only a failed one.
    bool readable(int member) const;
    bool writable(int member) const;

    void loadState();
    void saveState(VolumeState state, int failed, uint64_t rebuildNext);
    uint64_t rebuildNext() const;

    RaidLevel level_;
    uint32_t stripBlocks_;
    std::vector<VolumeMember> members_;
    std::string serial_;
    DriveSettings *settings_;
    uint64_t capacity_ = 0;
    VolumeState state_ = VolumeState::Optimal;
    int failed_ = -1;
    std::function<void(const MemberRepair &)> repairObserver_;
    PendingSense pendingSense_;
};

} // namespace kelsim
