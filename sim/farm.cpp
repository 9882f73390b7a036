// The farm: the state folder's location, farm.conf on disk, and the drives and volumes
// of the topology, each built the first time a call needs it.
#include "farm.h"

#include "drives/sas_drive.h"
#include "drives/sata_drive.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace kelsim {
namespace {

std::string homeDirectory() {
    if (const char *home = getenv("HOME"); home != nullptr && *home != '\0') {
        return home;
    }
    if (const passwd *entry = getpwuid(getuid()); entry != nullptr && entry->pw_dir != nullptr) {
        return entry->pw_dir;
    }
    return ".";
}

bool readWholeFile(const std::string &path, std::string *text, int *error) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        *error = errno;
        return false;
    }
    text->clear();
    char buffer[8192];
    ssize_t n;
    while ((n = read(fd, buffer, sizeof buffer)) > 0) {
        text->append(buffer, static_cast<size_t>(n));
    }
    *error = n < 0 ? errno : 0;
    close(fd);
    return n == 0;
}

} // namespace

std::string stateDirectoryFromEnvironment() {
    if (const char *dir = getenv("KELSIM_DIR"); dir != nullptr && *dir != '\0') {
        return dir;
    }
    if (const char *state = getenv("XDG_STATE_HOME"); state != nullptr && *state != '\0') {
        return std::string(state) + "/kelsim";
    }
    return homeDirectory() + "/.local/state/kelsim";
}

bool makeDirectories(const std::string &path, std::string *error) {
    for (size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
        std::string prefix = path.substr(0, slash);
        if (!prefix.empty() && mkdir(prefix.c_str(), 0755) != 0 && errno != EEXIST) {
            *error = "cannot create " + prefix + ": " + strerror(errno);
            return false;
        }
        if (slash == std::string::npos) {
            break;
        }
    }
    struct stat info;
    if (stat(path.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
        *error = path + " is not a folder";
        return false;
    }
    return true;
}

bool writeTopologyFile(const std::string &stateDir, const Topology &topology, std::string *error) {
    if (!makeDirectories(stateDir, error)) {
        return false;
    }
    std::string path = stateDir + "/farm.conf";
    std::string temporary = path + ".new." + std::to_string(getpid());
    std::string text = formatTopology(topology);
    int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        *error = "cannot write " + temporary + ": " + strerror(errno);
        return false;
    }
    bool written = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    written = close(fd) == 0 && written;
    if (!written || rename(temporary.c_str(), path.c_str()) != 0) {
        *error = "cannot write " + path + ": " + strerror(errno);
        unlink(temporary.c_str());
        return false;
    }
    return true;
}

bool loadTopologyFile(const std::string &stateDir, Topology *topology, std::string *error) {
    std::string path = stateDir + "/farm.conf";
    std::string text;
    int readError = 0;
    if (!readWholeFile(path, &text, &readError)) {
        if (readError != ENOENT) {
            *error = "cannot read " + path + ": " + strerror(readError);
            return false;
        }
        *topology = defaultTopology();
        return writeTopologyFile(stateDir, *topology, error);
    }
    return parseTopology(text, topology, error);
}

Farm::Farm(std::string stateDir) : stateDir_(stateDir), store_(std::move(stateDir)) {}

bool Farm::load(std::string *error) {
    if (!loaded_) {
        loaded_ = true;
        loadedOk_ = loadTopologyFile(stateDir_, &topology_, &loadError_);
    }
    if (!loadedOk_) {
        *error = loadError_;
    }
    return loadedOk_;
}

const ControllerConfig *Farm::controller(int controllerNo) const {
    if (controllerNo < 0 || controllerNo >= static_cast<int>(topology_.controllers.size())) {
        return nullptr;
    }
    return &topology_.controllers[static_cast<size_t>(controllerNo)];
}

const SlotConfig *Farm::slot(int controllerNo, int slotNo) const {
    const ControllerConfig *config = controller(controllerNo);
    if (config == nullptr || slotNo < 0 || slotNo >= kSlotsPerController ||
        !config->slots[static_cast<size_t>(slotNo)].present) {
        return nullptr;
    }
    return &config->slots[static_cast<size_t>(slotNo)];
}

const LogicalDriveConfig *Farm::logicalDrive(int controllerNo, int ldNo) const {
    const ControllerConfig *config = controller(controllerNo);
    if (config == nullptr || ldNo < 0 || ldNo >= kLogicalDrivesPerController ||
        !config->logicalDrives[static_cast<size_t>(ldNo)].present) {
        return nullptr;
    }
    return &config->logicalDrives[static_cast<size_t>(ldNo)];
}

