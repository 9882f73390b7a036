// The SAS drive's log pages: the supported-pages list, the error history (0x31) and the
// SMART counters (0x32), generated per drive from its serial number; LOG SENSE and LOG SELECT.
#include "sas_drive_internal.h"

#include <algorithm>

namespace kelsim {
namespace sas {
namespace {

// A small deterministic generator, so that each drive's logs look like its own.
class Plausible {
  public:
    explicit Plausible(uint64_t seed) : state_(seed | 1) {}
    uint32_t next(uint32_t low, uint32_t high) { // in [low, high]
        state_ ^= state_ << 13;
        state_ ^= state_ >> 7;
        state_ ^= state_ << 17;
        return low + static_cast<uint32_t>(state_ % (uint64_t{high} - low + 1));
    }

  private:
    uint64_t state_;
};

// Log parameters are appended as blocks: parameter code, control byte, parameter length.
class LogPageWriter {
  public:
    explicit LogPageWriter(uint8_t pageCode) : page_(4, 0) { page_[0] = pageCode; }
    uint8_t *block(uint16_t code, size_t length) { // length includes the 4-byte parameter header
        size_t offset = page_.size();
        page_.resize(offset + length, 0);
        putBe(&page_[offset], 2, code);
        page_[offset + 2] = 0x03; // binary list
        page_[offset + 3] = static_cast<uint8_t>(length - 4);
        return &page_[offset];
    }
    std::vector<uint8_t> finish() {
        putBe(&page_[2], 2, page_.size() - 4);
        return page_;
    }

