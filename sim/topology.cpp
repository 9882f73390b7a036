// The farm's topology: the default farm, and the farm.conf reader and writer.
#include "topology.h"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <set>

namespace kelsim {
namespace {

constexpr uint64_t kMaxDriveBlocks = 1ULL << 48; // what 48-bit addressing reaches

SlotConfig sasDrive(const char *product, const char *revision, const char *serial, uint64_t blocks) {
    SlotConfig slot;
    slot.present = true;
    slot.identity.interface = DriveInterface::Sas;
    slot.identity.vendor = "SIMDISK";
    slot.identity.product = product;
    slot.identity.revision = revision;
    slot.identity.serial = serial;
    slot.identity.nativeBlocks = blocks;
    return slot;
}

SlotConfig sataDrive(const char *product, const char *revision, const char *serial, uint64_t blocks,
                     bool writeUncorrectable) {
    SlotConfig slot = sasDrive(product, revision, serial, blocks);
    slot.identity.interface = DriveInterface::Sata;
    slot.identity.vendor = "ATA";
    slot.identity.writeUncorrectableSupported = writeUncorrectable;
    return slot;
}

LogicalDriveConfig volume(RaidLevel level, std::vector<int> members) {
    LogicalDriveConfig ld;
    ld.present = true;
    ld.level = level;
    ld.stripBlocks = 128;
    ld.memberSlots = std::move(members);
    return ld;
}

std::vector<std::string_view> splitWords(std::string_view line) {
    std::vector<std::string_view> words;
    size_t pos = 0;
    while (pos < line.size()) {
        while (pos < line.size() && (line[pos] == ' ' || line[pos] == '\t' || line[pos] == '\r')) {
            pos++;
        }
        size_t start = pos;
        while (pos < line.size() && line[pos] != ' ' && line[pos] != '\t' && line[pos] != '\r') {
            pos++;
        }
        if (pos > start) {
            words.push_back(line.substr(start, pos - start));
        }
    }
    return words;
}

// Decimal, or hexadecimal after "0x".
bool parseNumber(std::string_view text, uint64_t *value) {
    int base = 10;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        base = 16;
        text.remove_prefix(2);
    }
    if (text.empty() || text.size() > 16) {
        return false;
    }
    uint64_t result = 0;
    for (char c : text) {
        int digit;
        if (c >= '0' && c <= '9') {
            digit = c - '0';
        } else if (base == 16 && c >= 'a' && c <= 'f') {
            digit = c - 'a' + 10;
        } else if (base == 16 && c >= 'A' && c <= 'F') {
            digit = c - 'A' + 10;
        } else {
            return false;
        }
        if (result > (UINT64_MAX - static_cast<uint64_t>(digit)) / static_cast<uint64_t>(base)) {
            return false;
        }
        result = result * static_cast<uint64_t>(base) + static_cast<uint64_t>(digit);
    }
    *value = result;
    return true;
}

bool parseSmallNumber(std::string_view text, int limit, int *value) {
    uint64_t number;
    if (!parseNumber(text, &number) || number >= static_cast<uint64_t>(limit)) {
        return false;
    }
    *value = static_cast<int>(number);
    return true;
}

class TopologyReader {
  public:
    TopologyReader(Topology *topology, std::string *error) : topology_(topology), error_(error) {}

    bool readLine(int lineNo, std::string_view line) {
        lineNo_ = lineNo;
        if (size_t hash = line.find('#'); hash != std::string_view::npos) {
            line = line.substr(0, hash);
        }
        std::vector<std::string_view> words = splitWords(line);
        if (words.empty()) {
            return true;
        }
        if (words[0] == "controller") {
            return readController(words);
        }
        if (topology_->controllers.empty()) {
            return fail("a \"controller\" line must come first");
        }
        if (words[0] == "slot") {
            return readSlot(words);
        }
        if (words[0] == "ld") {
            return readLogicalDrive(words);
        }
        return fail("unknown keyword \"" + std::string(words[0]) + "\"");
    }

