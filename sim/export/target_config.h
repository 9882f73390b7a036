// The kernel SCSI target's configuration (configfs) for the export: user-space backstores,
// one loopback target with a LUN for each, the UIO device of each backstore, the sg and sd
// nodes the kernel gave each LUN; everything made is undone in reverse order.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kelsim {

struct Backstore {
    std::string name;
    std::string uioDevice; // /dev/uioN
    size_t mapSize = 0;    // bytes of its ring mapping
};

class TargetConfig {
  public:
    TargetConfig();
    ~TargetConfig(); // removes whatever is still there
    TargetConfig(const TargetConfig &) = delete;
    TargetConfig &operator=(const TargetConfig &) = delete;

    // The target's configfs folders are there (root, the modules loaded).
    bool available(std::string *error) const;
    // A backstore of the user-space target, enabled, with its UIO device found.
    bool addBackstore(const std::string &name, uint64_t bytes, Backstore *backstore, std::string *error);
    // The loopback target and its nexus: a SCSI host appears.
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

    struct Made {
        std::string path;
        bool link;
    };
    std::string root_;
    std::string hba_; // core/user_K
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
