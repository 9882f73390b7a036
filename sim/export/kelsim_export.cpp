// "kelsim export": backstores for the chosen drives and logical drives, their rings served,
// the loopback LUNs linked, the map of SCSI nodes written; all undone on SIGINT or SIGTERM.
#include "kelsim_export.h"

#include "export_devices.h"
#include "target_config.h"
#include "uio_server.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <unistd.h>

namespace kelsim {

const char kExportUsage[] =
    "  export [NAME...]      (root, Linux) the drives (c0s4) and logical drives (c0ld1), all when none\n"
    "                        are named, as disks of the SCSI stack until SIGINT or SIGTERM; the map of\n"
    "                        /dev/sgN and /dev/sdX goes to export.map, refused commands to export.log\n";

namespace {

volatile sig_atomic_t stopSignal = 0;

void onStopSignal(int number) {
    stopSignal = number;
}

// Without SA_RESTART: a signal ends the waits at once.
void catchStopSignals() {
    struct sigaction action = {};
    action.sa_handler = onStopSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

void waitForStopSignal() {
    sigset_t stops, previous;
    sigemptyset(&stops);
    sigaddset(&stops, SIGINT);
    sigaddset(&stops, SIGTERM);
    sigprocmask(SIG_BLOCK, &stops, &previous);
    while (stopSignal == 0) {
        sigsuspend(&previous);
    }
    sigprocmask(SIG_SETMASK, &previous, nullptr);
}

// The lowest LUN number not in luns.
int freeLun(const std::vector<int> &luns) {
    int lun = 0;
    while (std::find(luns.begin(), luns.end(), lun) != luns.end()) {
        lun++;
    }
    return lun;
}

struct MapLine {
    std::string sg, block, address;
};

// The kernel probes each LUN on its own time: wait (2 minutes at most, for slow
// machines) until every LUN has its sg and sd nodes.
std::vector<MapLine> waitForNodes(const TargetConfig &config, const std::vector<int> &luns) {
    const size_t count = luns.size();
    std::vector<MapLine> lines(count);
    for (int tenths = 0; tenths < 1200 && stopSignal == 0; tenths++) {
        bool all = true;
        for (size_t i = 0; i < count; i++) {
            lines[i].address = config.lunAddress(luns[i]);
            scsiNodes(lines[i].address, &lines[i].sg, &lines[i].block);
            all = all && !lines[i].sg.empty() && !lines[i].block.empty();
        }
        if (all) {
            break;
        }
        usleep(100000);
    }
    return lines;
}

// "c0s4 /dev/sg5 /dev/sdf 2:0:1:4 SATA 3907029168" for each disk, printed and written.
bool writeMap(const std::string &path, const std::vector<ExportedDevice> &devices, const std::vector<MapLine> &lines) {
    const std::string temporary = path + ".new";
    FILE *file = fopen(temporary.c_str(), "w");
    for (size_t i = 0; i < devices.size(); i++) {
        const MapLine &line = lines[i];
        for (FILE *out : {stdout, file}) {
            if (out != nullptr) {
                fprintf(out, "%s %s %s %s %s %llu\n", devices[i].name.c_str(), line.sg.empty() ? "-" : line.sg.c_str(),
                        line.block.empty() ? "-" : line.block.c_str(), line.address.c_str(), devices[i].kind.c_str(),
                        static_cast<unsigned long long>(devices[i].blocks));
            }
        }
    }
    fflush(stdout);
    return file != nullptr && fclose(file) == 0 && rename(temporary.c_str(), path.c_str()) == 0;
}

// The LUNs first, while the rings are still served (the kernel flushes the disks as they
// go), then the rings, then the backstores.
void tearDown(TargetConfig &config, UioServer &server) {
    config.removeLoopback();
    server.close();
    config.removeAll();
}

int failed(TargetConfig &config, UioServer &server, const std::string &error) {
    fprintf(stderr, "kelsim export: %s\n", error.c_str());
    tearDown(config, server);
    return 1;
}

} // namespace

int runExport(const std::string &stateDir, const std::vector<std::string> &names) {
    Farm farm(stateDir);
    std::vector<ExportedDevice> devices;
    std::string error;
    TargetConfig config;
    if (!selectDevices(farm, names, &devices, &error) || !config.available(&error)) {
        fprintf(stderr, "kelsim export: %s\n", error.c_str());
        return 1;
    }
    catchStopSignals();
    // A killed export's disks, still the farm's and the same size, carry on with their LUNs
    // (so their /dev nodes stay); the rest of what it left goes.
    int takenOver = 0;
    const auto requested = [&](const std::string &name, uint64_t bytes) {
        return std::any_of(devices.begin(), devices.end(),
                           [&](const ExportedDevice &d) { return d.name == name && d.blocks * kBlockSize == bytes; });
    };
    if (!config.takeOverLeftovers(requested, &takenOver, &error)) {
        fprintf(stderr, "kelsim export: %s\n", error.c_str());
        return 1;
    }
    if (takenOver > 0) {
        fprintf(stderr, "kelsim export: carrying on with %d disks an earlier export left\n", takenOver);
    }
    RefusalLog log(stateDir + "/export.log");
    UioServer server;
    std::vector<int> luns;
    for (const ExportedDevice &device : devices) {
        Backstore backstore;
        // Mapping a ring answers what the kernel queued in it while no one served it.
        if (!config.addBackstore(device.name, device.blocks * kBlockSize, &backstore, &error) ||
            !server.add(backstore.uioDevice, backstore.mapSize, deviceHandler(farm, device, log), &error)) {
            return failed(config, server, error);
        }
        luns.push_back(backstore.lun);
    }
    // Serving before the LUNs exist: linking one makes the kernel send it commands at once.
    if (!server.start(&error) || !config.addLoopback(&error)) {
        return failed(config, server, error);
    }
    for (size_t i = 0; i < devices.size() && stopSignal == 0; i++) {
        if (luns[i] < 0 && !config.addLun(luns[i] = freeLun(luns), devices[i].name, &error)) {
            return failed(config, server, error);
        }
    }
    const std::string mapPath = stateDir + "/export.map";
    if (stopSignal == 0 && !writeMap(mapPath, devices, waitForNodes(config, luns))) {
        fprintf(stderr, "kelsim export: cannot write %s\n", mapPath.c_str());
    }
    if (stopSignal == 0) {
        fprintf(stderr, "kelsim export: %zu disks exported; SIGINT or SIGTERM ends the export\n", devices.size());
        waitForStopSignal();
    }
    tearDown(config, server);
    unlink(mapPath.c_str());
    fprintf(stderr, "kelsim export: ended, configuration removed\n");
    return 0;
}

} // namespace kelsim
