// The pass-through library's work behind every KelPas* function over SG_IO: the common
// request checks and routing, the length of a wrapped command, the status, and the journal.
#pragma once

#include "backend.h"
#include "pass_request.h"
#include "sg_command.h"

namespace kelsgio {

using kelcommon::PassCall;

// The length of a command block by its operation code's group, at most `available`
// bytes (a wrapper holds the drive's command and may hold padding after it).
size_t commandLength(uint8_t opcode, size_t available);

int runPassThrough(Backend &backend, const PassCall &call);

} // namespace kelsgio
