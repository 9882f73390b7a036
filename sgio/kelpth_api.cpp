// libkelpth.so over SG_IO: the twelve pass-through functions.
#include "pass_through.h"
#include "pass_through_exports.h"

namespace {

kelsgio::Backend &backend() {
    static kelsgio::Backend instance;
    return instance;
}

int runCall(const kelcommon::PassCall &call) {
    return kelsgio::runPassThrough(backend(), call);
}

} // namespace

KEL_DEFINE_PASS_THROUGH_EXPORTS(runCall)