Farm::DriveParts *Farm::parts(int controllerNo, int slotNo) {
    if (slot(controllerNo, slotNo) == nullptr) {
        return nullptr;
    }
    int64_t key = driveKey(controllerNo, slotNo);
    DriveParts &drive = drives_[key];
    if (!drive.medium) {
        drive.medium = std::make_unique<StoredMedium>(store_, key);
        drive.settings = std::make_unique<StoredSettings>(store_, key);
    }
    return &drive;
}

Medium *Farm::medium(int controllerNo, int slotNo) {
    DriveParts *drive = parts(controllerNo, slotNo);
    return drive != nullptr ? drive->medium.get() : nullptr;
}

bool Farm::volumesMayBeDegraded() const {
    return access((stateDir_ + "/volumes.degraded").c_str(), F_OK) == 0;
}

void Farm::markVolumesDegraded(bool degraded) {
    const std::string path = stateDir_ + "/volumes.degraded";
    if (!degraded) {
        unlink(path.c_str());
        return;
    }
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd >= 0) {
        close(fd);
    }
}

VolumeState Farm::volumeState(int controllerNo, int ldNo, int *failedSlot) {
    *failedSlot = -1;
    const LogicalDriveConfig *config = logicalDrive(controllerNo, ldNo);
    if (config == nullptr) {
        return VolumeState::Optimal;
    }
    StoredSettings settings(store_, volumeKey(controllerNo, ldNo));
    int failed = -1;
    VolumeState state = readVolumeState(settings, config->memberSlots.size(), &failed);
    if (failed >= 0) {
        *failedSlot = config->memberSlots[static_cast<size_t>(failed)];
    }
    return state;
}

ScsiTarget *Farm::physicalDrive(int controllerNo, int slotNo) {
    DriveParts *drive = parts(controllerNo, slotNo);
    if (drive == nullptr) {
        return nullptr;
    }
    if (!drive->target) {
        const DriveIdentity &identity = slot(controllerNo, slotNo)->identity;
        drive->target = identity.interface == DriveInterface::Sata
                            ? makeSataDrive(identity, *drive->medium, *drive->settings)
                            : makeSasDrive(identity, *drive->medium, *drive->settings);
    }
    return drive->target.get();
}

RaidVolume *Farm::volume(int controllerNo, int ldNo) {
    const LogicalDriveConfig *config = logicalDrive(controllerNo, ldNo);
    if (config == nullptr) {
        return nullptr;
    }
    VolumeParts &parts = volumes_[controllerNo * kLogicalDrivesPerController + ldNo];
    if (!parts.volume) {
        // The volume sends its members block commands through their own device models.
        std::vector<VolumeMember> members;
        for (int slotNo : config->memberSlots) {
            VolumeMember member;
            member.target = physicalDrive(controllerNo, slotNo);
            const DriveIdentity &identity = slot(controllerNo, slotNo)->identity;
            member.blocks = identity.nativeBlocks;
            member.protocol =
                identity.interface == DriveInterface::Sata ? MemberProtocol::AtaPassThrough : MemberProtocol::Scsi;
            members.push_back(member);
        }
        std::string serial = "ORV" + std::to_string(controllerNo) + "LD" + std::to_string(ldNo);
        parts.settings = std::make_unique<StoredSettings>(store_, volumeKey(controllerNo, ldNo));
        parts.volume = std::make_unique<RaidVolume>(config->level, config->stripBlocks, std::move(members), serial,
                                                    parts.settings.get());
        // Each repair is journaled as the write the member received.
        std::vector<int> slots = config->memberSlots;
        parts.volume->onRepair([this, controllerNo, ldNo, slots](const MemberRepair &repair) {
            const int slotNo = slots[static_cast<size_t>(repair.member)];
            JournalEntry entry;
            entry.function = "RaidRepair ld=" + std::to_string(ldNo) + " lba=" + std::to_string(repair.memberLba);
            entry.hasRequest = true;
            entry.controllerNo = static_cast<uint8_t>(controllerNo);
            entry.driveNo = static_cast<uint8_t>(slotNo);
            entry.interfaceType = slot(controllerNo, slotNo)->identity.interface == DriveInterface::Sata ? 1 : 0;
            entry.dataLength = repair.count * kBlockSize;
            store_.appendJournal(entry);
        });
    }
    return parts.volume.get();
}

} // namespace kelsim
