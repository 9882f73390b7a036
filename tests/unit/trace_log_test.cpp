// The run-history line's bounds and the exit of each handled signal.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <string>
#include <vector>

#include "kelpth/trace.h"

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

// Runs signal_handler in a child whose screen goes to a pipe; gives the exit status.
int handleSignalInChild(int signalNumber, std::string *screen) {
    int pipeFds[2];
    if (pipe(pipeFds) != 0) {
        return -1;
    }
    fflush(stdout);
    const pid_t child = fork();
    if (child == 0) {
        dup2(pipeFds[1], STDOUT_FILENO);
        close(pipeFds[0]);
        signal_handler(signalNumber);
        _exit(99); // not reached: the handler ends the process
    }
    close(pipeFds[1]);
    char chunk[512];
    ssize_t got = 0;
    while ((got = read(pipeFds[0], chunk, sizeof chunk)) > 0) {
        screen->append(chunk, static_cast<size_t>(got));
    }
    close(pipeFds[0]);
    int waitStatus = 0;
    waitpid(child, &waitStatus, 0);
    return WIFEXITED(waitStatus) ? WEXITSTATUS(waitStatus) : -1;
}

TEST(SignalHandler, InterruptIsSilentAndFailsOthersReportAndSucceed) {
    std::string screen;
    EXPECT_EQ(handleSignalInChild(SIGINT, &screen), 1);
    EXPECT_EQ(screen, "");

    const struct {
        int signalNumber;
        const char *message;
    } others[] = {{SIGTERM, "KEL0004-E signal_handler() failed. detail=0xe000000f\n"},
                  {SIGHUP, "KEL0004-E signal_handler() failed. detail=0xe0000001\n"},
                  {SIGSEGV, "KEL0004-E signal_handler() failed. detail=0xe000000b\n"}};
    for (const auto &other : others) {
        screen.clear();
        EXPECT_EQ(handleSignalInChild(other.signalNumber, &screen), 0) << other.signalNumber;
        EXPECT_EQ(screen, other.message);
    }
}

} // namespace
