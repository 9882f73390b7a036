// The SAS drive's log pages: the supported-pages lists, temperature (0x0D), informational
// exceptions (0x2F), the error history (0x31) and the SMART counters (0x32) built from
// what the drive has been through (sas_life), the last in the layout its family shares
// with the log-sense report; LOG SENSE and LOG SELECT. Also the bookkeeping every command
// leaves in that life: counters and the error history.
#include "layouts/smart_log_layouts.h"
#include "sas_drive_internal.h"
#include "sas_life.h"

#include <algorithm>
#include <cstring>

namespace kelsim {
namespace sas {
namespace {

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

const kellayouts::SmartLayout &layoutOf(const DriveIdentity &identity) {
    const std::string family = identity.product.size() >= 7 ? identity.product.substr(4, 3) : "";
    for (const kellayouts::SmartLayout *layout : kellayouts::kSmartLayouts) {
        if (family == layout->family) {
            return *layout;
        }
    }
    return kellayouts::kLayout073; // a model of no known family keeps the plainest page
}

bool isReadOpcode(uint8_t opcode) {
    return opcode == 0x08 || opcode == 0x28 || opcode == 0x88 || opcode == 0xA8;
}

bool isWriteOpcode(uint8_t opcode) {
    return opcode == 0x0A || opcode == 0x2A || opcode == 0x8A || opcode == 0xAA || opcode == 0x2E || opcode == 0x8E;
}

} // namespace

// Page 0x31, the check conditions the drive raised, newest first: 171 entries of 80 bytes,
// each a log parameter whose code is the entry number. In an entry: 8..11 accumulated
// operating time in seconds, 12..15 power-on time in minutes, 18 sense key, 19..22 LBA,
// 28/29 ASC/ASCQ, 64..79 the failing CDB. A new drive's page (defaults) is empty.
std::vector<uint8_t> SasDrive::errorHistoryPage(bool asNew) {
    constexpr size_t kEntrySize = 80;
    const std::vector<ErrorRecord> history = asNew ? std::vector<ErrorRecord>{} : loadErrorHistory(settings_);
    LogPageWriter writer(0x31);
    for (size_t n = 0; n < kErrorHistoryEntries; ++n) {
        uint8_t *entry = writer.block(static_cast<uint16_t>(n + 1), kEntrySize);
        if (n >= history.size()) {
            continue;
        }
        const ErrorRecord &record = history[n];
        putBe(&entry[8], 4, record.seconds);
        putBe(&entry[12], 4, record.seconds / 60);
        entry[18] = record.senseKey;
        putBe(&entry[19], 4, record.lba);
        entry[28] = record.asc;
        entry[29] = record.ascq;
        std::memcpy(&entry[64], record.cdb, sizeof record.cdb);
    }
    return writer.finish();
}

// Page 0x32, the SMART counters, block by block as the family's layout lays them out.
std::vector<uint8_t> SasDrive::smartPage(bool asNew) {
    const DriveCounters counters = asNew ? newDriveCounters() : loadDriveCounters(settings_);
    const kellayouts::SmartLayout &layout = layoutOf(identity_);
    LogPageWriter writer(0x32);
    for (size_t b = 0; b < layout.blockCount; ++b) {
        const kellayouts::SmartBlock &block = layout.blocks[b];
        uint8_t *bytes = writer.block(static_cast<uint16_t>(b), block.length);
        for (size_t f = 0; f < block.fieldCount; ++f) {
            const kellayouts::SmartField &field = block.fields[f];
            const int width = static_cast<int>(kellayouts::widthOf(field.format));
            const uint64_t largest = (uint64_t{1} << (8 * width)) - 1;
            putBe(&bytes[field.offset], width,
                  std::min<uint64_t>(counterFor(counters, field.quantity, field.head), largest));
        }
    }
    return writer.finish();
}

// Page 0x0D: the temperature now and the highest the drive is made for, in Celsius.
std::vector<uint8_t> SasDrive::temperaturePage(bool asNew) {
    constexpr uint8_t kReferenceTemperature = 60;
    const DriveCounters counters = asNew ? newDriveCounters() : loadDriveCounters(settings_);
    LogPageWriter writer(0x0D);
    writer.block(0x0000, 6)[5] = static_cast<uint8_t>(std::min<uint32_t>(counters.temperature, 0xFE));
    writer.block(0x0001, 6)[5] = kReferenceTemperature;
    return writer.finish();
}

// Page 0x2F: the SMART trip set on the drive (ASC and ASCQ, 0 when none) and the temperature.
std::vector<uint8_t> SasDrive::informationalExceptionsPage(bool asNew) {
    const DriveCounters counters = asNew ? newDriveCounters() : loadDriveCounters(settings_);
    LogPageWriter writer(0x2F);
    uint8_t *parameter = writer.block(0x0000, 8);
    parameter[4] = static_cast<uint8_t>(counters.smartAsc);
    parameter[5] = static_cast<uint8_t>(counters.smartAscq);
    parameter[6] = static_cast<uint8_t>(std::min<uint32_t>(counters.temperature, 0xFE));
    return writer.finish();
}

std::vector<uint8_t> SasDrive::logPage(uint8_t code, bool asNew) {
    switch (code) {
    case 0x00:
        return {0x00, 0x00, 0x00, 0x05, 0x00, 0x0D, 0x2F, 0x31, 0x32};
    case 0x0D:
        return temperaturePage(asNew);
    case 0x2F:
        return informationalExceptionsPage(asNew);
    case 0x31:
        return errorHistoryPage(asNew);
    case 0x32:
        return smartPage(asNew);
    default:
        return {};
    }
}

// What a finished command leaves in the drive's life: the blocks it moved and the errors
// it met on their heads, and every check condition in the error history.
void SasDrive::recordInLife(const ScsiCommand &command, const ScsiResult &result) {
    uint8_t cdb[16] = {};
    std::memcpy(cdb, command.cdb, std::min<size_t>(command.cdbLength, sizeof cdb));
    const bool reads = isReadOpcode(cdb[0]), writes = isWriteOpcode(cdb[0]);
    const BlockRange range = reads || writes ? decodeBlockRange(cdb) : BlockRange{0, 0, 0};
    if ((reads || writes) && result.transferred >= kBlockSize) {
        countTransfer(settings_, identity_, writes, range.lba, result.transferred / kBlockSize);
    }
    if (!result.checkCondition) {
        return;
    }
    if ((reads || writes) && (result.sense[2] & 0x0F) == sense::kMediumError) {
        const uint64_t badLba = (result.sense[0] & 0x80) ? getBe(&result.sense[3], 4) : range.lba;
        countMediumError(settings_, identity_, writes, badLba);
    }
    recordCheckCondition(settings_, cdb, command.cdbLength, range.lba, result);
}

ScsiResult SasDrive::logSense(const Request &request) {
    const uint8_t *cdb = request.cdb;
    if (cdb[1] & 0x02) {
        return invalidFieldInCdb(1, 1); // PPC
    }
    if (cdb[1] & 0x01) {
        return invalidFieldInCdb(1, 0); // SP: log parameters are not saved
    }
    if (cdb[3] == 0xFF && (cdb[2] & 0x3F) == 0x00 && getBe(&cdb[5], 2) == 0) {
        // Supported pages and subpages: every page has only its subpage 0, and this list is 0x00/0xFF.
        const std::vector<uint8_t> pages = logPage(0x00, false);
        std::vector<uint8_t> list = {0x40, 0xFF, 0x00, 0x00};
        for (size_t i = 4; i < pages.size(); ++i) {
            list.insert(list.end(), {pages[i], 0x00});
            if (pages[i] == 0x00) {
                list.insert(list.end(), {0x00, 0xFF});
            }
        }
        putBe(&list[2], 2, list.size() - 4);
        return sendData(request.command, list, getBe(&cdb[7], 2));
    }
    if (cdb[3] != 0) {
        return invalidFieldInCdb(3); // no subpages
    }
    // Page control: the drive keeps no thresholds apart from its counters, so threshold
    // values (0) are the current ones like cumulative values (1); the defaults (2 and 3)
    // are what a new drive shows.
    const int pageControl = cdb[2] >> 6;
    std::vector<uint8_t> page = logPage(cdb[2] & 0x3F, pageControl >= 2);
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
