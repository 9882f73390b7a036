// Trace-log lines, the run-history line written at start-up, and the signal handlers.
#define KEL_MODULE "KelPthCmd"
#include "kelpth/trace.h"

#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kelctl.h"
#include "kelpth/messages.h"

char traceBuff[kTraceLineSize];

void traceCall(const char *functionName) {
    char line[kTraceLineSize] = {};
    snprintf(line, sizeof line, "CALL - %s()", functionName);
    dumpLog(nullptr, 0, line, nullptr, 0);
}

void traceLine(const char *fmt, ...) {
    char line[kTraceLineSize] = {};
    va_list args;
    va_start(args, fmt);
    vsnprintf(line, sizeof line, fmt, args);
    va_end(args);
    dumpLog(nullptr, 0, line, nullptr, 0);
}

namespace {
// Appends as much of text as still fits, keeping the terminating NUL.
void appendCut(char (&line)[kTraceLineSize], const char *text) {
    const size_t used = strlen(line);
    const size_t room = sizeof line - 1 - used;
    const size_t length = strnlen(text, room);
    memcpy(line + used, text, length);
    line[used + length] = '\0';
}
} // namespace

// The program's absolute path and its arguments; a long command line is cut at the
// end of the line buffer.
void HistoryLog(int argc, char **argv) {
    char line[kTraceLineSize] = {};
    char path[PATH_MAX > kTraceLineSize ? PATH_MAX : kTraceLineSize] = {};
    if (argc < 1 || argv[0] == nullptr || realpath(argv[0], path) == nullptr) {
        return;
    }
    appendCut(line, path);
    appendCut(line, " ");
    for (int i = 1; i < argc; i++) {
        appendCut(line, argv[i]);
        if (i < argc - 1) {
            appendCut(line, " ");
        }
    }
    dumpLog(nullptr, 0, line, nullptr, 0);
}

void signal_setup() {
    memset(traceBuff, 0, sizeof traceBuff);
    snprintf(traceBuff, sizeof traceBuff, "CALL - %s()", "signal_setup");
    dumpLog(nullptr, 0, traceBuff, nullptr, 0);
    signal(SIGINT, signal_handler);
    signal(SIGSEGV, signal_handler);
    signal(SIGTERM, signal_handler);
    signal(SIGHUP, signal_handler);
}

// An interrupt leaves only its trace line and exits 1; the other signals report on the
// screen and exit 0. The controller library is not closed on either path.
void signal_handler(int signalNumber) {
    char line[kTraceLineSize] = {};
    memset(traceBuff, 0, sizeof traceBuff);
    snprintf(traceBuff, sizeof traceBuff, "CALL - %s()", "signal_handler");
    dumpLog(nullptr, 0, traceBuff, nullptr, 0);
    const uint32_t detail = static_cast<uint32_t>(signalNumber) - 0x20000000u;
    if (signalNumber == SIGINT) {
        snprintf(line, sizeof line, "KEL0004-E %s() failed. detail=0x%08x\n", "signal_handler", detail);
        dumpLog(KEL_HERE, line, nullptr, 0);
        exit(1);
    }
    KelPthErr0004d(KEL_HERE, "signal_handler", detail);
    exit(0);
}
