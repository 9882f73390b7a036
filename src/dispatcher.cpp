// The command table and the run of one command: open the trace log, match the command
// word, open the controller library, call the handler, close the library.
#define KEL_MODULE "KelPthCmd"
#include <cstring>

#include "kelctl.h"
#include "kelpth/functbl.h"
#include "kelpth/handlers.h"
#include "kelpth/messages.h"
#include "kelpth/trace.h"

// Handlers read their arguments through their own entry, so the order is fixed.
FuncTblEntry functbl[kTblTerminator + 1] = {
    {"L", 2, 2, KelPrintLogsense, 1, nullptr},
    {"F", 3, 3, KelFirmwareUpdate, 0, nullptr},
    {"P", 3, 3, KelFixAnyPassThrough, 0, nullptr},
    {"E", 3, 3, KelPDHDDMediaErrorSet, 0, nullptr},
    {"N", 3, 3, KelPDHDDErrorInjectionSet, 0, nullptr},
    {"R", 3, 3, KelLDOneOneStripeRead, 0, nullptr},
    {"W", 3, 3, KelLDOneOneStripeWrite, 0, nullptr},
    {"D", 6, 6, KelPDOneSectorReadDump, 0, nullptr},
    {"r", 5, 5, KelLDOneOneStripeRead2, 0, nullptr},
    {"w", 6, 6, KelLDOneOneStripeWrite2, 0, nullptr},
    {"ANY", 3, 3, KelFreAnyPassThrough, 0, nullptr},
    {"PDOneSectorRead", 5, 5, KelPDOneSectorRead, 0, nullptr},
    {"PDPrintModePage", 7, 7, KelPDPrintModePage, 0, nullptr},
    {"PDOneSectorWrite", 5, 5, KelPDOneSectorWrite, 0, nullptr},
    {"PDHDDCapaChange", 5, 5, KelPDHDDCapaChange, 0, nullptr},
    {"LDOneSectorRead", 5, 5, KelLDOneSectorRead, 0, nullptr},
    {"LDOneSectorWrite", 5, 5, KelLDOneSectorWrite, 0, nullptr},
    {"N5", 3, 3, KelPDHDDErrorInjectionSet5, 0, nullptr},
    {"r64", 5, 5, KelLDOneOneStripeRead264, 0, nullptr},
    {"w64", 6, 6, KelLDOneOneStripeWrite264, 0, nullptr},
    {"e", 3, 3, KelPDHDDMediaErrorSet_SATA, 0, nullptr},
    {"A", 3, 3, KelPDHDDErrorInjectionSet_SATA, 0, nullptr},
    {"", 0, 0, nullptr, 1, nullptr},
};

namespace {

// Exact, case-sensitive match of the whole command word.
bool isCommandWord(const FuncTblEntry &entry, const char *word) {
    const size_t length = strlen(entry.name);
    return strncmp(entry.name, word, length) == 0 && strlen(word) == length;
}

} // namespace

int dispatchCommand(int argc, char **argv) {
    if (argc < 2) {
        KelPthErr0000(KEL_HERE);
        return 1;
    }
    bool commandRan = false;
    // A matched command does not end the scan: command words are unique, so no second
    // entry can match.
    for (FuncTblEntry *entry = functbl; entry->name[0] != '\0'; entry++) {
        if (!isCommandWord(*entry, argv[1])) {
            continue;
        }
        if (entry->minArgc > argc) {
            KelPthErr0000(KEL_HERE);
            return 1;
        }
        if (entry->maxArgc < argc) {
            KelPthErr0000(KEL_HERE);
            return 1;
        }
        if (entry->noArgv == 0) {
            entry->argv = argv;
        }
        if (initContData(0) == 0) {
            KelPthErr0004d(KEL_HERE, "initContData", DLLGetLastError());
            KelPthErr0002(KEL_HERE);
            return 1;
        }
        uint8_t controllerCount = 0;
        getContNum(&controllerCount);
        if (controllerCount == 0) {
            KelPthErr0003(KEL_HERE);
            KelPthErr0002(KEL_HERE);
            return 1;
        }
        if (entry->func() == 0) {
            return 1;
        }
        commandRan = true;
    }
    if (!commandRan) {
        KelPthErr0000(KEL_HERE);
        return 1;
    }
    return 0;
}

int KelPthMain(int argc, char **argv) {
    initLog("kelpth.log", 2000000);
    HistoryLog(argc, argv);
    signal_setup();
    const int status = dispatchCommand(argc, argv);
    awaitSignalEnd();
    finContData();
    return status;
}
