// The signal handlers. signal_handler does only what is safe inside a signal handler:
// it notes the signal and wakes a watcher thread through a pipe. The watcher, an
// ordinary thread, takes the trace log and the screen from the command (which goes on
// until it next writes either, so it never holds them stopped halfway), writes the
// trace entries and the message, and ends the process with the signal's exit status.
// A signal that lands inside stdio or inside the library's log write therefore cannot
// deadlock or corrupt either.
#define KEL_MODULE "KelPthCmd"
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "kelpth/messages.h"
#include "kelpth/trace.h"

namespace {

constexpr int kHandledSignals[] = {SIGINT, SIGSEGV, SIGTERM, SIGHUP};
// How long the watcher waits for a command stopped inside a log write or stdio (only a
// segmentation fault stops it there; the other signals let it run on).
constexpr int kHoldWaitMilliseconds = 500;

int wakePipe[2] = {-1, -1};
volatile sig_atomic_t watcherReady = 0;
volatile sig_atomic_t caughtSignal = 0;

uint32_t signalDetail(int signalNumber) {
    return static_cast<uint32_t>(signalNumber) - 0x20000000u;
}

int exitStatusFor(int signalNumber) {
    return signalNumber == SIGINT ? 1 : 0;
}

// "KEL0004-E signal_handler() failed. detail=0x%08x\n" built without stdio, so that it
// can be formatted inside a signal handler. Returns the length.
size_t formatSignalMessage(int signalNumber, char (&text)[64]) {
    static const char head[] = "KEL0004-E signal_handler() failed. detail=0x";
    static const char digits[] = "0123456789abcdef";
    size_t length = sizeof head - 1;
    memcpy(text, head, length);
    const uint32_t detail = signalDetail(signalNumber);
    for (int shift = 28; shift >= 0; shift -= 4) {
        text[length++] = digits[(detail >> shift) & 0xF];
    }
    text[length++] = '\n';
    text[length] = '\0';
    return length;
}

void writeScreen(const char *text, size_t length) {
    while (length > 0) {
        const ssize_t written = write(STDOUT_FILENO, text, length);
        if (written <= 0 && errno != EINTR) {
            return;
        }
        if (written > 0) {
            text += written;
            length -= static_cast<size_t>(written);
        }
    }
}

bool holdScreen(int milliseconds) {
    const timespec pause = {0, 1000000};
    for (int waited = 0; waited < milliseconds; waited++) {
        if (ftrylockfile(stdout) == 0) {
            return true;
        }
        nanosleep(&pause, nullptr);
    }
    return false;
}

// The watcher's work for one signal: the entry line, the message, the end.
[[noreturn]] void reportSignal(int signalNumber) {
    const bool logHeld = holdTraceLog(kHoldWaitMilliseconds);
    const bool screenHeld = holdScreen(kHoldWaitMilliseconds);
    if (logHeld) {
        memset(traceBuff, 0, sizeof traceBuff);
        snprintf(traceBuff, sizeof traceBuff, "CALL - %s()", "signal_handler");
        writeTraceEntry(nullptr, 0, traceBuff, nullptr, 0);
    }
    char message[64];
    formatSignalMessage(signalNumber, message);
    if (signalNumber == SIGINT) {
        if (logHeld) {
            writeTraceEntry(KEL_HERE, message, nullptr, 0);
        }
    } else if (logHeld && screenHeld) {
        KelPthErr0004d(KEL_HERE, "signal_handler", signalDetail(signalNumber));
    } else {
        // The command stopped inside a log write or stdio: the screen only, past stdio.
        writeScreen(message, strlen(message));
    }
    if (screenHeld) {
        fflush(stdout);
    }
    _exit(exitStatusFor(signalNumber));
}

void *watchSignals(void *) {
    unsigned char signalNumber = 0;
    ssize_t got = 0;
    do {
        got = read(wakePipe[0], &signalNumber, 1);
    } while (got < 0 && errno == EINTR);
    if (got == 1) {
        reportSignal(signalNumber);
    }
    return nullptr;
}

// A pipe and a detached watcher thread that has every signal blocked.
bool startWatcher() {
    if (pipe(wakePipe) != 0) {
        return false;
    }
    sigset_t all, previous;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &previous);
    pthread_t watcher;
    const bool started = pthread_create(&watcher, nullptr, watchSignals, nullptr) == 0;
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    if (started) {
        pthread_detach(watcher);
    }
    return started;
}

} // namespace

void signal_setup() {
    memset(traceBuff, 0, sizeof traceBuff);
    snprintf(traceBuff, sizeof traceBuff, "CALL - %s()", "signal_setup");
    writeTraceEntry(nullptr, 0, traceBuff, nullptr, 0);
    watcherReady = startWatcher() ? 1 : 0;
    for (const int signalNumber : kHandledSignals) {
        signal(signalNumber, signal_handler);
    }
}

void signal_handler(int signalNumber) {
    const int savedErrno = errno;
    caughtSignal = signalNumber;
    const unsigned char wake = static_cast<unsigned char>(signalNumber);
    if (watcherReady != 0 && write(wakePipe[1], &wake, 1) == 1) {
        errno = savedErrno;
        if (signalNumber == SIGSEGV) {
            // Going back would fault again: wait here for the watcher to end the process.
            for (;;) {
                pause();
            }
        }
        return;
    }
    // No watcher: the message straight to the screen, no trace entries.
    if (signalNumber != SIGINT) {
        char message[64];
        writeScreen(message, formatSignalMessage(signalNumber, message));
    }
    _exit(exitStatusFor(signalNumber));
}

void awaitSignalEnd() {
    sigset_t handled;
    sigemptyset(&handled);
    for (const int signalNumber : kHandledSignals) {
        sigaddset(&handled, signalNumber);
    }
    pthread_sigmask(SIG_BLOCK, &handled, nullptr);
    if (caughtSignal != 0) {
        for (;;) {
            pause();
        }
    }
}
