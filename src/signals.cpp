// The signal handlers. A signal may stop the command anywhere (inside malloc, stdio or
// the library's log write), so signal_handler only notes it; the command reports it
// itself at its next safe point (right after its next trace entry, before its next
// block of dump rows, or at the end of the run): the handler's trace entries, the
// message, then the end of the process with the signal's exit status. A command that
// reaches no safe point for a while (stuck inside a library call) is ended by a timer
// with the message on the screen only. A segmentation fault the program itself caused
// cannot go on to a safe point: it is reported at once, as well as the moment allows.
#define KEL_MODULE "KelPthCmd"
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "kelctl.h"
#include "kelpth/messages.h"
#include "kelpth/trace.h"

namespace {

constexpr int kHandledSignals[] = {SIGINT, SIGSEGV, SIGTERM, SIGHUP};
// How long a noted signal waits for the command to reach a safe point.
constexpr int kSafePointWaitMilliseconds = 1000;

volatile sig_atomic_t handlersInstalled = 0;
volatile sig_atomic_t pendingSignal = 0;
volatile sig_atomic_t reporting = 0;

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

// Safe inside a signal handler: the message straight to the screen (none for an
// interrupt), no trace entries, and the end.
[[noreturn]] void endOnScreenOnly(int signalNumber) {
    if (signalNumber != SIGINT) {
        char message[64];
        writeScreen(message, formatSignalMessage(signalNumber, message));
    }
    _exit(exitStatusFor(signalNumber));
}

// The report: the entry line, the message, the end.
[[noreturn]] void reportSignal(int signalNumber) {
    reporting = 1;
    memset(traceBuff, 0, sizeof traceBuff);
    snprintf(traceBuff, sizeof traceBuff, "CALL - %s()", "signal_handler");
    writeTraceEntry(nullptr, 0, traceBuff, nullptr, 0);
    if (signalNumber == SIGINT) {
        char message[64];
        formatSignalMessage(signalNumber, message);
        writeTraceEntry(KEL_HERE, message, nullptr, 0);
    } else {
        KelPthErr0004d(KEL_HERE, "signal_handler", signalDetail(signalNumber));
    }
    fflush(stdout);
    _exit(exitStatusFor(signalNumber));
}

void onSafePointWaitOver(int) {
    endOnScreenOnly(pendingSignal);
}

// Ends the run after kSafePointWaitMilliseconds if no safe point comes first.
void startSafePointWait() {
    struct sigaction action {};
    action.sa_handler = onSafePointWaitOver;
    sigaction(SIGALRM, &action, nullptr);
    itimerval wait{};
    wait.it_value.tv_sec = kSafePointWaitMilliseconds / 1000;
    wait.it_value.tv_usec = (kSafePointWaitMilliseconds % 1000) * 1000;
    setitimer(ITIMER_REAL, &wait, nullptr);
}

// A fault raised by the kernel (si_code above zero) rather than a SIGSEGV sent by kill.
void onSignal(int signalNumber, siginfo_t *info, void *) {
    if (signalNumber == SIGSEGV && info != nullptr && info->si_code > 0) {
        if (reporting != 0 || traceWriteUnderway != 0) {
            endOnScreenOnly(signalNumber);
        }
        pendingSignal = signalNumber;
        startSafePointWait();
        reportSignal(signalNumber);
    }
    signal_handler(signalNumber);
}

} // namespace

void signal_setup() {
    memset(traceBuff, 0, sizeof traceBuff);
    snprintf(traceBuff, sizeof traceBuff, "CALL - %s()", "signal_setup");
    writeTraceEntry(nullptr, 0, traceBuff, nullptr, 0);
    // As signal() installs a handler (restarted system calls, the signal held while its
    // handler runs), with the detail that tells a fault from a signal sent.
    for (const int signalNumber : kHandledSignals) {
        struct sigaction action {};
        action.sa_sigaction = onSignal;
        action.sa_flags = SA_SIGINFO | SA_RESTART;
        sigaction(signalNumber, &action, nullptr);
    }
    handlersInstalled = 1;
}

void signal_handler(int signalNumber) {
    const int savedErrno = errno;
    if (handlersInstalled == 0) {
        endOnScreenOnly(signalNumber);
    }
    if (pendingSignal == 0 && reporting == 0) {
        pendingSignal = signalNumber;
        startSafePointWait();
    }
    errno = savedErrno;
}

void endIfSignalled() {
    if (pendingSignal != 0 && reporting == 0) {
        const itimerval stop{};
        setitimer(ITIMER_REAL, &stop, nullptr);
        reportSignal(pendingSignal);
    }
}

void awaitSignalEnd() {
    sigset_t handled;
    sigemptyset(&handled);
    for (const int signalNumber : kHandledSignals) {
        sigaddset(&handled, signalNumber);
    }
    sigprocmask(SIG_BLOCK, &handled, nullptr);
    endIfSignalled();
}
