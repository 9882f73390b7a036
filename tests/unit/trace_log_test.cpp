// The run-history line's bounds, and the screen, trace and exit of each handled signal.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "kelctl.h"
#include "kelpth/trace.h"
#include "support/scratch_folder.h"

namespace {

TEST(HistoryLog, LongCommandLineIsCutInsideItsBuffer) {
    // Far more than the 4096-byte line: the sanitizer build catches any write past it.
    std::vector<std::string> words = {"/proc/self/exe", "PDOneSectorRead"};
    for (int i = 0; i < 12; i++) {
        words.push_back(std::string(1000, static_cast<char>('a' + i)));
    }
    std::vector<char *> argv;
    for (std::string &word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    HistoryLog(static_cast<int>(words.size()), argv.data());
    std::string single = "/proc/self/exe";
    char *alone[] = {single.data(), nullptr};
    HistoryLog(1, alone);
}

// How a child meets the signal: delivered after signal_setup (reported at the end of
// the run), handed straight to signal_handler before signal_setup, delivered before a
// trace entry (reported right after it), delivered to a child that then reaches no safe
// point (ended by the timer), or a segmentation fault of the child's own making.
enum class Delivery { Raised, DirectCall, BeforeTraceEntry, NoSafePoint, Fault };

struct SignalRun {
    int exitStatus = -1;
    std::string screen;
    std::string log;
};

// Runs a child in a folder of its own whose screen goes to a pipe; gives its exit status,
// screen and trace log.
SignalRun handleSignalInChild(int signalNumber, Delivery delivery) {
    SignalRun run;
    ScratchFolder scratch("kelpth-signal");
    const char *folder = scratch.path().c_str();
    int pipeFds[2];
    if (scratch.path().empty() || pipe(pipeFds) != 0) {
        return run;
    }
    fflush(stdout);
    const pid_t child = fork();
    if (child == 0) {
        dup2(pipeFds[1], STDOUT_FILENO);
        close(pipeFds[0]);
        if (chdir(folder) != 0) {
            _exit(98);
        }
        initLog("kelpth.log", 0);
        if (delivery == Delivery::DirectCall) {
            signal_handler(signalNumber);
            _exit(99); // not reached: the signal ends the process
        }
        signal_setup();
        printf("buffered before the signal\n");
        if (delivery == Delivery::Fault) {
            // A page that may not be written: the kernel raises the fault.
            void *page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
            *static_cast<volatile int *>(page) = 1;
        } else {
            raise(signalNumber);
        }
        if (delivery == Delivery::BeforeTraceEntry) {
            traceLine("## after the signal");
        } else if (delivery == Delivery::NoSafePoint) {
            sleep(30);
        }
        awaitSignalEnd();
        _exit(99);
    }
    close(pipeFds[1]);
    char chunk[512];
    ssize_t got = 0;
    while ((got = read(pipeFds[0], chunk, sizeof chunk)) > 0) {
        run.screen.append(chunk, static_cast<size_t>(got));
    }
    close(pipeFds[0]);
    int waitStatus = 0;
    waitpid(child, &waitStatus, 0);
    run.exitStatus = WIFEXITED(waitStatus) ? WEXITSTATUS(waitStatus) : 128 + WTERMSIG(waitStatus);
    std::stringstream text;
    text << std::ifstream(scratch.path() + "/kelpth.log").rdbuf();
    run.log = text.str();
    return run;
}

TEST(SignalHandler, InterruptIsSilentAndFailsOthersReportAndSucceed) {
    const struct {
        int signalNumber;
        int exitStatus;
        const char *message; // on the screen and, located, in the trace
    } cases[] = {{SIGINT, 1, "KEL0004-E signal_handler() failed. detail=0xe0000002"},
                 {SIGTERM, 0, "KEL0004-E signal_handler() failed. detail=0xe000000f"},
                 {SIGHUP, 0, "KEL0004-E signal_handler() failed. detail=0xe0000001"},
                 {SIGSEGV, 0, "KEL0004-E signal_handler() failed. detail=0xe000000b"}};
    for (const auto &c : cases) {
        const SignalRun raised = handleSignalInChild(c.signalNumber, Delivery::Raised);
        EXPECT_EQ(raised.exitStatus, c.exitStatus) << c.signalNumber;
        // What the command had printed still comes first; an interrupt adds nothing.
        const std::string before = "buffered before the signal\n";
        EXPECT_EQ(raised.screen, before + (c.signalNumber == SIGINT ? "" : std::string(c.message) + "\n"));
        const size_t entry = raised.log.find("CALL - signal_handler()");
        ASSERT_NE(entry, std::string::npos) << raised.log;
        const size_t message = raised.log.find(std::string("KelPthCmd:"), entry);
        ASSERT_NE(message, std::string::npos) << raised.log;
        EXPECT_NE(raised.log.find(c.message, message), std::string::npos) << raised.log;

        // Without a watcher the handler still ends the run the same way on the screen.
        const SignalRun direct = handleSignalInChild(c.signalNumber, Delivery::DirectCall);
        EXPECT_EQ(direct.exitStatus, c.exitStatus) << c.signalNumber;
        EXPECT_EQ(direct.screen, c.signalNumber == SIGINT ? "" : std::string(c.message) + "\n");
    }
}

TEST(SignalHandler, EndsAtTheNextSafePointOrByTheTimer) {
    const std::string before = "buffered before the signal\n";
    const std::string term = "KEL0004-E signal_handler() failed. detail=0xe000000f\n";
    const std::string segv = "KEL0004-E signal_handler() failed. detail=0xe000000b\n";

    // The entry under way is written, then the handler's.
    const SignalRun traced = handleSignalInChild(SIGTERM, Delivery::BeforeTraceEntry);
    EXPECT_EQ(traced.exitStatus, 0);
    EXPECT_EQ(traced.screen, before + term);
    const size_t entry = traced.log.find("## after the signal");
    ASSERT_NE(entry, std::string::npos) << traced.log;
    EXPECT_NE(traced.log.find("CALL - signal_handler()", entry), std::string::npos) << traced.log;

    // No safe point within a second: the timer ends the run, the message on the screen only.
    const SignalRun stuck = handleSignalInChild(SIGTERM, Delivery::NoSafePoint);
    EXPECT_EQ(stuck.exitStatus, 0);
    EXPECT_EQ(stuck.screen, term);
    EXPECT_EQ(stuck.log.find("CALL - signal_handler()"), std::string::npos) << stuck.log;
    const SignalRun stuckInterrupt = handleSignalInChild(SIGINT, Delivery::NoSafePoint);
    EXPECT_EQ(stuckInterrupt.exitStatus, 1);
    EXPECT_EQ(stuckInterrupt.screen, "");

    // A fault cannot wait for a safe point: reported at once.
    const SignalRun fault = handleSignalInChild(SIGSEGV, Delivery::Fault);
    EXPECT_EQ(fault.exitStatus, 0);
    EXPECT_EQ(fault.screen, before + segv);
    EXPECT_NE(fault.log.find("CALL - signal_handler()"), std::string::npos) << fault.log;
}

} // namespace
