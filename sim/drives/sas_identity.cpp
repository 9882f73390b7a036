// The SAS drive's identity and state commands: INQUIRY and its vital product data pages,
// READ CAPACITY (10) and (16), REPORT LUNS, REQUEST SENSE, START STOP UNIT.
#include "sas_drive_internal.h"
#include "sas_life.h"
#include "scsi_pages.h"
#include "text_fields.h"

#include <algorithm>

namespace kelsim {
namespace sas {
namespace {

uint64_t lastLbaOf(uint64_t blocks) {
    return blocks == 0 ? 0 : blocks - 1;
}

} // namespace

ScsiResult SasDrive::requestSense(const Request &request) {
    if (request.cdb[1] & 0x01) {
        return invalidFieldInCdb(1, 0); // descriptor-format sense is not supported
    }
    ScsiResult pending = checkCondition(sense::kNoSense, 0, 0);
    if (haveLastSense_) {
        pending = lastSense_;
    } else if (stopped()) {
        pending = checkCondition(sense::kNotReady, kAscNotReady, kAscqInitializingCommandRequired);
    } else if (const DriveCounters life = loadDriveCounters(settings_); life.smartAsc != 0) {
        // A SMART trip is reported on request (MRIE 6 of the informational exceptions page).
        pending =
            checkCondition(sense::kNoSense, static_cast<uint8_t>(life.smartAsc), static_cast<uint8_t>(life.smartAscq));
    }
    haveLastSense_ = false; // the sense is handed over once
    std::vector<uint8_t> data(pending.sense.begin(), pending.sense.end());
    return sendData(request.command, data, request.cdb[4]);
}

std::vector<uint8_t> SasDrive::standardInquiry() {
    std::vector<uint8_t> data(96, 0);
    data[0] = 0x00; // direct-access block device, connected
    data[2] = 0x06; // SPC-4
    data[3] = 0x12; // HISUP, response data format 2
    data[4] = static_cast<uint8_t>(data.size() - 5);
    data[6] = 0x10; // MULTIP: two ports
    data[7] = 0x02; // CMDQUE
    putText(&data[8], 8, identity_.vendor);
    putText(&data[16], 16, identity_.product);
    putText(&data[32], 4, sasDriveRevision(identity_, settings_));
    putText(&data[36], 20, identity_.serial);
    static const uint16_t kVersionDescriptors[] = {0x00A0 /* SAM-5 */, 0x0460 /* SPC-4 */, 0x04C0 /* SBC-3 */,
                                                   0x0C00 /* SAS */};
    for (size_t i = 0; i < 4; ++i) {
        putBe(&data[58 + 2 * i], 2, kVersionDescriptors[i]);
    }
    return data;
}

uint64_t SasDrive::naaIdentifier() {
    return kelsim::naaIdentifier(identity_.vendor + identity_.product + identity_.serial);
}

bool SasDrive::vitalProductPage(uint8_t code, std::vector<uint8_t> *page) {
    constexpr uint16_t kRotationRate = 10000;
    constexpr uint8_t kFormFactor25Inch = 0x03;
    std::vector<uint8_t> body;
    switch (code) {
    case 0x00:
        body = {0x00, 0x80, 0x83, 0xB0, 0xB1};
        break;
    case 0x80:
        body.assign(identity_.serial.begin(), identity_.serial.end());
        break;
    case 0x83: {
        // Logical unit NAA, target port NAA (SAS address), T10 vendor identification.
        appendNaaDesignator(&body, naaIdentifier());
        uint8_t port[12] = {0x61, 0x93, 0x00, 0x08}; // SAS, binary; PIV, target port, NAA
        putBe(&port[4], 8, naaIdentifier() + 1);
        body.insert(body.end(), port, port + sizeof port);
        std::string product(16, ' ');
        putText(&product[0], product.size(), identity_.product);
        appendT10VendorDesignator(&body, identity_.vendor, product + identity_.serial);
        break;
    }
    case 0xB0: // WRITE SAME as long as any other transfer, so that no command takes long
        *page = blockLimitsPage(0, 0, kMaxTransferBlocks);
        return true;
    case 0xB1:
        *page = blockCharacteristicsPage(kRotationRate, kFormFactor25Inch);
        return true;
    default:
        return false;
    }
    *page = vpdPage(code, body);
    return true;
}

ScsiResult SasDrive::inquiry(const Request &request) {
    const uint8_t *cdb = request.cdb;
    if (cdb[1] & 0x02) {
        return invalidFieldInCdb(1, 1); // CMDDT is obsolete
    }
    uint16_t allocation = static_cast<uint16_t>(getBe(&cdb[3], 2));
    bool vitalProductData = cdb[1] & 0x01;
    if (!vitalProductData) {
        if (cdb[2] != 0) {
            return invalidFieldInCdb(2);
        }
        return sendData(request.command, standardInquiry(), allocation);
    }
    std::vector<uint8_t> page;
    if (!vitalProductPage(cdb[2], &page)) {
        return invalidFieldInCdb(2);
    }
    return sendData(request.command, page, allocation);
}

ScsiResult SasDrive::readCapacity10(const Request &request) {
    const uint8_t *cdb = request.cdb;
    bool partialMediumIndicator = cdb[8] & 0x01;
    if (!partialMediumIndicator && getBe(&cdb[2], 4) != 0) {
        return invalidFieldInCdb(2);
    }
    uint64_t lastLba = lastLbaOf(currentBlocks());
    std::vector<uint8_t> data(8, 0);
    putBe(&data[0], 4, std::min<uint64_t>(lastLba, 0xFFFFFFFFULL)); // too big: READ CAPACITY(16) tells
    putBe(&data[4], 4, kBlockSize);
    return sendData(request.command, data, data.size());
}

ScsiResult SasDrive::serviceActionIn16(const Request &request) {
    const uint8_t *cdb = request.cdb;
    if ((cdb[1] & 0x1F) != 0x10) { // only READ CAPACITY(16)
        return invalidFieldInCdb(1, 4);
    }
    bool partialMediumIndicator = cdb[14] & 0x01;
    if (!partialMediumIndicator && getBe(&cdb[2], 8) != 0) {
        return invalidFieldInCdb(2);
    }
    std::vector<uint8_t> data(32, 0);
    putBe(&data[0], 8, lastLbaOf(currentBlocks()));
    putBe(&data[8], 4, kBlockSize);
    return sendData(request.command, data, getBe(&cdb[10], 4));
}

ScsiResult SasDrive::reportLuns(const Request &request) {
    const uint8_t *cdb = request.cdb;
    if (cdb[2] > 0x02) {
        return invalidFieldInCdb(2);
    }
    uint32_t allocation = static_cast<uint32_t>(getBe(&cdb[6], 4));
    if (allocation < 16) {
        return invalidFieldInCdb(6);
    }
    std::vector<uint8_t> data(16, 0); // one logical unit, LUN 0
    putBe(&data[0], 4, 8);
    return sendData(request.command, data, allocation);
}

ScsiResult SasDrive::startStopUnit(const Request &request) {
    const uint8_t *cdb = request.cdb;
    uint8_t powerCondition = cdb[4] >> 4;
    if (powerCondition != 0) {
        return ScsiResult{}; // power conditions are accepted; START is ignored with them
    }
    bool start = cdb[4] & 0x01;
    if (start == stopped()) {
        settings_.set(kKeyStopped, start ? "0" : "1");
        if (start) {
            countSpinUp(settings_);
        }
    }
    return ScsiResult{};
}

} // namespace sas
} // namespace kelsim
