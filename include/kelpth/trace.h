// Trace-log entries, the run-history line and the signal handlers.
#pragma once

#include <csignal>
#include <cstddef>
#include <cstdint>

constexpr size_t kTraceLineSize = 4096;
extern char traceBuff[kTraceLineSize];

// Hands one entry to the library's dumpLog (same arguments), then ends the run if a
// signal came in (endIfSignalled).
int writeTraceEntry(const char *module, uint32_t line, const char *text, const void *data, uint32_t dataLength);
// Nonzero while writeTraceEntry is inside dumpLog.
extern volatile sig_atomic_t traceWriteUnderway;

// "CALL - <name>()" as a plain entry.
void traceCall(const char *functionName);
// One "## ..." screen-copy line as a plain entry; fmt is always a literal.
void traceLine(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

void HistoryLog(int argc, char **argv);

// Traces its entry line and installs signal_handler for SIGINT, SIGSEGV, SIGTERM and
// SIGHUP. An interrupt ends the process with 1 after its trace entries, silently; the
// others print KEL0004-E with the signal's detail and end it with 0.
void signal_setup();
// Safe to run inside a signal handler: notes the signal, which the command reports at
// its next safe point (endIfSignalled). Before signal_setup, ends the process at once
// with the message on the screen only.
void signal_handler(int signalNumber);
// A safe point: if a signal came in, writes the handler's trace entries and the message
// and ends the process with the signal's exit status.
void endIfSignalled();
// Called when the command is done: holds off further signals, and ends the process as
// endIfSignalled does if one came in meanwhile.
void awaitSignalEnd();
