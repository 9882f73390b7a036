// Trace-log entries, the run-history line and the signal handlers.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr size_t kTraceLineSize = 4096;
extern char traceBuff[kTraceLineSize];

// Hands one entry to the library's dumpLog (same arguments). Entries are written one at
// a time, whichever thread writes them.
int writeTraceEntry(const char *module, uint32_t line, const char *text, const void *data, uint32_t dataLength);
// Takes the trace log for good, waiting at most this long: afterwards only the caller's
// thread writes entries. For the end of the process on a signal.
bool holdTraceLog(int milliseconds);

// "CALL - <name>()" as a plain entry.
void traceCall(const char *functionName);
// One "## ..." screen-copy line as a plain entry; fmt is always a literal.
void traceLine(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

void HistoryLog(int argc, char **argv);

// Traces its entry line and installs signal_handler for SIGINT, SIGSEGV, SIGTERM and
// SIGHUP. An interrupt ends the process with 1 after its trace entries, silently; the
// others print KEL0004-E with the signal's detail and end it with 0.
void signal_setup();
// Safe to run inside a signal handler: hands the signal to a watcher thread, which
// writes the entries and the message and ends the process.
void signal_handler(int signalNumber);
// Called when the command is done: if a signal came in meanwhile, waits for the watcher
// to end the process instead of going on to a normal end.
void awaitSignalEnd();
