// The twelve exported KelPas* functions of a pass-through library, each handing its
// arguments as one PassCall to the library's own entry point. Include it in one source file
// of the library and write KEL_DEFINE_PASS_THROUGH_EXPORTS(entry), where entry is a function
// int entry(const kelcommon::PassCall &).
#pragma once

#include "pass_request.h"

namespace kelcommon {

inline PassCall readingCall(PassFunction function, PassThroughRequest *request, void *data, uint32_t *dataLength,
                            uint8_t *sense, uint32_t *senseSize) {
    PassCall call;
    call.function = function;
    call.request = request;
    call.data = data;
    call.readLength = dataLength;
    call.sense = sense;
    call.senseSize = senseSize;
    return call;
}

inline PassCall sendingCall(PassFunction function, PassThroughRequest *request, void *data, uint32_t dataLength,
                            uint8_t *sense, uint32_t *senseSize) {
    PassCall call = readingCall(function, request, data, nullptr, sense, senseSize);
    call.writeLength = dataLength;
    return call;
}

} // namespace kelcommon

#define KEL_PASS_THROUGH_READ_EXPORT(entry, name, function)                                                            \
    KEL_PASS_THROUGH_READ(name) {                                                                                      \
        return entry(                                                                                                  \
            kelcommon::readingCall(kelcommon::PassFunction::function, request, data, dataLength, sense, senseSize));   \
    }
#define KEL_PASS_THROUGH_WRITE_EXPORT(entry, name, function)                                                           \
    KEL_PASS_THROUGH_WRITE(name) {                                                                                     \
        return entry(                                                                                                  \
            kelcommon::sendingCall(kelcommon::PassFunction::function, request, data, dataLength, sense, senseSize));   \
    }

#define KEL_DEFINE_PASS_THROUGH_EXPORTS(entry)                                                                         \
    extern "C" {                                                                                                       \
    KEL_PASS_THROUGH_READ_EXPORT(entry, KelPasReadExtend, ReadExtend)                                                  \
    KEL_PASS_THROUGH_WRITE_EXPORT(entry, KelPasWriteExtend, WriteExtend)                                               \
    KEL_PASS_THROUGH_READ_EXPORT(entry, KelPasReadSectorExt, ReadSectorExt)                                            \
    KEL_PASS_THROUGH_WRITE_EXPORT(entry, KelPasWriteSectorExt, WriteSectorExt)                                         \
    KEL_PASS_THROUGH_READ_EXPORT(entry, KelPasAnyCommand, AnyCommand)                                                  \
    KEL_PASS_THROUGH_READ_EXPORT(entry, KelPasInquiry, Inquiry)                                                        \
    KEL_PASS_THROUGH_READ_EXPORT(entry, KelPasLogSense, LogSense)                                                      \
    KEL_PASS_THROUGH_READ_EXPORT(entry, KelPasModeSense, ModeSense)                                                    \
    KEL_PASS_THROUGH_WRITE_EXPORT(entry, KelPasModeSelect, ModeSelect)                                                 \
    KEL_PASS_THROUGH_READ_EXPORT(entry, KelPasReadLong, ReadLong)                                                      \
    KEL_PASS_THROUGH_WRITE_EXPORT(entry, KelPasWriteLong, WriteLong)                                                   \
    KEL_PASS_THROUGH_WRITE_EXPORT(entry, KelPasWriteBuffer, WriteBuffer)                                               \
    }
