// The vendor SMART log page 0x32 of each drive family, written once as data: a page is a
// 4-byte page header and then a row of parameter blocks, each block a list of big-endian
// fields at fixed offsets. The report's decoders print the fields in this order with
// these labels (EUC-JP text); the simulated drives build their pages from the same
// tables, filling each field from the counter it names.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace kellayouts {

// What a field holds.
enum class SmartQuantity : uint8_t {
    PowerOnMinutes,
    SectorsRead,
    ReadErrorsNow,
    ReadErrorsBefore,
    ReadErrorsWorst,
    SectorsWritten,
    WriteErrorsNow,
    WriteErrorsBefore,
    WriteErrorsWorst,
    SectorsSought,
    SeekErrorsNow,
    SeekErrorsBefore,
    SeekErrorsWorst,
    SpareSectors,
    SpinUpSecondsNow,
    SpinUpSecondsBefore,
    SpinUpSecondsLongest,
    SpinUpLongestAtMinutes,
    StartStopCount,
    TemperatureNow,
    TemperatureHighest,
    TemperatureHighestAtMinutes,
    VoltageNow,
    VoltageHighest,
    VoltageHighestAtMinutes,
    VoltageLowest,
    VoltageLowestAtMinutes,
    SmartTripAsc,
    SmartTripAscq,
    SmartTripAtMinutes,
};

// How a field is encoded and printed.
enum class SmartFormat : uint8_t {
    Minutes, // 4 bytes of minutes, shown as hours with two decimals
    Count32, // 4 bytes
    Count16, // 2 bytes
    Seconds, // 1 byte (spin-up times)
    Degrees, // 1 byte (temperatures)
    Volts,   // 1 byte, 0xAB meaning 1A.B V
    Code,    // 1 byte (SMART ASC and ASCQ)
};

constexpr size_t widthOf(SmartFormat format) {
    return format == SmartFormat::Minutes || format == SmartFormat::Count32 ? 4
           : format == SmartFormat::Count16                                 ? 2
                                                                            : 1;
}

constexpr uint8_t kNoHead = 0xFF;

struct SmartField {
    uint16_t offset; // within the block
    SmartQuantity quantity;
    SmartFormat format;
    uint8_t head;        // kNoHead, or the head the counter is for ("[Head<n>]:" follows the label)
    const char *label;   // EUC-JP
    bool blankLineAfter; // the report leaves an empty line after this field
};

struct SmartBlock {
    uint16_t length; // the parameter's header (4 bytes) included
    const SmartField *fields;
    size_t fieldCount;
};

struct SmartLayout {
    const char *family;        // characters 5..7 of the product identification
    uint16_t allocationLength; // what the report asks for
    uint16_t walkLength;       // the page header and every block
    const SmartBlock *blocks;
    size_t blockCount;
};

constexpr size_t kPageHeaderLength = 4;

