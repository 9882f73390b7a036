// kelsim: resets and shows the simulated farm, prints or clears the pass-through journal,
// and scripts faults for the next library calls.
#include "drives/ata_device.h"
#include "drives/sas_drive.h"
#include "export/kelsim_export.h"
#include "farm.h"
#include "faults.h"
#include "journal.h"
#include "kelsim_diag.h"
#include "kelsim_raid.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

using namespace kelsim;

const char kUsage[] = "usage: kelsim <command>\n"
                      "  reset                 write the default farm.conf and wipe all state\n"
                      "  show                  list controllers, slots and logical drives\n"
                      "  journal [--clear]     print (or empty) the journal of pass-through calls\n"
                      "  fault <kind> [value] [--detail-hex HEX | --detail-text TEXT] [--count N]\n"
                      "                        script a fault for the next call(s); kinds: pass-status <1-255>,\n"
                      "                        init-fail <code>, no-controller, continfo-fail <code>,\n"
                      "                        raidstatus-fail <code>, driveinfo-fail [code]\n"
                      "  fault list | fault clear\n";
const char kStateFolderNote[] = "The state folder is $KELSIM_DIR, else ${XDG_STATE_HOME:-$HOME/.local/state}/kelsim.\n";

int usage() {
    fputs(kUsage, stderr);
    fputs(kRaidUsage, stderr);
    fputs(kDiagUsage, stderr);
    fputs(kExportUsage, stderr);
    fputs(kStateFolderNote, stderr);
    return 2;
}

int failure(const std::string &text) {
    fprintf(stderr, "kelsim: %s\n", text.c_str());
    return 1;
}

std::string humanSize(uint64_t blocks) {
    char text[32];
    double bytes = static_cast<double>(blocks) * kBlockSize;
    if (bytes >= 1024.0 * 1024 * 1024 * 1024) {
        snprintf(text, sizeof text, "%.1f TiB", bytes / (1024.0 * 1024 * 1024 * 1024));
    } else {
        snprintf(text, sizeof text, "%.1f GiB", bytes / (1024.0 * 1024 * 1024));
    }
    return text;
}

int reset(const std::string &stateDir) {
    std::string error;
    if (!writeTopologyFile(stateDir, defaultTopology(), &error)) {
        return failure(error);
    }
    StateStore store(stateDir);
    if (!store.wipe()) {
        return failure("cannot wipe the state: " + store.lastError());
    }
    Farm(stateDir).markVolumesDegraded(false);
    printf("default farm written to %s/farm.conf, state wiped\n", stateDir.c_str());
    return 0;
}

int show(const std::string &stateDir) {
    Farm farm(stateDir);
    std::string error;
    if (!farm.load(&error)) {
        return failure(error);
    }
    StateStore &store = farm.store();
    StoreTransaction reading(store, false);
    if (!reading.active()) {
        // A corrupt or unreadable state.db: say so rather than show every drive as unwritten.
        return failure("cannot read the state in " + stateDir + ": " + store.lastError());
    }
    printf("state folder %s\n", stateDir.c_str());
    const Topology &topology = farm.topology();
    for (size_t c = 0; c < topology.controllers.size(); c++) {
        const ControllerConfig &controller = topology.controllers[c];
        printf("controller %zu\n", c);
        for (int s = 0; s < kSlotsPerController; s++) {
            const SlotConfig &slot = controller.slots[static_cast<size_t>(s)];
            if (!slot.present) {
                printf("  slot %d  empty\n", s);
                continue;
            }
            const DriveIdentity &id = slot.identity;
            int ld = logicalDriveOfSlot(controller, s);
            std::string role = ld >= 0 ? "ld" + std::to_string(ld) : "unassigned";
            uint64_t written = store.storedBlockCount(driveKey(static_cast<int>(c), s));
            // MODE SELECT (SAS) or SET MAX ADDRESS EXT (SATA) may have changed the capacity since.
            std::string changed, revision = id.revision, conditions;
            StoredSettings settings(store, driveKey(static_cast<int>(c), s));
            const uint64_t now =
                id.interface == DriveInterface::Sas ? sasDriveBlocks(id, settings) : sataUserBlocks(id, settings);
            if (now != id.nativeBlocks) {
                changed = "  now " + std::to_string(now) + " blocks";
            }
            if (id.interface == DriveInterface::Sas) {
                revision = sasDriveRevision(id, settings); // a firmware download changes it
                conditions = "          conditions: " + describeSlotConditions(store, static_cast<int>(c), s) + "\n";
            }
            printf("  slot %d  %-4s  %-8s  %-16s  %-4s  %-12s  %" PRIu64 " blocks (%s)  %s  written %" PRIu64
                   " blocks%s\n",
                   s, id.interface == DriveInterface::Sata ? "SATA" : "SAS", id.vendor.c_str(), id.product.c_str(),
                   revision.c_str(), id.serial.c_str(), id.nativeBlocks, humanSize(id.nativeBlocks).c_str(),
                   role.c_str(), written, changed.c_str());
            fputs(conditions.c_str(), stdout);
            if (std::string faults = reading.active() ? driveFaultsText(farm, static_cast<int>(c), s) : "";
                !faults.empty()) {
                printf("          faults: %s\n", faults.c_str());
            }
        }
        for (int n = 0; n < kLogicalDrivesPerController; n++) {
            const LogicalDriveConfig &ld = controller.logicalDrives[static_cast<size_t>(n)];
            if (!ld.present) {
                continue;
            }
            std::string members;
            std::vector<uint64_t> memberBlocks;
            for (int slot : ld.memberSlots) {
                members += (members.empty() ? "" : ",") + std::to_string(slot);
                memberBlocks.push_back(controller.slots[static_cast<size_t>(slot)].identity.nativeBlocks);
            }
            uint64_t capacity = raidCapacity(ld.level, ld.stripBlocks, memberBlocks);
            std::string state = reading.active() ? volumeStateText(farm, static_cast<int>(c), n) : "?";
            printf("  ld %d  %s  strip %u  members %s  %" PRIu64 " blocks (%s)  %s\n", n, raidLevelName(ld.level),
                   ld.stripBlocks, members.c_str(), capacity, humanSize(capacity).c_str(), state.c_str());
        }
    }
    return 0;
}

