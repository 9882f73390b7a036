// libkelpth.so over SG_IO: the twelve pass-through functions.
#include "pass_through.h"

#include "kelpth.h"

namespace {

kelsgio::Backend &backend() {
    static kelsgio::Backend instance;
    return instance;
}

int readCall(const char *function, bool anyCommand, PassThroughRequest *request, void *data, uint32_t *dataLength,
             uint8_t *sense, uint32_t *senseSize) {
    kelsgio::PassCall call;
    call.function = function;
    call.anyCommand = anyCommand;
    call.request = request;
    call.data = data;
    call.readLength = dataLength;
    call.sense = sense;
    call.senseSize = senseSize;
    return kelsgio::runPassThrough(backend(), call);
}

int writeCall(const char *function, PassThroughRequest *request, void *data, uint32_t dataLength, uint8_t *sense,
              uint32_t *senseSize) {
    kelsgio::PassCall call;
    call.function = function;
    call.sends = true;
    call.request = request;
    call.data = data;
    call.writeLength = dataLength;
    call.sense = sense;
    call.senseSize = senseSize;
    return kelsgio::runPassThrough(backend(), call);
}

} // namespace

#define SGIO_READ_FUNCTION(name)                                                                                       \
    KEL_PASS_THROUGH_READ(name) {                                                                                      \
        return readCall(#name, false, request, data, dataLength, sense, senseSize);                                    \
    }
#define SGIO_WRITE_FUNCTION(name)                                                                                      \
    KEL_PASS_THROUGH_WRITE(name) {                                                                                     \
        return writeCall(#name, request, data, dataLength, sense, senseSize);                                          \
    }

extern "C" {
SGIO_READ_FUNCTION(KelPasReadExtend)
SGIO_WRITE_FUNCTION(KelPasWriteExtend)
SGIO_READ_FUNCTION(KelPasReadSectorExt)
SGIO_WRITE_FUNCTION(KelPasWriteSectorExt)
KEL_PASS_THROUGH_READ(KelPasAnyCommand) {
    return readCall("KelPasAnyCommand", true, request, data, dataLength, sense, senseSize);
}
SGIO_READ_FUNCTION(KelPasInquiry)
SGIO_READ_FUNCTION(KelPasLogSense)
SGIO_READ_FUNCTION(KelPasModeSense)
SGIO_WRITE_FUNCTION(KelPasModeSelect)
SGIO_READ_FUNCTION(KelPasReadLong)
SGIO_WRITE_FUNCTION(KelPasWriteLong)
SGIO_WRITE_FUNCTION(KelPasWriteBuffer)
}
