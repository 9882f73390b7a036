// libkelpth.so of the simulated farm: the twelve pass-through functions, each passed on
// to libkelsim.so.
#include "library_entry.h"

#define SIM_READ_FUNCTION(name, function)                                                                              \
    KEL_PASS_THROUGH_READ(name) {                                                                                      \
        return kelsim_passThrough(kelsim::PassFunction::function, request, data, dataLength, 0, sense, senseSize);     \
    }
#define SIM_WRITE_FUNCTION(name, function)                                                                             \
    KEL_PASS_THROUGH_WRITE(name) {                                                                                     \
        return kelsim_passThrough(kelsim::PassFunction::function, request, data, nullptr, dataLength, sense,           \
                                  senseSize);                                                                          \
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
