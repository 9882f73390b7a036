// configfs writes for the export, what an earlier export left, the UIO device lookup and
// the SCSI nodes of a LUN.
#include "target_config.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace kelsim {
namespace {

// Our loopback targets' names start with this (an NAA IEEE Registered name, type 5).
constexpr char kTargetPrefix[] = "naa.5001405ce1";
// Small rings: the default maps about 1 GiB of address space per disk. The data area
// holds the largest transfer the block layer sends many times over.
constexpr char kDataAreaMiB[] = "4";
constexpr char kCommandRingMiB[] = "1";

bool exists(const std::string &path) {
    struct stat info;
    return lstat(path.c_str(), &info) == 0;
}

bool writeFile(const std::string &path, const std::string &text, std::string *error) {
    int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0) {
        *error = path + ": " + strerror(errno);
        return false;
    }
    const ssize_t written = write(fd, text.data(), text.size());
    const int code = errno;
    close(fd);
    if (written != static_cast<ssize_t>(text.size())) {
        *error = "cannot write \"" + text + "\" to " + path + ": " + strerror(code);
        return false;
    }
    return true;
}

std::string readLine(const std::string &path) {
    std::string text;
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return text;
    }
    char buffer[256];
    const ssize_t got = read(fd, buffer, sizeof buffer);
    close(fd);
    if (got > 0) {
        text.assign(buffer, static_cast<size_t>(got));
    }
    while (!text.empty() && (text.back() == '\n' || text.back() == '\0')) {
        text.pop_back();
    }
    return text;
}

std::vector<std::string> folderEntries(const std::string &path) {
    std::vector<std::string> names;
    if (DIR *folder = opendir(path.c_str()); folder != nullptr) {
        while (const dirent *entry = readdir(folder)) {
            if (entry->d_name[0] != '.') {
                names.push_back(entry->d_name);
            }
        }
        closedir(folder);
    }
    return names;
}

