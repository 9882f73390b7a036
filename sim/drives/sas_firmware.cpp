// The SAS drive's buffers and microcode: READ BUFFER and WRITE BUFFER on the 64 KiB data
// buffer, and microcode download (mode 5 whole, mode 7 in pieces) of an image in the sim's
// format (microcode_image.h), whose activation changes the revision for good.
#include "microcode_image.h"
#include "sas_drive_internal.h"

#include <cstdio>
#include <cstring>

namespace kelsim {
namespace sas {

ScsiResult SasDrive::readBuffer(const Request &request) {
    const uint8_t *cdb = request.cdb;
    uint8_t mode = cdb[1] & 0x1F;
    uint32_t offset = static_cast<uint32_t>(getBe(&cdb[3], 3));
    uint32_t allocation = static_cast<uint32_t>(getBe(&cdb[6], 3));
    if (mode != 0x02 && mode != 0x03) {
        return invalidFieldInCdb(1, 4);
    }
    if (cdb[2] != 0) {
        return invalidFieldInCdb(2); // one buffer, ID 0
    }
    if (mode == 0x03) { // descriptor: byte boundary, capacity
        std::vector<uint8_t> descriptor(4, 0);
        putBe(&descriptor[1], 3, kDataBufferSize);
        return sendData(request.command, descriptor, allocation);
    }
    if (offset > kDataBufferSize) {
        return invalidFieldInCdb(3);
    }
    if (allocation > kDataBufferSize - offset) {
        return invalidFieldInCdb(6);
    }
    dataBuffer_.resize(kDataBufferSize, 0);
    std::vector<uint8_t> data(dataBuffer_.begin() + offset, dataBuffer_.begin() + offset + allocation);
    return sendData(request.command, data, allocation);
}

ScsiResult SasDrive::writeBuffer(const Request &request) {
    const uint8_t *cdb = request.cdb;
    uint8_t mode = cdb[1] & 0x1F;
    uint32_t offset = static_cast<uint32_t>(getBe(&cdb[3], 3));
    uint32_t length = static_cast<uint32_t>(getBe(&cdb[6], 3));
    if (mode != 0x02 && mode != 0x05 && mode != 0x07) {
        return invalidFieldInCdb(1, 4);
    }
    if (cdb[2] != 0) {
        return invalidFieldInCdb(2);
    }
    ScsiResult result;
    if (mode == 0x02) {
        if (offset > kDataBufferSize) {
            return invalidFieldInCdb(3);
        }
        if (length > kDataBufferSize - offset) {
            return invalidFieldInCdb(6);
        }
        const uint8_t *data = hostData(request.command, length);
        if (length == 0) {
            return result;
        }
        if (data == nullptr) {
            return invalidFieldInCdb(6);
        }
        dataBuffer_.resize(kDataBufferSize, 0);
        std::memcpy(&dataBuffer_[offset], data, length);
        result.transferred = length;
        return result;
    }

    return receiveMicrocode(request, offset, length, mode == 0x05);
}

// Mode 5 brings the whole image at once; mode 7 brings it in pieces, each at the offset
// where the last one ended, a piece at offset 0 starting a new image. When the bytes the
// image header announces have all arrived the drive checks the image: one for its product
// with a good checksum becomes its firmware (the new revision is kept), anything else is
// refused and the old firmware stays. A piece out of order ends the download.
ScsiResult SasDrive::receiveMicrocode(const Request &request, uint32_t offset, uint32_t length, bool wholeImage) {
    constexpr uint8_t kAscqNone = 0x00;
    if (offset == 0) {
        microcode_.clear();
    } else if (wholeImage || offset != microcode_.size()) {
        microcode_.clear();
        return invalidFieldInCdb(3);
    }
    if (length > kMaxMicrocodeSize - offset) {
        microcode_.clear();
        return invalidFieldInCdb(6);
    }
    ScsiResult result;
    if (length == 0) {
        return result;
    }
    const uint8_t *data = hostData(request.command, length);
    if (data == nullptr) {
        return invalidFieldInCdb(6);
    }
    microcode_.insert(microcode_.end(), data, data + length);
    result.transferred = length;
    const size_t announced = announcedImageSize(microcode_.data(), microcode_.size());
    const bool headerSeen = microcode_.size() >= kImageHeaderSize;
    if (headerSeen && (announced == 0 || microcode_.size() > announced)) {
        microcode_.clear(); // not an image of ours, or more bytes than it said
        return checkCondition(sense::kIllegalRequest, sense::kAscInvalidFieldInParameterList, kAscqNone);
    }
    if (!headerSeen || microcode_.size() < announced) {
        return wholeImage ? checkCondition(sense::kIllegalRequest, sense::kAscInvalidFieldInParameterList, kAscqNone)
                          : result;
    }
    std::string revision;
    const ImageVerdict verdict =
        checkMicrocodeImage(microcode_.data(), microcode_.size(), identity_.product, &revision);
    microcode_.clear();
    if (verdict != ImageVerdict::Good) {
        return checkCondition(sense::kIllegalRequest, sense::kAscInvalidFieldInParameterList, kAscqNone);
    }
    settings_.set(kKeyRevision, revision);
    return result;
}

} // namespace sas
} // namespace kelsim
