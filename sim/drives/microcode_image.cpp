// The firmware image format of the simulated drives: building and checking an image.
#include "microcode_image.h"

#include "byte_order.h"

#include <algorithm>
#include <cstring>

namespace kelsim {
namespace {

// Header: 0..7 magic, 8..23 product identification, 24..27 revision, 28..31 code length,
// 32..35 checksum (FNV-1a, 32 bits, over the header with the checksum field zero and the
// code), the rest zero.
constexpr char kMagic[8] = {'K', 'S', 'I', 'M', 'F', 'W', '0', '1'};
constexpr size_t kProductAt = 8, kRevisionAt = 24, kLengthAt = 28, kChecksumAt = 32;

void putPadded(uint8_t *field, size_t width, const std::string &text) {
    memset(field, ' ', width);
    memcpy(field, text.data(), std::min(width, text.size()));
}

uint32_t imageChecksum(const uint8_t *image, size_t size) {
    uint32_t hash = 0x811C9DC5u;
    for (size_t i = 0; i < size; ++i) {
        const uint8_t byte = i >= kChecksumAt && i < kChecksumAt + 4 ? 0 : image[i];
        hash = (hash ^ byte) * 0x01000193u;
    }
    return hash;
}

std::string trimmed(const uint8_t *field, size_t width) {
    std::string text(reinterpret_cast<const char *>(field), width);
    text.erase(text.find_last_not_of(' ') + 1);
    return text;
}

} // namespace

std::vector<uint8_t> buildMicrocodeImage(const std::string &product, const std::string &revision, size_t totalSize) {
    std::vector<uint8_t> image(std::max(totalSize, kImageHeaderSize), 0);
    memcpy(&image[0], kMagic, sizeof kMagic);
    putPadded(&image[kProductAt], 16, product);
    putPadded(&image[kRevisionAt], 4, revision);
    putBe(&image[kLengthAt], 4, image.size() - kImageHeaderSize);
    // The code: a pattern that changes with the revision, so that two images differ.
    uint32_t state = 0x2545F491u ^ static_cast<uint32_t>(revision.empty() ? 0 : revision[0]);
    for (size_t i = kImageHeaderSize; i < image.size(); ++i) {
        state = state * 1664525u + 1013904223u;
        image[i] = static_cast<uint8_t>(state >> 24);
    }
    putBe(&image[kChecksumAt], 4, imageChecksum(image.data(), image.size()));
    return image;
}

size_t announcedImageSize(const uint8_t *image, size_t received) {
    if (received < kImageHeaderSize || memcmp(image, kMagic, sizeof kMagic) != 0) {
        return 0;
    }
    return kImageHeaderSize + static_cast<size_t>(getBe(&image[kLengthAt], 4));
}

ImageVerdict checkMicrocodeImage(const uint8_t *image, size_t size, const std::string &product, std::string *revision) {
    if (announcedImageSize(image, size) != size) {
        return ImageVerdict::NotAnImage;
    }
    if (trimmed(&image[kProductAt], 16) != trimmed(reinterpret_cast<const uint8_t *>(product.data()), product.size())) {
        return ImageVerdict::OtherProduct;
    }
    if (static_cast<uint32_t>(getBe(&image[kChecksumAt], 4)) != imageChecksum(image, size)) {
        return ImageVerdict::BadChecksum;
    }
    *revision = std::string(reinterpret_cast<const char *>(&image[kRevisionAt]), 4);
    return ImageVerdict::Good;
}

} // namespace kelsim