    // Checks that need the whole controller: members exist and are used once.
    bool finish() {
        for (size_t c = 0; c < topology_->controllers.size(); c++) {
            const ControllerConfig &controller = topology_->controllers[c];
            std::set<int> used;
            for (int ld = 0; ld < kLogicalDrivesPerController; ld++) {
                for (int slot : controller.logicalDrives[ld].memberSlots) {
                    if (!controller.slots[slot].present) {
                        lineNo_ = 0;
                        return fail("controller " + std::to_string(c) + " ld " + std::to_string(ld) + ": slot " +
                                    std::to_string(slot) + " is empty");
                    }
                    if (!used.insert(slot).second) {
                        lineNo_ = 0;
                        return fail("controller " + std::to_string(c) + ": slot " + std::to_string(slot) +
                                    " belongs to two logical drives");
                    }
                }
            }
        }
        if (topology_->controllers.empty()) {
            lineNo_ = 0;
            return fail("no controller");
        }
        return true;
    }

  private:
    bool fail(const std::string &problem) {
        *error_ = lineNo_ > 0 ? "farm.conf line " + std::to_string(lineNo_) + ": " + problem : "farm.conf: " + problem;
        return false;
    }

    ControllerConfig &current() { return topology_->controllers.back(); }

    bool readController(const std::vector<std::string_view> &words) {
        int number;
        if (words.size() != 2 || !parseSmallNumber(words[1], kMaxControllers, &number)) {
            return fail("expected \"controller <0-9>\"");
        }
        if (number != static_cast<int>(topology_->controllers.size())) {
            return fail("controllers must be numbered 0, 1, 2... in order");
        }
        topology_->controllers.emplace_back();
        return true;
    }

    bool readSlot(const std::vector<std::string_view> &words) {
        int number;
        if (words.size() < 3 || !parseSmallNumber(words[1], kSlotsPerController, &number)) {
            return fail("expected \"slot <0-7> <sas|sata> key=value...\"");
        }
        SlotConfig &slot = current().slots[number];
        if (slot.present) {
            return fail("slot " + std::to_string(number) + " given twice");
        }
        DriveIdentity identity;
        if (words[2] == "sas") {
            identity.interface = DriveInterface::Sas;
        } else if (words[2] == "sata") {
            identity.interface = DriveInterface::Sata;
            identity.vendor = "ATA";
        } else {
            return fail("drive interface must be \"sas\" or \"sata\"");
        }
        for (size_t i = 3; i < words.size(); i++) {
            if (!readSlotField(words[i], &identity)) {
                return false;
            }
        }
        if (identity.product.empty() || identity.nativeBlocks == 0) {
            return fail("a drive needs product= and blocks=");
        }
        if (identity.vendor.empty()) {
            return fail("a SAS drive needs vendor=");
        }
        if (identity.revision.empty()) {
            identity.revision = "0001";
        }
        identity.revision.resize(4, ' ');
        slot.present = true;
        slot.identity = identity;
        return true;
    }

    bool readSlotField(std::string_view word, DriveIdentity *identity) {
        if (word == "write-uncorrectable") {
            identity->writeUncorrectableSupported = true;
            return true;
        }
        size_t equals = word.find('=');
        if (equals == std::string_view::npos) {
            return fail("expected key=value, found \"" + std::string(word) + "\"");
        }
        std::string_view key = word.substr(0, equals);
        std::string_view value = word.substr(equals + 1);
        auto text = [&](size_t limit, std::string *field) {
            if (value.empty() || value.size() > limit) {
                return fail(std::string(key) + " must be 1 to " + std::to_string(limit) + " characters");
            }
            *field = std::string(value);
            return true;
        };
        if (key == "long-block") {
            const std::string number(value);
            char *end = nullptr;
            const unsigned long bytes = strtoul(number.c_str(), &end, 10);
            if (number.empty() || *end != '\0' || bytes <= kBlockSize || bytes > kLargestLongBlock) {
                return fail("long-block must be 513 to " + std::to_string(kLargestLongBlock) + " bytes");
            }
            identity->longBlockBytes = static_cast<uint32_t>(bytes);
            return true;
        }
        if (key == "vendor") {
            return text(8, &identity->vendor);
        }
        if (key == "product") {
            return text(16, &identity->product);
        }
        if (key == "revision") {
            return text(4, &identity->revision);
        }
        if (key == "serial") {
            return text(20, &identity->serial);
        }
        if (key == "blocks") {
            if (!parseNumber(value, &identity->nativeBlocks) || identity->nativeBlocks == 0 ||
                identity->nativeBlocks > kMaxDriveBlocks) {
                return fail("blocks must be a number from 1 to 2^48");
            }
            return true;
        }
        return fail("unknown drive field \"" + std::string(key) + "\"");
    }

