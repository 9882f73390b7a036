// kelsim temperature / voltage / smart-trip / check-condition on one SAS drive, each kept in
// the drive's settings and written to the journal, and kelsim image.
#include "kelsim_diag.h"

#include "drives/microcode_image.h"
#include "drives/sas_life.h"
#include "farm.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace kelsim {

const char kDiagUsage[] =
    "  temperature <ctl> <slot> <degrees>       the SAS drive's temperature from now on\n"
    "  voltage <ctl> <slot> <volts>             its 12 V supply, 10.0 to 19.9 (for example 11.8)\n"
    "  smart-trip <ctl> <slot> <asc> <ascq>|clear   a SMART trip (hexadecimal codes) or none\n"
    "  check-condition <ctl> <slot> <opcode> [--after N] [--sense KEY/ASC/ASCQ] | clear\n"
    "                        the drive fails the next command with that opcode (hexadecimal),\n"
    "                        after letting N pass; default sense 04/44/00\n"
    "  image <product> <revision> <file> [--size BYTES]\n"
    "                        write a firmware image for the drives of that product (default 786432 bytes)\n";

namespace {

int usageError(const std::string &text) {
    fprintf(stderr, "kelsim: %s\n", text.c_str());
    return 2;
}

int failure(const std::string &text) {
    fprintf(stderr, "kelsim: %s\n", text.c_str());
    return 1;
}

bool readNumber(const std::string &text, int base, unsigned long limit, unsigned long *value) {
    if (text.empty() || text[0] == '-' || text[0] == '+' || text[0] == ' ') {
        return false;
    }
    errno = 0;
    char *end = nullptr;
    *value = strtoul(text.c_str(), &end, base);
    return errno == 0 && *end == '\0' && *value <= limit;
}

// "11.8" as 0x18: 10.0 to 19.9 volts with one decimal.
bool readVolts(const std::string &text, uint32_t *coded) {
    if (text.size() != 4 || text[0] != '1' || text[2] != '.' || !isdigit(static_cast<unsigned char>(text[1])) ||
        !isdigit(static_cast<unsigned char>(text[3]))) {
        return false;
    }
    *coded = static_cast<uint32_t>((text[1] - '0') << 4 | (text[3] - '0'));
    return true;
}

// "KK/AA/QQ" in hexadecimal.
bool readSense(const std::string &text, ScriptedCheck *check) {
    unsigned key = 0, asc = 0, ascq = 0;
    char rest = 0;
    if (sscanf(text.c_str(), "%2x/%2x/%2x%c", &key, &asc, &ascq, &rest) != 3 || key > 0x0F) {
        return false;
    }
    check->senseKey = static_cast<uint8_t>(key);
    check->asc = static_cast<uint8_t>(asc);
    check->ascq = static_cast<uint8_t>(ascq);
    return true;
}

// A control of one drive: finds the SAS drive, changes its settings and journals the
// change in one transaction.
template <typename Change>
int changeDrive(const std::string &stateDir, const std::vector<std::string> &args, const std::string &what,
                Change change) {
    unsigned long controller = 0, slot = 0;
    if (args.size() < 2 || !readNumber(args[0], 10, kMaxControllers - 1, &controller) ||
        !readNumber(args[1], 10, kSlotsPerController - 1, &slot)) {
        return usageError("which controller and slot?");
    }
    Farm farm(stateDir);
    std::string error;
    if (!farm.load(&error)) {
        return failure(error);
    }
    const SlotConfig *config = farm.slot(static_cast<int>(controller), static_cast<int>(slot));
    if (config == nullptr) {
        return failure("controller " + args[0] + " has no drive in slot " + args[1]);
    }
    if (config->identity.interface != DriveInterface::Sas) {
        return failure("slot " + args[1] + " holds a SATA drive; these conditions are kept by SAS drives");
    }
    StateStore &store = farm.store();
    StoreTransaction transaction(store, true);
    if (!transaction.active()) {
        return failure("cannot open the state: " + store.lastError());
    }
    StoredSettings settings(store, driveKey(static_cast<int>(controller), static_cast<int>(slot)));
    change(settings);
    JournalEntry entry;
    entry.function = "kelsim " + what;
    entry.hasRequest = true;
    entry.controllerNo = static_cast<uint8_t>(controller);
    entry.driveNo = static_cast<uint8_t>(slot);
    store.appendJournal(entry);
    if (!transaction.commit()) {
        return failure(what + ": " + store.lastError());
    }
    return 0;
}

int temperature(const std::string &stateDir, const std::vector<std::string> &args) {
    unsigned long degrees = 0;
    if (args.size() != 3 || !readNumber(args[2], 10, 255, &degrees)) {
        return usageError("temperature <ctl> <slot> <degrees 0-255>");
    }
    return changeDrive(stateDir, args, "temperature " + args[2],
                       [&](DriveSettings &settings) { setDriveTemperature(settings, static_cast<uint32_t>(degrees)); });
}

int voltage(const std::string &stateDir, const std::vector<std::string> &args) {
    uint32_t coded = 0;
    if (args.size() != 3 || !readVolts(args[2], &coded)) {
        return usageError("voltage <ctl> <slot> <volts, 10.0 to 19.9>");
    }
    return changeDrive(stateDir, args, "voltage " + args[2],
                       [&](DriveSettings &settings) { setDriveVoltage(settings, coded); });
}

int smartTrip(const std::string &stateDir, const std::vector<std::string> &args) {
    unsigned long asc = 0, ascq = 0;
    const bool clear = args.size() == 3 && args[2] == "clear";
    if (!clear && (args.size() != 4 || !readNumber(args[2], 16, 0xFF, &asc) || !readNumber(args[3], 16, 0xFF, &ascq))) {
        return usageError("smart-trip <ctl> <slot> <asc> <ascq> | clear");
    }
    const std::string what = clear ? "smart-trip clear" : "smart-trip " + args[2] + " " + args[3];
    return changeDrive(stateDir, args, what, [&](DriveSettings &settings) {
        setSmartTrip(settings, static_cast<uint8_t>(asc), static_cast<uint8_t>(ascq));
    });
}

int checkCondition(const std::string &stateDir, const std::vector<std::string> &args) {
    const char *usage = "check-condition <ctl> <slot> <opcode> [--after N] [--sense KEY/ASC/ASCQ] | clear";
    if (args.size() == 3 && args[2] == "clear") {
        return changeDrive(stateDir, args, "check-condition clear",
                           [](DriveSettings &settings) { clearScriptedCheck(settings); });
    }
    ScriptedCheck check;
    check.senseKey = 0x04; // HARDWARE ERROR, internal target failure
    check.asc = 0x44;
    unsigned long opcode = 0;
    if (args.size() < 3 || !readNumber(args[2], 16, 0xFF, &opcode)) {
        return usageError(usage);
    }
    check.opcode = static_cast<uint8_t>(opcode);
    for (size_t i = 3; i < args.size(); i += 2) {
        unsigned long after = 0;
        if (i + 1 >= args.size()) {
            return usageError(usage);
        }
        if (args[i] == "--after" && readNumber(args[i + 1], 10, 0xFFFFFFFF, &after)) {
            check.after = static_cast<uint32_t>(after);
        } else if (args[i] != "--sense" || !readSense(args[i + 1], &check)) {
            return usageError(usage);
        }
    }
    char what[96];
    snprintf(what, sizeof what, "check-condition %02X after %u sense %02X/%02X/%02X", check.opcode, check.after,
             check.senseKey, check.asc, check.ascq);
    return changeDrive(stateDir, args, what, [&](DriveSettings &settings) { storeScriptedCheck(settings, check); });
}

int image(const std::vector<std::string> &args) {
    unsigned long size = 0xC0000;
    if ((args.size() != 3 && args.size() != 5) || args[0].empty() || args[0].size() > 16 || args[1].empty() ||
        args[1].size() > 4 ||
        (args.size() == 5 &&
         (args[3] != "--size" || !readNumber(args[4], 0, 0x100000, &size) || size < kImageHeaderSize))) {
        return usageError("image <product> <revision, 1-4 characters> <file> [--size 64..1048576]");
    }
    const std::vector<uint8_t> bytes = buildMicrocodeImage(args[0], args[1], size);
    FILE *file = fopen(args[2].c_str(), "wb");
    if (file == nullptr) {
        return failure("cannot write " + args[2]);
    }
    const bool written = fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
    if (fclose(file) != 0 || !written) {
        return failure("cannot write " + args[2]);
    }
    printf("%s: firmware image for %s, revision %s, %zu bytes\n", args[2].c_str(), args[0].c_str(), args[1].c_str(),
           bytes.size());
    return 0;
}

} // namespace

bool isDiagCommand(const std::string &command) {
    return command == "temperature" || command == "voltage" || command == "smart-trip" ||
           command == "check-condition" || command == "image";
}

int runDiagCommand(const std::string &stateDir, const std::string &command, const std::vector<std::string> &args) {
    if (command == "temperature") {
        return temperature(stateDir, args);
    }
    if (command == "voltage") {
        return voltage(stateDir, args);
    }
    if (command == "smart-trip") {
        return smartTrip(stateDir, args);
    }
    if (command == "check-condition") {
        return checkCondition(stateDir, args);
    }
    return image(args);
}

std::string describeSlotConditions(StateStore &store, int controller, int slot) {
    StoredSettings settings(store, driveKey(controller, slot));
    return describeDriveConditions(settings);
}

} // namespace kelsim
