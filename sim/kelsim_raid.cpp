// kelsim fail, rebuild and check: a volume loses a member, gets it back rewritten from
// the others, and has its mirrors and parity compared row by row. All of it goes
// through the volume and its members' device models, like the controller's own work.
#include "kelsim_raid.h"

#include "drives/ata_device.h"
#include "drives/sas_drive.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <set>

namespace kelsim {

const char kRaidUsage[] = "  fail <ctl> <ld> <slot>    take a member out of a RAID 1 or 5 volume (degraded)\n"
                          "  rebuild <ctl> <ld> [--blocks N]\n"
                          "                        rewrite the failed member from the others (N blocks at most)\n"
                          "  check                 compare every volume's mirrors and parity; exit 1 on a mismatch\n";

namespace {

int failure(const std::string &text) {
    fprintf(stderr, "kelsim: %s\n", text.c_str());
    return 1;
}

bool parseNumber(const std::string &text, uint64_t *value) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    *value = strtoull(text.c_str(), nullptr, 10);
    return true;
}

// The member blocks that hold data on any member: every other block reads as zeros on
// all of them, so it needs neither a rebuild nor a check.
std::vector<uint64_t> rowsWithData(Farm &farm, int controllerNo, const LogicalDriveConfig &config) {
    std::vector<uint64_t> all;
    for (int slot : config.memberSlots) {
        farm.store().storedLbas(driveKey(controllerNo, slot), &all);
    }
    std::sort(all.begin(), all.end());
    all.erase(std::unique(all.begin(), all.end()), all.end());
    return all;
}

// Any volume still not optimal keeps the marker that getRaidStatus looks for.
void updateDegradedMarker(Farm &farm) {
    bool degraded = false;
    const Topology &topology = farm.topology();
    for (size_t c = 0; c < topology.controllers.size(); c++) {
        for (int ld = 0; ld < kLogicalDrivesPerController; ld++) {
            int failedSlot = -1;
            degraded = degraded || farm.volumeState(static_cast<int>(c), ld, &failedSlot) != VolumeState::Optimal;
        }
    }
    farm.markVolumesDegraded(degraded);
}

struct VolumeTarget {
    int controllerNo = 0;
    int ldNo = 0;
    const LogicalDriveConfig *config = nullptr;
    RaidVolume *volume = nullptr;
};

bool findVolume(Farm &farm, const std::string &controllerText, const std::string &ldText, VolumeTarget *target,
                std::string *error) {
    uint64_t controllerNo = 0;
    uint64_t ldNo = 0;
    if (!parseNumber(controllerText, &controllerNo) || !parseNumber(ldText, &ldNo) || controllerNo > 9 || ldNo > 7) {
        *error = "controller and logical drive are numbers";
        return false;
    }
    target->controllerNo = static_cast<int>(controllerNo);
    target->ldNo = static_cast<int>(ldNo);
    target->config = farm.logicalDrive(target->controllerNo, target->ldNo);
    if (target->config == nullptr) {
        *error = "no logical drive " + ldText + " on controller " + controllerText;
        return false;
    }
    target->volume = farm.volume(target->controllerNo, target->ldNo);
    return true;
}

int failMember(Farm &farm, const std::vector<std::string> &args) {
    uint64_t slot = 0;
    if (args.size() != 3 || !parseNumber(args[2], &slot)) {
        return failure("usage: kelsim fail <ctl> <ld> <slot>");
    }
    VolumeTarget target;
    std::string error;
    if (!findVolume(farm, args[0], args[1], &target, &error)) {
        return failure(error);
    }
    const std::vector<int> &slots = target.config->memberSlots;
    auto member = std::find(slots.begin(), slots.end(), static_cast<int>(slot));
    if (member == slots.end()) {
        return failure("slot " + args[2] + " is not a member of ld " + args[1]);
    }
    if (!target.volume->failMember(static_cast<int>(member - slots.begin()), &error)) {
        return failure(error);
    }
    farm.markVolumesDegraded(true);
    printf("controller %d ld %d: slot %" PRIu64 " failed, volume degraded\n", target.controllerNo, target.ldNo, slot);
    return 0;
}

int rebuildMember(Farm &farm, const std::vector<std::string> &args) {
    uint64_t maxBlocks = 0;
    if (!(args.size() == 2 || (args.size() == 4 && args[2] == "--blocks" && parseNumber(args[3], &maxBlocks)))) {
        return failure("usage: kelsim rebuild <ctl> <ld> [--blocks N]");
    }
    VolumeTarget target;
    std::string error;
    if (!findVolume(farm, args[0], args[1], &target, &error)) {
        return failure(error);
    }
    const bool rebuilt =
        target.volume->rebuild(rowsWithData(farm, target.controllerNo, *target.config), maxBlocks, &error);
    updateDegradedMarker(farm);
    if (!rebuilt) {
        return failure(error);
    }
    printf("controller %d ld %d: %s\n", target.controllerNo, target.ldNo, volumeStateName(target.volume->state()));
    return 0;
}

int checkVolumes(Farm &farm) {
    bool consistent = true;
    const Topology &topology = farm.topology();
    for (size_t c = 0; c < topology.controllers.size(); c++) {
        for (int ld = 0; ld < kLogicalDrivesPerController; ld++) {
            const int controllerNo = static_cast<int>(c);
            const LogicalDriveConfig *config = farm.logicalDrive(controllerNo, ld);
            if (config == nullptr) {
                continue;
            }
            RaidVolume *volume = farm.volume(controllerNo, ld);
            const std::vector<uint64_t> rows = rowsWithData(farm, controllerNo, *config);
            std::set<uint64_t> reported;
            size_t mismatches = 0;
            for (const RowMismatch &found : volume->check(rows)) {
                const uint64_t row = found.memberLba / volume->stripBlocks();
                if (!found.unreadable) {
                    mismatches++;
                }
                if (reported.insert(row * 2 + (found.unreadable ? 1 : 0)).second) {
                    printf("controller %d ld %d (%s) row %" PRIu64 ": %s at member block %" PRIu64 "\n", controllerNo,
                           ld, raidLevelName(config->level), row,
                           found.unreadable                    ? "unreadable"
                           : config->level == RaidLevel::Raid1 ? "mirror mismatch"
                                                               : "parity mismatch",
                           found.memberLba);
                }
            }
            printf("controller %d ld %d (%s): %s, %zu member blocks with data, %zu mismatched\n", controllerNo, ld,
                   raidLevelName(config->level), mismatches == 0 ? "consistent" : "INCONSISTENT", rows.size(),
                   mismatches);
            consistent = consistent && mismatches == 0;
        }
    }
    return consistent ? 0 : 1;
}

} // namespace

