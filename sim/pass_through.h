// The pass-through library's work behind every KelPas* function: check the request as
// the controller's library does, route it to a drive or a logical drive, turn the answer
// into a library status, and journal the call.
#pragma once

#include "farm.h"
#include "library_entry.h"

#include "kelpth.h"

namespace kelsim {

const char *passFunctionName(PassFunction function);
// True for the functions whose data length is passed by value (they send data).
bool passFunctionSendsData(PassFunction function);

// The five arguments of a KelPas* call. readLength is used by the reading functions
// (in: buffer size, out: bytes moved), writeLength by the sending ones.
struct PassCall {
    PassFunction function = PassFunction::AnyCommand;
    PassThroughRequest *request = nullptr;
    void *data = nullptr;
    uint32_t *readLength = nullptr;
    uint32_t writeLength = 0;
    uint8_t *sense = nullptr;
    uint32_t *senseSize = nullptr;
};

// Largest transfer the library accepts in one call.
constexpr uint32_t kMaxTransferBytes = 16u << 20;

int runPassThrough(Farm &farm, const PassCall &call);

} // namespace kelsim
