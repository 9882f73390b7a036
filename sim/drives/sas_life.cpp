// A SAS drive's life in its settings: the counters (one "life" setting of name=value
// pairs), the error history ("error_history", packed records in hexadecimal) and the
// scripted check condition ("scripted_check").
#include "sas_life.h"

#include "byte_order.h"
#include "layouts/smart_log_layouts.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>
#include <string_view>

namespace kelsim {
namespace {

constexpr const char *kKeyLife = "life";
constexpr const char *kKeyErrorHistory = "error_history";
constexpr const char *kKeyScriptedCheck = "scripted_check";

constexpr uint32_t kNewSpareSectors = 2000;
constexpr uint32_t kNewTemperature = 35;
constexpr uint32_t kNewVoltage = 0x20; // 12.0 V
constexpr uint32_t kSpinUpSeconds[] = {7, 6, 8, 7, 9, 6};
constexpr uint64_t kZoneBlocks = 2048; // 1 MiB of 512-byte blocks per head zone

// ---- counters as text ----

// Every stored counter: its name in the text form and its place in DriveCounters. A
// table made by the compiler, so that a run that touches the counters builds nothing.
struct CounterSlot {
    std::string_view name;
    size_t offset;
};

#define KELSIM_HEAD_COUNTERS(group, head)                                                                              \
    {#group "." #head ".sectors", offsetof(DriveCounters, group[head].sectors)},                                       \
        {#group "." #head ".now", offsetof(DriveCounters, group[head].errorsNow)},                                     \
        {#group "." #head ".before", offsetof(DriveCounters, group[head].errorsBefore)}, {                             \
#group "." #head ".worst", offsetof(DriveCounters, group[head].errorsWorst)                                    \
    }
#define KELSIM_GROUP_COUNTERS(group)                                                                                   \
    KELSIM_HEAD_COUNTERS(group, 0), KELSIM_HEAD_COUNTERS(group, 1), KELSIM_HEAD_COUNTERS(group, 2),                    \
        KELSIM_HEAD_COUNTERS(group, 3), KELSIM_HEAD_COUNTERS(group, 4), KELSIM_HEAD_COUNTERS(group, 5),                \
        KELSIM_HEAD_COUNTERS(group, 6), KELSIM_HEAD_COUNTERS(group, 7)

constexpr CounterSlot kCounterSlots[] = {
    KELSIM_GROUP_COUNTERS(read),
    KELSIM_GROUP_COUNTERS(write),
    KELSIM_GROUP_COUNTERS(seek),
    {"spares", offsetof(DriveCounters, spareSectors)},
    {"spinup", offsetof(DriveCounters, spinUpSeconds)},
    {"spinup.before", offsetof(DriveCounters, spinUpSecondsBefore)},
    {"spinup.longest", offsetof(DriveCounters, spinUpSecondsLongest)},
    {"spinup.longest.at", offsetof(DriveCounters, spinUpLongestAt)},
    {"startstop", offsetof(DriveCounters, startStopCount)},
    {"temperature", offsetof(DriveCounters, temperature)},
    {"temperature.highest", offsetof(DriveCounters, temperatureHighest)},
    {"temperature.highest.at", offsetof(DriveCounters, temperatureHighestAt)},
    {"voltage", offsetof(DriveCounters, voltage)},
    {"voltage.highest", offsetof(DriveCounters, voltageHighest)},
    {"voltage.highest.at", offsetof(DriveCounters, voltageHighestAt)},
    {"voltage.lowest", offsetof(DriveCounters, voltageLowest)},
    {"voltage.lowest.at", offsetof(DriveCounters, voltageLowestAt)},
    {"smart.asc", offsetof(DriveCounters, smartAsc)},
    {"smart.ascq", offsetof(DriveCounters, smartAscq)},
    {"smart.at", offsetof(DriveCounters, smartTripAt)},
};
#undef KELSIM_GROUP_COUNTERS
#undef KELSIM_HEAD_COUNTERS
static_assert(kMaxHeads == 8, "the table above names heads 0 to 7");
static_assert(std::size(kCounterSlots) == 3 * kMaxHeads * 4 + 17, "every counter has its slot");

uint32_t &counterIn(DriveCounters &c, const CounterSlot &slot) {
    return *reinterpret_cast<uint32_t *>(reinterpret_cast<char *>(&c) + slot.offset);
}

// The slot named name[0..length), looked for from `from` on (the text keeps the table's
// order, so the next name is nearly always the next slot), or null.
const CounterSlot *findSlot(const char *name, size_t length, size_t *from) {
    constexpr size_t kSlots = std::size(kCounterSlots);
    for (size_t n = 0; n < kSlots; ++n) {
        const size_t at = (*from + n) % kSlots;
        if (kCounterSlots[at].name == std::string_view(name, length)) {
            *from = at + 1;
            return &kCounterSlots[at];
        }
    }
    return nullptr;
}

// The stored counters, or false for a drive that has none yet.
bool readCounters(DriveSettings &settings, DriveCounters *counters) {
    std::string text;
    if (!settings.get(kKeyLife, &text) || text.empty()) {
        return false;
    }
    DriveCounters c;
    // "born=<seconds>", then name=value pairs; a counter not written is 0.
    const char *cursor = text.c_str();
    size_t next = 0;
    while (*cursor != '\0') {
        while (*cursor == ' ') {
            ++cursor;
        }
        const char *equals = strchr(cursor, '=');
        if (equals == nullptr) {
            break;
        }
        char *end = nullptr;
        const unsigned long long value = strtoull(equals + 1, &end, 10);
        const size_t length = static_cast<size_t>(equals - cursor);
        if (length == 4 && memcmp(cursor, "born", 4) == 0) {
            c.bornAt = static_cast<int64_t>(value);
        } else if (const CounterSlot *slot = findSlot(cursor, length, &next)) {
            counterIn(c, *slot) = static_cast<uint32_t>(value);
        }
        cursor = end;
    }
    *counters = c;
    return true;
}

uint32_t minuteNow(const DriveCounters &c) {
    return powerOnMinutes(c);
}

template <typename Change> void changeCounters(DriveSettings &settings, Change change) {
    DriveCounters counters = loadDriveCounters(settings);
    change(counters);
    storeDriveCounters(settings, counters);
}

// ---- error history as text ----

constexpr size_t kRecordBytes = 4 + 3 + 4 + 16;

std::string encodeHistory(const std::vector<ErrorRecord> &records) {
    static const char kDigits[] = "0123456789ABCDEF";
    std::string text;
    for (const ErrorRecord &r : records) {
        uint8_t packed[kRecordBytes];
        putBe(&packed[0], 4, r.seconds);
        packed[4] = r.senseKey;
        packed[5] = r.asc;
        packed[6] = r.ascq;
        putBe(&packed[7], 4, r.lba);
        memcpy(&packed[11], r.cdb, 16);
        for (uint8_t byte : packed) {
            text.push_back(kDigits[byte >> 4]);
            text.push_back(kDigits[byte & 0x0F]);
        }
    }
    return text;
}

std::vector<ErrorRecord> decodeHistory(const std::string &text) {
    std::vector<ErrorRecord> records;
    const size_t recordChars = 2 * kRecordBytes;
    for (size_t at = 0; at + recordChars <= text.size(); at += recordChars) {
        uint8_t packed[kRecordBytes];
        for (size_t i = 0; i < kRecordBytes; ++i) {
            const char pair[3] = {text[at + 2 * i], text[at + 2 * i + 1], 0};
            packed[i] = static_cast<uint8_t>(strtoul(pair, nullptr, 16));
        }
        ErrorRecord r;
        r.seconds = static_cast<uint32_t>(getBe(&packed[0], 4));
        r.senseKey = packed[4];
        r.asc = packed[5];
        r.ascq = packed[6];
        r.lba = static_cast<uint32_t>(getBe(&packed[7], 4));
        memcpy(r.cdb, &packed[11], 16);
        records.push_back(r);
    }
    return records;
}

uint32_t worstOf(const HeadCounters *heads) {
    uint32_t worst = 0;
    for (int h = 0; h < kMaxHeads; ++h) {
        worst = std::max(worst, heads[h].errorsWorst);
    }
    return worst;
}

} // namespace

DriveCounters newDriveCounters() {
    DriveCounters c;
    c.bornAt = simulatedNow();
    c.spareSectors = kNewSpareSectors;
    c.spinUpSeconds = c.spinUpSecondsLongest = kSpinUpSeconds[0];
    c.startStopCount = 1;
    c.temperature = c.temperatureHighest = kNewTemperature;
    c.voltage = c.voltageHighest = c.voltageLowest = kNewVoltage;
    return c;
}

int64_t simulatedNow() {
    if (const char *fixed = getenv("KELSIM_NOW")) {
        return strtoll(fixed, nullptr, 10);
    }
    return static_cast<int64_t>(time(nullptr));
}

int driveHeads(const DriveIdentity &identity) {
    const std::string family = identity.product.size() >= 7 ? identity.product.substr(4, 3) : "";
    return family == "147" || family == "300" ? kMaxHeads : 1;
}

int headOfLba(const DriveIdentity &identity, uint64_t lba) {
    return static_cast<int>((lba / kZoneBlocks) % static_cast<uint64_t>(driveHeads(identity)));
}

DriveCounters loadDriveCounters(DriveSettings &settings) {
    DriveCounters counters;
    if (!readCounters(settings, &counters)) {
        counters = newDriveCounters();
        storeDriveCounters(settings, counters); // the clock starts once
    }
    return counters;
}

void storeDriveCounters(DriveSettings &settings, const DriveCounters &counters) {
    DriveCounters copy = counters;
    std::string text = "born=" + std::to_string(copy.bornAt);
    for (const CounterSlot &slot : kCounterSlots) {
        const uint32_t value = counterIn(copy, slot);
        if (value != 0) { // a counter not written reads as 0
            text += ' ';
            text += slot.name;
            text += '=';
            text += std::to_string(value);
        }
    }
    settings.set(kKeyLife, text);
}

uint64_t powerOnSeconds(const DriveCounters &counters) {
    const int64_t now = simulatedNow();
    return now > counters.bornAt ? static_cast<uint64_t>(now - counters.bornAt) : 0;
}

uint32_t powerOnMinutes(const DriveCounters &counters) {
    return static_cast<uint32_t>(std::min<uint64_t>(powerOnSeconds(counters) / 60, 0xFFFFFFFFu));
}

void countTransfer(DriveSettings &settings, const DriveIdentity &identity, bool write, uint64_t lba, uint64_t blocks) {
    if (blocks == 0) {
        return;
    }
    changeCounters(settings, [&](DriveCounters &c) {
        HeadCounters *group = write ? c.write : c.read;
        c.seek[headOfLba(identity, lba)].sectors++;
        // Whole zones go to one head each; a long transfer crosses several.
        uint64_t at = lba;
        const uint64_t end = lba + blocks;
        while (at < end) {
            const uint64_t zoneEnd = (at / kZoneBlocks + 1) * kZoneBlocks;
            const uint64_t piece = std::min(end, zoneEnd) - at;
            uint32_t &sectors = group[headOfLba(identity, at)].sectors;
            sectors = static_cast<uint32_t>(std::min<uint64_t>(uint64_t{sectors} + piece, 0xFFFFFFFFu));
            at += piece;
        }
    });
}

void countMediumError(DriveSettings &settings, const DriveIdentity &identity, bool write, uint64_t lba) {
    changeCounters(settings, [&](DriveCounters &c) {
        HeadCounters &head = (write ? c.write : c.read)[headOfLba(identity, lba)];
        head.errorsNow++;
        head.errorsWorst = std::max(head.errorsWorst, head.errorsNow);
    });
}

void countReassignedBlock(DriveSettings &settings) {
    changeCounters(settings, [](DriveCounters &c) {
        if (c.spareSectors > 0) {
            c.spareSectors--;
        }
    });
}

void countSpinUp(DriveSettings &settings) {
    changeCounters(settings, [](DriveCounters &c) {
        for (HeadCounters *group : {c.read, c.write, c.seek}) {
            for (int h = 0; h < kMaxHeads; ++h) {
                group[h].errorsBefore = group[h].errorsNow;
                group[h].errorsNow = 0;
            }
        }
        c.startStopCount++;
        c.spinUpSecondsBefore = c.spinUpSeconds;
        c.spinUpSeconds = kSpinUpSeconds[c.startStopCount % (sizeof kSpinUpSeconds / sizeof kSpinUpSeconds[0])];
        if (c.spinUpSeconds > c.spinUpSecondsLongest) {
            c.spinUpSecondsLongest = c.spinUpSeconds;
            c.spinUpLongestAt = minuteNow(c);
        }
    });
}

void setDriveTemperature(DriveSettings &settings, uint32_t degrees) {
    changeCounters(settings, [&](DriveCounters &c) {
        c.temperature = degrees;
        if (degrees > c.temperatureHighest) {
            c.temperatureHighest = degrees;
            c.temperatureHighestAt = minuteNow(c);
        }
    });
}

void setDriveVoltage(DriveSettings &settings, uint32_t coded) {
    changeCounters(settings, [&](DriveCounters &c) {
        c.voltage = coded;
        if (coded > c.voltageHighest) {
            c.voltageHighest = coded;
            c.voltageHighestAt = minuteNow(c);
        }
        if (coded < c.voltageLowest) {
            c.voltageLowest = coded;
            c.voltageLowestAt = minuteNow(c);
        }
    });
}

void setSmartTrip(DriveSettings &settings, uint8_t asc, uint8_t ascq) {
    changeCounters(settings, [&](DriveCounters &c) {
        c.smartAsc = asc;
        c.smartAscq = ascq;
        c.smartTripAt = asc == 0 && ascq == 0 ? 0 : minuteNow(c);
    });
}

uint32_t counterFor(const DriveCounters &c, kellayouts::SmartQuantity quantity, uint8_t head) {
    using Q = kellayouts::SmartQuantity;
    const int h = head == kellayouts::kNoHead ? 0 : std::min<int>(head, kMaxHeads - 1);
    switch (quantity) {
    case Q::PowerOnMinutes:
        return powerOnMinutes(c);
    case Q::SectorsRead:
        return c.read[h].sectors;
    case Q::ReadErrorsNow:
        return c.read[h].errorsNow;
    case Q::ReadErrorsBefore:
        return c.read[h].errorsBefore;
    case Q::ReadErrorsWorst:
        return worstOf(c.read);
    case Q::SectorsWritten:
        return c.write[h].sectors;
    case Q::WriteErrorsNow:
        return c.write[h].errorsNow;
    case Q::WriteErrorsBefore:
        return c.write[h].errorsBefore;
    case Q::WriteErrorsWorst:
        return worstOf(c.write);
    case Q::SectorsSought:
        return c.seek[h].sectors;
    case Q::SeekErrorsNow:
        return c.seek[h].errorsNow;
    case Q::SeekErrorsBefore:
        return c.seek[h].errorsBefore;
    case Q::SeekErrorsWorst:
        return worstOf(c.seek);
    case Q::SpareSectors:
        return c.spareSectors;
    case Q::SpinUpSecondsNow:
        return c.spinUpSeconds;
    case Q::SpinUpSecondsBefore:
        return c.spinUpSecondsBefore;
    case Q::SpinUpSecondsLongest:
        return c.spinUpSecondsLongest;
    case Q::SpinUpLongestAtMinutes:
        return c.spinUpLongestAt;
    case Q::StartStopCount:
        return c.startStopCount;
    case Q::TemperatureNow:
        return c.temperature;
    case Q::TemperatureHighest:
        return c.temperatureHighest;
    case Q::TemperatureHighestAtMinutes:
        return c.temperatureHighestAt;
    case Q::VoltageNow:
        return c.voltage;
    case Q::VoltageHighest:
        return c.voltageHighest;
    case Q::VoltageHighestAtMinutes:
        return c.voltageHighestAt;
    case Q::VoltageLowest:
        return c.voltageLowest;
    case Q::VoltageLowestAtMinutes:
        return c.voltageLowestAt;
    case Q::SmartTripAsc:
        return c.smartAsc;
    case Q::SmartTripAscq:
        return c.smartAscq;
    case Q::SmartTripAtMinutes:
        return c.smartTripAt;
    }
    return 0;
}

std::vector<ErrorRecord> loadErrorHistory(DriveSettings &settings) {
    std::string text;
    if (!settings.get(kKeyErrorHistory, &text)) {
        return {};
    }
    return decodeHistory(text);
}

void recordCheckCondition(DriveSettings &settings, const uint8_t *cdb, size_t cdbLength, uint64_t lba,
                          const ScsiResult &result) {
    ErrorRecord record;
    record.seconds = static_cast<uint32_t>(std::min<uint64_t>(powerOnSeconds(loadDriveCounters(settings)), 0xFFFFFFFF));
    record.senseKey = result.sense[2] & 0x0F;
    record.asc = result.sense[12];
    record.ascq = result.sense[13];
    // The information field, when valid, names the block; else the command's own address.
    record.lba = (result.sense[0] & 0x80) ? static_cast<uint32_t>(getBe(&result.sense[3], 4))
                                          : static_cast<uint32_t>(std::min<uint64_t>(lba, 0xFFFFFFFF));
    memcpy(record.cdb, cdb, std::min<size_t>(cdbLength, sizeof record.cdb));
    std::vector<ErrorRecord> history = loadErrorHistory(settings);
    history.insert(history.begin(), record);
    if (history.size() > kErrorHistoryEntries) {
        history.resize(kErrorHistoryEntries);
    }
    settings.set(kKeyErrorHistory, encodeHistory(history));
}

bool loadScriptedCheck(DriveSettings &settings, ScriptedCheck *check) {
    std::string text;
    unsigned opcode = 0, key = 0, asc = 0, ascq = 0;
    unsigned long after = 0;
    if (!settings.get(kKeyScriptedCheck, &text) ||
        sscanf(text.c_str(), "%x %lu %x %x %x", &opcode, &after, &key, &asc, &ascq) != 5) {
        return false;
    }
    check->opcode = static_cast<uint8_t>(opcode);
    check->after = static_cast<uint32_t>(after);
    check->senseKey = static_cast<uint8_t>(key);
    check->asc = static_cast<uint8_t>(asc);
    check->ascq = static_cast<uint8_t>(ascq);
    return true;
}

void storeScriptedCheck(DriveSettings &settings, const ScriptedCheck &check) {
    char text[64];
    snprintf(text, sizeof text, "%02X %u %02X %02X %02X", check.opcode, check.after, check.senseKey, check.asc,
             check.ascq);
    settings.set(kKeyScriptedCheck, text);
}

void clearScriptedCheck(DriveSettings &settings) {
    settings.set(kKeyScriptedCheck, "");
}

bool takeScriptedCheck(DriveSettings &settings, uint8_t opcode, ScsiResult *result) {
    ScriptedCheck check;
    if (!loadScriptedCheck(settings, &check) || check.opcode != opcode) {
        return false;
    }
    if (check.after > 0) {
        check.after--;
        storeScriptedCheck(settings, check);
        return false;
    }
    clearScriptedCheck(settings);
    *result = checkCondition(check.senseKey, check.asc, check.ascq);
    return true;
}

std::string describeDriveConditions(DriveSettings &settings) {
    DriveCounters c = newDriveCounters();
    readCounters(settings, &c);
    char text[160];
    snprintf(text, sizeof text, "%u C, 12 V at 1%u.%u V", c.temperature, c.voltage >> 4, c.voltage & 0x0F);
    std::string line = text;
    if (c.smartAsc != 0 || c.smartAscq != 0) {
        snprintf(text, sizeof text, ", SMART trip %02X/%02X", c.smartAsc, c.smartAscq);
        line += text;
    }
    ScriptedCheck check;
    if (loadScriptedCheck(settings, &check)) {
        snprintf(text, sizeof text, ", check condition %02X/%02X/%02X for opcode %02X after %u more", check.senseKey,
                 check.asc, check.ascq, check.opcode, check.after);
        line += text;
    }
    return line;
}

} // namespace kelsim
