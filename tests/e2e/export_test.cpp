// kelsim export before it touches the kernel: names it does not know are refused with
// the names it takes, and nothing is left in the state folder.
#include "harness.h"

#include <sys/stat.h>

using ExportCommand = FarmTest;

TEST_F(ExportCommand, UnknownNamesAreRefusedBeforeAnythingIsMade) {
    ASSERT_EQ(kelsim({"reset"}).exitStatus, 0);
    for (const char *name : {"c0s7", "c2s0", "c0ld3", "ld1", "c0s4x"}) {
        const RunResult result = kelsim({"export", "c0s4", name});
        EXPECT_EQ(result.exitStatus, 1) << name;
        EXPECT_NE(result.err.find(std::string("no drive or logical drive \"") + name + "\""), std::string::npos)
            << result.err;
        EXPECT_NE(result.err.find("c0s4, c0ld1"), std::string::npos);
    }
    struct stat info;
    EXPECT_NE(stat((stateDir + "/export.map").c_str(), &info), 0);
}