  private:
    std::vector<uint8_t> page_;
};

} // namespace

// Page 0x31, the drive's history of errors it reported: 171 entries of 80 bytes, each a log
// parameter whose code is the entry number. In an entry: 8..11 accumulated operating time in
// seconds, 12..15 power-on time in minutes, 18 sense key, 19..22 LBA, 28/29 ASC/ASCQ,
// 64..79 the failing CDB.
std::vector<uint8_t> SasDrive::errorHistoryPage() {
    constexpr int kEntries = 171;
    constexpr size_t kEntrySize = 80;
    struct Event {
        uint8_t senseKey, asc, ascq, opcode;
    };
    static const Event kEvents[] = {
        {0x03, 0x11, 0x00, 0x28}, // unrecovered read error
        {0x01, 0x17, 0x01, 0x28}, // recovered with retries
        {0x01, 0x18, 0x02, 0x28}, // recovered with ECC, reallocated
        {0x03, 0x0C, 0x02, 0x2A}, // write error, reallocation failed
        {0x04, 0x44, 0x00, 0x2A}, // internal target failure
        {0x01, 0x5D, 0x00, 0x00}, // failure prediction threshold exceeded
    };
    Plausible plausible(fnv1a64(identity_.serial + "errlog"));
    int filled = static_cast<int>(plausible.next(3, 6));
    uint32_t seconds = plausible.next(3600, 90000);
    LogPageWriter writer(0x31);
    for (int entry = 1; entry <= kEntries; ++entry) {
        uint8_t *block = writer.block(static_cast<uint16_t>(entry), kEntrySize);
        if (entry > filled) {
            continue;
        }
        const Event &event = kEvents[plausible.next(0, 5)];
        seconds += plausible.next(600, 400000);
        uint32_t lba =
            static_cast<uint32_t>(plausible.next(0, 0x7FFFFFFF) % std::max<uint64_t>(identity_.nativeBlocks, 1));
        putBe(&block[8], 4, seconds);
        putBe(&block[12], 4, seconds / 60 + plausible.next(0, 3000));
        block[18] = event.senseKey;
        putBe(&block[19], 4, event.opcode == 0x00 ? 0 : lba);
        block[28] = event.asc;
        block[29] = event.ascq;
        block[64] = event.opcode;
        if (event.opcode != 0x00) {
            putBe(&block[66], 4, lba);
            block[71] = 0x01;
        }
    }
    return writer.finish();
}

// Page 0x32, SMART counters. The layout depends on the product family (characters 5..7 of
// the product identification). Every family has, from offset 4: power-on time (8 bytes:
// minutes at 4), then read, write and seek groups, then spare sectors (6: count at 4),
// spin-up (14: current, previous and longest seconds at 6, 7, 8, minutes at 10), start/stop
// (8: count at 6), temperature (18: current at 4, highest at 6, minutes at 8), voltage (18:
// current at 4, highest at 6 and its minutes at 8, lowest at 12 and its minutes at 14, each
// 0xAB meaning 1A.B V) and SMART trip (12: ASC 6, ASCQ 7, minutes at 8). Groups:
//   "073" (and unknown families): 44 bytes, head 0: sectors at 10, current errors 14,
//          previous errors 16, worst errors 42; 220 bytes in all.
//   "147", "300": 72 bytes, heads 0..7 at 4 + 8h: sectors (4), current (2), previous (2);
//          worst errors at 68; a closing 4-byte parameter; 308 bytes.
//   "036": 24 bytes, head 0: sectors at 8, current 12, previous 14, worst 22; a closing
//          4-byte parameter; 164 bytes.
std::vector<uint8_t> SasDrive::smartPage() {
    std::string family = identity_.product.size() >= 7 ? identity_.product.substr(4, 3) : "";
    bool eightHeads = family == "147" || family == "300";
    bool small = family == "036";
    Plausible plausible(fnv1a64(identity_.serial + "smart"));
    uint32_t powerOnMinutes = plausible.next(20000, 400000);
    LogPageWriter writer(0x32);
    uint16_t code = 0;

    putBe(&writer.block(code++, 8)[4], 4, powerOnMinutes);
    for (int group = 0; group < 3; ++group) {
        if (eightHeads) {
            uint8_t *block = writer.block(code++, 72);
            for (int head = 0; head < 8; ++head) {
                putBe(&block[4 + 8 * head], 4, plausible.next(1000000, 900000000));
                putBe(&block[8 + 8 * head], 2, plausible.next(0, 3));
                putBe(&block[10 + 8 * head], 2, plausible.next(0, 5));
            }
            putBe(&block[68], 2, plausible.next(5, 20));
        } else {
            size_t size = small ? 24 : 44;
            size_t sectors = small ? 8 : 10, worst = small ? 22 : 42;
            uint8_t *block = writer.block(code++, size);
            putBe(&block[sectors], 4, plausible.next(1000000, 900000000));
            putBe(&block[sectors + 4], 2, plausible.next(0, 3));
            putBe(&block[sectors + 6], 2, plausible.next(0, 5));
            putBe(&block[worst], 2, plausible.next(5, 20));
        }
    }
    putBe(&writer.block(code++, 6)[4], 2, plausible.next(1500, 2000));

    uint8_t *spinUp = writer.block(code++, 14);
    spinUp[6] = static_cast<uint8_t>(plausible.next(5, 9));
    spinUp[7] = static_cast<uint8_t>(plausible.next(5, 9));
    spinUp[8] = static_cast<uint8_t>(std::max(spinUp[6], spinUp[7]) + plausible.next(0, 4));
    putBe(&spinUp[10], 4, plausible.next(0, powerOnMinutes));

    putBe(&writer.block(code++, 8)[6], 2, plausible.next(50, 2000));

    uint8_t *temperature = writer.block(code++, 18);
    temperature[4] = static_cast<uint8_t>(plausible.next(30, 45));
    temperature[6] = static_cast<uint8_t>(temperature[4] + plausible.next(3, 15));
    putBe(&temperature[8], 4, plausible.next(0, powerOnMinutes));

    uint8_t *voltage = writer.block(code++, 18);
    voltage[4] = 0x20;
    voltage[6] = static_cast<uint8_t>(0x21 + plausible.next(0, 3));
    putBe(&voltage[8], 4, plausible.next(0, powerOnMinutes));
    voltage[12] = static_cast<uint8_t>(0x17 + plausible.next(0, 2));
    putBe(&voltage[14], 4, plausible.next(0, powerOnMinutes));

    writer.block(code++, 12); // no SMART trip: ASC/ASCQ 0, time 0
    if (eightHeads || small) {
        writer.block(0x00FF, 4);
    }
    return writer.finish();
}

std::vector<uint8_t> SasDrive::logPage(uint8_t code) {
    switch (code) {
    case 0x00:
        return {0x00, 0x00, 0x00, 0x03, 0x00, 0x31, 0x32};
    case 0x31:
        return errorHistoryPage();
    case 0x32:
        return smartPage();
    default:
        return {};
    }
}

ScsiResult SasDrive::logSense(const Request &request) {
    const uint8_t *cdb = request.cdb;
    if (cdb[1] & 0x02) {
        return invalidFieldInCdb(1, 1); // PPC
    }
    if (cdb[1] & 0x01) {
        return invalidFieldInCdb(1, 0); // SP: log parameters are not saved
    }
    if (cdb[3] != 0) {
        return invalidFieldInCdb(3); // no subpages
    }
    std::vector<uint8_t> page = logPage(cdb[2] & 0x3F);
    if (page.empty()) {
        return invalidFieldInCdb(2, 5);
    }
    uint16_t parameterPointer = static_cast<uint16_t>(getBe(&cdb[5], 2));
    if (parameterPointer != 0) {
        // Only the parameters from the pointer's code on; the supported-pages list has none.
        if ((cdb[2] & 0x3F) == 0x00) {
            return invalidFieldInCdb(5);
        }
        std::vector<uint8_t> kept(page.begin(), page.begin() + 4);
        for (size_t offset = 4; offset + 4 <= page.size(); offset += 4 + page[offset + 3]) {
            if (getBe(&page[offset], 2) >= parameterPointer) {
                kept.insert(kept.end(), page.begin() + offset, page.begin() + offset + 4 + page[offset + 3]);
            }
        }
        if (kept.size() == 4) {
            return invalidFieldInCdb(5);
        }
        putBe(&kept[2], 2, kept.size() - 4);
        page.swap(kept);
    }
    return sendData(request.command, page, getBe(&cdb[7], 2));
}

ScsiResult SasDrive::logSelect(const Request &request) {
    // Counters cannot be reset or set by the host; a parameter list is taken and ignored.
    uint32_t length = static_cast<uint32_t>(getBe(&request.cdb[7], 2));
    if (length != 0 && hostData(request.command, length) == nullptr) {
        return invalidFieldInCdb(7);
    }
    ScsiResult result;
    result.transferred = length;
    return result;
}

} // namespace sas
} // namespace kelsim
