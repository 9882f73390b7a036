// The ATA device's identity, capacity and features: IDENTIFY DEVICE, READ NATIVE MAX
// ADDRESS EXT, SET MAX ADDRESS EXT (volatile or lasting) and SET FEATURES.
#include "ata_device_internal.h"

#include <cstring>
#include <string>

namespace kelsim {

AtaCompletion AtaDevice::identify(const Request &request) {
    if (!phaseMatches(request.phase, request.data, request.length, AtaDataPhase::In, kBlockSize)) {
        return aborted();
    }
    IdentifyState state;
    state.userBlocks = userBlocks();
    state.writeCacheEnabled = flag(kWriteCacheKey, true);
    state.readLookAheadEnabled = flag(kReadLookAheadKey, true);
    state.smartEnabled = flag(kSmartKey, true);
    AtaSector data = buildIdentifyData(identity_, state);
    std::memcpy(request.data, data.data(), data.size());
    return completed(kBlockSize);
}

AtaCompletion AtaDevice::readNativeMaxAddress(const Request &request) {
    if (request.phase != AtaDataPhase::None) {
        return aborted();
    }
    AtaCompletion completion = completed();
    completion.lba = nativeBlocks() > 0 ? nativeBlocks() - 1 : 0;
    nativeMaxJustRead_ = true;
    return completion;
}

AtaCompletion AtaDevice::setMaxAddress(const Request &request, bool followsReadNativeMax) {
    if (!followsReadNativeMax || request.phase != AtaDataPhase::None) {
        return aborted();
    }
    const uint64_t maxAddress = request.registers.lba & kLba48Mask;
    if (maxAddress >= nativeBlocks()) {
        return aborted();
    }
    // Count bit 0 (value volatile): set, the new size survives a power cycle.
    const bool survivesPowerCycle = (request.registers.count & 0x01) != 0;
    if (survivesPowerCycle) {
        if (nonVolatileMaxSet_) { // only one non-volatile change per power cycle
            return aborted();
        }
        nonVolatileMaxSet_ = true;
        settings_.set(kUserBlocksKey, std::to_string(maxAddress + 1));
        volatileUserBlocks_.reset();
    } else {
        volatileUserBlocks_ = maxAddress + 1;
    }
    AtaCompletion completion = completed();
    completion.lba = maxAddress;
    return completion;
}

AtaCompletion AtaDevice::setFeatures(const Request &request) {
    if (request.phase != AtaDataPhase::None) {
        return aborted();
    }
    switch (request.registers.features & 0xFF) {
    case 0x02:
        settings_.set(kWriteCacheKey, "1");
        break;
    case 0x82:
        settings_.set(kWriteCacheKey, "0");
        break;
    case 0xAA:
        settings_.set(kReadLookAheadKey, "1");
        break;
    case 0x55:
        settings_.set(kReadLookAheadKey, "0");
        break;
    case 0x03: // set transfer mode: nothing to change on a simulated link
        break;
    default:
        return aborted();
    }
    return completed();
}

} // namespace kelsim
