// Fixed-format sense data (response code 0x70) for the simulated targets' CHECK CONDITION answers.
#include "byte_order.h"
#include "device.h"

namespace kelsim {

ScsiResult checkCondition(uint8_t senseKey, uint8_t asc, uint8_t ascq) {
    ScsiResult result;
    result.checkCondition = true;
    result.sense[0] = 0x70; // current error, fixed format
    result.sense[2] = senseKey & 0x0F;
    result.sense[7] = 10; // additional sense length: bytes 8..17
    result.sense[12] = asc;
    result.sense[13] = ascq;
    return result;
}

ScsiResult invalidFieldInCdb(uint16_t byteIndex, int bitIndex) {
    ScsiResult result = checkCondition(sense::kIllegalRequest, sense::kAscInvalidFieldInCdb, 0);
    uint8_t keySpecific = 0x80 | 0x40; // SKSV, C/D = 1: the pointer names a CDB byte
    if (bitIndex >= 0 && bitIndex <= 7) {
        keySpecific |= 0x08 | static_cast<uint8_t>(bitIndex); // BPV and the bit pointer
    }
    result.sense[15] = keySpecific;
    putBe(&result.sense[16], 2, byteIndex);
    return result;
}

void setInformation(ScsiResult *result, uint32_t information) {
    result->sense[0] |= 0x80; // VALID: the information field means something
    putBe(&result->sense[3], 4, information);
}

ScsiResult mediumError(uint64_t lba) {
    ScsiResult result = checkCondition(sense::kMediumError, sense::kAscUnrecoveredReadError, 0);
    if (lba <= 0xFFFFFFFFULL) {
        setInformation(&result, static_cast<uint32_t>(lba));
    }
    return result;
}

} // namespace kelsim
