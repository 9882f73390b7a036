// configfs writes for the export, the UIO device lookup and the SCSI nodes of a LUN.
#include "target_config.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kelsim {
namespace {

constexpr char kRoot[] = "/sys/kernel/config/target";
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

// The UIO device whose name is "tcm-user/<hba>/<backstore>/<config>".
bool findUio(const std::string &uioName, Backstore *backstore) {
    for (const std::string &entry : folderEntries("/sys/class/uio")) {
        const std::string folder = "/sys/class/uio/" + entry;
        if (readLine(folder + "/name") != uioName) {
            continue;
        }
        backstore->uioDevice = "/dev/" + entry;
        backstore->mapSize = std::strtoull(readLine(folder + "/maps/map0/size").c_str(), nullptr, 0);
        return backstore->mapSize > 0;
    }
    return false;
}

// An NAA IEEE Registered name (type 5) of our own, different for each run.
std::string loopbackName(unsigned tag) {
    char name[32];
    snprintf(name, sizeof name, "naa.5001405%09x", tag & 0xFFFFFFFu);
    return name;
}

} // namespace

TargetConfig::TargetConfig() : root_(kRoot) {}

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
    return root_ + "/core/" + hba_ + "/" + name;
}

bool TargetConfig::addBackstore(const std::string &name, uint64_t bytes, Backstore *backstore, std::string *error) {
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
    backstore->name = name;
    const std::string uioName = "tcm-user/" + std::to_string(hbaIndex_) + "/" + name + "/" + config;
    if (!findUio(uioName, backstore)) {
        *error = "no UIO device named " + uioName + " in /sys/class/uio";
        return false;
    }
    return true;
}

bool TargetConfig::addLoopback(std::string *error) {
    loopbackMark_ = made_.size();
    loopback_ = true;
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
        const Made &last = made_.back();
        if ((last.link ? unlink(last.path.c_str()) : rmdir(last.path.c_str())) != 0) {
            fprintf(stderr, "kelsim export: cannot remove %s: %s\n", last.path.c_str(), strerror(errno));
        }
        made_.pop_back();
    }
    loopback_ = false;
}

void TargetConfig::removeAll() {
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
