// What a killed export left in the target's configfs, found and taken over by the next one:
// a fake configfs tree and UIO class folder in a temporary folder stand for the kernel's.
#include "support/scratch_folder.h"
#include "target_config.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace kelsim {
namespace {

class FakeConfigfs : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_FALSE(scratch.path().empty());
        top = scratch.path();
        root = top + "/target";
        uio = top + "/uio";
        // Ours: c0s0 linked as LUN 2 of our target, c0ld1 in another user_K, not linked.
        backstore("user_0", "c0s0", "kelsim/c0s0", "1048576");
        backstore("user_0", "other", "file/other", "4096"); // another program's
        backstore("user_1", "c0ld1", "kelsim/c0ld1", "2097152");
        file(root + "/core/user_0/hba_info", "HBA Index: 0");
        folder(root + "/core/alua/lu_gps/default_lu_gp");
        const std::string ours = root + "/loopback/naa.5001405ce1000042/tpgt_1/lun";
        folder(ours + "/lun_2");
        ASSERT_EQ(symlink("../../../../../../core/user_0/c0s0", (ours + "/lun_2/kelsim").c_str()), 0);
        folder(ours + "/lun_0"); // made, never linked
        const std::string theirs = root + "/loopback/naa.6001405aaaaaaaaa/tpgt_1/lun/lun_0";
        folder(theirs);
        ASSERT_EQ(symlink("../../../../../../core/user_1/c0ld1", (theirs + "/x").c_str()), 0);
        file(uio + "/uio3/name", "tcm-user/0/c0s0/kelsim/c0s0");
        file(uio + "/uio3/maps/map0/size", "0x501000");
    }
    static void folder(const std::string &path) { ASSERT_EQ(system(("mkdir -p " + path).c_str()), 0); }
    static void file(const std::string &path, const std::string &text) {
        folder(path.substr(0, path.rfind('/')));
        std::ofstream(path) << text << "\n";
    }
    void backstore(const std::string &hba, const std::string &name, const std::string &config,
                   const std::string &bytes) {
        const std::string path = root + "/core/" + hba + "/" + name + "/attrib";
        file(path + "/dev_config", config);
        file(path + "/dev_size", bytes);
    }
    static bool exists(const std::string &path) {
        struct stat info;
        return lstat(path.c_str(), &info) == 0;
    }
    ScratchFolder scratch{"kelsim-leftovers"};
    std::string top, root, uio;
};

TEST_F(FakeConfigfs, FindsOurBackstoresTargetsAndLuns) {
    TargetConfig config(root, uio);
    const Leftovers found = config.findLeftovers();
    ASSERT_EQ(found.backstores.size(), 2u);
    const LeftoverBackstore &first = found.backstores[0].name == "c0s0" ? found.backstores[0] : found.backstores[1];
    const LeftoverBackstore &second = &first == &found.backstores[0] ? found.backstores[1] : found.backstores[0];
    EXPECT_EQ(first.hba, "user_0");
    EXPECT_EQ(first.name, "c0s0");
    EXPECT_EQ(first.bytes, 1048576u);
    EXPECT_EQ(first.lunLink, root + "/loopback/naa.5001405ce1000042/tpgt_1/lun/lun_2/kelsim");
    EXPECT_EQ(second.hba, "user_1");
    EXPECT_EQ(second.name, "c0ld1");
    EXPECT_EQ(second.bytes, 2097152u);
    EXPECT_EQ(second.lunLink, ""); // linked only in another program's target
    ASSERT_EQ(found.targets.size(), 1u);
    EXPECT_EQ(found.targets[0], root + "/loopback/naa.5001405ce1000042");
}

TEST_F(FakeConfigfs, TakesOverWhatItKeepsWithItsLunAndUio) {
    TargetConfig config(root, uio);
    std::vector<std::string> asked;
    int taken = 0;
    std::string error;
    ASSERT_TRUE(config.takeOverLeftovers(
        [&](const std::string &name, uint64_t bytes) {
            asked.push_back(name + " " + std::to_string(bytes));
            return name == "c0s0";
        },
        &taken, &error))
        << error;
    EXPECT_EQ(taken, 1);
    EXPECT_EQ(asked.size(), 2u);
    EXPECT_FALSE(exists(root + "/loopback/naa.5001405ce1000042/tpgt_1/lun/lun_0")); // the half-made LUN went
    Backstore backstore;
    ASSERT_TRUE(config.addBackstore("c0s0", 1048576, &backstore, &error)) << error;
    EXPECT_EQ(backstore.lun, 2);
    EXPECT_EQ(backstore.uioDevice, "/dev/uio3");
    EXPECT_EQ(backstore.mapSize, 0x501000u);
    EXPECT_FALSE(exists(root + "/core/user_2")); // nothing made for it
    ASSERT_TRUE(config.addLoopback(&error)) << error;
    EXPECT_EQ(config.lunAddress(2).substr(config.lunAddress(2).rfind(':')), ":2");
    config.removeLoopback(); // taken over, so removed at the end: the link and its LUN go
    EXPECT_FALSE(exists(root + "/loopback/naa.5001405ce1000042/tpgt_1/lun/lun_2"));
}

TEST(LunOfLink, ReadsTheNumberOfItsLunFolder) {
    const struct {
        const char *link;
        int lun;
    } cases[] = {{"/t/loopback/naa.1/tpgt_1/lun/lun_3/kelsim", 3},
                 {"/t/loopback/naa.1/tpgt_1/lun/lun_12/kelsim", 12},
                 {"/t/loopback/naa.1/tpgt_1/lun/lun_x/kelsim", -1},
                 {"/t/loopback/naa.1/tpgt_1/lun/lun_4", -1},
                 {"/t/core/user_0/c0s0", -1}};
    for (const auto &c : cases) {
        EXPECT_EQ(lunOfLink(c.link), c.lun) << c.link;
    }
}

} // namespace
} // namespace kelsim
