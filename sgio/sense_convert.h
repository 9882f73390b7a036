// Sense data as the program reads it: whatever the kernel returned (fixed or descriptor
// format, libata's register layouts) turned into 18 bytes of fixed-format sense.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace kelsgio {

using FixedSense = std::array<uint8_t, 18>;

// Fixed-format sense from the bytes the kernel wrote. Descriptor sense keeps its key,
// ASC, ASCQ, information, command-specific and sense-key-specific fields; an ATA Status
// Return descriptor fills the ATA registers as fixed sense carries them (byte 3 error,
// 4 status, 5 device, 6 count, 8 extend flags, 9..11 LBA). ataPassThrough: the command
// was ATA PASS-THROUGH, whose fixed sense some kernels fill with the registers eight
// bytes too far; those are moved to their places.
FixedSense toFixedSense(const uint8_t *sense, size_t length, bool ataPassThrough);

// RECOVERED ERROR with "ATA pass-through information available": the ATA command
// completed and the drive's registers were returned as asked (CK_COND).
bool isAtaInformationOnly(const FixedSense &sense);

} // namespace kelsgio
