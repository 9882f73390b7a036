// libkelpth.so of the simulated farm: the twelve pass-through functions.
#include "pass_through.h"
#include "pass_through_exports.h"

namespace {

// Built on first use and kept for the whole process, drives included (a SATA drive keeps
// its power-cycle state between calls).
kelsim::Farm &farm() {
    static kelsim::Farm instance(kelsim::stateDirectoryFromEnvironment());
    return instance;
}

int runCall(const kelcommon::PassCall &call) {
    return kelsim::runPassThrough(farm(), call);
}

} // namespace

KEL_DEFINE_PASS_THROUGH_EXPORTS(runCall)