// ---- labels ----
namespace label {
inline constexpr const char *kPowerOn = "\xCE\xDF\xC0\xD1\xB2\xD4\xC6\xB0\xBB\xFE\xB4\xD6[h]:"; // 累積稼動時間[h]:
inline constexpr const char *kWorstErrors =
    "\xB2\xE1\xB5\xEE\xA5\xEF\xA1\xBC\xA5\xB9\xA5\xC8\xA5\xA8\xA5\xE9\xA1\xBC\xBF\xF4:"; // 過去ワーストエラー数:
inline constexpr const char *kSpareSectors = "\xBB\xC4\xA4\xEA\xB8\xF2\xC2\xD8\xA5\xBB\xA5\xAF\xA5\xBF\xBF\xF4:";
inline constexpr const char *kSpinUpNow =
    "\xBA\xA3\xB2\xF3\xA4\xCE\xA5\xB9\xA5\xD4\xA5\xF3\xA5\xA2\xA5\xC3\xA5\xD7\xBB\xFE\xB4\xD6[s]:";
inline constexpr const char *kSpinUpBefore =
    "\xC1\xB0\xB2\xF3\xA4\xCE\xA5\xB9\xA5\xD4\xA5\xF3\xA5\xA2\xA5\xC3\xA5\xD7\xBB\xFE\xB4\xD6[s]:";
inline constexpr const char *kSpinUpLongest =
    "\xBA\xC7\xC2\xE7\xA5\xB9\xA5\xD4\xA5\xF3\xA5\xA2\xA5\xC3\xA5\xD7\xBB\xFE\xB4\xD6[s]:";
inline constexpr const char *kSpinUpLongestAt = "\xBA\xC7\xC2\xE7\xBB\xFE\xB4\xD6\xA4\xF2\xCD\xD7\xA4\xB7\xA4\xBF\xBB"
                                                "\xFE\xA4\xCE\xC8\xAF\xC0\xB8\xBB\xFE\xB4\xD6[h]:";
inline constexpr const char *kStartStop = "\xB8\xBD\xBA\xDF\xA4\xCE"
                                          "CSS \xB2\xF3\xBF\xF4:";
inline constexpr const char *kTemperatureNow = "\xB8\xBD\xBA\xDF\xA4\xCE\xC1\xF5\xC3\xD6\xB2\xB9\xC5\xD9:";
inline constexpr const char *kTemperatureHighest = "\xB2\xE1\xB5\xEE\xBA\xC7\xC2\xE7\xB2\xB9\xC5\xD9:";
inline constexpr const char *kTemperatureHighestAt = "\xBA\xC7\xC2\xE7\xB2\xB9\xC5\xD9\xA4\xF2\xB8\xA1\xBD\xD0\xA4\xB7"
                                                     "\xA4\xBF\xA4\xC8\xA4\xAD\xA4\xCE\xBB\xFE\xB4\xD6[h]:";
inline constexpr const char *kVoltageNow = "\xB8\xBD\xBA\xDF\xA4\xCE"
                                           "12V \xC5\xC5\xB0\xB5:";
inline constexpr const char *kVoltageHighest = "\xBA\xC7\xC2\xE7\xC5\xC5\xB0\xB5:";
inline constexpr const char *kVoltageHighestAt = "\xBA\xC7\xC2\xE7\xC5\xC5\xB0\xB5\xA4\xF2\xB8\xA1\xBD\xD0\xA4\xB7\xA4"
                                                 "\xBF\xA4\xC8\xA4\xAD\xA4\xCE\xBB\xFE\xB4\xD6[h]:";
inline constexpr const char *kVoltageLowest = "\xBA\xC7\xC4\xE3\xC5\xC5\xB0\xB5:";
inline constexpr const char *kVoltageLowestAt = "\xBA\xC7\xC4\xE3\xC5\xC5\xB0\xB5\xA4\xF2\xB8\xA1\xBD\xD0\xA4\xB7\xA4"
                                                "\xBF\xA4\xC8\xA4\xAD\xA4\xCE\xBB\xFE\xB4\xD6[h]:";
inline constexpr const char *kSmartAsc = "SMART ASC:";
inline constexpr const char *kSmartAscq = "SMART ASCQ:";
inline constexpr const char *kSmartTripAt =
    "SMART \xB7\xD9\xB9\xF0\xA4\xF2\xB8\xA1\xBD\xD0\xA4\xB7\xA4\xBF\xBB\xFE\xB4\xD6[h]:";
} // namespace label

// ---- head groups: read, write and seek ----

// Per head: sectors (4 bytes), errors since this start (2), errors of the start before
// (2); the group ends with the worst error count of any start.
struct HeadGroupKind {
    const char *sectorsLabel; // followed by "[Head<n>]:"
    const char *nowLabel;
    const char *beforeLabel;
    SmartQuantity sectors, now, before, worst;
};

