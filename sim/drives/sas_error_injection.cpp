// The SAS drive's vendor error injection: what the drive makes of mode page 0x22, in its
// 28-byte and 32-byte forms, and the block commands it then fails as the page says. The
// page's layout is the one kelpth packs with N and N5 (layouts/error_injection_layouts.h);
// the meaning of each field is this drive's own (sim/README.md).
#include "layouts/error_injection_layouts.h"
#include "sas_drive_internal.h"

#include "text_fields.h"
#include <cstdio>
#include <cstdlib>

namespace kelsim {
namespace sas {
namespace {

using kellayouts::InjectionLayout;

// Each meaning is a value line of the N (28-byte) or N5 (32-byte) file.
struct InjectionMeaning {
    int enable;   // bit 0: injection on
    int asc;      // additional sense code
    int commands; // bit 0 reads, bit 1 verifies, bit 2 writes
    int firstLba;
    int lbaCount;
    int ascq;
    int senseKey; // bits 2..0
    int fires;    // how many commands fail; 0: every one, until the page is turned off
};
constexpr InjectionMeaning kMeaning28{4, 8, 9, 10, 11, 13, 17, 18};
constexpr InjectionMeaning kMeaning32{4, 7, 8, 9, 10, 12, 15, 17};

constexpr const char *kKeyInjectionFired = "inject.fired"; // commands failed since the page was set
constexpr uint8_t kReads = 0x01, kVerifies = 0x02, kWrites = 0x04;

// A field of the page (page code first) by its value line: its bytes, most significant
// first, divided by the multiplier it was packed with.
uint64_t fieldOf(const InjectionLayout &layout, int valueNo, const std::vector<uint8_t> &page) {
    const kellayouts::InjectionField &field = layout.fields[valueNo - kellayouts::kFirstPageValue];
    const size_t at = field.offset - kellayouts::kModeHeaderBytes;
    if (at + field.width > page.size()) {
        return 0;
    }
    return getBe(&page[at], field.width) / field.multiplier;
}

// Which kind of block command an opcode is (0: not one the injection looks at).
uint8_t commandKind(uint8_t opcode) {
    switch (opcode) {
    case 0x08:
    case 0x28:
    case 0x88:
    case 0xA8:
        return kReads;
    case 0x2F:
    case 0x8F:
    case 0xAF:
        return kVerifies;
    case 0x0A:
    case 0x2A:
    case 0x2E:
    case 0x8A:
    case 0x8E:
    case 0xAA:
        return kWrites;
    default:
        return 0;
    }
}

struct Injection {
    bool enabled = false;
    uint8_t commands = 0, senseKey = 0, asc = 0, ascq = 0;
    uint64_t firstLba = 0, lbaCount = 0, fires = 0;
};

Injection decodeInjection(const std::vector<uint8_t> &page) {
    const bool longForm = page.size() == size_t{kellayouts::kPage32.pageLength} + 2;
    const InjectionLayout &layout = longForm ? kellayouts::kPage32 : kellayouts::kPage28;
    const InjectionMeaning &meaning = longForm ? kMeaning32 : kMeaning28;
    Injection injection;
    injection.enabled = (fieldOf(layout, meaning.enable, page) & 0x01) != 0;
    injection.commands = static_cast<uint8_t>(fieldOf(layout, meaning.commands, page));
    injection.senseKey = static_cast<uint8_t>(fieldOf(layout, meaning.senseKey, page) & 0x07);
    injection.asc = static_cast<uint8_t>(fieldOf(layout, meaning.asc, page));
    injection.ascq = static_cast<uint8_t>(fieldOf(layout, meaning.ascq, page));
    injection.firstLba = fieldOf(layout, meaning.firstLba, page);
    injection.lbaCount = fieldOf(layout, meaning.lbaCount, page);
    injection.fires = fieldOf(layout, meaning.fires, page);
    return injection;
}

uint64_t firedSoFar(DriveSettings &settings) {
    std::string text;
    return settings.get(kKeyInjectionFired, &text) ? std::strtoull(text.c_str(), nullptr, 10) : 0;
}

} // namespace

bool SasDrive::injectedError(const uint8_t *cdb, ScsiResult *result) {
    const uint8_t kind = commandKind(cdb[0]);
    if (kind == 0) {
        return false;
    }
    const Injection injection = decodeInjection(currentInjectionPage());
    if (!injection.enabled || (injection.commands & kind) == 0) {
        return false;
    }
    const BlockRange range = decodeBlockRange(cdb);
    const uint64_t last = injection.firstLba + injection.lbaCount; // exclusive
    const uint64_t hit = std::max(range.lba, injection.firstLba);
    if (range.count == 0 || hit >= last || hit >= range.lba + range.count) {
        return false;
    }
    const uint64_t fired = firedSoFar(settings_);
    if (injection.fires != 0 && fired >= injection.fires) {
        return false;
    }
    settings_.set(kKeyInjectionFired, std::to_string(fired + 1));
    *result = checkCondition(injection.senseKey, injection.asc, injection.ascq);
    if (hit <= 0xFFFFFFFFULL) {
        setInformation(result, static_cast<uint32_t>(hit));
    }
    return true;
}

void SasDrive::injectionPageChanged() {
    settings_.set(kKeyInjectionFired, "0");
}

} // namespace sas

std::string sasInjectionSummary(DriveSettings &settings) {
    std::string text;
    std::vector<uint8_t> page;
    if (!settings.get("mode.22.current", &text) || !fromHex(text, &page) || page.size() < 2) {
        return "";
    }
    const sas::Injection injection = sas::decodeInjection(page);
    if (!injection.enabled) {
        return "";
    }
    char summary[160];
    std::snprintf(summary, sizeof summary, "page 0x22: %s%s%s blocks 0x%llX+%llu fail %X/%02X/%02X, %llu of %s fired",
                  injection.commands & sas::kReads ? "read " : "", injection.commands & sas::kVerifies ? "verify " : "",
                  injection.commands & sas::kWrites ? "write" : "", static_cast<unsigned long long>(injection.firstLba),
                  static_cast<unsigned long long>(injection.lbaCount), injection.senseKey, injection.asc,
                  injection.ascq, static_cast<unsigned long long>(sas::firedSoFar(settings)),
                  injection.fires == 0 ? "unlimited" : std::to_string(injection.fires).c_str());
    return summary;
}

} // namespace kelsim
