// The answers the farm's SCSI targets share: data-in replies, the designators and the
// block limits and characteristics VPD pages, MODE SENSE parameter data, the LOG SENSE of
// a target without logs and REQUEST SENSE.
#include "scsi_pages.h"

#include "byte_order.h"
#include "text_fields.h"

#include <algorithm>
#include <cstring>

namespace kelsim {

ScsiResult replyData(const ScsiCommand &command, const std::vector<uint8_t> &data, uint64_t allocation) {
    ScsiResult result;
    if (command.direction != DataDirection::FromDevice || command.data == nullptr) {
        return result;
    }
    const size_t size = static_cast<size_t>(std::min<uint64_t>({data.size(), allocation, command.dataLength}));
    if (size > 0) {
        std::memcpy(command.data, data.data(), size);
    }
    result.transferred = static_cast<uint32_t>(size);
    return result;
}

uint64_t naaIdentifier(const std::string &seed) {
    // 4-bit NAA, 24-bit company identifier, 36 bits of our own.
    constexpr uint64_t kCompanyId = 0x0A5E11;
    const uint64_t unique = fnv1a64(seed) & 0xFFFFFFFFFULL;
    return (uint64_t{5} << 60) | (kCompanyId << 36) | (unique & ~uint64_t{1});
}

std::vector<uint8_t> vpdPage(uint8_t code, const std::vector<uint8_t> &body) {
    std::vector<uint8_t> page = {0x00, code, 0x00, 0x00};
    putBe(&page[2], 2, body.size());
    page.insert(page.end(), body.begin(), body.end());
    return page;
}

void appendNaaDesignator(std::vector<uint8_t> *body, uint64_t naa) {
    uint8_t designator[12] = {0x01, 0x03, 0x00, 0x08}; // binary; logical unit, NAA
    putBe(&designator[4], 8, naa);
    body->insert(body->end(), designator, designator + sizeof designator);
}

void appendT10VendorDesignator(std::vector<uint8_t> *body, const std::string &vendor, const std::string &rest) {
    std::vector<uint8_t> designator(4 + 8, ' ');
    designator[0] = 0x02; // ASCII
    designator[1] = 0x01; // logical unit, T10 vendor identification
    designator[2] = 0x00;
    putText(&designator[4], 8, vendor);
    designator.insert(designator.end(), rest.begin(), rest.end());
    designator[3] = static_cast<uint8_t>(std::min<size_t>(designator.size() - 4, 0xFF));
    designator.resize(4 + designator[3]);
    body->insert(body->end(), designator.begin(), designator.end());
}

std::vector<uint8_t> blockLimitsPage(uint16_t optimalGranularity, uint32_t optimalTransfer, uint64_t maxWriteSame) {
    std::vector<uint8_t> body(0x3C, 0);
    body[0] = 0x01; // WSNZ: WRITE SAME never takes 0 for "to the last block"
    putBe(&body[2], 2, optimalGranularity);
    putBe(&body[4], 4, kMaxTransferBlocks);
    putBe(&body[8], 4, optimalTransfer);
    putBe(&body[32], 8, maxWriteSame);
    return vpdPage(0xB0, body);
}

std::vector<uint8_t> blockCharacteristicsPage(uint16_t rotationRate, uint8_t formFactor) {
    std::vector<uint8_t> body(0x3C, 0);
    putBe(&body[0], 2, rotationRate);
    body[3] = formFactor & 0x0F;
    return vpdPage(0xB1, body);
}

std::vector<uint8_t> modeBlockDescriptor(uint64_t blocks, uint32_t blockLength, bool longLba) {
    if (longLba) {
        std::vector<uint8_t> descriptor(16, 0);
        putBe(&descriptor[0], 8, blocks);
        putBe(&descriptor[12], 4, blockLength);
        return descriptor;
    }
    std::vector<uint8_t> descriptor(8, 0);
    putBe(&descriptor[0], 4, std::min<uint64_t>(blocks, 0xFFFFFFFFULL)); // all ones: too many to say
    putBe(&descriptor[5], 3, blockLength);
    return descriptor;
}

ModeSenseRequest decodeModeSense(const uint8_t *cdb) {
    ModeSenseRequest request;
    request.tenByte = cdb[0] == 0x5A;
    request.disableBlockDescriptors = (cdb[1] & 0x08) != 0;
    request.longLba = request.tenByte && (cdb[1] & 0x10) != 0;
    request.pageControl = cdb[2] >> 6;
    request.pageCode = cdb[2] & 0x3F;
    request.subpage = cdb[3];
    request.allocation = request.tenByte ? getBe(&cdb[7], 2) : cdb[4];
    return request;
}

bool modeSenseRefused(const ModeSenseRequest &request, bool keepsSavedPages, ScsiResult *refusal) {
    constexpr uint8_t kAscSavingNotSupported = 0x39;
    if (request.pageControl == kSaved && !keepsSavedPages) {
        *refusal = checkCondition(sense::kIllegalRequest, kAscSavingNotSupported, 0x00);
        return true;
    }
    if (request.subpage != 0 && request.subpage != 0xFF) {
        *refusal = invalidFieldInCdb(3);
        return true;
    }
    return false;
}

std::vector<uint8_t> modeParameterData(bool tenByte, bool longLba, uint8_t deviceSpecific,
                                       const std::vector<uint8_t> &descriptor, const std::vector<uint8_t> &pages) {
    std::vector<uint8_t> data;
    if (tenByte) {
        data.assign(8, 0);
        data[3] = deviceSpecific;
        data[4] = longLba ? 0x01 : 0x00;
        putBe(&data[6], 2, descriptor.size());
    } else {
        data.assign(4, 0);
        data[2] = deviceSpecific;
        data[3] = static_cast<uint8_t>(descriptor.size());
    }
    data.insert(data.end(), descriptor.begin(), descriptor.end());
    data.insert(data.end(), pages.begin(), pages.end());
    if (tenByte) {
        putBe(&data[0], 2, std::min<size_t>(data.size() - 2, 0xFFFF));
    } else {
        data[0] = static_cast<uint8_t>(std::min<size_t>(data.size() - 1, 0xFF));
    }
    return data;
}

ScsiResult logSenseOfSupportedPages(const ScsiCommand &command, const uint8_t *cdb) {
    if (cdb[1] & 0x01) {
        return invalidFieldInCdb(1, 0); // SP: nothing is saved
    }
    if ((cdb[2] & 0x3F) != 0x00) {
        return invalidFieldInCdb(2, 5); // only the list of supported pages
    }
    if (cdb[3] != 0) {
        return invalidFieldInCdb(3);
    }
    if (getBe(&cdb[5], 2) != 0) {
        return invalidFieldInCdb(5); // the list has no parameters to point at
    }
    return replyData(command, {0x00, 0x00, 0x00, 0x01, 0x00}, getBe(&cdb[7], 2));
}

ScsiResult PendingSense::answer(const ScsiCommand &command, const uint8_t *cdb) {
    if (cdb[1] & 0x01) {
        return invalidFieldInCdb(1, 0); // descriptor-format sense is not offered
    }
    const ScsiResult handed = pending_ ? sense_ : checkCondition(sense::kNoSense, 0, 0);
    pending_ = false;
    return replyData(command, std::vector<uint8_t>(handed.sense.begin(), handed.sense.end()), cdb[4]);
}

} // namespace kelsim
