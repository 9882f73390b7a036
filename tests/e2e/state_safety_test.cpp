// The farm's state under stress: runs at the same time, and runs killed at each failpoint
// of a write, must leave every drive and the journal whole. (Runs killed at random
// moments: raid5_stress_test.cpp.)
#include "harness.h"

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <vector>

namespace {

class StateSafety : public FarmTest {
  protected:
    void SetUp() override {
        FarmTest::SetUp();
        ASSERT_EQ(kelsim({"reset"}).exitStatus, 0);
    }

    // -1 when the file does not exist.
    long long fileSize(const std::string &name) {
        struct stat info;
        return stat((stateDir + "/" + name).c_str(), &info) == 0 ? info.st_size : -1;
    }

    size_t journalLength() { return journal().size(); }
};

TEST_F(StateSafety, RunsAtTheSameTimeAllLand) {
    checkVolumesAtEnd = false; // writes a volume member behind the volume
    // Every thread writes its own blocks: slots, and a RAID 1 volume whose members are
    // slots 0 and 1 at other addresses.
    const std::vector<std::vector<std::string>> writers = {
        {"PDOneSectorWrite", "0", "2"}, {"PDOneSectorWrite", "0", "3"}, {"PDOneSectorWrite", "0", "4"},
        {"PDOneSectorWrite", "0", "6"}, {"LDOneSectorWrite", "0", "0"}, {"PDOneSectorWrite", "1", "0"}};
    constexpr int kRunsEach = 4;
    const std::vector<int> failures = kelpthAtOnce(static_cast<int>(writers.size()), kRunsEach, [&](int w, int i) {
        std::vector<std::string> args = writers[static_cast<size_t>(w)];
        args.push_back("0x" + std::to_string(100 + i));
        return args;
    });
    EXPECT_EQ(failures, std::vector<int>(writers.size(), 0));
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

TEST_F(StateSafety, RunKilledAtEachFailpointLeavesTheStateAsBefore) {
    // KELSIM_FAILPOINT stops the first half of a stripe write at an exact step: inside the
    // transaction, just before COMMIT, and inside COMMIT with the database half written.
    // Each time the journal of the unfinished transaction is left behind, and the next run
    // puts everything back as it was.
    ASSERT_EQ(kelpth({"w", "0", "1", "0x10", "0"}).exitStatus, 0);
    for (const char *step : {"mid-write", "before-commit", "commit"}) {
        const size_t calls = journalLength();
        const RunResult killed =
            run({KELPTH_BINARY, "w", "0", "1", "0x2000", "0"}, {std::string("KELSIM_FAILPOINT=") + step});
        EXPECT_EQ(killed.exitStatus, 128 + SIGKILL) << step;
        EXPECT_GT(fileSize("state.db-journal"), 0) << step;
        EXPECT_EQ(patternRows(kelpth({"r", "0", "1", "0x2000"}).out), 0) << step;
        EXPECT_EQ(patternRows(kelpth({"r", "0", "1", "0x10"}).out), 8192) << step << ": the earlier stripe";
        EXPECT_EQ(fileSize("state.db-journal"), 0) << step;
        EXPECT_EQ(journalLength(), calls + 4) << step << ": the killed call left no row";
        expectSoundDatabase();
    }
}

// The rows of calls that change nothing (the report's INQUIRY and LOG SENSE) wait in the
// journal's tail until a writing call folds them into the table. A writing run killed at
// each failpoint must neither lose them nor fold them twice.
TEST_F(StateSafety, WaitingJournalRowsSurviveARunKilledWhileFoldingThem) {
    ASSERT_EQ(kelpth({"L"}).exitStatus, 0); // the drives' counters start: rows in the table
    ASSERT_EQ(kelpth({"L"}).exitStatus, 0); // nothing changes: rows in the tail
    EXPECT_GT(fileSize("journal.tail"), 0);
    const std::string before = kelsim({"journal"}).out;
    for (const char *step : {"mid-write", "before-commit", "commit"}) {
        const RunResult killed =
            run({KELPTH_BINARY, "PDOneSectorWrite", "1", "2", "0x10"}, {std::string("KELSIM_FAILPOINT=") + step});
        EXPECT_EQ(killed.exitStatus, 128 + SIGKILL) << step;
        EXPECT_EQ(kelsim({"journal"}).out, before) << step;
    }
    ASSERT_EQ(kelpth({"PDOneSectorWrite", "1", "2", "0x10"}).exitStatus, 0); // in no volume
    const std::string after = kelsim({"journal"}).out;
    EXPECT_EQ(after.substr(0, before.size()), before);
    EXPECT_EQ(after.find('\n', before.size()), after.size() - 1) << "one row more: the write's";
    EXPECT_NE(after.find("KelPasWriteExtend", before.size()), std::string::npos);
}

// Reports and writes at the same time: every call's row lands once, in the order of its run.
TEST_F(StateSafety, ReportsAndWritesAtTheSameTimeJournalEveryCallOnce) {
    checkVolumesAtEnd = false; // writes a volume member behind the volume
    ASSERT_EQ(kelpth({"L"}).exitStatus, 0);
    ASSERT_EQ(kelsim({"journal", "--clear"}).exitStatus, 0);
    constexpr int kRunsEach = 3;
    // Two threads report, two write to slots 2 and 3.
    const std::vector<int> failures = kelpthAtOnce(4, kRunsEach, [](int t, int i) {
        return t < 2 ? std::vector<std::string>{"L"}
                     : std::vector<std::string>{"PDOneSectorWrite", "0", std::to_string(t), "0x" + std::to_string(i)};
    });
    EXPECT_EQ(failures, std::vector<int>(4, 0));
    const std::string journal = kelsim({"journal"}).out;
    std::istringstream in(journal);
    size_t rows = 0, writes = 0;
    for (std::string line; std::getline(in, line);) {
        EXPECT_EQ(line.rfind(std::to_string(++rows) + " ", 0), 0u) << line;
        writes += line.find(" KelPasWriteExtend ") != std::string::npos;
    }
    EXPECT_EQ(writes, 2u * kRunsEach);
    EXPECT_EQ(rows, 2u * kRunsEach * 19 + writes) << "19 calls a report";
}

TEST_F(StateSafety, RunsLeaveNoLogThatGrowsWithTheirNumber) {
    checkVolumesAtEnd = false; // the sector written below sits on a mirror member
    // A farm left in WAL mode by an earlier version is switched over by the next run.
    const RunResult toWal = run({"/usr/bin/sqlite3", stateDir + "/state.db", "PRAGMA journal_mode=WAL"});
    ASSERT_EQ(kelpth({"PDOneSectorWrite", "0", "0", "0x10"}).exitStatus, 0);
    EXPECT_EQ(toWal.out, "wal\n");
    EXPECT_EQ(fileSize("state.db-wal"), -1);
    // Rewriting the same sector many times costs a journal row a run, not pages.
    const long long before = fileSize("state.db");
    for (int i = 0; i < 40; i++) {
        ASSERT_EQ(kelpth({"PDOneSectorWrite", "0", "0", "0x10"}).exitStatus, 0);
    }
    EXPECT_LE(fileSize("state.db"), before + 3 * 4096);
    EXPECT_EQ(fileSize("state.db-journal"), 0);
    EXPECT_EQ(fileSize("state.db-wal"), -1);
    EXPECT_EQ(journalLength(), 41u);
    EXPECT_NE(kelpth({"PDOneSectorRead", "0", "0", "0x10"}).out.find("00000000: " + repeatByte("5A", 8)),
              std::string::npos);
}

} // namespace
