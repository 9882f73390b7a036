// The journal's tail: rows of calls that changed nothing wait in a file, are shown in
// their place, and are folded into the table by the next writing transaction exactly once,
// whether that transaction commits or rolls back.
#include "farm.h"
#include "journal.h"
#include "state_store.h"
#include "support/scratch_folder.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
#include <fstream>

namespace kelsim {
namespace {

class JournalTailTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_FALSE(folder.path().empty()); }

    // One call's row, the way the pass-through library keeps it.
    static JournalEntry call(const std::string &function, int status = 0) {
        JournalEntry entry;
        entry.function = function;
        entry.hasRequest = true;
        entry.controllerNo = 1;
        entry.driveNo = 2;
        entry.direction = 1;
        entry.cdb = {0xBB, 0x02, 0x4D, 0x00, 0x31, 0, 0, 0, 0, 0x35, 0x74, 0};
        entry.dataLength = 13684;
        entry.status = status;
        return entry;
    }

    // Each row in a transaction of its own, as pass-through calls are.
    void add(StateStore &store, const JournalEntry &entry, bool toTail) {
        StoreTransaction transaction(store, true);
        ASSERT_TRUE(transaction.active()) << store.lastError();
        ASSERT_TRUE(toTail ? store.appendJournalToTail(entry) : store.appendJournal(entry)) << store.lastError();
        ASSERT_TRUE(transaction.commit()) << store.lastError();
    }

    // The journal as "kelsim journal" prints it, from a connection of its own.
    std::vector<std::string> lines() {
        StateStore reader(stateDir);
        StoreTransaction transaction(reader, false);
        std::vector<std::string> out;
        EXPECT_TRUE(reader.readJournal(
            [&](int64_t seq, const JournalEntry &entry) { out.push_back(formatJournalLine(seq, entry)); }));
        return out;
    }

    long long tailSize() {
        struct stat info;
        return stat((stateDir + "/journal.tail").c_str(), &info) == 0 ? info.st_size : -1;
    }

    ScratchFolder folder{"kelsim-tail"};
    const std::string &stateDir = folder.path();
};

TEST_F(JournalTailTest, RowsWaitInTheTailInTheirPlaceAndAreFoldedOnce) {
    StateStore store(stateDir);
    JournalEntry full = call("KelPasAnyCommand", 4);
    full.interfaceType = 1;
    full.targetKind = 1;
    full.ataCommandFlag = 1;
    full.cdb.assign(16, 0xA5);
    full.hasSense = true;
    full.senseKey = 0x05;
    full.asc = 0x24;
    full.ascq = 0x01;
    add(store, full, true);
    add(store, call("KelPasInquiry"), true);
    EXPECT_GT(tailSize(), 0);
    const std::vector<std::string> waiting = lines();
    ASSERT_EQ(waiting.size(), 2u);
    EXPECT_EQ(waiting[0], formatJournalLine(1, full)) << "every field comes back from the tail";

    // A writing call folds the waiting rows ahead of its own; the next tail row starts a
    // new file and follows them.
    add(store, call("KelPasWriteExtend"), false);
    add(store, call("KelPasLogSense"), true);
    EXPECT_EQ(lines(),
              (std::vector<std::string>{waiting[0], waiting[1], formatJournalLine(3, call("KelPasWriteExtend")),
                                        formatJournalLine(4, call("KelPasLogSense"))}));
    EXPECT_EQ(tailSize(), 16 + 96);
    add(store, call("KelPasWriteExtend"), false);
    EXPECT_EQ(lines().size(), 5u);
    add(store, call("KelPasWriteExtend"), false);
    EXPECT_EQ(tailSize(), -1) << "a tail entirely in the committed table goes";
    EXPECT_EQ(lines().size(), 6u);
}

TEST_F(JournalTailTest, AFoldThatRollsBackLeavesTheRowsForTheNextOne) {
    StateStore store(stateDir);
    add(store, call("KelPasInquiry"), true);
    add(store, call("KelPasLogSense"), true);
    {
        // A run killed before its commit, after two rows (a volume's repair and its own).
        StoreTransaction transaction(store, true);
        ASSERT_TRUE(store.appendJournal(call("RaidRepair")));
        ASSERT_TRUE(store.appendJournal(call("KelPasWriteExtend", 4)));
    }
    const std::vector<std::string> expected = {formatJournalLine(1, call("KelPasInquiry")),
                                               formatJournalLine(2, call("KelPasLogSense"))};
    EXPECT_EQ(lines(), expected);
    add(store, call("KelPasWriteExtend"), false);
    std::vector<std::string> after = lines();
    ASSERT_EQ(after.size(), 3u);
    EXPECT_EQ(std::vector<std::string>(after.begin(), after.begin() + 2), expected);
    EXPECT_EQ(after[2], formatJournalLine(3, call("KelPasWriteExtend")));
}

TEST_F(JournalTailTest, ClearingTheJournalTakesTheTailWithIt) {
    StateStore store(stateDir);
    add(store, call("KelPasInquiry"), true);
    add(store, call("KelPasWriteExtend"), false);
    add(store, call("KelPasLogSense"), true);
    {
        StoreTransaction transaction(store, true);
        ASSERT_TRUE(store.clearJournal());
        ASSERT_TRUE(transaction.commit());
    }
    EXPECT_TRUE(lines().empty());
    add(store, call("KelPasInquiry"), true);
    EXPECT_EQ(lines(), std::vector<std::string>{formatJournalLine(1, call("KelPasInquiry"))});
}

// A row the tail cannot hold goes to the table; a tail file without its header holds no row;
// a long tail is folded rather than grown.
TEST_F(JournalTailTest, WhatTheTailCannotHoldGoesToTheTable) {
    StateStore store(stateDir);
    std::ofstream(stateDir + "/journal.tail") << "broken";
    add(store, call(std::string(40, 'F')), true);
    EXPECT_EQ(tailSize(), 6) << "the long name went to the table";
    add(store, call("KelPasInquiry"), true);
    EXPECT_EQ(tailSize(), 16 + 96) << "a file without its header is replaced";
    for (int i = 0; i < 300; i++) {
        add(store, call("KelPasLogSense", i), true);
    }
    EXPECT_LE(tailSize(), 16 + 256 * 96);
    const std::vector<std::string> all = lines();
    ASSERT_EQ(all.size(), 302u);
    EXPECT_EQ(all[0], formatJournalLine(1, call(std::string(40, 'F'))));
    for (int i = 0; i < 300; i++) {
        ASSERT_EQ(all[2 + static_cast<size_t>(i)], formatJournalLine(3 + i, call("KelPasLogSense", i)));
    }
}

} // namespace
} // namespace kelsim
