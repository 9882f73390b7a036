// Discovery of disks through sysfs and the override device list.
#include "discovery.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <map>

namespace kelsgio {
namespace {

constexpr int kDiskPeripheralType = 0;

// "H:C:T:L" as four numbers; false for any other name.
bool parseHctl(const std::string &name, std::array<unsigned long, 4> *parts) {
    size_t pos = 0;
    for (size_t i = 0; i < parts->size(); i++) {
        size_t end = name.find(':', pos);
        if ((end == std::string::npos) != (i == parts->size() - 1)) {
            return false;
        }
        std::string field = name.substr(pos, end == std::string::npos ? std::string::npos : end - pos);
        if (field.empty() || field.size() > 9 || field.find_first_not_of("0123456789") != std::string::npos) {
            return false;
        }
        (*parts)[i] = std::stoul(field);
        pos = end + 1;
    }
    return true;
}

// The first line of a small file (relative to the folder `at`), trailing blanks dropped;
// empty when it cannot be read.
std::string readLine(int at, const std::string &path) {
    int fd = openat(at, path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return std::string();
    }
    char buffer[256];
    ssize_t n = read(fd, buffer, sizeof buffer - 1);
    close(fd);
    std::string line(buffer, n > 0 ? static_cast<size_t>(n) : 0);
    line = line.substr(0, line.find('\n'));
    while (!line.empty() && (line.back() == ' ' || line.back() == '\r')) {
        line.pop_back();
    }
    return line;
}

std::string readLine(const std::string &path) {
    return readLine(AT_FDCWD, path);
}

std::vector<std::string> listFolder(const std::string &path) {
    std::vector<std::string> names;
    DIR *dir = opendir(path.c_str());
    if (dir == nullptr) {
        return names;
    }
    while (dirent *entry = readdir(dir)) {
        if (entry->d_name[0] != '.') {
            names.emplace_back(entry->d_name);
        }
    }
    closedir(dir);
    std::sort(names.begin(), names.end());
    return names;
}

// The first entry of a device's class folder ("scsi_generic/sg2" gives "sg2").
std::string firstEntry(const std::string &path) {
    std::vector<std::string> names = listFolder(path);
    return names.empty() ? std::string() : names.front();
}

} // namespace

std::vector<Controller> discoverFromSysfs(const std::string &sysRoot) {
    const std::string devices = sysRoot + "/bus/scsi/devices";
    std::map<std::array<unsigned long, 4>, Disk> found;
    int at = open(devices.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (const std::string &name : listFolder(devices)) {
        std::array<unsigned long, 4> hctl{};
        if (!parseHctl(name, &hctl)) {
            continue;
        }
        const std::string type = readLine(at, name + "/type");
        if (type.empty() || strtol(type.c_str(), nullptr, 10) != kDiskPeripheralType) {
            continue;
        }
        if (faccessat(at, (name + "/scsi_generic").c_str(), F_OK, 0) != 0 &&
            faccessat(at, (name + "/block").c_str(), F_OK, 0) != 0) {
            continue; // neither sg nor sd is bound: nothing to send commands to
        }
        Disk disk;
        disk.hctl = name;
        disk.folder = devices + "/" + name;
        found.emplace(hctl, disk);
    }
    if (at >= 0) {
        close(at);
    }
    std::vector<Controller> controllers;
    for (auto &[hctl, disk] : found) {
        int host = static_cast<int>(hctl[0]);
        if (controllers.empty() || controllers.back().host != host) {
            controllers.push_back(Controller{host, {}});
        }
        if (controllers.back().disks.size() < kSlotsPerController) {
            controllers.back().disks.push_back(disk);
        }
    }
    return controllers;
}

bool resolveDevice(Disk *disk, const std::string &devRoot) {
    if (!disk->device.empty()) {
        return true;
    }
    std::string node = firstEntry(disk->folder + "/scsi_generic");
    if (node.empty()) {
        node = firstEntry(disk->folder + "/block");
    }
    if (node.empty()) {
        return false;
    }
    disk->device = devRoot + "/" + node;
    return true;
}

std::string readSysfsVendor(const Disk &disk) {
    return readLine(disk.folder + "/vendor");
}

void readSysfsIdentity(Disk *disk) {
    disk->vendor = readSysfsVendor(*disk);
    disk->product = readLine(disk->folder + "/model");
    disk->revision = readLine(disk->folder + "/rev");
    std::string block = firstEntry(disk->folder + "/block");
    if (!block.empty()) {
        disk->blocks = strtoull(readLine(disk->folder + "/block/" + block + "/size").c_str(), nullptr, 10);
    }
    disk->identified = true;
}

bool parseDeviceList(const std::string &text, std::vector<Controller> *controllers, std::string *error) {
    controllers->clear();
    size_t start = 0;
    while (start <= text.size()) {
        size_t end = text.find(';', start);
        std::string group = text.substr(start, end == std::string::npos ? std::string::npos : end - start);
        Controller controller;
        size_t from = 0;
        while (from <= group.size()) {
            size_t comma = group.find(',', from);
            std::string path = group.substr(from, comma == std::string::npos ? std::string::npos : comma - from);
            if (path.empty() || path[0] != '/') {
                *error = "KELSGIO_DEVICES: \"" + path + "\" is not a device path";
                return false;
            }
            if (controller.disks.size() == kSlotsPerController) {
                *error = "KELSGIO_DEVICES: more than 8 devices for one controller";
                return false;
            }
            Disk disk;
            disk.device = path;
            controller.disks.push_back(disk);
            if (comma == std::string::npos) {
                break;
            }
            from = comma + 1;
        }
        controllers->push_back(controller);
        if (end == std::string::npos) {
            break;
        }
        start = end + 1;
    }
    return true;
}

} // namespace kelsgio
