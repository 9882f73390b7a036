// libkelpth.so over SG_IO: the twelve pass-through functions.
#include "pass_through.h"

#include "kelpth.h"

namespace {

using kelcommon::PassFunction;

kelsgio::Backend &backend() {
    static kelsgio::Backend instance;
    return instance;
}

int readCall(PassFunction function, PassThroughRequest *request, void *data, uint32_t *dataLength, uint8_t *sense,
             uint32_t *senseSize) {
    kelcommon::PassCall call{function, request, data, dataLength, 0, sense, senseSize};
    return kelsgio::runPassThrough(backend(), call);
}

int writeCall(PassFunction function, PassThroughRequest *request, void *data, uint32_t dataLength, uint8_t *sense,
              uint32_t *senseSize) {
    kelcommon::PassCall call{function, request, data, nullptr, dataLength, sense, senseSize};
    return kelsgio::runPassThrough(backend(), call);
}

} // namespace

#define SGIO_READ_FUNCTION(name, function)                                                                             \
    KEL_PASS_THROUGH_READ(name) {                                                                                      \
        return readCall(PassFunction::function, request, data, dataLength, sense, senseSize);                          \
    }
#define SGIO_WRITE_FUNCTION(name, function)                                                                            \
    KEL_PASS_THROUGH_WRITE(name) {                                                                                     \
        return writeCall(PassFunction::function, request, data, dataLength, sense, senseSize);                         \
    }

extern "C" {
SGIO_READ_FUNCTION(KelPasReadExtend, ReadExtend)
SGIO_WRITE_FUNCTION(KelPasWriteExtend, WriteExtend)
SGIO_READ_FUNCTION(KelPasReadSectorExt, ReadSectorExt)
SGIO_WRITE_FUNCTION(KelPasWriteSectorExt, WriteSectorExt)
SGIO_READ_FUNCTION(KelPasAnyCommand, AnyCommand)
SGIO_READ_FUNCTION(KelPasInquiry, Inquiry)
SGIO_READ_FUNCTION(KelPasLogSense, LogSense)
SGIO_READ_FUNCTION(KelPasModeSense, ModeSense)
SGIO_WRITE_FUNCTION(KelPasModeSelect, ModeSelect)
SGIO_READ_FUNCTION(KelPasReadLong, ReadLong)
SGIO_WRITE_FUNCTION(KelPasWriteLong, WriteLong)
SGIO_WRITE_FUNCTION(KelPasWriteBuffer, WriteBuffer)
}