    bool readLogicalDrive(const std::vector<std::string_view> &words) {
        int number;
        if (words.size() < 3 || !parseSmallNumber(words[1], kLogicalDrivesPerController, &number)) {
            return fail("expected \"ld <0-7> <raid0|raid1|raid5> strip=<blocks> members=<slot,slot...>\"");
        }
        LogicalDriveConfig &ld = current().logicalDrives[number];
        if (ld.present) {
            return fail("ld " + std::to_string(number) + " given twice");
        }
        LogicalDriveConfig config;
        config.present = true;
        if (words[2] == "raid0") {
            config.level = RaidLevel::Raid0;
        } else if (words[2] == "raid1") {
            config.level = RaidLevel::Raid1;
        } else if (words[2] == "raid5") {
            config.level = RaidLevel::Raid5;
        } else {
            return fail("RAID level must be raid0, raid1 or raid5");
        }
        for (size_t i = 3; i < words.size(); i++) {
            std::string_view word = words[i];
            if (word.rfind("strip=", 0) == 0) {
                uint64_t strip;
                if (!parseNumber(word.substr(6), &strip) || strip == 0 || strip > 65536) {
                    return fail("strip must be 1 to 65536 blocks");
                }
                config.stripBlocks = static_cast<uint32_t>(strip);
            } else if (word.rfind("members=", 0) == 0) {
                std::string_view list = word.substr(8);
                while (!list.empty()) {
                    size_t comma = list.find(',');
                    int slot;
                    if (!parseSmallNumber(list.substr(0, comma), kSlotsPerController, &slot)) {
                        return fail("members must be slot numbers 0-7 separated by commas");
                    }
                    config.memberSlots.push_back(slot);
                    list = comma == std::string_view::npos ? std::string_view() : list.substr(comma + 1);
                }
            } else {
                return fail("unknown logical drive field \"" + std::string(word) + "\"");
            }
        }
        size_t needed = config.level == RaidLevel::Raid5 ? 3 : config.level == RaidLevel::Raid1 ? 2 : 1;
        if (config.memberSlots.size() < needed) {
            return fail(std::string(raidLevelName(config.level)) + " needs at least " + std::to_string(needed) +
                        " members");
        }
        ld = config;
        return true;
    }

    Topology *topology_;
    std::string *error_;
    int lineNo_ = 0;
};

} // namespace

const char *raidLevelName(RaidLevel level) {
    switch (level) {
    case RaidLevel::Raid0:
        return "raid0";
    case RaidLevel::Raid1:
        return "raid1";
    case RaidLevel::Raid5:
        return "raid5";
    }
    return "?";
}

int logicalDriveOfSlot(const ControllerConfig &controller, int slot) {
    for (int ld = 0; ld < kLogicalDrivesPerController; ld++) {
        for (int member : controller.logicalDrives[ld].memberSlots) {
            if (member == slot) {
                return ld;
            }
        }
    }
    return -1;
}

Topology defaultTopology() {
    Topology topology;
    topology.controllers.resize(2);

    ControllerConfig &first = topology.controllers[0];
    first.slots[0] = sasDrive("SD1K073RC", "0104", "SK0A0001", 143374744);
    first.slots[1] = sasDrive("SD1K147RC", "0104", "SK0A0102", 286749488);
    first.slots[2] = sasDrive("SD1K300RC", "0205", "SK0A0203", 585937500);
    first.slots[3] = sasDrive("SD1K036RC", "0103", "SK0A0304", 71132960);
    first.slots[4] = sataDrive("MQX5108SIM", "SIM1", "MQ0A0405", 3907029168ULL, false);
    first.slots[5] = sataDrive("SIMSATA16T", "SIM2", "SS0A0506", 34359738368ULL, true);
    first.slots[6] = sasDrive("MBA4SIM", "0101", "MB0A0607", 286749488);
    first.slots[6].identity.vendor = "SIMDISK";
    first.slots[6].identity.longBlockBytes = 528; // 16 check bytes a block
    first.logicalDrives[0] = volume(RaidLevel::Raid1, {0, 1});
    first.logicalDrives[1] = volume(RaidLevel::Raid5, {2, 3, 6});
    first.logicalDrives[2] = volume(RaidLevel::Raid0, {4, 5});

    ControllerConfig &second = topology.controllers[1];
    second.slots[0] = sasDrive("SD2K073RC", "0104", "SK1A0001", 143374744);
    second.slots[1] = sataDrive("SIMSATA1T", "SIM1", "SS1A0102", 1953525168ULL, false);
    second.slots[2] = sasDrive("MBB2SIM", "0201", "MB1A0203", 286749488); // the other family F selects
    second.logicalDrives[0] = volume(RaidLevel::Raid0, {0, 1});
    return topology;
}

