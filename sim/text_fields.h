// Text in the simulated devices' data: blank-padded fixed-width fields, the hexadecimal
// form in which drives keep binary values (mode pages, sectors) among their settings, and
// the hash that seeds their generated values.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kelsim {

// The text, cut or padded with blanks to the field's width; no terminating zero.
void putText(void *field, size_t width, std::string_view text);

// Two upper-case hexadecimal digits a byte.
std::string toHex(const uint8_t *bytes, size_t size);
// False, with *bytes unspecified, unless the text is whole pairs of hexadecimal digits.
bool fromHex(std::string_view text, std::vector<uint8_t> *bytes);

// FNV-1a, 64 bits: the hash that makes each device's generated values (identifiers, logs,
// check bytes) its own.
uint64_t fnv1a64(const uint8_t *bytes, size_t size, uint64_t hash = 0xCBF29CE484222325ULL);
uint64_t fnv1a64(std::string_view text, uint64_t hash = 0xCBF29CE484222325ULL);

} // namespace kelsim
