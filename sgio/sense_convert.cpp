// Conversion of the kernel's sense data into the fixed format the program reads.
#include "sense_convert.h"

#include <algorithm>

namespace kelsgio {
namespace {

constexpr uint8_t kFixedCurrent = 0x70;
constexpr uint8_t kDescriptorCurrent = 0x72;
constexpr uint8_t kDescriptorDeferred = 0x73;
constexpr uint8_t kInformationDescriptor = 0x00;
constexpr uint8_t kCommandSpecificDescriptor = 0x01;
constexpr uint8_t kSenseKeySpecificDescriptor = 0x02;
constexpr uint8_t kAtaStatusReturnDescriptor = 0x09;
constexpr uint8_t kRecoveredError = 0x01;
constexpr uint8_t kAscqAtaInformationAvailable = 0x1D;

FixedSense emptyFixed(uint8_t responseCode) {
    FixedSense fixed{};
    fixed[0] = responseCode;
    fixed[7] = 10; // additional sense length: bytes 8..17
    return fixed;
}

// Copies the low `count` bytes of a big-endian field that is `width` bytes wide.
void copyLowBytes(const uint8_t *field, size_t width, uint8_t *out, size_t count) {
    std::copy(field + width - count, field + width, out);
}

void applyAtaStatusReturn(const uint8_t *descriptor, FixedSense *fixed) {
    // Descriptor: 2 extend, 3 error, 4/5 count, 6..11 LBA high/low byte pairs, 12 device, 13 status.
    FixedSense &out = *fixed;
    bool extend = (descriptor[2] & 0x01) != 0;
    out[3] = descriptor[3];
    out[4] = descriptor[13];
    out[5] = descriptor[12];
    out[6] = descriptor[5];
    out[8] = static_cast<uint8_t>((extend ? 0x80 : 0) | (descriptor[4] != 0 ? 0x40 : 0) |
                                  ((descriptor[6] | descriptor[8] | descriptor[10]) != 0 ? 0x20 : 0));
    out[9] = descriptor[7];
    out[10] = descriptor[9];
    out[11] = descriptor[11];
}

FixedSense fromDescriptor(const uint8_t *sense, size_t length) {
    FixedSense fixed = emptyFixed(sense[0] == kDescriptorDeferred ? 0x71 : kFixedCurrent);
    fixed[2] = sense[1] & 0x0F;
    fixed[12] = sense[2];
    fixed[13] = sense[3];
    size_t end = std::min<size_t>(length, 8 + static_cast<size_t>(sense[7]));
    for (size_t pos = 8; pos + 2 <= end;) {
        const uint8_t *descriptor = sense + pos;
        size_t size = 2 + static_cast<size_t>(descriptor[1]);
        if (pos + size > end) {
            break;
        }
        switch (descriptor[0]) {
        case kInformationDescriptor:
            if (size >= 12) {
                copyLowBytes(descriptor + 4, 8, &fixed[3], 4);
                bool fits = (descriptor[4] | descriptor[5] | descriptor[6] | descriptor[7]) == 0;
                if ((descriptor[2] & 0x80) != 0 && fits) {
                    fixed[0] |= 0x80; // VALID
                }
            }
            break;
        case kCommandSpecificDescriptor:
            if (size >= 12) {
                copyLowBytes(descriptor + 4, 8, &fixed[8], 4);
            }
            break;
        case kSenseKeySpecificDescriptor:
            if (size >= 7) {
                std::copy(descriptor + 4, descriptor + 7, &fixed[15]);
            }
            break;
        case kAtaStatusReturnDescriptor:
            if (size >= 14) {
                applyAtaStatusReturn(descriptor, &fixed);
            }
            break;
        default:
            break;
        }
        pos += size;
    }
    return fixed;
}

// Registers written eight bytes past their places: bytes 3..6 are empty, the status
// (never zero once a command completed) stands in byte 9 and the LBA in 17..19.
bool hasShiftedAtaRegisters(const uint8_t *sense, size_t length) {
    return length >= 20 && (sense[3] | sense[4] | sense[5] | sense[6]) == 0 && sense[9] != 0;
}

FixedSense fromFixed(const uint8_t *sense, size_t length, bool ataPassThrough) {
    FixedSense fixed{};
    std::copy(sense, sense + std::min(length, fixed.size()), fixed.begin());
    if (length < fixed.size()) {
        fixed[7] = 10;
    }
    if (ataPassThrough && hasShiftedAtaRegisters(sense, length)) {
        fixed[3] = sense[8];
        fixed[4] = sense[9];
        fixed[5] = sense[10];
        fixed[6] = sense[11];
        fixed[8] = sense[16];
        fixed[9] = sense[17];
        fixed[10] = sense[18];
        fixed[11] = sense[19];
        fixed[15] = fixed[16] = fixed[17] = 0;
    }
    return fixed;
}

} // namespace

FixedSense toFixedSense(const uint8_t *sense, size_t length, bool ataPassThrough) {
    if (sense == nullptr || length < 8) {
        // Sense too short to be read: an empty one with no key.
        return emptyFixed(kFixedCurrent);
    }
    uint8_t responseCode = sense[0] & 0x7F;
    if (responseCode == kDescriptorCurrent || responseCode == kDescriptorDeferred) {
        return fromDescriptor(sense, length);
    }
    return fromFixed(sense, length, ataPassThrough);
}

bool isAtaInformationOnly(const FixedSense &sense) {
    return (sense[2] & 0x0F) == kRecoveredError && sense[12] == 0 && sense[13] == kAscqAtaInformationAvailable;
}

} // namespace kelsgio
