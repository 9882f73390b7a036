// A logical drive: a RAID 0, 1 or 5 volume that answers plain SCSI block commands and
// reads and writes its members' media directly, as the controller's firmware does.
#pragma once

#include "device.h"
#include "topology.h"

#include <memory>
#include <string>
#include <vector>

namespace kelsim {

// A member drive's own notion of bad blocks (media errors marked on it). A volume asks
// before it trusts a member's data and tells it when a write has replaced the blocks.
class MemberMediaErrors {
  public:
    virtual ~MemberMediaErrors() = default;
    virtual bool anyBad(uint64_t lba, uint32_t count) = 0;
    virtual void cleared(uint64_t lba, uint32_t count) = 0;
};

struct VolumeMember {
    Medium *medium = nullptr;
    uint64_t blocks = 0;                      // the member's capacity
    MemberMediaErrors *mediaErrors = nullptr; // optional
};

// Where one run of volume blocks (never crossing a strip) lives on the members.
struct StripExtent {
    uint64_t volumeLba = 0;
    uint32_t count = 0;
    int member = 0;         // the data member (RAID 1: the first mirror)
    uint64_t memberLba = 0; // the same on every member of the row
    int parityMember = -1;  // RAID 5 only
};

// The volume's size: the smallest member cut to whole strips, times the data members.
uint64_t raidCapacity(RaidLevel level, uint32_t stripBlocks, const std::vector<uint64_t> &memberBlocks);

class RaidVolume : public ScsiTarget {
  public:
    RaidVolume(RaidLevel level, uint32_t stripBlocks, std::vector<VolumeMember> members, std::string serial);

    uint64_t capacity() const { return capacity_; }
    // The extent holding volumeLba, cut at the end of its strip and after maxCount blocks.
    StripExtent locate(uint64_t volumeLba, uint32_t maxCount) const;

    ScsiResult execute(const ScsiCommand &command) override;

  private:
    ScsiResult inquiry(const ScsiCommand &command);
    ScsiResult readCapacity10(const ScsiCommand &command);
    ScsiResult readCapacity16(const ScsiCommand &command);
    ScsiResult transfer(const ScsiCommand &command, uint64_t lba, uint32_t blocks, bool write, int lengthByte);

    bool readExtent(const StripExtent &extent, uint8_t *out);
    bool writeExtent(const StripExtent &extent, const uint8_t *in);
    // Rebuilds one member's blocks from the XOR of all the others (RAID 5).
    bool reconstruct(int missing, uint64_t memberLba, uint32_t count, uint8_t *out);

    // Every member access goes through these two.
    bool readMember(int member, uint64_t lba, uint32_t count, uint8_t *out);
    void writeMember(int member, uint64_t lba, uint32_t count, const uint8_t *in);

    RaidLevel level_;
    uint32_t stripBlocks_;
    std::vector<VolumeMember> members_;
    std::string serial_;
    uint64_t capacity_ = 0;
};

} // namespace kelsim
