// Blank-padded text fields, the hexadecimal codec of the simulated devices' settings and
// the hash that seeds their generated values.
#include "text_fields.h"

#include <algorithm>
#include <cstring>

namespace kelsim {
namespace {

int hexDigit(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    return -1;
}

} // namespace

void putText(void *field, size_t width, std::string_view text) {
    std::memset(field, ' ', width);
    std::memcpy(field, text.data(), std::min(width, text.size()));
}

std::string toHex(const uint8_t *bytes, size_t size) {
    static const char kDigits[] = "0123456789ABCDEF";
    std::string text;
    text.reserve(2 * size);
    for (size_t i = 0; i < size; ++i) {
        text.push_back(kDigits[bytes[i] >> 4]);
        text.push_back(kDigits[bytes[i] & 0x0F]);
    }
    return text;
}

bool fromHex(std::string_view text, std::vector<uint8_t> *bytes) {
    if (text.size() % 2 != 0) {
        return false;
    }
    bytes->clear();
    for (size_t i = 0; i < text.size(); i += 2) {
        int high = hexDigit(text[i]), low = hexDigit(text[i + 1]);
        if (high < 0 || low < 0) {
            return false;
        }
        bytes->push_back(static_cast<uint8_t>(high << 4 | low));
    }
    return true;
}

uint64_t fnv1a64(const uint8_t *bytes, size_t size, uint64_t hash) {
    for (size_t i = 0; i < size; ++i) {
        hash = (hash ^ bytes[i]) * 0x100000001B3ULL;
    }
    return hash;
}

uint64_t fnv1a64(std::string_view text, uint64_t hash) {
    return fnv1a64(reinterpret_cast<const uint8_t *>(text.data()), text.size(), hash);
}

} // namespace kelsim
