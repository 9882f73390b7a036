// The MQX5108's vendor error injection: what the drive makes of the 512-byte structure
// the vendor command 0xFE leaves (kept by vendorErrorInjection), and the read, write and
// verify commands it then fails as a drive with that fault does (sim/README.md).
#include "ata_device_internal.h"
#include "byte_order.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace kelsim {
namespace {

constexpr const char *kInjectionFiredKey = "ata.errorInjection.fired";
// Structure bytes (16-bit fields little endian, 32-bit ones as two halves, low first).
constexpr size_t kFlagsByte = 2, kErrorTypeByte = 3, kFiresWord = 6, kFirstLbaLong = 10, kLbaCountLong = 14;
constexpr uint8_t kEnabled = 0x01, kReads = 0x02, kWrites = 0x04, kVerifies = 0x08;
enum ErrorType : uint8_t { kCommandTimeOut, kDeviceCheck, kIdNotFound, kAddressMarkNotFound, kInterfaceCrc, kEcc };
constexpr uint8_t kStatusDeviceFault = 0x20;

uint8_t commandKind(uint8_t command) {
    switch (command) {
    case 0x20:
    case 0x24:
    case 0x25:
    case 0xC8:
        return kReads;
    case 0x30:
    case 0x34:
    case 0x35:
    case 0xCA:
        return kWrites;
    case 0x40:
    case 0x42:
        return kVerifies;
    default:
        return 0;
    }
}

bool extendedCommand(uint8_t command) {
    return command == 0x24 || command == 0x25 || command == 0x34 || command == 0x35 || command == 0x42;
}

} // namespace

bool AtaDevice::injectedError(const AtaCommandBlock &registers, AtaCompletion *completion) {
    const uint8_t kind = commandKind(registers.command);
    AtaSector structure{};
    if (kind == 0 || !sataErrorInjectionData(settings_, &structure)) {
        return false;
    }
    const uint8_t flags = structure[kFlagsByte];
    if ((flags & kEnabled) == 0 || (flags & kind) == 0) {
        return false;
    }
    const BlockRange range = blockRange(registers, extendedCommand(registers.command));
    const uint64_t first = getLe(&structure[kFirstLbaLong], 4);
    const uint64_t last = first + getLe(&structure[kLbaCountLong], 4); // exclusive
    const uint64_t hit = std::max(range.lba, first);
    if (hit >= last || hit >= range.lba + range.count) {
        return false;
    }
    const uint64_t fires = getLe(&structure[kFiresWord], 2);
    std::string text;
    const uint64_t fired = settings_.get(kInjectionFiredKey, &text) ? std::strtoull(text.c_str(), nullptr, 10) : 0;
    if (fires != 0 && fired >= fires) {
        return false;
    }
    settings_.set(kInjectionFiredKey, std::to_string(fired + 1));
    switch (structure[kErrorTypeByte]) {
    case kCommandTimeOut:
        *completion = AtaCompletion{};
        completion->timedOut = true;
        return true;
    case kDeviceCheck:
        *completion = failed(ata::kErrorAbort, hit);
        completion->status |= kStatusDeviceFault;
        return true;
    case kIdNotFound:
        *completion = failed(ata::kErrorIdNotFound, hit);
        return true;
    case kAddressMarkNotFound:
        *completion = failed(ata::kErrorAddressMarkNotFound, hit);
        return true;
    case kInterfaceCrc:
        *completion = failed(ata::kErrorInterfaceCrc | ata::kErrorAbort, hit);
        return true;
    case kEcc:
        *completion = failed(ata::kErrorUncorrectable, hit);
        return true;
    default:
        return false;
    }
}

std::string sataInjectionSummary(DriveSettings &settings) {
    AtaSector structure{};
    if (!sataErrorInjectionData(settings, &structure) || (structure[kFlagsByte] & kEnabled) == 0) {
        return "";
    }
    static const char *const kTypeNames[] = {"CTO", "DCE", "IDNF", "AMNF", "CRC", "ECC"};
    const uint8_t type = structure[kErrorTypeByte];
    const uint8_t flags = structure[kFlagsByte];
    std::string text;
    const uint64_t fired = settings.get(kInjectionFiredKey, &text) ? std::strtoull(text.c_str(), nullptr, 10) : 0;
    const uint64_t fires = getLe(&structure[kFiresWord], 2);
    char summary[160];
    std::snprintf(summary, sizeof summary, "command 0xFE: %s%s%s blocks 0x%llX+%llu fail %s, %llu of %s fired",
                  flags & kReads ? "read " : "", flags & kVerifies ? "verify " : "", flags & kWrites ? "write" : "",
                  static_cast<unsigned long long>(getLe(&structure[kFirstLbaLong], 4)),
                  static_cast<unsigned long long>(getLe(&structure[kLbaCountLong], 4)),
                  type < 6 ? kTypeNames[type] : "nothing", static_cast<unsigned long long>(fired),
                  fires == 0 ? "unlimited" : std::to_string(fires).c_str());
    return summary;
}

void AtaDevice::injectionStructureChanged() {
    settings_.set(kInjectionFiredKey, "0");
}

} // namespace kelsim
