// The SAS drive's buffers and microcode: READ BUFFER and WRITE BUFFER on the 64 KiB data
// buffer, and microcode download (modes 5 and 7) whose activation changes the revision.
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

void SasDrive::activateMicrocode() {
    char revision[8];
    std::snprintf(revision, sizeof revision, "%04X", microcodeSum_);
    settings_.set(kKeyRevision, revision);
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

    // Microcode: mode 5 brings the whole image at once; mode 7 brings it in pieces at
    // increasing offsets, a piece at offset 0 starting a new image. The drive checks
    // nothing in the image; after each piece it runs the image received so far, whose
    // revision is its 16-bit byte sum in four hexadecimal digits.
    if (offset == 0) {
        microcodeReceived_ = 0;
        microcodeSum_ = 0;
    } else if (mode == 0x05 || offset != microcodeReceived_) {
        return invalidFieldInCdb(3);
    }
    if (length > kMaxMicrocodeSize - offset) {
        return invalidFieldInCdb(6);
    }
    if (length == 0) {
        return result;
    }
    const uint8_t *data = hostData(request.command, length);
    if (data == nullptr) {
        return invalidFieldInCdb(6);
    }
    for (uint32_t i = 0; i < length; ++i) {
        microcodeSum_ = static_cast<uint16_t>(microcodeSum_ + data[i]);
    }
    microcodeReceived_ += length;
    activateMicrocode();
    result.transferred = length;
    return result;
}

} // namespace sas
} // namespace kelsim
