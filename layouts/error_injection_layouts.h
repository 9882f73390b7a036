// The two forms of the vendor error-injection mode page 0x22 as MODE SELECT(6) parameter
// lists: where each numbered value of an "N" or "N5" parameter file goes, how it is
// written in the file, and the list around the page. Data only: kelpth packs the values
// with it, and the simulated SAS drive reads a stored page back with the same table.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kellayouts {

enum class ValueForm : uint8_t {
    Decimal, // decimal digits only
    Hex,     // optional lower-case "0x", then hex digits
};

// One value line of the file. Its number multiplied by `multiplier` is ORed, most
// significant byte first, into `width` bytes of the list at `offset`; a value too large
// for its bits spills into its neighbours' (the drive defines the fields, not us).
struct InjectionField {
    ValueForm form;
    uint8_t maxDigits; // after the "0x" of a hex value
    uint8_t offset;    // in the parameter list: 4 header bytes come first
    uint8_t width;     // 1, 2 or 4 bytes
    uint8_t multiplier;
};

struct InjectionLayout {
    uint8_t pageLength; // byte 5 of the list
    uint8_t listLength; // also the parameter list length of the MODE SELECT(6)
    const InjectionField *fields;
    size_t fieldCount;
};

// The value line that holds the first field; lines 1 to 3 are the controller, the drive
// and the MODE SELECT flag byte.
constexpr int kFirstPageValue = 4;
constexpr uint8_t kInjectionPageCode = 0x22;
constexpr size_t kModeHeaderBytes = 4;

constexpr InjectionField D(uint8_t digits, uint8_t offset, uint8_t multiplier = 1) {
    return {ValueForm::Decimal, digits, offset, 1, multiplier};
}
constexpr InjectionField H(uint8_t digits, uint8_t offset, uint8_t width = 1) {
    return {ValueForm::Hex, digits, offset, width, 1};
}

// 28-byte page, 34-byte list: values 4 to 24.
constexpr InjectionField kPage28Fields[] = {
    D(1, 6),     D(1, 6, 2), H(1, 7),  H(4, 8, 2), D(3, 10),     H(2, 11),    H(8, 12, 4),
    H(8, 16, 4), H(2, 20),   H(2, 21), H(2, 22),   D(1, 24, 32), D(1, 24, 8), D(1, 24),
    H(4, 26, 2), D(1, 28),   D(1, 28), H(2, 28),   H(2, 29),     H(4, 30, 2), H(4, 32, 2),
};

// 32-byte page, 38-byte list: values 4 to 27. Byte 7 is not a field, byte 24 has no bits
// 7..5 field, and bytes 25 and 34 to 37 are new.
constexpr InjectionField kPage32Fields[] = {
    D(1, 6),  D(1, 6, 2), H(4, 8, 2),  D(3, 10),    H(2, 11), H(8, 12, 4), H(8, 16, 4), H(2, 20),
    H(2, 21), H(2, 22),   D(1, 24, 8), D(1, 24),    H(2, 25), H(4, 26, 2), D(1, 28),    D(1, 28),
    H(2, 28), H(2, 29),   H(4, 30, 2), H(4, 32, 2), H(2, 34), H(2, 35),    H(2, 36),    H(2, 37),
};

constexpr InjectionLayout kPage28{0x1C, 0x22, kPage28Fields, sizeof kPage28Fields / sizeof kPage28Fields[0]};
constexpr InjectionLayout kPage32{0x20, 0x26, kPage32Fields, sizeof kPage32Fields / sizeof kPage32Fields[0]};

// The last value line of each file.
constexpr int lastValueOf(const InjectionLayout &layout) {
    return kFirstPageValue + static_cast<int>(layout.fieldCount) - 1;
}

static_assert(lastValueOf(kPage28) == 24 && lastValueOf(kPage32) == 27, "24 and 27 values");
static_assert(kModeHeaderBytes + 2 + kPage28.pageLength == kPage28.listLength, "page fills the list");
static_assert(kModeHeaderBytes + 2 + kPage32.pageLength == kPage32.listLength, "page fills the list");

} // namespace kellayouts