inline constexpr HeadGroupKind kReadGroup = {
    "\xA5\xEA\xA1\xBC\xA5\xC9\xA4\xB7\xA4\xBF\xA5\xBB\xA5\xAF\xA5\xBF\xBF\xF4",         // リードしたセクタ数
    "\xB8\xBD\xBA\xDF\xA4\xCE\xA5\xEA\xA1\xBC\xA5\xC9\xA5\xA8\xA5\xE9\xA1\xBC\xBF\xF4", // 現在のリードエラー数
    "\xC1\xB0\xB2\xF3\xA4\xCE\xA5\xEA\xA1\xBC\xA5\xC9\xA5\xA8\xA5\xE9\xA1\xBC\xBF\xF4", // 前回のリードエラー数
    SmartQuantity::SectorsRead,
    SmartQuantity::ReadErrorsNow,
    SmartQuantity::ReadErrorsBefore,
    SmartQuantity::ReadErrorsWorst};
inline constexpr HeadGroupKind kWriteGroup = {
    "\xA5\xE9\xA5\xA4\xA5\xC8\xA4\xB7\xA4\xBF\xA5\xBB\xA5\xAF\xA5\xBF\xBF\xF4",         // ライトしたセクタ数
    "\xB8\xBD\xBA\xDF\xA4\xCE\xA5\xE9\xA5\xA4\xA5\xC8\xA5\xA8\xA5\xE9\xA1\xBC\xBF\xF4", // 現在のライトエラー数
    "\xC1\xB0\xB2\xF3\xA4\xCE\xA5\xE9\xA5\xA4\xA5\xC8\xA5\xA8\xA5\xE9\xA1\xBC\xBF\xF4", // 前回のライトエラー数
    SmartQuantity::SectorsWritten,
    SmartQuantity::WriteErrorsNow,
    SmartQuantity::WriteErrorsBefore,
    SmartQuantity::WriteErrorsWorst};
inline constexpr HeadGroupKind kSeekGroup = {
    "\xA5\xB7\xA1\xBC\xA5\xAF\xA4\xB7\xA4\xBF\xA5\xBB\xA5\xAF\xA5\xBF\xBF\xF4",         // シークしたセクタ数
    "\xB8\xBD\xBA\xDF\xA4\xCE\xA5\xB7\xA1\xBC\xA5\xAF\xA5\xA8\xA5\xE9\xA1\xBC\xBF\xF4", // 現在のシークエラー数
    "\xC1\xB0\xB2\xF3\xA4\xCE\xA5\xB7\xA1\xBC\xA5\xAF\xA5\xA8\xA5\xE9\xA1\xBC\xBF\xF4", // 前回のシークエラー数
    SmartQuantity::SectorsSought,
    SmartQuantity::SeekErrorsNow,
    SmartQuantity::SeekErrorsBefore,
    SmartQuantity::SeekErrorsWorst};

// Where a family keeps its heads inside a group block.
struct HeadGroupShape {
    uint16_t length;    // of the block
    uint16_t firstHead; // offset of head 0's sector count
    uint16_t stride;    // from one head to the next
    uint16_t worst;     // offset of the worst error count
};

template <uint8_t Heads>
constexpr std::array<SmartField, 3 * Heads + 1> headGroupFields(const HeadGroupKind &kind,
                                                                const HeadGroupShape &shape) {
    std::array<SmartField, 3 * Heads + 1> fields{};
    for (uint8_t head = 0; head < Heads; ++head) {
        const uint16_t at = static_cast<uint16_t>(shape.firstHead + head * shape.stride);
        fields[3 * head] = {at, kind.sectors, SmartFormat::Count32, head, kind.sectorsLabel, false};
        fields[3 * head + 1] = {
            static_cast<uint16_t>(at + 4), kind.now, SmartFormat::Count16, head, kind.nowLabel, false};
        fields[3 * head + 2] = {
            static_cast<uint16_t>(at + 6), kind.before, SmartFormat::Count16, head, kind.beforeLabel, false};
    }
    fields[3 * Heads] = {shape.worst, kind.worst, SmartFormat::Count16, kNoHead, label::kWorstErrors, true};
    return fields;
}

