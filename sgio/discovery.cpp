// Discovery of disks through sysfs and the override device list.
#include "discovery.h"

#include <dirent.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
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

std::string readLine(const std::string &path) {
    std::ifstream in(path);
    std::string line;
    std::getline(in, line);
    while (!line.empty() && (line.back() == ' ' || line.back() == '\n' || line.back() == '\r')) {
        line.pop_back();
    }
    return line;
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

std::vector<Controller> discoverFromSysfs(const std::string &sysRoot, const std::string &devRoot) {
    const std::string devices = sysRoot + "/bus/scsi/devices";
    std::map<std::array<unsigned long, 4>, Disk> found;
    for (const std::string &name : listFolder(devices)) {
        std::array<unsigned long, 4> hctl{};
        if (!parseHctl(name, &hctl)) {
            continue;
        }
        const std::string folder = devices + "/" + name;
        const std::string type = readLine(folder + "/type");
        if (type.empty() || strtol(type.c_str(), nullptr, 10) != kDiskPeripheralType) {
            continue;
        }
        Disk disk;
        disk.hctl = name;
        disk.vendor = readLine(folder + "/vendor");
        disk.product = readLine(folder + "/model");
        disk.revision = readLine(folder + "/rev");
        std::string generic = firstEntry(folder + "/scsi_generic");
        std::string block = firstEntry(folder + "/block");
        if (!block.empty()) {
            std::string size = readLine(folder + "/block/" + block + "/size");
            disk.blocks = strtoull(size.c_str(), nullptr, 10);
        }
        if (!generic.empty()) {
            disk.device = devRoot + "/" + generic;
        } else if (!block.empty()) {
            disk.device = devRoot + "/" + block;
        } else {
            continue; // neither sg nor sd is bound: nothing to send commands to
        }
        found.emplace(hctl, disk);
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
