// libkelpth.so of the simulated farm: the twelve pass-through functions.
#include "pass_through.h"

#include "kelpth.h"

namespace {

// Built on first use and kept for the whole process, drives included (a SATA drive keeps
// its power-cycle state between calls).
kelsim::Farm &farm() {
    static kelsim::Farm instance(kelsim::stateDirectoryFromEnvironment());
    return instance;
}

int readCall(kelsim::PassFunction function, PassThroughRequest *request, void *data, uint32_t *dataLength,
             uint8_t *sense, uint32_t *senseSize) {
    kelsim::PassCall call;
    call.function = function;
    call.request = request;
    call.data = data;
    call.readLength = dataLength;
    call.sense = sense;
    call.senseSize = senseSize;
    return kelsim::runPassThrough(farm(), call);
}

int writeCall(kelsim::PassFunction function, PassThroughRequest *request, void *data, uint32_t dataLength,
              uint8_t *sense, uint32_t *senseSize) {
    kelsim::PassCall call;
    call.function = function;
    call.request = request;
    call.data = data;
    call.writeLength = dataLength;
    call.sense = sense;
    call.senseSize = senseSize;
    return kelsim::runPassThrough(farm(), call);
}

} // namespace

#define SIM_READ_FUNCTION(name, function)                                                                              \
    KEL_PASS_THROUGH_READ(name) {                                                                                      \
        return readCall(kelsim::PassFunction::function, request, data, dataLength, sense, senseSize);                  \
    }
#define SIM_WRITE_FUNCTION(name, function)                                                                             \
    KEL_PASS_THROUGH_WRITE(name) {                                                                                     \
        return writeCall(kelsim::PassFunction::function, request, data, dataLength, sense, senseSize);                 \
    }

extern "C" {
SIM_READ_FUNCTION(KelPasReadExtend, ReadExtend)
SIM_WRITE_FUNCTION(KelPasWriteExtend, WriteExtend)
SIM_READ_FUNCTION(KelPasReadSectorExt, ReadSectorExt)
SIM_WRITE_FUNCTION(KelPasWriteSectorExt, WriteSectorExt)
SIM_READ_FUNCTION(KelPasAnyCommand, AnyCommand)
SIM_READ_FUNCTION(KelPasInquiry, Inquiry)
SIM_READ_FUNCTION(KelPasLogSense, LogSense)
SIM_READ_FUNCTION(KelPasModeSense, ModeSense)
SIM_WRITE_FUNCTION(KelPasModeSelect, ModeSelect)
SIM_READ_FUNCTION(KelPasReadLong, ReadLong)
SIM_WRITE_FUNCTION(KelPasWriteLong, WriteLong)
SIM_WRITE_FUNCTION(KelPasWriteBuffer, WriteBuffer)
}
