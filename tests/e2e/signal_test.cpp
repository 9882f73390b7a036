// Signals during a long fixed pass-through read: each ends the run as the program's
// rules say (an interrupt silently with 1, a termination or hang-up with KEL0004-E and
// 0), the trace log ends with the handler's entries, and the farm stays consistent.
#include "harness.h"

#include <signal.h>
#include <unistd.h>

#include <string>

namespace {

// A READ(10) of 0xFFFF blocks: 512 commands of 64 KiB, each dumped on the screen. The
// test stops reading the screen once the transfer is under way, so the signal mostly
// finds the program inside a write to the screen.
const char kLongRead[] = "0\n-\n2\n28000000000000FFFF00\n0\n";

struct SignalCase {
    const char *name;
    int signalNumber;
    int exitStatus;
    const char *screenMessage; // nullptr: nothing more on the screen
    const char *traceMessage;
};

void PrintTo(const SignalCase &c, std::ostream *os) {
    *os << c.name;
}

class SignalDuringTransfer : public FarmTest, public ::testing::WithParamInterface<SignalCase> {};

TEST_P(SignalDuringTransfer, EndsByTheRulesAndLeavesTheFarmWhole) {
    const SignalCase &c = GetParam();
    ASSERT_EQ(kelsim({"reset"}).exitStatus, 0);
    writeFile("p.txt", kLongRead);
    Running running = start({KELPTH_BINARY, "P", "p.txt"});
    ASSERT_GE(running.pid, 0);
    // Wait until the transfer is under way (the CDB is on the screen), then signal.
    std::string seen;
    char chunk[4096];
    while (seen.find("[CDB]") == std::string::npos) {
        const ssize_t got = read(running.outFd, chunk, sizeof chunk);
        ASSERT_GT(got, 0) << seen;
        seen.append(chunk, static_cast<size_t>(got));
    }
    usleep(20000);
    kill(running.pid, c.signalNumber);
    const RunResult r = finish(running, seen);

    ASSERT_EQ(r.exitStatus, c.exitStatus) << r.err;
    // The run ended part-way: never the whole transfer's 512 commands.
    const std::string journal = kelsim({"journal"}).out;
    EXPECT_LT(std::count(journal.begin(), journal.end(), '\n'), 512);
    const size_t tail = r.out.size() > 200 ? r.out.size() - 200 : 0;
    if (c.screenMessage != nullptr) {
        EXPECT_EQ(r.out.substr(r.out.rfind("KEL")), c.screenMessage) << r.out.substr(tail);
    } else {
        EXPECT_EQ(r.out.find("KEL0"), std::string::npos) << r.out.substr(tail);
    }
    const std::string log = traceLog();
    const size_t entry = log.rfind("CALL - signal_handler()");
    ASSERT_NE(entry, std::string::npos);
    const size_t message = log.find(c.traceMessage, entry);
    ASSERT_NE(message, std::string::npos) << log.substr(entry);
    EXPECT_EQ(log.find("[pid", message), std::string::npos) << "entries after the handler's: " << log.substr(entry);

    // The farm: the database is whole, and the tool and the program still use it.
    expectSoundDatabase();
    EXPECT_EQ(kelsim({"show"}).exitStatus, 0);
    EXPECT_EQ(kelpth({"PDOneSectorRead", "0", "2", "0x0"}).exitStatus, 0);
}

const SignalCase kCases[] = {
    {"InterruptRead", SIGINT, 1, nullptr, "KEL0004-E signal_handler() failed. detail=0xe0000002"},
    {"TerminateRead", SIGTERM, 0, "KEL0004-E signal_handler() failed. detail=0xe000000f\n",
     "KEL0004-E signal_handler() failed. detail=0xe000000f"},
    {"HangUpRead", SIGHUP, 0, "KEL0004-E signal_handler() failed. detail=0xe0000001\n",
     "KEL0004-E signal_handler() failed. detail=0xe0000001"},
};

INSTANTIATE_TEST_SUITE_P(LongTransfer, SignalDuringTransfer, ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<SignalCase> &info) { return info.param.name; });

} // namespace
