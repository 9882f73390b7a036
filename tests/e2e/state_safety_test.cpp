// The farm's state under stress: runs at the same time, and runs killed part-way, must
// leave every drive and the journal whole.
#include "harness.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

class StateSafety : public FarmTest {
  protected:
    void SetUp() override {
        FarmTest::SetUp();
        ASSERT_EQ(kelsim({"reset"}).exitStatus, 0);
    }

    size_t journalLength() {
        std::istringstream in(kelsim({"journal"}).out);
        size_t count = 0;
        for (std::string line; std::getline(in, line);) {
            count++;
        }
        return count;
    }

    // Starts kelpth with its output thrown away, kills it after the given time, and
    // waits for it.
    void runAndKill(const std::vector<std::string> &args, std::chrono::microseconds after) {
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            if (chdir(workDir.c_str()) != 0 || setenv("KELSIM_DIR", stateDir.c_str(), 1) != 0) {
                _exit(127);
            }
            if (freopen("/dev/null", "w", stdout) == nullptr) {
                _exit(127);
            }
            std::vector<char *> argv = {const_cast<char *>(KELPTH_BINARY)};
            for (const std::string &arg : args) {
                argv.push_back(const_cast<char *>(arg.c_str()));
            }
            argv.push_back(nullptr);
            execv(argv[0], argv.data());
            _exit(127);
        }
        std::this_thread::sleep_for(after);
        kill(pid, SIGKILL);
        int status = 0;
        waitpid(pid, &status, 0);
    }
};

TEST_F(StateSafety, RunsAtTheSameTimeAllLand) {
    // Every thread writes its own blocks: slots, and a RAID 1 volume whose members are
    // slots 0 and 1 at other addresses.
    const std::vector<std::vector<std::string>> writers = {
        {"PDOneSectorWrite", "0", "2"}, {"PDOneSectorWrite", "0", "3"}, {"PDOneSectorWrite", "0", "4"},
        {"PDOneSectorWrite", "0", "6"}, {"LDOneSectorWrite", "0", "0"}, {"PDOneSectorWrite", "1", "0"}};
    constexpr int kRunsEach = 4;
    std::vector<std::thread> threads;
    std::vector<int> failures(writers.size(), 0);
    for (size_t w = 0; w < writers.size(); w++) {
        threads.emplace_back([&, w] {
            for (int i = 0; i < kRunsEach; i++) {
                std::vector<std::string> args = writers[w];
                args.push_back("0x" + std::to_string(100 + i));
                failures[w] += kelpth(args).exitStatus != 0;
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    for (size_t w = 0; w < writers.size(); w++) {
        EXPECT_EQ(failures[w], 0) << writers[w][0] << " " << writers[w][2];
    }
    EXPECT_EQ(journalLength(), writers.size() * kRunsEach);
    const std::string pattern = "00000000: " + repeatByte("5A", 8) + " " + repeatByte("5A", 8);
    for (const std::vector<std::string> &target : {std::vector<std::string>{"PDOneSectorRead", "0", "6", "0x103"},
                                                   {"PDOneSectorRead", "0", "1", "0x102"},
                                                   {"LDOneSectorRead", "0", "0", "0x101"}}) {
        EXPECT_NE(kelpth(target).out.find(pattern), std::string::npos) << target[0] << " " << target[2];
    }
    // Every run's entries are whole lines in the one trace log.
    std::istringstream trace(traceLog());
    int commandLines = 0;
    for (std::string line; std::getline(trace, line);) {
        commandLines += line.find("kelpth PDOneSectorWrite") != std::string::npos ||
                        line.find("kelpth LDOneSectorWrite") != std::string::npos;
    }
    EXPECT_EQ(commandLines, static_cast<int>(writers.size()) * kRunsEach);
}

TEST_F(StateSafety, KilledRunsLeaveWholeHalves) {
    // A stripe write on the RAID 5 volume is two calls; whatever moment the run dies, each
    // half is on the members entirely or not at all, and the database stays sound.
    for (int i = 0; i < 8; i++) {
        const std::string lba = "0x" + std::to_string(1000 + i * 100);
        runAndKill({"w", "0", "1", lba, "0"}, std::chrono::microseconds(1000 + 1500 * i));
        const std::string dump = kelpth({"r", "0", "1", lba}).out;
        EXPECT_EQ(patternRows(dump) % 4096, 0) << "run " << i << " left " << patternRows(dump) << " rows";
    }
    const RunResult check = run({"/usr/bin/sqlite3", stateDir + "/state.db", "PRAGMA integrity_check"});
    if (check.exitStatus != 127) {
        EXPECT_EQ(check.out, "ok\n");
    }
    EXPECT_EQ(kelsim({"show"}).exitStatus, 0);
    EXPECT_EQ(kelpth({"w", "0", "1", "0x10", "0"}).exitStatus, 0) << "the farm still takes writes";
}

} // namespace
