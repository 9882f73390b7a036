// The farm's state under stress: runs at the same time must leave every drive, the
// journal and the trace log whole. (Killed runs: raid5_stress_test.cpp.)
#include "harness.h"

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

} // namespace
