// The pass-through library's work behind every KelPas* function: the request checks, the
// 0xBB/0xBA wrapper, routing to a drive with SG_IO, the status, and the journal.
#pragma once

#include "backend.h"
#include "sg_command.h"

#include "kelpth.h"

namespace kelsgio {

// The five arguments of a KelPas* call. readLength is used by the reading functions
// (in: buffer size, out: bytes moved), writeLength by the sending ones.
struct PassCall {
    const char *function = "";
    bool sends = false; // the data length is passed by value
    bool anyCommand = false;
    PassThroughRequest *request = nullptr;
    void *data = nullptr;
    uint32_t *readLength = nullptr;
    uint32_t writeLength = 0;
    uint8_t *sense = nullptr;
    uint32_t *senseSize = nullptr;
};

// Largest transfer accepted in one call.
constexpr uint32_t kMaxTransferBytes = 16u << 20;

// What goes to the drive once the request has been checked and the wrapper taken off;
// an outcome with a nonzero status when the request is refused.
struct DriveCommand {
    const uint8_t *cdb = nullptr;
    size_t cdbLength = 0;
    Direction direction = Direction::None;
    bool ataPassThrough = false;
};
Outcome checkRouting(const PassThroughRequest &request, bool sata, bool sends, bool anyCommand, DriveCommand *command);

int runPassThrough(Backend &backend, const PassCall &call);

} // namespace kelsgio
