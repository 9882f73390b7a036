// Stripe writes through the RAID 5 volume (controller 0, logical drive 1: slots 2, 3 and
// 6, strips of 128 blocks, so stripe i is row i) under stress: runs killed at random
// moments, and eight processes writing at once. Afterwards the database passes its
// integrity check, every strip on every member is whole, and every row's parity is the
// XOR of its data.
#include "harness.h"

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int kStripBlocks = 128;
constexpr int kMembers[] = {2, 3, 6}; // slots; the database keys drives by controller * 8 + slot

// The address argument of stripe i, in hexadecimal as the command wants it.
std::string stripeLba(int stripe) {
    char text[16];
    snprintf(text, sizeof text, "0x%X", stripe * 2 * kStripBlocks);
    return text;
}

class Raid5Stress : public FarmTest {
  protected:
    void SetUp() override {
        FarmTest::SetUp();
        ASSERT_EQ(kelsim({"reset"}).exitStatus, 0);
    }

    // Every member block of the volume: 'Z' all 0x5A, 'X' anything else; a block with no
    // row reads as zeros.
    std::map<std::pair<int, long>, char> memberBlocks() {
        const RunResult query = run({"/usr/bin/sqlite3", stateDir + "/state.db",
                                     "SELECT drive, lba, hex(data) = replace(hex(zeroblob(512)), '00', '5A') "
                                     "FROM block WHERE drive IN (2, 3, 6);"});
        EXPECT_EQ(query.exitStatus, 0) << query.err;
        std::map<std::pair<int, long>, char> blocks;
        std::istringstream rows(query.out);
        for (std::string line; std::getline(rows, line);) {
            int drive = 0, pattern = 0;
            long lba = 0;
            EXPECT_EQ(sscanf(line.c_str(), "%d|%ld|%d", &drive, &lba, &pattern), 3) << line;
            blocks[{drive, lba}] = pattern == 1 ? 'Z' : 'X';
        }
        return blocks;
    }

    // Each strip of each member in rows 0..rows-1 is whole (one pattern throughout) and
    // each row's parity holds: the three members XOR to zero at every block.
    void expectWholeStripsAndParity(int rows) {
        const auto blocks = memberBlocks();
        auto classOf = [&](int slot, long lba) {
            const auto found = blocks.find({slot, lba});
            return found == blocks.end() ? '0' : found->second;
        };
        int broken = 0;
        for (int row = 0; row < rows && broken < 5; row++) {
            for (int slot : kMembers) {
                const char first = classOf(slot, long{row} * kStripBlocks);
                for (int block = 0; block < kStripBlocks; block++) {
                    const char here = classOf(slot, long{row} * kStripBlocks + block);
                    if (here == 'X' || here != first) {
                        ADD_FAILURE() << "row " << row << " slot " << slot << " block " << block << ": " << here;
                        broken++;
                        break;
                    }
                }
            }
            for (int block = 0; block < kStripBlocks; block++) {
                int patterned = 0;
                for (int slot : kMembers) {
                    patterned += classOf(slot, long{row} * kStripBlocks + block) == 'Z';
                }
                if (patterned % 2 != 0) {
                    ADD_FAILURE() << "row " << row << " block " << block << ": parity does not hold";
                    broken++;
                    break;
                }
            }
        }
    }
};

TEST_F(Raid5Stress, RunsKilledAtRandomMomentsLeaveWholeHalvesAndParity) {
    constexpr int kStripes = 100;
    // How long one stripe write takes here; the kills land anywhere in that time.
    const auto began = std::chrono::steady_clock::now();
    for (int stripe = kStripes; stripe < kStripes + 3; stripe++) {
        ASSERT_EQ(kelpth({"w", "0", "1", stripeLba(stripe), "0"}).exitStatus, 0);
    }
    const auto oneRun =
        std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - began) / 3;
    std::mt19937 random(15);
    std::uniform_int_distribution<long> moment(0, oneRun.count() * 6 / 5);
    int killed = 0;
    for (int stripe = 0; stripe < kStripes; stripe++) {
        Running running = start({KELPTH_BINARY, "w", "0", "1", stripeLba(stripe), "0"});
        ASSERT_GE(running.pid, 0);
        std::this_thread::sleep_for(std::chrono::microseconds(moment(random)));
        kill(running.pid, SIGKILL);
        killed += finish(running).exitStatus == 128 + SIGKILL;
    }
    RecordProperty("killed", killed);

    expectSoundDatabase();
    expectWholeStripsAndParity(kStripes + 3);
    // Through the volume: a stripe is two commands, so it holds nothing, its first half, or
    // both halves, never the second half alone or part of one.
    int whole = 0;
    for (int stripe = 0; stripe < kStripes; stripe++) {
        const std::string dump = kelpth({"r", "0", "1", stripeLba(stripe)}).out;
        const int rows = patternRows(dump);
        EXPECT_TRUE(rows == 0 || rows == 4096 || rows == 8192) << "stripe " << stripe << ": " << rows << " rows";
        if (rows == 4096) {
            EXPECT_NE(dump.find("00000000: 5A 5A"), std::string::npos) << "stripe " << stripe << ": second half alone";
        }
        whole += rows == 8192;
    }
    EXPECT_LT(whole, kStripes) << "no run was killed part-way: the kills came too late";
    EXPECT_EQ(kelpth({"w", "0", "1", "0x0", "0"}).exitStatus, 0) << "the farm still takes writes";
}

TEST_F(Raid5Stress, EightWritersAtOnceAllLandWithParity) {
    constexpr int kWriters = 8;
    constexpr int kRunsEach = 50;
    // Writer w takes stripes w, w + 8, w + 16...: neighbours belong to others.
    const std::vector<int> failures = kelpthAtOnce(kWriters, kRunsEach, [&](int w, int i) {
        return std::vector<std::string>{"w", "0", "1", stripeLba(w + kWriters * i), "0"};
    });
    EXPECT_EQ(failures, std::vector<int>(kWriters, 0));
    expectSoundDatabase();
    expectWholeStripsAndParity(kWriters * kRunsEach);
    // Every data strip of every written row holds the pattern: two of the three members.
    const auto blocks = memberBlocks();
    for (int row = 0; row < kWriters * kRunsEach; row++) {
        int patterned = 0;
        for (int slot : kMembers) {
            patterned += blocks.count({slot, long{row} * kStripBlocks}) != 0;
        }
        EXPECT_EQ(patterned, 2) << "row " << row;
    }
    for (int stripe : {0, 7, 199, 399}) {
        EXPECT_EQ(patternRows(kelpth({"r", "0", "1", stripeLba(stripe)}).out), 8192) << "stripe " << stripe;
    }
}

} // namespace
