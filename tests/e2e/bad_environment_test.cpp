// A run in a bad environment: a current folder where kelpth.log cannot be created, a
// read-only or full state folder, a corrupt state.db, a farm.conf with each kind of
// mistake. Each gives a clear message and a defined exit status, never a crash, and a
// failed run changes no drive's data. The folders that must refuse writes even to root
// are small tmpfs mounts, so those cases need root (as CI has).
#include "harness.h"

#include <unistd.h>

#include <string>
#include <vector>

namespace {

const std::string kWrittenSector = "00000000: 5A 5A 5A 5A 5A 5A 5A 5A  5A 5A 5A 5A 5A 5A 5A 5A";
const std::string kZeroSector = "00000000: 00 00 00 00 00 00 00 00  00 00 00 00 00 00 00 00";

class BadEnvironment : public FarmTest {
  protected:
    void SetUp() override {
        FarmTest::SetUp();
        checkVolumesAtEnd = false; // slot 0 is written directly, past its RAID 1 mirror
        ASSERT_EQ(kelsim({"reset"}).exitStatus, 0);
        // Sector 0x10 of slot 0 holds the pattern, 0x20 is unwritten: a failed write to
        // 0x20 must leave both as they are.
        ASSERT_EQ(kelpth({"PDOneSectorWrite", "0", "0", "0x10"}).exitStatus, 0);
    }

    void TearDown() override {
        for (auto it = mounts.rbegin(); it != mounts.rend(); ++it) {
            run({"/bin/umount", *it});
        }
        FarmTest::TearDown();
    }

    // A tmpfs of the given size at workDir/name; false (the test skips) when this user
    // cannot mount.
    bool mountTmpfs(const std::string &name, const std::string &options) {
        const std::string path = workDir + "/" + name;
        if (geteuid() != 0 || run({"/bin/mkdir", "-p", path}).exitStatus != 0 ||
            run({"/bin/mount", "-t", "tmpfs", "-o", options, "tmpfs", path}).exitStatus != 0) {
            return false;
        }
        mounts.push_back(path);
        return true;
    }

    // The state folder as it is now, copied into another folder for the run.
    RunResult kelpthWithState(const std::string &state, const std::vector<std::string> &args) {
        std::vector<std::string> full = {KELPTH_BINARY};
        full.insert(full.end(), args.begin(), args.end());
        return run(full, {"KELSIM_DIR=" + state});
    }

    void expectDrivesUnchanged() {
        EXPECT_NE(kelpth({"PDOneSectorRead", "0", "0", "0x10"}).out.find(kWrittenSector), std::string::npos);
        EXPECT_NE(kelpth({"PDOneSectorRead", "0", "0", "0x20"}).out.find(kZeroSector), std::string::npos);
    }