std::string formatTopology(const Topology &topology) {
    std::string text = "# The simulated farm: controllers, the drive in each slot, and the logical drives.\n"
                       "# Edit freely, then run any command; \"kelsim reset\" writes the default farm again.\n"
                       "#\n"
                       "#   controller <n>      starts a controller; number them 0, 1, 2... (at most 10)\n"
                       "#   slot <0-7> <sas|sata> vendor=<8 chars> product=<16 chars> revision=<4 chars>\n"
                       "#        serial=<20 chars> blocks=<512-byte blocks, decimal or 0x hex>\n"
                       "#        [write-uncorrectable]   (SATA: supports WRITE UNCORRECTABLE EXT)\n"
                       "#        [long-block=<bytes>]    (SAS: data and check bytes of READ/WRITE LONG, 520)\n"
                       "#   ld <0-7> <raid0|raid1|raid5> strip=<blocks per strip> members=<slot,slot,...>\n"
                       "#\n"
                       "# Values cannot hold blanks. A SATA drive's vendor is \"ATA\" unless given.\n"
                       "# A slot not listed is empty; a logical drive not listed is absent.\n";
    char line[256];
    for (size_t c = 0; c < topology.controllers.size(); c++) {
        const ControllerConfig &controller = topology.controllers[c];
        snprintf(line, sizeof line, "\ncontroller %zu\n", c);
        text += line;
        for (int s = 0; s < kSlotsPerController; s++) {
            const SlotConfig &slot = controller.slots[s];
            if (!slot.present) {
                continue;
            }
            const DriveIdentity &id = slot.identity;
            std::string revision = id.revision.substr(0, id.revision.find_last_not_of(' ') + 1);
            if (revision.empty()) {
                revision = "0001";
            }
            snprintf(line, sizeof line, "slot %d %s vendor=%s product=%s revision=%s", s,
                     id.interface == DriveInterface::Sata ? "sata" : "sas", id.vendor.c_str(), id.product.c_str(),
                     revision.c_str());
            text += line;
            if (!id.serial.empty()) {
                text += " serial=" + id.serial;
            }
            snprintf(line, sizeof line, " blocks=%" PRIu64 "%s", id.nativeBlocks,
                     id.writeUncorrectableSupported ? " write-uncorrectable" : "");
            text += line;
            if (id.longBlockBytes != DriveIdentity().longBlockBytes) {
                text += " long-block=" + std::to_string(id.longBlockBytes);
            }
            text += "\n";
        }
        for (int n = 0; n < kLogicalDrivesPerController; n++) {
            const LogicalDriveConfig &ld = controller.logicalDrives[n];
            if (!ld.present) {
                continue;
            }
            std::string members;
            for (int slot : ld.memberSlots) {
                members += (members.empty() ? "" : ",") + std::to_string(slot);
            }
            snprintf(line, sizeof line, "ld %d %s strip=%u members=%s\n", n, raidLevelName(ld.level), ld.stripBlocks,
                     members.c_str());
            text += line;
        }
    }
    return text;
}

bool parseTopology(std::string_view text, Topology *topology, std::string *error) {
    *topology = Topology();
    TopologyReader reader(topology, error);
    int lineNo = 0;
    while (!text.empty()) {
        size_t end = text.find('\n');
        std::string_view line = text.substr(0, end);
        text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
        if (!reader.readLine(++lineNo, line)) {
            return false;
        }
    }
    return reader.finish();
}

} // namespace kelsim
