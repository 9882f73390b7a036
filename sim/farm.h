// The farm as one process sees it: the state folder, its topology, the store, and the
// drive and volume objects built on demand and kept for the life of the process.
#pragma once

#include "raid_volume.h"
#include "state_store.h"
#include "topology.h"

#include <map>
#include <memory>
#include <string>

namespace kelsim {

// $KELSIM_DIR, else ${XDG_STATE_HOME:-$HOME/.local/state}/kelsim.
std::string stateDirectoryFromEnvironment();

// mkdir -p.
bool makeDirectories(const std::string &path, std::string *error);

// Reads <stateDir>/farm.conf; a new folder (or one without the file) gets the default farm.
bool loadTopologyFile(const std::string &stateDir, Topology *topology, std::string *error);
// Replaces farm.conf in one step (a temporary file renamed over it).
bool writeTopologyFile(const std::string &stateDir, const Topology &topology, std::string *error);

// The key of a slot's drive in the store.
inline int64_t driveKey(int controller, int slot) {
    return controller * kSlotsPerController + slot;
}

// The key of a logical drive's own settings (its state) in the store, apart from drives.
inline int64_t volumeKey(int controller, int ld) {
    return -1 - (controller * kLogicalDrivesPerController + ld);
}

class Farm {
  public:
    explicit Farm(std::string stateDir);

    const std::string &stateDir() const { return stateDir_; }
    // Reads the topology once; later calls return the first answer.
    bool load(std::string *error);
    const Topology &topology() const { return topology_; }
    StateStore &store() { return store_; }

    const ControllerConfig *controller(int controllerNo) const;
    const SlotConfig *slot(int controllerNo, int slotNo) const;               // null when empty
    const LogicalDriveConfig *logicalDrive(int controllerNo, int ldNo) const; // null when absent

    // The marker file "volumes.degraded" exists while some volume may not be optimal, so
    // that getRaidStatus opens the database only then. kelsim keeps it after a change.
    bool volumesMayBeDegraded() const;
    void markVolumesDegraded(bool degraded);
    // A logical drive's state from the store (inside the caller's transaction); the slot of
    // its failed member, or -1.
    VolumeState volumeState(int controllerNo, int ldNo, int *failedSlot);

    ScsiTarget *physicalDrive(int controllerNo, int slotNo);
    RaidVolume *volume(int controllerNo, int ldNo);
    Medium *medium(int controllerNo, int slotNo);

  private:
    struct DriveParts {
        std::unique_ptr<StoredMedium> medium;
        std::unique_ptr<StoredSettings> settings;
        std::unique_ptr<ScsiTarget> target;
    };
    struct VolumeParts {
        std::unique_ptr<StoredSettings> settings;
        std::unique_ptr<RaidVolume> volume;
    };
    DriveParts *parts(int controllerNo, int slotNo);

    std::string stateDir_;
    bool loaded_ = false;
    bool loadedOk_ = false;
    std::string loadError_;
    Topology topology_;
    StateStore store_;
    std::map<int64_t, DriveParts> drives_;
    std::map<int, VolumeParts> volumes_;
};

} // namespace kelsim
