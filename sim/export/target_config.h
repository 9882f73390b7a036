// The kernel SCSI target's configuration (configfs) for the export: user-space backstores,
// one loopback target with a LUN for each, the UIO device of each backstore, the sg and sd
// nodes the kernel gave each LUN; what an earlier export left is found and taken over;
// everything made or taken over is undone in reverse order.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace kelsim {

struct Backstore {
    std::string name;
    std::string uioDevice; // /dev/uioN
    size_t mapSize = 0;    // bytes of its ring mapping
    int lun = -1;          // its LUN when taken over from an earlier export, -1 otherwise
};

// A backstore an earlier export left (killed before it could remove it).
struct LeftoverBackstore {
    std::string hba;     // "user_0"
    std::string name;    // "c0s4"
    uint64_t bytes = 0;  // its dev_size
    std::string lunLink; // the LUN link to it in one of our loopback targets, or empty
};

struct Leftovers {
    std::vector<LeftoverBackstore> backstores;
    std::vector<std::string> targets; // our loopback targets' folders (loopback/naa.5001405ce1...)
};

// The LUN number of a link ".../lun/lun_3/kelsim", or -1.
int lunOfLink(const std::string &link);

class TargetConfig {
  public:
    // root: the target's configfs folder; uioClass: where the UIO devices are listed.
    explicit TargetConfig(std::string root = "/sys/kernel/config/target", std::string uioClass = "/sys/class/uio");
    ~TargetConfig(); // removes whatever is still there
    TargetConfig(const TargetConfig &) = delete;
    TargetConfig &operator=(const TargetConfig &) = delete;

    // The target's configfs folders are there (root, the modules loaded).
    bool available(std::string *error) const;
    // Backstores whose dev_config is "kelsim/<its name>" under any core/user_K, our loopback
    // targets and the LUNs in them that link those backstores.
    Leftovers findLeftovers() const;
    // Takes over the leftover backstores keep() accepts (name, bytes) whose UIO device is
    // there, with their LUNs in the first of our loopback targets; removes the others (LUN
    // link, lun_N, backstore) and the other targets; taken: how many it took over. Refuses
    // (and leaves everything) while another export still serves one of them.
    bool takeOverLeftovers(const std::function<bool(const std::string &name, uint64_t bytes)> &keep, int *taken,
                           std::string *error);
    // A backstore of the user-space target, enabled, with its UIO device found; one taken
    // over is used as it is.
    bool addBackstore(const std::string &name, uint64_t bytes, Backstore *backstore, std::string *error);
    // The loopback target and its nexus: a SCSI host appears (or the one taken over).
    bool addLoopback(std::string *error);
    // Links a backstore as LUN lun of the loopback target: the kernel probes the disk at once.
    bool addLun(int lun, const std::string &backstoreName, std::string *error);
    // The SCSI address of a LUN ("H:C:T:L"), once the loopback target exists.
    std::string lunAddress(int lun) const;
    // Removes the loopback target (links, LUNs, target), then the rest.
    void removeLoopback();
    void removeAll();

  private:
    bool makeFolder(const std::string &path, std::string *error);
    std::string backstorePath(const std::string &name) const;
    bool findUio(const std::string &hba, const std::string &name, Backstore *backstore) const;
    void removeTarget(const std::string &target) const;

    struct Made {
        std::string path;
        bool link;
    };
    struct TakenOver {
        std::string hba, name;
        int lun;
    };
    std::string root_, uioClass_;
    std::vector<TakenOver> takenOver_;
    std::string takenOverTarget_; // loopback/naa... folder, or empty
    std::string hba_;             // core/user_K
    int hbaIndex_ = -1;
    std::string tpgt_; // loopback/naa.../tpgt_1
    bool loopback_ = false;
    size_t loopbackMark_ = 0; // entries of made_ before the loopback target
    std::vector<Made> made_;
};

// The generic SCSI and block nodes of a SCSI device ("/dev/sg3", "/dev/sdc"); empty while
// the kernel has not made them.
void scsiNodes(const std::string &address, std::string *sg, std::string *block);

} // namespace kelsim