int runRaidCommand(const std::string &stateDir, const std::string &command, const std::vector<std::string> &args) {
    if (command != "fail" && command != "rebuild" && command != "check") {
        return -1;
    }
    Farm farm(stateDir);
    std::string error;
    if (!farm.load(&error)) {
        return failure(error);
    }
    if (command == "check" && !args.empty()) {
        return failure("usage: kelsim check");
    }
    // One transaction for the whole command: other runs wait, and what a failed rebuild
    // did so far is kept (it goes on from there).
    StoreTransaction transaction(farm.store(), true);
    if (!transaction.active()) {
        return failure("cannot open the state: " + farm.store().lastError());
    }
    const int status = command == "fail"      ? failMember(farm, args)
                       : command == "rebuild" ? rebuildMember(farm, args)
                                              : checkVolumes(farm);
    if (!transaction.commit()) {
        return failure(command + ": " + farm.store().lastError());
    }
    return status;
}

std::string driveFaultsText(Farm &farm, int controllerNo, int slotNo) {
    const SlotConfig *slot = farm.slot(controllerNo, slotNo);
    if (slot == nullptr) {
        return "";
    }
    StoredSettings settings(farm.store(), driveKey(controllerNo, slotNo));
    std::string text;
    std::string injection;
    if (slot->identity.interface == DriveInterface::Sas) {
        // The first few unreadable blocks by address, then how many in all.
        uint64_t count = 0;
        uint64_t bad = 0;
        char lba[24];
        for (uint64_t from = 0; sasFirstMediaError(settings, from, ~uint64_t{0} - from, &bad); from = bad + 1) {
            if (++count <= 8) {
                snprintf(lba, sizeof lba, "%s0x%" PRIX64, count == 1 ? "" : ",", bad);
                text += lba;
            }
        }
        if (count > 0) {
            text = "bad blocks " + text + (count > 8 ? ",..." : "") + " (" + std::to_string(count) + ")";
        }
        injection = sasInjectionSummary(settings);
    } else {
        const uint64_t count = sataUncorrectableCount(settings);
        if (count > 0) {
            text = std::to_string(count) + " uncorrectable blocks";
        }
        injection = sataInjectionSummary(settings);
    }
    if (!injection.empty()) {
        text += (text.empty() ? "" : "; ") + injection;
    }
    return text;
}

std::string volumeStateText(Farm &farm, int controllerNo, int ldNo) {
    int failedSlot = -1;
    const VolumeState state = farm.volumeState(controllerNo, ldNo, &failedSlot);
    switch (state) {
    case VolumeState::Optimal:
        return "optimal";
    case VolumeState::Degraded:
        return "degraded, slot " + std::to_string(failedSlot) + " failed";
    case VolumeState::Rebuilding:
        return "rebuilding slot " + std::to_string(failedSlot);
    }
    return "?";
}

} // namespace kelsim
