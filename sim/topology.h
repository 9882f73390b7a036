// The farm's topology: which controllers exist, what drive sits in each slot and how the
// logical drives are built; read from and written to the text file farm.conf.
#pragma once

#include "device.h"

#include <array>
#include <string>
#include <string_view>
#include <vector>

namespace kelsim {

constexpr int kMaxControllers = 10;
constexpr int kSlotsPerController = 8;
constexpr int kLogicalDrivesPerController = 8;

struct SlotConfig {
    bool present = false;
    DriveIdentity identity;
};

enum class RaidLevel { Raid0, Raid1, Raid5 };

struct LogicalDriveConfig {
    bool present = false;
    RaidLevel level = RaidLevel::Raid0;
    uint32_t stripBlocks = 128;
    std::vector<int> memberSlots; // in layout order
};

struct ControllerConfig {
    std::array<SlotConfig, kSlotsPerController> slots;
    std::array<LogicalDriveConfig, kLogicalDrivesPerController> logicalDrives;
};

struct Topology {
    std::vector<ControllerConfig> controllers; // numbered 0..size-1
};

// The farm every new state folder starts with.
Topology defaultTopology();

// farm.conf text with a comment block that explains the format.
std::string formatTopology(const Topology &topology);

// Parses farm.conf; on failure *error names the line and the problem.
bool parseTopology(std::string_view text, Topology *topology, std::string *error);

const char *raidLevelName(RaidLevel level); // "raid0", "raid1", "raid5"

// The slot's logical drive, or -1 when the slot belongs to none.
int logicalDriveOfSlot(const ControllerConfig &controller, int slot);

} // namespace kelsim