int journal(const std::string &stateDir, const std::vector<std::string> &args) {
    bool clear = args.size() == 1 && args[0] == "--clear";
    if (!args.empty() && !clear) {
        return usage();
    }
    std::string error;
    if (!makeDirectories(stateDir, &error)) {
        return failure(error);
    }
    StateStore store(stateDir);
    StoreTransaction transaction(store, clear);
    if (!transaction.active()) {
        return failure("cannot open the state: " + store.lastError());
    }
    if (clear) {
        store.clearJournal();
    } else {
        store.readJournal(
            [](int64_t seq, const JournalEntry &entry) { printf("%s\n", formatJournalLine(seq, entry).c_str()); });
    }
    if (!transaction.commit()) {
        return failure("journal: " + store.lastError());
    }
    return 0;
}

int fault(const std::string &stateDir, const std::vector<std::string> &args) {
    std::string error;
    if (!makeDirectories(stateDir, &error)) {
        return failure(error);
    }
    StateStore store(stateDir);
    StoreTransaction transaction(store, true);
    if (!transaction.active()) {
        return failure("cannot open the state: " + store.lastError());
    }
    if (args.size() == 1 && args[0] == "clear") {
        store.clearFaults();
    } else if (args.size() == 1 && args[0] == "list") {
        store.listFaults(
            [](const ScriptedFault &f, int remaining) { printf("%s\n", describeFault(f, remaining).c_str()); });
        Topology topology;
        if (loadTopologyFile(stateDir, &topology, &error)) {
            listScriptedChecks(store, topology); // a farm.conf that does not load: no drives to ask
        }
    } else {
        ScriptedFault scripted;
        int count = 1;
        if (!parseFaultArguments(args, &scripted, &count, &error)) {
            fprintf(stderr, "kelsim: %s\n", error.c_str());
            return usage();
        }
        store.addFault(scripted, count);
    }
    if (!transaction.commit()) {
        return failure("fault: " + store.lastError());
    }
    return 0;
}

} // namespace

int main(int argc, char **argv) {
    if (argc < 2) {
        return usage();
    }
    std::string command = argv[1];
    std::vector<std::string> args(argv + 2, argv + argc);
    std::string stateDir = stateDirectoryFromEnvironment();
    if (command == "reset" && args.empty()) {
        return reset(stateDir);
    }
    if (command == "show" && args.empty()) {
        return show(stateDir);
    }
    if (command == "journal") {
        return journal(stateDir, args);
    }
    if (command == "fault" && !args.empty()) {
        return fault(stateDir, args);
    }
    if (command == "export") {
        return runExport(stateDir, args);
    }
    if (isDiagCommand(command)) {
        return runDiagCommand(stateDir, command, args);
    }
    if (int status = runRaidCommand(stateDir, command, args); status >= 0) {
        return status;
    }
    if (command == "help" || command == "--help" || command == "-h") {
        fputs(kUsage, stdout);
        fputs(kRaidUsage, stdout);
        fputs(kDiagUsage, stdout);
        fputs(kExportUsage, stdout);
        fputs(kStateFolderNote, stdout);
        return 0;
    }
    return usage();
}
