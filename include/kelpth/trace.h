// Trace-log lines, the run-history line and the signal handlers.
#pragma once

#include <cstddef>

constexpr size_t kTraceLineSize = 4096;
extern char traceBuff[kTraceLineSize];

// "CALL - <name>()" as a plain entry.
void traceCall(const char *functionName);
// One "## ..." screen-copy line as a plain entry; fmt is always a literal.
void traceLine(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

void HistoryLog(int argc, char **argv);
void signal_setup();
void signal_handler(int signalNumber);