// ---- the blocks every family shares ----

inline constexpr SmartField kPowerOnFields[] = {
    {4, SmartQuantity::PowerOnMinutes, SmartFormat::Minutes, kNoHead, label::kPowerOn, true},
};
inline constexpr SmartField kSpareFields[] = {
    {4, SmartQuantity::SpareSectors, SmartFormat::Count16, kNoHead, label::kSpareSectors, true},
};
inline constexpr SmartField kSpinUpFields[] = {
    {6, SmartQuantity::SpinUpSecondsNow, SmartFormat::Seconds, kNoHead, label::kSpinUpNow, false},
    {7, SmartQuantity::SpinUpSecondsBefore, SmartFormat::Seconds, kNoHead, label::kSpinUpBefore, false},
    {8, SmartQuantity::SpinUpSecondsLongest, SmartFormat::Seconds, kNoHead, label::kSpinUpLongest, false},
    {10, SmartQuantity::SpinUpLongestAtMinutes, SmartFormat::Minutes, kNoHead, label::kSpinUpLongestAt, true},
};
inline constexpr SmartField kStartStopFields[] = {
    {6, SmartQuantity::StartStopCount, SmartFormat::Count16, kNoHead, label::kStartStop, true},
};
inline constexpr SmartField kTemperatureFields[] = {
    {4, SmartQuantity::TemperatureNow, SmartFormat::Degrees, kNoHead, label::kTemperatureNow, false},
    {6, SmartQuantity::TemperatureHighest, SmartFormat::Degrees, kNoHead, label::kTemperatureHighest, false},
    {8, SmartQuantity::TemperatureHighestAtMinutes, SmartFormat::Minutes, kNoHead, label::kTemperatureHighestAt, true},
};
inline constexpr SmartField kVoltageFields[] = {
    {4, SmartQuantity::VoltageNow, SmartFormat::Volts, kNoHead, label::kVoltageNow, false},
    {6, SmartQuantity::VoltageHighest, SmartFormat::Volts, kNoHead, label::kVoltageHighest, false},
    {8, SmartQuantity::VoltageHighestAtMinutes, SmartFormat::Minutes, kNoHead, label::kVoltageHighestAt, false},
    {12, SmartQuantity::VoltageLowest, SmartFormat::Volts, kNoHead, label::kVoltageLowest, false},
    {14, SmartQuantity::VoltageLowestAtMinutes, SmartFormat::Minutes, kNoHead, label::kVoltageLowestAt, true},
};
inline constexpr SmartField kSmartTripFields[] = {
    {6, SmartQuantity::SmartTripAsc, SmartFormat::Code, kNoHead, label::kSmartAsc, false},
    {7, SmartQuantity::SmartTripAscq, SmartFormat::Code, kNoHead, label::kSmartAscq, false},
    {8, SmartQuantity::SmartTripAtMinutes, SmartFormat::Minutes, kNoHead, label::kSmartTripAt, true},
};

template <size_t N> constexpr SmartBlock blockOf(uint16_t length, const SmartField (&fields)[N]) {
    return {length, fields, N};
}
template <size_t N> constexpr SmartBlock blockOf(uint16_t length, const std::array<SmartField, N> &fields) {
    return {length, fields.data(), N};
}