    std::vector<std::string> mounts;
};

TEST_F(BadEnvironment, NoTraceLogInAReadOnlyCurrentFolderTheCommandStillRuns) {
    if (!mountTmpfs("readonly-cwd", "size=64k,ro")) {
        GTEST_SKIP() << "needs root to mount a read-only folder";
    }
    const RunResult r = run({"/bin/sh", "-c", "cd readonly-cwd && exec " KELPTH_BINARY " PDOneSectorWrite 0 0 0x20"});
    EXPECT_EQ(r.exitStatus, 0) << r.out;
    EXPECT_NE(r.err.find("no trace log: cannot open kelpth.log: Read-only file system"), std::string::npos) << r.err;
    EXPECT_NE(kelpth({"PDOneSectorRead", "0", "0", "0x20"}).out.find(kWrittenSector), std::string::npos);
}

TEST_F(BadEnvironment, ReadOnlyStateFolderRefusesWithItsReason) {
    if (!mountTmpfs("readonly-state", "size=1m")) {
        GTEST_SKIP() << "needs root to mount a read-only folder";
    }
    const std::string state = workDir + "/readonly-state";
    ASSERT_EQ(run({"/bin/sh", "-c", "cp -a '" + stateDir + "'/. '" + state + "'/"}).exitStatus, 0);
    ASSERT_EQ(run({"/bin/mount", "-o", "remount,ro", state}).exitStatus, 0);
    for (const std::vector<std::string> &args :
         {std::vector<std::string>{"PDOneSectorWrite", "0", "0", "0x20"}, {"w", "0", "1", "0x0", "0"}}) {
        const RunResult r = kelpthWithState(state, args);
        EXPECT_EQ(r.exitStatus, 1) << args[0];
        EXPECT_NE(r.out.find("KEL0016-E PassThrough execution error. detail=farm state: "), std::string::npos) << r.out;
        EXPECT_NE(r.out.find("readonly database"), std::string::npos) << r.out;
        EXPECT_NE(r.out.find("KEL0002-I PassThrough Tool abnormal end."), std::string::npos);
    }
    // The copy still reads (kelsim shows it), and the writable original is untouched.
    EXPECT_EQ(run({KELSIM_BINARY, "show"}, {"KELSIM_DIR=" + state}).exitStatus, 0);
    expectDrivesUnchanged();
}

TEST_F(BadEnvironment, FullStateFolderFailsTheWriteAndKeepsTheRest) {
    if (!mountTmpfs("small-state", "size=256k")) {
        GTEST_SKIP() << "needs root to mount a small folder";
    }
    const std::string state = workDir + "/small-state";
    ASSERT_EQ(run({KELSIM_BINARY, "reset"}, {"KELSIM_DIR=" + state}).exitStatus, 0);
    ASSERT_EQ(kelpthWithState(state, {"PDOneSectorWrite", "0", "0", "0x10"}).exitStatus, 0);
    // Stripes of 128 KiB through the RAID 5 volume until the folder is full.
    RunResult failed;
    int stripe = 1;
    for (; stripe < 20; stripe++) {
        char lba[16];
        snprintf(lba, sizeof lba, "0x%X", stripe * 256);
        failed = kelpthWithState(state, {"w", "0", "1", lba, "0"});
        if (failed.exitStatus != 0) {
            break;
        }
    }
    ASSERT_LT(stripe, 20) << "256 KiB never filled up";
    EXPECT_EQ(failed.exitStatus, 1);
    EXPECT_NE(failed.out.find("KEL0016-E PassThrough execution error. detail=farm state: "), std::string::npos)
        << failed.out;
    EXPECT_NE(failed.out.find("database or disk is full"), std::string::npos) << failed.out;
    // What was written before is still there; of the failed stripe (two commands) nothing
    // or its whole first half landed; the database is whole.
    EXPECT_NE(kelpthWithState(state, {"PDOneSectorRead", "0", "0", "0x10"}).out.find(kWrittenSector),
              std::string::npos);
    char lba[16];
    snprintf(lba, sizeof lba, "0x%X", stripe * 256);
    const std::string dump = kelpthWithState(state, {"r", "0", "1", lba}).out;
    const int rows = patternRows(dump);
    EXPECT_TRUE(rows == 0 || (rows == 4096 && dump.find("00000000: 5A") != std::string::npos)) << rows << " rows";
    expectSoundDatabase(state);
}

TEST_F(BadEnvironment, CorruptStateDatabaseIsReportedByBothTools) {
    // Everything into the database file first, so that it alone holds the state.
    ASSERT_EQ(run({"/usr/bin/sqlite3", stateDir + "/state.db", "PRAGMA wal_checkpoint(TRUNCATE);"}).exitStatus, 0);
    for (const char *corruption :
         {"head -c 8192 /dev/urandom", "(head -c 100 state.db.bak; head -c 20000 /dev/urandom)"}) {
        SCOPED_TRACE(corruption);
        ASSERT_EQ(run({"/bin/sh", "-c",
                       "cd '" + stateDir + "' && cp state.db state.db.bak && " + corruption +
                           " > state.db.new && mv state.db.new state.db"})
                      .exitStatus,
                  0);
        const RunResult r = kelpth({"PDOneSectorWrite", "0", "0", "0x20"});
        EXPECT_EQ(r.exitStatus, 1);
        EXPECT_NE(r.out.find("KEL0016-E PassThrough execution error. detail=farm state"), std::string::npos) << r.out;
        EXPECT_NE(r.out.find("KEL0002-I PassThrough Tool abnormal end."), std::string::npos);
        const RunResult show = kelsim({"show"});
        EXPECT_EQ(show.exitStatus, 1);
        EXPECT_NE(show.err.find("kelsim: cannot read the state in "), std::string::npos) << show.err;
        ASSERT_EQ(run({"/bin/sh", "-c", "cd '" + stateDir + "' && mv state.db.bak state.db"}).exitStatus, 0);
    }
    expectDrivesUnchanged();
}

TEST_F(BadEnvironment, EveryKindOfFarmConfMistakeStopsTheStart) {
    const std::string good = readFile("state/farm.conf");
    const std::string slot = "slot 0 sas vendor=V product=P revision=1 serial=S blocks=1000\n";
    const struct {
        const char *name;
        std::string content;
    } cases[] = {
        {"slot before any controller", slot},
        {"unknown keyword", "controller 0\nbogus 1\n"},
        {"slot number past 7", "controller 0\nslot 8 sas vendor=V product=P revision=1 serial=S blocks=1000\n"},
        {"unknown interface", "controller 0\nslot 0 scsi vendor=V product=P revision=1 serial=S blocks=1000\n"},
        {"vendor too long", "controller 0\nslot 0 sas vendor=VENDORTOOLONG product=P serial=S blocks=1000\n"},
        {"capacity past 2^48", "controller 0\nslot 0 sas vendor=V product=P serial=S blocks=0x1000000000001\n"},
        {"capacity not a number", "controller 0\nslot 0 sas vendor=V product=P serial=S blocks=lots\n"},
        {"unknown key", "controller 0\nslot 0 sas vendor=V colour=red blocks=1000\n"},
        {"slot twice", "controller 0\n" + slot + slot},
        {"controllers out of order", "controller 1\n" + slot},
        {"eleven controllers",
         [] {
             std::string text;
             for (int c = 0; c <= 10; c++) {
                 text += "controller " + std::to_string(c) + "\n";
             }
             return text;
         }()},
        {"raid level unknown", "controller 0\n" + slot + "ld 0 raid6 strip=128 members=0\n"},
        {"raid 1 with one member", "controller 0\n" + slot + "ld 0 raid1 strip=128 members=0\n"},
        {"raid 5 with two members",
         "controller 0\n" + slot + "slot 1 sas vendor=V product=P serial=T blocks=1000\nld 0 raid5 members=0,1\n"},
        {"member slot empty", "controller 0\n" + slot + "ld 0 raid0 strip=128 members=3\n"},
        {"member in two volumes", "controller 0\n" + slot + "ld 0 raid0 members=0\nld 1 raid0 members=0\n"},
        {"strip of zero", "controller 0\n" + slot + "ld 0 raid0 strip=0 members=0\n"},
        {"no controller at all", "# nothing but a comment\n"},
        {"binary garbage", std::string("\x00\xff\xfe\x01 garbage\n", 13)},
    };
    for (const auto &c : cases) {
        writeFile("state/farm.conf", c.content);
        const RunResult r = kelpth({"PDOneSectorWrite", "0", "0", "0x20"});
        EXPECT_EQ(r.exitStatus, 1) << c.name;
        EXPECT_EQ(r.out, "KEL0004-E initContData() failed. detail=0x00000104\n"
                         "KEL0002-I PassThrough Tool abnormal end.\n")
            << c.name;
        EXPECT_EQ(r.err.rfind("kelsim: farm.conf", 0), 0u) << c.name << ": " << r.err;
        EXPECT_EQ(kelsim({"show"}).exitStatus, 1) << c.name;
    }
    writeFile("state/farm.conf", good);
    expectDrivesUnchanged();
}

} // namespace
