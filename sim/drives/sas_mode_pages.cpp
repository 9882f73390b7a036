// The SAS drive's mode pages: their definitions (defaults and changeable bits), current
// and saved values kept in the drive's settings, MODE SENSE (6)/(10) and MODE SELECT (6)/(10)
// with the block descriptor that changes the capacity.
#include "sas_drive_internal.h"
#include "scsi_pages.h"
#include "text_fields.h"

#include <algorithm>
#include <cstdio>

namespace kelsim {
namespace sas {

struct ModePageDefinition {
    uint8_t code;
    std::vector<uint8_t> defaults;   // page code and page length included
    std::vector<uint8_t> changeable; // mask of the bits MODE SELECT may change
    uint8_t otherLength;             // a second page length MODE SELECT accepts, or 0
};

namespace {

constexpr uint8_t kInjectionPage = 0x22; // vendor error injection: sas_error_injection.cpp

// Ascending page code order, which is also the order of "all pages".
const std::vector<ModePageDefinition> &modePages() {
    static const std::vector<ModePageDefinition> kPages = {
        // Read-write error recovery: AWRE and ARRE on, 20 read and write retries.
        {0x01,
         {0x01, 0x0A, 0xC0, 0x14, 0x00, 0x00, 0x00, 0x00, 0x14, 0x00, 0xFF, 0xFF},
         {0x00, 0x00, 0xFF, 0xFF, 0x00, 0x00, 0x00, 0x00, 0xFF, 0x00, 0xFF, 0xFF},
         0},
        // Caching: write cache off, read cache on, 16 segments.
        {0x08,
         {0x08, 0x12, 0x00, 0x00, 0xFF, 0xFF, 0x00, 0x00, 0xFF, 0xFF,
          0xFF, 0xFF, 0x00, 0x10, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00},
         {0x00, 0x00, 0x05, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
          0x00, 0x00, 0x20, 0xFF, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00},
         0},
        // Control: unrestricted queue algorithm; GLTSD and QAM changeable; fixed-format sense only.
        {0x0A,
         {0x0A, 0x0A, 0x00, 0x10, 0x00, 0x00, 0x00, 0x00, 0xFF, 0xFF, 0x0A, 0x8C},
         {0x00, 0x00, 0x02, 0xF0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00},
         0},
        // Protocol-specific port (SAS): I_T nexus loss time and initiator response timeout,
        // 2 s each, both changeable.
        {0x19, {0x19, 0x06, 0x06, 0x00, 0x07, 0xD0, 0x07, 0xD0}, {0x00, 0x00, 0x00, 0x00, 0xFF, 0xFF, 0xFF, 0xFF}, 0},
        // Informational exceptions control: EWASC, MRIE 6 (report on request); PERF, DEXCPT,
        // TEST, LOGERR, MRIE, the interval timer and the report count changeable.
        {0x1C,
         {0x1C, 0x0A, 0x10, 0x06, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00},
         {0x00, 0x00, 0x8D, 0x0F, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF},
         0},
        // Vendor error injection: 28 bytes (or the 32-byte form), every bit the host's.
        {kInjectionPage, std::vector<uint8_t>(0x1C + 2, 0x00), {}, 0x20},
    };
    return kPages;
}

const ModePageDefinition *findModePage(uint8_t code) {
    for (const ModePageDefinition &page : modePages()) {
        if (page.code == code) {
            return &page;
        }
    }
    return nullptr;
}

std::vector<uint8_t> defaultPage(const ModePageDefinition &definition) {
    std::vector<uint8_t> page = definition.defaults;
    page[0] = definition.code;
    page[1] = static_cast<uint8_t>(page.size() - 2);
    return page;
}

bool pageLengthAccepted(const ModePageDefinition &definition, uint8_t length) {
    return length == definition.defaults.size() - 2 ||
           (definition.otherLength != 0 && length == definition.otherLength);
}

std::vector<uint8_t> changeableMask(const ModePageDefinition &definition, size_t size) {
    if (definition.changeable.empty()) {
        std::vector<uint8_t> mask(size, 0xFF);
        mask[0] = mask[1] = 0;
        return mask;
    }
    return definition.changeable;
}

std::string modePageKey(uint8_t code, const char *which) {
    char key[32];
    std::snprintf(key, sizeof key, "mode.%02X.%s", code, which);
    return key;
}

} // namespace

std::vector<uint8_t> SasDrive::loadModePage(const ModePageDefinition &definition, int pageControl) {
    std::vector<uint8_t> page = defaultPage(definition);
    if (pageControl == kDefault) {
        return page;
    }
    if (pageControl == kChangeable) {
        // The mask follows the page as it stands, so that a 32-byte vendor page gets a 32-byte mask.
        std::vector<uint8_t> current = loadModePage(definition, kCurrent);
        std::vector<uint8_t> mask = changeableMask(definition, current.size());
        mask[0] = definition.code;
        mask[1] = current[1];
        return mask;
    }
    // Current values fall back on the saved ones, saved ones on the defaults.
    const char *order[2] = {pageControl == kCurrent ? "current" : "saved", "saved"};
    for (const char *which : order) {
        std::string text;
        std::vector<uint8_t> stored;
        if (settings_.get(modePageKey(definition.code, which), &text) && fromHex(text, &stored) && stored.size() >= 2 &&
            stored[0] == definition.code && stored[1] == stored.size() - 2 &&
            pageLengthAccepted(definition, stored[1])) {
            return stored;
        }
    }
    return page;
}

std::vector<uint8_t> SasDrive::currentInjectionPage() {
    return loadModePage(*findModePage(kInjectionPage), kCurrent);
}

void SasDrive::storeModePage(const ModePageDefinition &definition, const std::vector<uint8_t> &page, bool save) {
    if (definition.code == kInjectionPage) {
        injectionPageChanged();
    }
    std::string text = toHex(page.data(), page.size());
    settings_.set(modePageKey(definition.code, "current"), text);
    if (save) {
        settings_.set(modePageKey(definition.code, "saved"), text);
    }
}

bool SasDrive::collectModePages(uint8_t pageCode, int pageControl, std::vector<uint8_t> *pages) {
    for (const ModePageDefinition &definition : modePages()) {
        if (pageCode == 0x3F || pageCode == definition.code) {
            std::vector<uint8_t> page = loadModePage(definition, pageControl);
            page[0] |= 0x80; // PS: the page can be saved
            pages->insert(pages->end(), page.begin(), page.end());
        }
    }
    return !pages->empty();
}

void SasDrive::blockDescriptor(int pageControl, bool longLba, std::vector<uint8_t> *out) {
    uint64_t blocks = pageControl == kDefault ? identity_.nativeBlocks : currentBlocks();
    uint32_t blockLength = kBlockSize;
    if (pageControl == kChangeable) {
        blocks = ~uint64_t{0}; // the block count can be changed, the block length cannot
        blockLength = 0;
    }
    const std::vector<uint8_t> descriptor = modeBlockDescriptor(blocks, blockLength, longLba);
    out->insert(out->end(), descriptor.begin(), descriptor.end());
}

ScsiResult SasDrive::modeSense(const Request &request) {
    const ModeSenseRequest sense = decodeModeSense(request.cdb);
    if (ScsiResult refusal; modeSenseRefused(sense, true, &refusal)) {
        return refusal;
    }
    std::vector<uint8_t> pages;
    if (!collectModePages(sense.pageCode, sense.pageControl, &pages)) {
        return invalidFieldInCdb(2, 5);
    }
    std::vector<uint8_t> descriptor;
    if (!sense.disableBlockDescriptors) {
        blockDescriptor(sense.pageControl, sense.longLba, &descriptor);
    }
    constexpr uint8_t kDpoFua = 0x10; // device-specific parameter: DPO and FUA supported, not write protected
    const std::vector<uint8_t> data = modeParameterData(sense.tenByte, sense.longLba, kDpoFua, descriptor, pages);
    return sendData(request.command, data, sense.allocation);
}

ScsiResult SasDrive::modeSelect6(const Request &request) {
    const uint8_t *cdb = request.cdb;
    uint32_t length = cdb[4];
    if (length == 0) {
        return ScsiResult{};
    }
    const uint8_t *list = hostData(request.command, length);
    if (list == nullptr) {
        return invalidFieldInCdb(4);
    }
    if (length < 4) {
        return parameterListLengthError();
    }
    ScsiResult result = applyModeParameters(list, length, 4, list[3], false, cdb[1] & 0x01, cdb[1] & 0x10);
    result.transferred = result.checkCondition ? 0 : length;
    return result;
}

ScsiResult SasDrive::modeSelect10(const Request &request) {
    const uint8_t *cdb = request.cdb;
    uint32_t length = static_cast<uint32_t>(getBe(&cdb[7], 2));
    if (length == 0) {
        return ScsiResult{};
    }
    const uint8_t *list = hostData(request.command, length);
    if (list == nullptr) {
        return invalidFieldInCdb(7);
    }
    if (length < 8) {
        return parameterListLengthError();
    }
    ScsiResult result =
        applyModeParameters(list, length, 8, getBe(&list[6], 2), list[4] & 0x01, cdb[1] & 0x01, cdb[1] & 0x10);
    result.transferred = result.checkCondition ? 0 : length;
    return result;
}

// Checks the whole parameter list before anything changes, then applies it.
ScsiResult SasDrive::applyModeParameters(const uint8_t *list, size_t length, size_t headerLength,
                                         size_t blockDescriptorLength, bool longLba, bool save, bool pageFormat) {
    size_t descriptorLengthByte = headerLength == 4 ? 3 : 7;
    size_t expectedDescriptor = longLba ? 16 : 8;
    if (blockDescriptorLength != 0 && blockDescriptorLength != expectedDescriptor) {
        return invalidFieldInParameterList(descriptorLengthByte);
    }
    if (headerLength + blockDescriptorLength > length) {
        return parameterListLengthError();
    }

    uint64_t newBlocks = 0; // 0: keep the capacity
    if (blockDescriptorLength != 0) {
        const uint8_t *descriptor = list + headerLength;
        uint64_t blocks = longLba ? getBe(descriptor, 8) : getBe(descriptor, 4);
        uint32_t blockLength = static_cast<uint32_t>(longLba ? getBe(descriptor + 12, 4) : getBe(descriptor + 5, 3));
        if (blockLength != kBlockSize) {
            return invalidFieldInParameterList(headerLength + (longLba ? 12 : 5));
        }
        if (!longLba && blocks == 0xFFFFFFFFULL) {
            blocks = identity_.nativeBlocks; // all ones in the short form asks for the largest capacity
        }
        if (blocks > identity_.nativeBlocks) {
            return invalidFieldInParameterList(headerLength);
        }
        newBlocks = blocks;
    }

    struct PageUpdate {
        const ModePageDefinition *definition;
        std::vector<uint8_t> page;
    };
    std::vector<PageUpdate> updates;
    for (size_t offset = headerLength + blockDescriptorLength; offset < length;) {
        if (offset + 2 > length) {
            return parameterListLengthError();
        }
        const uint8_t *page = list + offset;
        if (page[0] & 0x40) {
            return invalidFieldInParameterList(offset, 6); // no subpages
        }
        const ModePageDefinition *definition = findModePage(page[0] & 0x3F);
        if (definition == nullptr) {
            return invalidFieldInParameterList(offset);
        }
        if (!pageLengthAccepted(*definition, page[1])) {
            return invalidFieldInParameterList(offset + 1);
        }
        if (definition->code == kInjectionPage && !pageFormat) {
            return invalidFieldInParameterList(offset); // a vendor page needs PF
        }
        size_t size = size_t{page[1]} + 2;
        if (offset + size > length) {
            return parameterListLengthError();
        }
        std::vector<uint8_t> current = loadModePage(*definition, kCurrent);
        std::vector<uint8_t> mask = changeableMask(*definition, size);
        std::vector<uint8_t> updated(page, page + size);
        updated[0] = definition->code; // PS is reserved in MODE SELECT
        if (current.size() == size) {
            for (size_t i = 2; i < size; ++i) {
                if ((updated[i] ^ current[i]) & ~mask[i]) {
                    return invalidFieldInParameterList(offset + i);
                }
            }
        }
        updates.push_back({definition, updated});
        offset += size;
    }

    if (newBlocks != 0 && newBlocks != currentBlocks()) {
        settings_.set(kKeyCapacity, std::to_string(newBlocks));
    }
    for (const PageUpdate &update : updates) {
        storeModePage(*update.definition, update.page, save);
    }
    return ScsiResult{};
}

} // namespace sas
} // namespace kelsim
