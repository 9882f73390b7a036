// Trace-log lines and the run-history line written at start-up. Every entry the program
// writes goes through writeTraceEntry, so entries never interleave inside the library.
#define KEL_MODULE "KelPthCmd"
#include "kelpth/trace.h"

#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kelctl.h"

char traceBuff[kTraceLineSize];
volatile sig_atomic_t traceWriteUnderway = 0;

// Right after an entry is a safe point for a signal that came in meanwhile.
int writeTraceEntry(const char *module, uint32_t line, const char *text, const void *data, uint32_t dataLength) {
    traceWriteUnderway = 1;
    const int result = dumpLog(module, line, text, data, dataLength);
    traceWriteUnderway = 0;
    endIfSignalled();
    return result;
}

void traceCall(const char *functionName) {
    char line[kTraceLineSize] = {};
    snprintf(line, sizeof line, "CALL - %s()", functionName);
    writeTraceEntry(nullptr, 0, line, nullptr, 0);
}

void traceLine(const char *fmt, ...) {
    char line[kTraceLineSize] = {};
    va_list args;
    va_start(args, fmt);
    vsnprintf(line, sizeof line, fmt, args);
    va_end(args);
    writeTraceEntry(nullptr, 0, line, nullptr, 0);
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
    writeTraceEntry(nullptr, 0, line, nullptr, 0);
}
