// The decoders of the vendor SMART log page 0x32: each walks its family's page block by
// block, as the shared layout tables describe it, and prints every field on its own line,
// an EUC-JP label followed by the value.
#define KEL_MODULE "KelPthCmd"
#include <cstdio>
#include <cstring>

#include "kelctl.h"
#include "kelpth/diagnostics.h"
#include "kelpth/messages.h"
#include "kelpth/trace.h"
#include "layouts/smart_log_layouts.h"

namespace {

using kellayouts::SmartField;
using kellayouts::SmartFormat;
using kellayouts::SmartLayout;

uint32_t readBigEndian(const uint8_t *bytes, size_t width) {
    uint32_t value = 0;
    for (size_t i = 0; i < width; i++) {
        value = (value << 8) | bytes[i];
    }
    return value;
}

// Minutes as hours with two decimals: 90 minutes are "    1.50".
void printMinutesAsHours(uint32_t minutes) {
    const uint32_t hours = minutes / 60;
    printf("%8u.%02u\n", hours, ((minutes - hours * 60) * 100) / 60);
}

void printField(const SmartField &field, const uint8_t *block) {
    printf("%s", field.label);
    if (field.head != kellayouts::kNoHead) {
        printf("[Head%u]:", field.head);
    }
    const uint32_t value = readBigEndian(block + field.offset, kellayouts::widthOf(field.format));
    switch (field.format) {
    case SmartFormat::Minutes:
        printMinutesAsHours(value);
        break;
    case SmartFormat::Count32:
        printf("%10u\n", value);
        break;
    case SmartFormat::Count16:
        printf("%5u\n", value);
        break;
    case SmartFormat::Seconds:
        printf("%4u\n", value);
        break;
    case SmartFormat::Degrees:
        printf("%3u\n", value);
        break;
    case SmartFormat::Volts:
        printf("1%u.%u\n", value >> 4, value & 0x0F);
        break;
    case SmartFormat::Code:
        printf("%02X\n", value);
        break;
    }
    if (field.blankLineAfter) {
        printf("\n");
    }
}

// The walk every decoder makes: its entry line, the null check, then each block after the
// page header. The page is the report's whole buffer, so the walk never leaves it.
int printSmartPage(const char *decoderName, const SmartLayout &layout, const uint8_t *page) {
    memset(traceBuff, 0, sizeof traceBuff);
    snprintf(traceBuff, sizeof traceBuff, "CALL - %s()", decoderName);
    dumpLog(nullptr, 0, traceBuff, nullptr, 0);
    if (page == nullptr) {
        KelPthErr0014(KEL_HERE, 1);
        KelPthErr0002(KEL_HERE);
        return 0;
    }
    size_t cursor = kellayouts::kPageHeaderLength;
    for (size_t b = 0; b < layout.blockCount; b++) {
        const kellayouts::SmartBlock &block = layout.blocks[b];
        for (size_t f = 0; f < block.fieldCount; f++) {
            printField(block.fields[f], page + cursor);
        }
        cursor += block.length;
    }
    return 1;
}

} // namespace

int PrintLogPage32Fix73(const uint8_t *page) {
    return printSmartPage("PrintLogPage32Fix73", kellayouts::kLayout073, page);
}

int PrintLogPage32Fix146(const uint8_t *page) {
    return printSmartPage("PrintLogPage32Fix146", kellayouts::kLayout147, page);
}

int PrintLogPage32Fix36(const uint8_t *page) {
    return printSmartPage("PrintLogPage32Fix36", kellayouts::kLayout036, page);
}
