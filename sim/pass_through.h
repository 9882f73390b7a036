// The pass-through library's work behind every KelPas* function: check the request as
// the controller's library does, route it to a drive or a logical drive, turn the answer
// into a library status, and journal the call.
#pragma once

#include "farm.h"
#include "library_entry.h"
#include "pass_request.h"

#include "kelpth.h"

namespace kelsim {

using kelcommon::PassCall;

int runPassThrough(Farm &farm, const PassCall &call);

} // namespace kelsim
