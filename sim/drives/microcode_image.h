// The simulated drives' firmware image: a 64-byte header (a magic text, the product
// identification of the drives it is for, the new revision, the length of the code that
// follows and a checksum over both), then the code. "kelsim image" writes one; a SAS
// drive takes one with WRITE BUFFER and activates it when its last byte has arrived.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kelsim {

constexpr size_t kImageHeaderSize = 64;

// A valid image of totalSize bytes (at least the header) for the drives whose product
// identification is `product`, carrying `revision` (4 characters, blank padded).
std::vector<uint8_t> buildMicrocodeImage(const std::string &product, const std::string &revision, size_t totalSize);

// The whole size the header announces, or 0 when the bytes are no image header (too few
// of them or a wrong magic text).
size_t announcedImageSize(const uint8_t *image, size_t received);

enum class ImageVerdict { Good, NotAnImage, OtherProduct, BadChecksum };

// Checks a complete image against the drive; on Good *revision receives the new revision.
ImageVerdict checkMicrocodeImage(const uint8_t *image, size_t size, const std::string &product, std::string *revision);

} // namespace kelsim