bool isFolder(const std::string &path) {
    struct stat info;
    return lstat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

bool startsWith(const std::string &text, const std::string &prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

// Our loopback target's name, different for each run: the prefix and 6 hex digits.
std::string loopbackName(unsigned tag) {
    char name[32];
    snprintf(name, sizeof name, "%s%06x", kTargetPrefix, tag & 0xFFFFFFu);
    return name;
}

bool removeEntry(const std::string &path, bool link) {
    if ((link ? unlink(path.c_str()) : rmdir(path.c_str())) != 0) {
        fprintf(stderr, "kelsim export: cannot remove %s: %s\n", path.c_str(), strerror(errno));
        return false;
    }
    return true;
}

// The LUN folders of a loopback target, and the link in each, if any.
std::vector<std::pair<std::string, std::string>> lunsOf(const std::string &target) {
    std::vector<std::pair<std::string, std::string>> luns;
    const std::string lunFolder = target + "/tpgt_1/lun";
    for (const std::string &lun : folderEntries(lunFolder)) {
        if (!startsWith(lun, "lun_")) {
            continue;
        }
        std::string link;
        const std::string folder = lunFolder + "/" + lun;
        for (const std::string &entry : folderEntries(folder)) {
            struct stat info;
            if (lstat((folder + "/" + entry).c_str(), &info) == 0 && S_ISLNK(info.st_mode)) {
                link = folder + "/" + entry;
            }
        }
        luns.emplace_back(folder, link);
    }
    return luns;
}

// "user_0/c0s4" from a LUN link's target ("../../../../../../target/core/user_0/c0s4").
std::string linkedBackstore(const std::string &link) {
    char target[512];
    const ssize_t got = readlink(link.c_str(), target, sizeof target - 1);
    if (got <= 0) {
        return "";
    }
    const std::string path(target, static_cast<size_t>(got));
    const size_t last = path.rfind('/');
    const size_t before = last == std::string::npos || last == 0 ? std::string::npos : path.rfind('/', last - 1);
    return before == std::string::npos ? path : path.substr(before + 1);
}

} // namespace

int lunOfLink(const std::string &link) {
    const size_t at = link.rfind("/lun_");
    if (at == std::string::npos) {
        return -1;
    }
    char *end = nullptr;
    const long lun = std::strtol(link.c_str() + at + 5, &end, 10);
    return end != link.c_str() + at + 5 && *end == '/' && lun >= 0 && lun < 65536 ? static_cast<int>(lun) : -1;
}

TargetConfig::TargetConfig(std::string root, std::string uioClass)
    : root_(std::move(root)), uioClass_(std::move(uioClass)) {}

TargetConfig::~TargetConfig() {
    removeAll();
}

bool TargetConfig::available(std::string *error) const {
    if (exists(root_ + "/core")) {
        return true;
    }
    *error = "no " + root_ +
             "/core: run as root with the modules configfs, target_core_mod, uio, target_core_user and "
             "tcm_loop loaded and configfs mounted on /sys/kernel/config";
    return false;
}

bool TargetConfig::makeFolder(const std::string &path, std::string *error) {
    if (mkdir(path.c_str(), 0755) != 0) {
        *error = "cannot make " + path + ": " + strerror(errno);
        return false;
    }
    made_.push_back({path, false});
    return true;
}

std::string TargetConfig::backstorePath(const std::string &name) const {
    for (const TakenOver &taken : takenOver_) {
        if (taken.name == name) {
            return root_ + "/core/" + taken.hba + "/" + name;
        }
    }
    return root_ + "/core/" + hba_ + "/" + name;
}

// The UIO device whose name is "tcm-user/<K>/<backstore>/kelsim/<backstore>" for user_K.
bool TargetConfig::findUio(const std::string &hba, const std::string &name, Backstore *backstore) const {
    const std::string uioName = "tcm-user/" + hba.substr(5) + "/" + name + "/kelsim/" + name;
    for (const std::string &entry : folderEntries(uioClass_)) {
        const std::string folder = uioClass_ + "/" + entry;
        if (readLine(folder + "/name") != uioName) {
            continue;
        }
        backstore->name = name;
        backstore->uioDevice = "/dev/" + entry;
        backstore->mapSize = std::strtoull(readLine(folder + "/maps/map0/size").c_str(), nullptr, 0);
        return backstore->mapSize > 0;
    }
    return false;
}

Leftovers TargetConfig::findLeftovers() const {
    Leftovers found;
    for (const std::string &hba : folderEntries(root_ + "/core")) {
        if (!startsWith(hba, "user_")) {
            continue;
        }
        for (const std::string &name : folderEntries(root_ + "/core/" + hba)) {
            const std::string path = root_ + "/core/" + hba + "/" + name;
            if (isFolder(path) && readLine(path + "/attrib/dev_config") == "kelsim/" + name) {
                const uint64_t bytes = std::strtoull(readLine(path + "/attrib/dev_size").c_str(), nullptr, 0);
                found.backstores.push_back({hba, name, bytes, ""});
            }
        }
    }
    for (const std::string &target : folderEntries(root_ + "/loopback")) {
        if (!startsWith(target, kTargetPrefix)) {
            continue;
        }
        found.targets.push_back(root_ + "/loopback/" + target);
        for (const auto &lun : lunsOf(found.targets.back())) {
            const std::string linked = lun.second.empty() ? "" : linkedBackstore(lun.second);
            for (LeftoverBackstore &backstore : found.backstores) {
                if (linked == backstore.hba + "/" + backstore.name && backstore.lunLink.empty()) {
                    backstore.lunLink = lun.second;
                }
            }
        }
    }
    return found;
}

void TargetConfig::removeTarget(const std::string &target) const {
    for (const auto &lun : lunsOf(target)) {
        if (!lun.second.empty()) {
            removeEntry(lun.second, true);
        }
        removeEntry(lun.first, false);
    }
    removeEntry(target + "/tpgt_1", false);
    removeEntry(target, false);
}

bool TargetConfig::takeOverLeftovers(const std::function<bool(const std::string &name, uint64_t bytes)> &keep,
                                     int *taken, std::string *error) {
    const Leftovers found = findLeftovers();
    // A UIO device opens once at a time: busy, another export still serves it.
    for (const LeftoverBackstore &leftover : found.backstores) {
        Backstore backstore;
        if (!findUio(leftover.hba, leftover.name, &backstore)) {
            continue;
        }
        const int fd = open(backstore.uioDevice.c_str(), O_RDWR | O_CLOEXEC);
        if (fd >= 0) {
            close(fd);
        } else if (errno == EBUSY) {
            *error = "another kelsim export serves " + leftover.name + " (" + backstore.uioDevice + " is busy)";
            return false;
        }
    }
    const std::string target = found.targets.empty() ? "" : found.targets.front();
    std::vector<const LeftoverBackstore *> dropped;
    for (const LeftoverBackstore &leftover : found.backstores) {
        const bool inTarget = !leftover.lunLink.empty() && startsWith(leftover.lunLink, target + "/");
        Backstore ignored;
        if (keep(leftover.name, leftover.bytes) && findUio(leftover.hba, leftover.name, &ignored)) {
            takenOver_.push_back({leftover.hba, leftover.name, inTarget ? lunOfLink(leftover.lunLink) : -1});
        } else {
            dropped.push_back(&leftover);
        }
    }
    // The links first, then the backstores they link: the other targets of ours, and the
    // LUNs of the one kept that link nothing kept (half made, or their backstores dropped).
    for (size_t i = 1; i < found.targets.size(); i++) {
        removeTarget(found.targets[i]);
    }
    for (const auto &lun : lunsOf(target)) {
        const int number = lunOfLink(lun.first + "/");
        const bool kept = !lun.second.empty() && std::any_of(takenOver_.begin(), takenOver_.end(),
                                                             [&](const TakenOver &t) { return t.lun == number; });
        if (!kept) {
            if (!lun.second.empty()) {
                removeEntry(lun.second, true);
            }
            removeEntry(lun.first, false);
        }
    }
    std::vector<std::string> hbas; // every user_K that held leftovers, in the order found
    for (const LeftoverBackstore &leftover : found.backstores) {
        if (std::find(hbas.begin(), hbas.end(), leftover.hba) == hbas.end()) {
            hbas.push_back(leftover.hba);
        }
    }
    for (const LeftoverBackstore *leftover : dropped) {
        removeEntry(root_ + "/core/" + leftover->hba + "/" + leftover->name, false);
    }
    // What is taken over is removed at the end as if made now: each user_K, then its backstores.
    for (const std::string &hba : hbas) {
        const std::string path = root_ + "/core/" + hba;
        const bool used =
            std::any_of(takenOver_.begin(), takenOver_.end(), [&](const TakenOver &t) { return t.hba == hba; });
        if (!used) {
            const std::vector<std::string> rest = folderEntries(path);
            if (std::none_of(rest.begin(), rest.end(),
                             [&](const std::string &e) { return isFolder(path + "/" + e); })) {
                removeEntry(path, false); // nothing of another program's in it
            }
            continue;
        }
        if (hbaIndex_ < 0) {
            hba_ = hba;
            hbaIndex_ = std::atoi(hba.c_str() + 5);
        }
        made_.push_back({path, false});
        for (const TakenOver &taken : takenOver_) {
            if (taken.hba == hba) {
                made_.push_back({path + "/" + taken.name, false});
            }
        }
    }
    takenOverTarget_ = target;
    *taken = static_cast<int>(takenOver_.size());
    return true;
}

bool TargetConfig::addBackstore(const std::string &name, uint64_t bytes, Backstore *backstore, std::string *error) {
    for (const TakenOver &taken : takenOver_) {
        if (taken.name == name) {
            backstore->lun = taken.lun;
            if (!findUio(taken.hba, name, backstore)) {
                *error = "no UIO device for the backstore " + taken.hba + "/" + name + " in " + uioClass_;
                return false;
            }
            return true;
        }
    }
    if (hbaIndex_ < 0) {
        // The first free user_K: others may be in use by other programs.
        int index = 0;
        while (exists(root_ + "/core/user_" + std::to_string(index))) {
            index++;
        }
        hba_ = "user_" + std::to_string(index);
        if (!makeFolder(root_ + "/core/" + hba_, error)) {
            return false;
        }
        hbaIndex_ = index;
    }
    const std::string path = backstorePath(name), config = "kelsim/" + name;
    if (!makeFolder(path, error)) {
        return false;
    }
    for (const std::string &setting :
         {"dev_config=" + config, "dev_size=" + std::to_string(bytes), std::string("hw_block_size=512"),
          std::string("max_data_area_mb=") + kDataAreaMiB, std::string("cmd_ring_size_mb=") + kCommandRingMiB}) {
        if (!writeFile(path + "/control", setting, error)) {
            return false;
        }
    }
    if (!writeFile(path + "/enable", "1", error)) {
        return false;
    }
    // Reservations and port groups go to the model; the model hears of aborts and resets.
    // Kernels without these attributes keep their own behaviour.
    std::string ignored;
    writeFile(path + "/attrib/pgr_support", "0", &ignored);
    writeFile(path + "/attrib/alua_support", "0", &ignored);
    writeFile(path + "/attrib/tmr_notification", "1", &ignored);
    if (!findUio(hba_, name, backstore)) {
        *error = "no UIO device named tcm-user/" + std::to_string(hbaIndex_) + "/" + name + "/" + config + " in " +
                 uioClass_;
        return false;
    }
    return true;
}

bool TargetConfig::addLoopback(std::string *error) {
    loopbackMark_ = made_.size();
    loopback_ = true;
    if (!takenOverTarget_.empty()) {
        tpgt_ = takenOverTarget_ + "/tpgt_1";
        made_.push_back({takenOverTarget_, false});
        made_.push_back({tpgt_, false});
        for (const TakenOver &taken : takenOver_) {
            if (taken.lun >= 0) {
                const std::string folder = tpgt_ + "/lun/lun_" + std::to_string(taken.lun);
                made_.push_back({folder, false});
                for (const auto &lun : lunsOf(takenOverTarget_)) {
                    if (lun.first == folder && !lun.second.empty()) {
                        made_.push_back({lun.second, true});
                    }
                }
            }
        }
        takenOverTarget_.clear(); // removed with the rest of the loopback target from now on
        return true;
    }
    // The fabric's folder appears with the first mkdir of it.
    if (!exists(root_ + "/loopback") && !makeFolder(root_ + "/loopback", error)) {
        return false;
    }
    const unsigned tag = static_cast<unsigned>(getpid());
    const std::string wwn = root_ + "/loopback/" + loopbackName(tag);
    tpgt_ = wwn + "/tpgt_1";
    return makeFolder(wwn, error) && makeFolder(tpgt_, error) &&
           writeFile(tpgt_ + "/nexus", loopbackName(tag + 1), error);
}

bool TargetConfig::addLun(int lun, const std::string &backstoreName, std::string *error) {
    const std::string folder = tpgt_ + "/lun/lun_" + std::to_string(lun), link = folder + "/kelsim";
    if (!makeFolder(folder, error)) {
        return false;
    }
    if (symlink(backstorePath(backstoreName).c_str(), link.c_str()) != 0) {
        *error = "cannot link " + backstoreName + " as LUN " + std::to_string(lun) + ": " + strerror(errno);
        return false;
    }
    made_.push_back({link, true});
    return true;
}

std::string TargetConfig::lunAddress(int lun) const {
    // The target's address is "H:0:T" (host and target numbers).
    return readLine(tpgt_ + "/address") + ":" + std::to_string(lun);
}

void TargetConfig::removeLoopback() {
    if (!loopback_) {
        return;
    }
    while (made_.size() > loopbackMark_) {
        removeEntry(made_.back().path, made_.back().link);
        made_.pop_back();
    }
    loopback_ = false;
}

void TargetConfig::removeAll() {
    if (!takenOverTarget_.empty()) {
        removeTarget(takenOverTarget_); // taken over, but the loopback target never added
        takenOverTarget_.clear();
    }
    removeLoopback();
    loopback_ = true;
    loopbackMark_ = 0;
    removeLoopback();
}

void scsiNodes(const std::string &address, std::string *sg, std::string *block) {
    const std::string device = "/sys/class/scsi_device/" + address + "/device";
    const std::vector<std::string> generic = folderEntries(device + "/scsi_generic");
    const std::vector<std::string> disks = folderEntries(device + "/block");
    *sg = generic.empty() ? "" : "/dev/" + generic[0];
    *block = disks.empty() ? "" : "/dev/" + disks[0];
}

} // namespace kelsim