// ---- family 073: one head ----
inline constexpr HeadGroupShape kShape073 = {44, 10, 0, 42};
inline constexpr auto kRead073 = headGroupFields<1>(kReadGroup, kShape073);
inline constexpr auto kWrite073 = headGroupFields<1>(kWriteGroup, kShape073);
inline constexpr auto kSeek073 = headGroupFields<1>(kSeekGroup, kShape073);
inline constexpr SmartBlock kBlocks073[] = {
    blockOf(8, kPowerOnFields),    blockOf(44, kRead073),           blockOf(44, kWrite073),
    blockOf(44, kSeek073),         blockOf(6, kSpareFields),        blockOf(14, kSpinUpFields),
    blockOf(8, kStartStopFields),  blockOf(18, kTemperatureFields), blockOf(18, kVoltageFields),
    blockOf(12, kSmartTripFields),
};

// ---- families 147 and 300: eight heads, and a closing parameter ----
inline constexpr HeadGroupShape kShape146 = {72, 4, 8, 68};
inline constexpr auto kRead146 = headGroupFields<8>(kReadGroup, kShape146);
inline constexpr auto kWrite146 = headGroupFields<8>(kWriteGroup, kShape146);
inline constexpr auto kSeek146 = headGroupFields<8>(kSeekGroup, kShape146);
inline constexpr SmartBlock kBlocks146[] = {
    blockOf(8, kPowerOnFields),
    blockOf(72, kRead146),
    blockOf(72, kWrite146),
    blockOf(72, kSeek146),
    blockOf(6, kSpareFields),
    blockOf(14, kSpinUpFields),
    blockOf(8, kStartStopFields),
    blockOf(18, kTemperatureFields),
    blockOf(18, kVoltageFields),
    blockOf(12, kSmartTripFields),
    {4, nullptr, 0},
};

// ---- family 036: one head in a smaller group, and a closing parameter ----
inline constexpr HeadGroupShape kShape036 = {24, 8, 0, 22};
inline constexpr auto kRead036 = headGroupFields<1>(kReadGroup, kShape036);
inline constexpr auto kWrite036 = headGroupFields<1>(kWriteGroup, kShape036);
inline constexpr auto kSeek036 = headGroupFields<1>(kSeekGroup, kShape036);
inline constexpr SmartBlock kBlocks036[] = {
    blockOf(8, kPowerOnFields),
    blockOf(24, kRead036),
    blockOf(24, kWrite036),
    blockOf(24, kSeek036),
    blockOf(6, kSpareFields),
    blockOf(14, kSpinUpFields),
    blockOf(8, kStartStopFields),
    blockOf(18, kTemperatureFields),
    blockOf(18, kVoltageFields),
    blockOf(12, kSmartTripFields),
    {4, nullptr, 0},
};

template <size_t N> constexpr uint16_t walkLengthOf(const SmartBlock (&blocks)[N]) {
    size_t length = kPageHeaderLength;
    for (const SmartBlock &block : blocks) {
        length += block.length;
    }
    return static_cast<uint16_t>(length);
}

// The 073 drives are asked for 212 bytes, less than their page: the report walks the
// rest of its zeroed buffer.
inline constexpr SmartLayout kLayout073 = {"073", 212, walkLengthOf(kBlocks073), kBlocks073, std::size(kBlocks073)};
inline constexpr SmartLayout kLayout147 = {"147", 308, walkLengthOf(kBlocks146), kBlocks146, std::size(kBlocks146)};
inline constexpr SmartLayout kLayout300 = {"300", 308, walkLengthOf(kBlocks146), kBlocks146, std::size(kBlocks146)};
inline constexpr SmartLayout kLayout036 = {"036", 164, walkLengthOf(kBlocks036), kBlocks036, std::size(kBlocks036)};

inline constexpr const SmartLayout *kSmartLayouts[] = {&kLayout073, &kLayout147, &kLayout300, &kLayout036};

static_assert(walkLengthOf(kBlocks073) == 220, "family 073 walks 220 bytes");
static_assert(walkLengthOf(kBlocks146) == 308, "families 147 and 300 fill 308 bytes");
static_assert(walkLengthOf(kBlocks036) == 164, "family 036 fills 164 bytes");

} // namespace kellayouts
