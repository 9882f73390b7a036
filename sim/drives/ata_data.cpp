// The 512-byte data structures of the simulated ATA device: IDENTIFY DEVICE, SMART data
// and the general-purpose logs, each laid out word by word as an ATA drive returns them.
#include "ata_data.h"

#include "byte_order.h"
#include "scsi_pages.h"

#include <algorithm>

namespace kelsim {
namespace {

void putWord(AtaSector &sector, unsigned word, uint16_t value) {
    kelsim::putWord(sector.data(), word, value);
}

// Structures that end in a checksum byte: the 512 bytes must add up to 0.
void sealWithChecksum(AtaSector &sector) {
    uint8_t sum = 0;
    for (unsigned i = 0; i + 1 < sector.size(); ++i) {
        sum = static_cast<uint8_t>(sum + sector[i]);
    }
    sector[511] = static_cast<uint8_t>(0x100 - sum);
}

// Words 1, 3, 6 and 54-58: the legacy geometry every drive still reports.
constexpr uint16_t kCylinders = 16383, kHeads = 16, kSectorsPerTrack = 63;
constexpr uint64_t kMax28BitBlocks = 0x0FFFFFFF;

} // namespace

void putAtaString(uint8_t *sector, unsigned firstWord, unsigned wordCount, std::string_view text) {
    for (unsigned i = 0; i < 2 * wordCount; ++i) {
        uint8_t character = i < text.size() ? static_cast<uint8_t>(text[i]) : ' ';
        // The first character of each pair goes into the high byte of the little-endian word.
        sector[2 * firstWord + (i ^ 1)] = character;
    }
}

AtaSector buildIdentifyData(const DriveIdentity &identity, const IdentifyState &state) {
    AtaSector data{};
    putWord(data, 0, 0x0040); // fixed ATA device
    putWord(data, 1, kCylinders);
    putWord(data, 3, kHeads);
    putWord(data, 6, kSectorsPerTrack);
    putAtaString(data.data(), 10, 10, identity.serial);
    putAtaString(data.data(), 23, 4, identity.revision);
    putAtaString(data.data(), 27, 20, identity.product);
    putWord(data, 47, 0x8000); // no READ/WRITE MULTIPLE
    putWord(data, 49, 0x0F00); // LBA and DMA supported, IORDY
    putWord(data, 50, 0x4000);
    putWord(data, 53, 0x0007); // words 54-58, 64-70 and 88 are valid
    putWord(data, 54, kCylinders);
    putWord(data, 55, kHeads);
    putWord(data, 56, kSectorsPerTrack);
    uint32_t chsBlocks = uint32_t{kCylinders} * kHeads * kSectorsPerTrack;
    putWord(data, 57, static_cast<uint16_t>(chsBlocks));
    putWord(data, 58, static_cast<uint16_t>(chsBlocks >> 16));
    putWord(data, 59, 0x0000); // no multiple-sector setting
    uint32_t blocks28 = static_cast<uint32_t>(std::min(state.userBlocks, kMax28BitBlocks));
    putWord(data, 60, static_cast<uint16_t>(blocks28));
    putWord(data, 61, static_cast<uint16_t>(blocks28 >> 16));
    putWord(data, 63, 0x0007);
    putWord(data, 64, 0x0003);
    for (unsigned word = 65; word <= 68; ++word) {
        putWord(data, word, 120);
    }
    putWord(data, 75, 0x0000); // no queued commands
    putWord(data, 76, 0x000E); // SATA 1.5, 3.0 and 6.0 Gb/s; no NCQ
    putWord(data, 80, 0x03F0); // major versions up to the second command set revision
    // Words 82-87: supported and enabled command sets (NOP, host protected area, look-ahead,
    // write cache, power management, SMART; 48-bit addressing, cache flushes; SMART error
    // logging, general-purpose logs and the world wide name). No READ/WRITE BUFFER and no
    // SMART self-test.
    putWord(data, 82, 0x4469);
    putWord(data, 83, 0x7400);
    putWord(data, 84, 0x4121);
    uint16_t enabled = 0x4408;
    enabled |= state.readLookAheadEnabled ? 0x0040 : 0;
    enabled |= state.writeCacheEnabled ? 0x0020 : 0;
    enabled |= state.smartEnabled ? 0x0001 : 0;
    putWord(data, 85, enabled);
    putWord(data, 86, 0xB400);
    putWord(data, 87, 0x4121);
    putWord(data, 88, 0x407F); // Ultra DMA modes 0-6, mode 6 selected
    for (unsigned i = 0; i < 4; ++i) {
        putWord(data, 100 + i, static_cast<uint16_t>(state.userBlocks >> (16 * i)));
    }
    putWord(data, 106, 0x4000); // one 512-byte logical sector per physical sector
    const uint64_t worldWideName = naaIdentifier(identity.vendor + identity.product + identity.serial);
    for (unsigned i = 0; i < 4; ++i) {
        putWord(data, 108 + i, static_cast<uint16_t>(worldWideName >> (48 - 16 * i))); // NAA first
    }
    uint16_t extendedCommands = 0x4000 | (identity.writeUncorrectableSupported ? 0x0004 : 0);
    putWord(data, 119, extendedCommands);
    putWord(data, 120, extendedCommands);
    putWord(data, 217, 7200); // nominal media rotation rate
    data[510] = 0xA5;         // integrity word: signature, then the checksum byte
    sealWithChecksum(data);
    return data;
}

namespace {

// One SMART attribute: its flags, normalised values and threshold (0: never trips).
struct SmartAttribute {
    uint8_t id;
    uint16_t flags;
    uint8_t current, worst, threshold;
};

// Attribute 0xC5 (current pending sectors) carries the count of unreadable blocks as raw value.
constexpr uint8_t kPendingSectors = 0xC5;
constexpr SmartAttribute kSmartAttributes[] = {
    {0x01, 0x000F, 100, 100, 44},
    {0x03, 0x0003, 100, 100, 0},
    {0x05, 0x0033, 100, 100, 10},
    {0x09, 0x0032, 99, 99, 0},
    {0x0C, 0x0032, 100, 100, 0},
    {0xC2, 0x0022, 64, 55, 0},
    {kPendingSectors, 0x0032, 100, 100, 0},
    {0xC6, 0x0030, 100, 100, 0},
    {0xC7, 0x003E, 200, 200, 0},
};
constexpr uint16_t kSmartRevision = 0x0010;
constexpr unsigned kSmartEntrySize = 12;

uint64_t attributeRaw(uint8_t id, uint64_t pendingBlocks) {
    switch (id) {
    case 0x09:
        return 1234; // power-on hours
    case 0x0C:
        return 12; // power cycles
    case 0xC2:
        return 36; // temperature, Celsius
    case kPendingSectors:
        return std::min<uint64_t>(pendingBlocks, UINT32_MAX);
    default:
        return 0;
    }
}

} // namespace

AtaSector buildSmartData(uint64_t pendingBlocks) {
    AtaSector data{};
    putWord(data, 0, kSmartRevision);
    unsigned offset = 2;
    for (const SmartAttribute &attribute : kSmartAttributes) {
        data[offset] = attribute.id;
        putLe(&data[offset + 1], 2, attribute.flags);
        data[offset + 3] = attribute.current;
        data[offset + 4] = attribute.worst;
        putLe(&data[offset + 5], 6, attributeRaw(attribute.id, pendingBlocks));
        offset += kSmartEntrySize;
    }
    data[362] = 0x82; // off-line data collection completed
    data[364] = 0x50; // off-line collection time, seconds
    data[367] = 0x00; // no off-line collection and no self-tests to start
    data[368] = 0x03;
    data[370] = 0x01; // error logging
    sealWithChecksum(data);
    return data;
}

AtaSector buildSmartThresholds() {
    AtaSector data{};
    putWord(data, 0, kSmartRevision);
    unsigned offset = 2;
    for (const SmartAttribute &attribute : kSmartAttributes) {
        data[offset] = attribute.id;
        data[offset + 1] = attribute.threshold;
        offset += kSmartEntrySize;
    }
    sealWithChecksum(data);
    return data;
}

bool smartThresholdExceeded() {
    for (const SmartAttribute &attribute : kSmartAttributes) {
        if (attribute.threshold != 0 && attribute.current <= attribute.threshold) {
            return true;
        }
    }
    return false;
}

namespace {

constexpr uint8_t kLogDirectory = 0x00, kComprehensiveErrorLog = 0x03, kDeviceStatistics = 0x04, kSelfTestLog = 0x07;

uint16_t logPageCount(uint8_t logAddress) {
    switch (logAddress) {
    case kLogDirectory:
    case kComprehensiveErrorLog:
    case kSelfTestLog:
        return 1;
    case kDeviceStatistics:
        return 2;
    default:
        return 0;
    }
}

void putStatisticsHeader(AtaSector &page, uint8_t pageNumber) {
    putWord(page, 0, 0x0001);
    page[2] = pageNumber;
}

// A device statistic: supported and valid flags in the top bits, the value below.
uint64_t statistic(uint64_t value) {
    return (uint64_t{0xC0} << 56) | value;
}

} // namespace

bool buildSmartLogPage(uint8_t logAddress, uint16_t page, AtaSector *out) {
    constexpr uint8_t kSmartLogDirectory = 0x00, kSummaryErrorLog = 0x01;
    AtaSector data{};
    switch (logAddress) {
    case kSmartLogDirectory:
        if (page != 0) {
            return false;
        }
        putWord(data, 0, 0x0001); // SMART logging version
        putWord(data, kSummaryErrorLog, 1);
        putWord(data, kDeviceStatistics, logPageCount(kDeviceStatistics));
        break;
    case kSummaryErrorLog:
        if (page != 0) {
            return false;
        }
        data[0] = 0x01; // version; no error recorded (index 0, device error count 0)
        sealWithChecksum(data);
        break;
    case kDeviceStatistics:
        return buildLogPage(logAddress, page, out);
    default:
        return false;
    }
    *out = data;
    return true;
}

bool buildLogPage(uint8_t logAddress, uint16_t page, AtaSector *out) {
    if (page >= logPageCount(logAddress)) {
        return false;
    }
    AtaSector data{};
    switch (logAddress) {
    case kLogDirectory:
        putWord(data, 0, 0x0001); // general purpose logging version
        for (unsigned log = 1; log < 256; ++log) {
            putWord(data, log, logPageCount(static_cast<uint8_t>(log)));
        }
        break;
    case kComprehensiveErrorLog:
    case kSelfTestLog:
        data[0] = 0x01; // version; no entries yet
        sealWithChecksum(data);
        break;
    case kDeviceStatistics:
        putStatisticsHeader(data, static_cast<uint8_t>(page));
        if (page == 0) {
            data[8] = 2; // the list of pages: this one and the general statistics
            data[9] = 0x00;
            data[10] = 0x01;
        } else {
            putLe(&data[8], 8, statistic(12));     // power-on resets
            putLe(&data[16], 8, statistic(1234));  // power-on hours
            putLe(&data[24], 8, statistic(81920)); // logical sectors written
            putLe(&data[32], 8, statistic(640));   // write commands
            putLe(&data[40], 8, statistic(163840));
            putLe(&data[48], 8, statistic(1280));
        }
        break;
    }
    *out = data;
    return true;
}

} // namespace kelsim
