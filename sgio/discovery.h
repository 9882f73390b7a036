// Which drives this back end offers: SCSI hosts with disks as controllers, their disks as
// slots 0..7 in H:C:T:L order, found through sysfs or listed in KELSGIO_DEVICES.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kelsgio {

constexpr size_t kSlotsPerController = 8;

// A slot's disk. Discovery reads only what numbering needs; the device node and the
// identity of a disk are read when a call asks for that disk.
struct Disk {
    std::string hctl;   // "H:C:T:L", empty for a listed device
    std::string folder; // its sysfs folder, empty for a listed device
    std::string device; // the node SG_IO goes to: /dev/sgN, else /dev/sdX; empty until resolved
    bool identified = false;
    std::string vendor; // INQUIRY strings, trailing blanks dropped
    std::string product;
    std::string revision;
    uint64_t blocks = 0; // capacity in 512-byte blocks, 0 when unknown
};

struct Controller {
    int host = -1; // SCSI host number, -1 for a listed group
    std::vector<Disk> disks;
};

// Disks (peripheral type 0) under sysRoot/bus/scsi/devices that have an sg or sd node,
// grouped by host in host order, at most eight a host.
std::vector<Controller> discoverFromSysfs(const std::string &sysRoot);

// The node of a discovered disk under devRoot: its sg node, else its sd node. False when
// it has neither.
bool resolveDevice(Disk *disk, const std::string &devRoot);

// The vendor of a discovered disk, from its sysfs folder.
std::string readSysfsVendor(const Disk &disk);

// Vendor, product, revision and capacity of a discovered disk, from its sysfs folder.
void readSysfsIdentity(Disk *disk);

// KELSGIO_DEVICES: device paths separated by ',' for the slots of one controller, ';'
// between controllers ("/dev/sg1,/dev/sg2;/dev/sg4"). False with a reason on a mistake.
bool parseDeviceList(const std::string &text, std::vector<Controller> *controllers, std::string *error);

} // namespace kelsgio
