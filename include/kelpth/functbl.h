// The command table: one entry per command word, each holding the run's argv for its handler.
#pragma once

#include <cstdint>

using KelHandler = int32_t (*)();

struct FuncTblEntry {
    char name[40];
    int32_t minArgc;
    int32_t maxArgc;
    KelHandler func;
    int32_t noArgv; // nonzero: the dispatcher leaves argv alone
    char **argv;
};

// Positions in functbl. Handlers find their arguments through their own entry, so the
// order of the table is fixed.
enum FuncTblIndex {
    kTblLogSense = 0,
    kTblFirmware = 1,
    kTblFixPassThrough = 2,
    kTblMediaError = 3,
    kTblErrorInjection = 4,
    kTblStripeReadFile = 5,
    kTblStripeWriteFile = 6,
    kTblSectorDump = 7,
    kTblStripeRead = 8,
    kTblStripeWrite = 9,
    kTblFreePassThrough = 10,
    kTblPDSectorRead = 11,
    kTblPrintModePage = 12,
    kTblPDSectorWrite = 13,
    kTblCapaChange = 14,
    kTblLDSectorRead = 15,
    kTblLDSectorWrite = 16,
    kTblErrorInjection5 = 17,
    kTblStripeRead64 = 18,
    kTblStripeWrite64 = 19,
    kTblMediaErrorSata = 20,
    kTblErrorInjectionSata = 21,
    kTblTerminator = 22,
};

extern FuncTblEntry functbl[kTblTerminator + 1];

// Runs one command: everything main does, returning the exit status.
int KelPthMain(int argc, char **argv);
// The part of KelPthMain between the signal set-up and the closing of the controller
// library: match the command word, check the argument count, open the library, call the
// handler. Returns the exit status.
int dispatchCommand(int argc, char **argv);
