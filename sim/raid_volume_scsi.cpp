// The SCSI commands a logical drive answers, as a RAID controller's volume does to the
// host: identity (INQUIRY and its VPD pages, READ CAPACITY), state (TEST UNIT READY,
// REQUEST SENSE, START STOP UNIT), MODE SENSE with the caching and control pages, LOG
// SENSE of the supported pages, and the block commands (READ, WRITE, VERIFY, WRITE SAME,
// SYNCHRONIZE CACHE) over the layout.
#include "raid_volume.h"

#include "byte_order.h"
#include "scsi_pages.h"
#include "text_fields.h"

#include <algorithm>
#include <cstring>

namespace kelsim {
namespace {

constexpr size_t kMinimumCdbLength[] = {6, 10, 10, 10, 16, 12, 0, 0}; // by the opcode's group code
constexpr const char kVendor[] = "ORVANE";
constexpr uint32_t kChunkBlocks = 128; // blocks per pass of VERIFY and WRITE SAME
constexpr uint8_t kDpoFua = 0x10;      // MODE SENSE device-specific parameter

const char *productName(RaidLevel level) {
    switch (level) {
    case RaidLevel::Raid0:
        return "RAID0 VOLUME";
    case RaidLevel::Raid1:
        return "RAID1 VOLUME";
    case RaidLevel::Raid5:
        break;
    }
    return "RAID5 VOLUME";
}

// Caching (the volume writes through to its members: no write cache) and control.
std::vector<uint8_t> modePage(uint8_t code, int pageControl) {
    std::vector<uint8_t> page;
    if (code == 0x08) {
        page.assign(0x14, 0);
        page[0] = 0x08;
        page[1] = 0x12;
    } else {
        page = {0x0A, 0x0A, 0x00, 0x10, 0x00, 0x00, 0x00, 0x00, 0xFF, 0xFF, 0x00, 0x00}; // unrestricted reordering
    }
    if (pageControl == kChangeable) {
        std::fill(page.begin() + 2, page.end(), 0); // nothing can be changed
    }
    return page;
}

struct BlockRange {
    uint64_t lba;
    uint32_t count;
    uint16_t lengthByte; // where the CDB holds the transfer length, for the field pointer
};

BlockRange decodeBlockRange(const uint8_t *cdb) {
    switch (cdb[0] >> 5) { // the command group gives the CDB layout
    case 0:
        return {getBe(&cdb[1], 3) & 0x1FFFFF, cdb[4] == 0 ? 256u : cdb[4], 4}; // 0 means 256 blocks
    case 4:
        return {getBe(&cdb[2], 8), static_cast<uint32_t>(getBe(&cdb[10], 4)), 10};
    default:
        return {getBe(&cdb[2], 4), static_cast<uint32_t>(getBe(&cdb[7], 2)), 7};
    }
}

} // namespace

ScsiResult RaidVolume::execute(const ScsiCommand &command) {
    if (command.cdb == nullptr || command.cdbLength == 0) {
        return invalidFieldInCdb(0);
    }
    if (command.cdbLength < kMinimumCdbLength[command.cdb[0] >> 5]) {
        return invalidFieldInCdb(0);
    }
    // The transport carries a 16-byte CDB field; a shorter command leaves the rest zero.
    uint8_t cdb[16] = {};
    std::memcpy(cdb, command.cdb, std::min(command.cdbLength, sizeof cdb));
    ScsiResult result = dispatch(command, cdb);
    result.transferred = std::min(result.transferred, command.dataLength);
    pendingSense_.keep(result);
    return result;
}

ScsiResult RaidVolume::dispatch(const ScsiCommand &command, const uint8_t *cdb) {
    switch (cdb[0]) {
    case 0x00: // TEST UNIT READY
    case 0x1B: // START STOP UNIT: the members keep spinning
        return ScsiResult{};
    case 0x03:
        return pendingSense_.answer(command, cdb);
    case 0x12:
        return inquiry(command, cdb);
    case 0x1A:
    case 0x5A:
        return modeSense(command, cdb);
    case 0x4D:
        return logSenseOfSupportedPages(command, cdb);
    case 0x25:
        return readCapacity(command, cdb, false);
    case 0x9E:
        if ((cdb[1] & 0x1F) != 0x10) { // only READ CAPACITY(16)
            return invalidFieldInCdb(1, 4);
        }
        return readCapacity(command, cdb, true);
    case 0x08: // READ and WRITE (6, 10, 16)
    case 0x0A:
    case 0x28:
    case 0x2A:
    case 0x88:
    case 0x8A:
    case 0x2F: // VERIFY (10, 16)
    case 0x8F:
    case 0x35: // SYNCHRONIZE CACHE (10, 16)
    case 0x91:
    case 0x41: // WRITE SAME (10, 16)
    case 0x93:
        return blockCommand(command, cdb);
    default:
        return checkCondition(sense::kIllegalRequest, sense::kAscInvalidOpcode, 0);
    }
}

ScsiResult RaidVolume::inquiry(const ScsiCommand &command, const uint8_t *cdb) {
    const uint32_t allocation = static_cast<uint32_t>(getBe(cdb + 3, 2));
    if (cdb[1] & 0x02) {
        return invalidFieldInCdb(1, 1); // CMDDT is obsolete
    }
    if (!(cdb[1] & 0x01)) {
        if (cdb[2] != 0) {
            return invalidFieldInCdb(2);
        }
        std::vector<uint8_t> data(36, 0);
        data[2] = 0x05; // SPC-3
        data[3] = 0x02; // response data format
        data[4] = static_cast<uint8_t>(data.size() - 5);
        data[7] = 0x02; // command queuing
        putText(&data[8], 8, kVendor);
        putText(&data[16], 16, productName(level_));
        putText(&data[32], 4, "1.00");
        return replyData(command, data, allocation);
    }
    std::vector<uint8_t> page;
    switch (cdb[2]) {
    case 0x00:
        page = vpdPage(0x00, {0x00, 0x80, 0x83, 0xB0, 0xB1});
        break;
    case 0x80:
        page = vpdPage(0x80, std::vector<uint8_t>(serial_.begin(), serial_.end()));
        break;
    case 0x83: {
        std::vector<uint8_t> body;
        appendNaaDesignator(&body, naaIdentifier(kVendor + serial_));
        std::string product(16, ' ');
        putText(&product[0], product.size(), productName(level_));
        appendT10VendorDesignator(&body, kVendor, product + serial_);
        page = vpdPage(0x83, body);
        break;
    }
    case 0xB0: {
        // A full stripe is the best transfer, a strip its granularity: file systems align to them.
        const uint64_t dataMembers = level_ == RaidLevel::Raid1   ? 1
                                     : level_ == RaidLevel::Raid5 ? members_.size() - 1
                                                                  : members_.size();
        const uint64_t stripe = dataMembers * stripBlocks_;
        const uint16_t granularity = static_cast<uint16_t>(std::min<uint32_t>(stripBlocks_, 0xFFFF));
        // WRITE SAME is cut like any other transfer, so that zeroing a range takes many short commands.
        page = blockLimitsPage(granularity, stripe <= kMaxTransferBlocks ? static_cast<uint32_t>(stripe) : 0,
                               kMaxTransferBlocks);
        break;
    }
    case 0xB1:
        page = blockCharacteristicsPage(0, 0); // rotation and form factor are the members'
        break;
    default:
        return invalidFieldInCdb(2);
    }
    return replyData(command, page, allocation);
}

ScsiResult RaidVolume::modeSense(const ScsiCommand &command, const uint8_t *cdb) {
    const ModeSenseRequest request = decodeModeSense(cdb);
    if (ScsiResult refusal; modeSenseRefused(request, false, &refusal)) {
        return refusal;
    }
    std::vector<uint8_t> pages;
    for (uint8_t code : {0x08, 0x0A}) {
        if (request.pageCode == 0x3F || request.pageCode == code) {
            const std::vector<uint8_t> page = modePage(code, request.pageControl);
            pages.insert(pages.end(), page.begin(), page.end());
        }
    }
    if (pages.empty()) {
        return invalidFieldInCdb(2, 5);
    }
    std::vector<uint8_t> descriptor;
    if (!request.disableBlockDescriptors) {
        descriptor = request.pageControl == kChangeable ? modeBlockDescriptor(0, 0, request.longLba)
                                                        : modeBlockDescriptor(capacity_, kBlockSize, request.longLba);
    }
    return replyData(command, modeParameterData(request.tenByte, request.longLba, kDpoFua, descriptor, pages),
                     request.allocation);
}

ScsiResult RaidVolume::readCapacity(const ScsiCommand &command, const uint8_t *cdb, bool sixteen) {
    const uint64_t lastLba = capacity_ == 0 ? 0 : capacity_ - 1;
    std::vector<uint8_t> data(sixteen ? 32 : 8, 0);
    if (sixteen) {
        putBe(&data[0], 8, lastLba);
        putBe(&data[8], 4, kBlockSize);
        return replyData(command, data, getBe(&cdb[10], 4));
    }
    putBe(&data[0], 4, std::min<uint64_t>(lastLba, 0xFFFFFFFF)); // too big: READ CAPACITY(16) tells
    putBe(&data[4], 4, kBlockSize);
    return replyData(command, data, data.size());
}

ScsiResult RaidVolume::blockCommand(const ScsiCommand &command, const uint8_t *cdb) {
    const BlockRange range = decodeBlockRange(cdb);
    if ((cdb[0] >> 5) != 0 && (cdb[1] & 0xE0) != 0) {
        return invalidFieldInCdb(1, 7); // RDPROTECT, WRPROTECT, VRPROTECT: no protection information
    }
    switch (cdb[0]) {
    case 0x2F:
    case 0x8F:
        if (cdb[1] & 0x06) {
            return invalidFieldInCdb(1, 2); // BYTCHK: only the medium is verified
        }
        return verify(range.lba, range.count);
    case 0x35:
    case 0x91:
        // A count of 0 reaches to the last block; the volume writes through, nothing is dirty.
        if (range.lba > capacity_ || range.count > capacity_ - range.lba) {
            return checkCondition(sense::kIllegalRequest, sense::kAscLbaOutOfRange, 0);
        }
        return ScsiResult{};
    case 0x41:
    case 0x93:
        if (cdb[1] & 0x18) {
            return invalidFieldInCdb(1, 3); // UNMAP, ANCHOR: the volume is not thin provisioned
        }
        if (cdb[1] & 0x06) {
            return invalidFieldInCdb(1, 2); // PBDATA, LBDATA
        }
        return writeSame(command, range.lba, range.count, range.lengthByte);
    default: {
        const bool write = cdb[0] == 0x0A || cdb[0] == 0x2A || cdb[0] == 0x8A;
        return transfer(command, range.lba, range.count, write, range.lengthByte);
    }
    }
}

ScsiResult RaidVolume::verify(uint64_t lba, uint32_t blocks) {
    std::vector<uint8_t> scratch(size_t{kChunkBlocks} * kBlockSize);
    ScsiCommand chunk;
    chunk.direction = DataDirection::FromDevice;
    chunk.data = scratch.data();
    chunk.dataLength = static_cast<uint32_t>(scratch.size());
    if (blocks == 0) {
        return transfer(chunk, lba, 0, false, 0); // only the range is checked
    }
    for (uint32_t done = 0; done < blocks;) {
        const uint32_t count = std::min(kChunkBlocks, blocks - done);
        ScsiResult result = transfer(chunk, lba + done, count, false, 0);
        if (result.checkCondition) {
            result.transferred = 0;
            return result;
        }
        done += count;
    }
    return ScsiResult{};
}

ScsiResult RaidVolume::writeSame(const ScsiCommand &command, uint64_t lba, uint32_t blocks, uint16_t lengthByte) {
    if (blocks == 0) {
        return invalidFieldInCdb(lengthByte); // WSNZ: no "to the last block"
    }
    if (lba > capacity_ || blocks > capacity_ - lba) {
        return checkCondition(sense::kIllegalRequest, sense::kAscLbaOutOfRange, 0);
    }
    if (command.direction != DataDirection::ToDevice || command.data == nullptr || command.dataLength < kBlockSize) {
        return invalidFieldInCdb(lengthByte);
    }
    std::vector<uint8_t> pattern(size_t{kChunkBlocks} * kBlockSize);
    for (uint32_t i = 0; i < kChunkBlocks; ++i) {
        std::memcpy(&pattern[size_t{i} * kBlockSize], command.data, kBlockSize);
    }
    ScsiCommand chunk;
    chunk.direction = DataDirection::ToDevice;
    chunk.data = pattern.data();
    chunk.dataLength = static_cast<uint32_t>(pattern.size());
    for (uint32_t done = 0; done < blocks;) {
        const uint32_t count = std::min(kChunkBlocks, blocks - done);
        ScsiResult result = transfer(chunk, lba + done, count, true, lengthByte);
        if (result.checkCondition) {
            result.transferred = kBlockSize;
            return result;
        }
        done += count;
    }
    ScsiResult result;
    result.transferred = kBlockSize;
    return result;
}

} // namespace kelsim
