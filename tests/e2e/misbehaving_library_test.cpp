// Every command against a misbehaving implementation of both libraries (tests/badlib):
// random statuses, lengths past the buffer, oversized sense sizes, unterminated drive
// strings, absurd controller counts. Whatever the library does, a run ends by itself with
// status 0, or with 1 and a message, and (in the sanitized build) touches no byte outside
// its buffers.
#include "harness.h"

#include <string>
#include <vector>

namespace {

constexpr int kSeeds = 24;

struct BadLibraryCase {
    const char *name;
    std::vector<std::string> args;
    const char *paramFile; // written as p.txt when not null
};

const char kSasFixedRead[] = "0\n-\n0\n28000000100000010000\n0\n";
const char kSasFixedWrite[] = "0\n-\n0\n2A000000100000008000\n1\n";
const char kSasAnyRead[] = "0\n0\n28000000000000000100\n0\n0x200\n";
const char kSasAnyWrite[] = "0\n0\n2A000000000000000100\n1\n0x200\n1\n0011223344556677\n";
const char kSataAnyRead[] = "0\n4\n85080E0000000100000000000000EC00\n0\n1\n1\n1\n";
const char kSataAnyWrite[] = "0\n4\n85000000000000000000000000000000\n1\n0x10\n0\n1\nA1B2C3\n";
const char kStripe[] = "0\n1\n0x100\n3\n";
const char kMediaError[] = "0\n2\n0x2000\n4\n16\n";
const char kInjection[] = "0\n2\n1\n0\n0\n0\n0x0001\n0\n00\n0x00001000\n0x00000010\n00\n00\n00\n0\n0\n0\n"
                          "0x0000\n0\n0\n00\n00\n0x0000\n0x0000\n0\n0\n0\n";
const char kSataInjection[] = "0\n4\n1\n2\n0\n0\nECC\n0x0010\n1\n0\n0x00001000\n0x00002000\n";

const BadLibraryCase kCases[] = {
    {"PDOneSectorRead", {"PDOneSectorRead", "0", "0", "0x10"}, nullptr},
    {"PDOneSectorWrite", {"PDOneSectorWrite", "0", "0", "0x10"}, nullptr},
    {"D", {"D", "0", "0", "0x10", "saved.bin"}, nullptr},
    {"PDHDDCapaChange", {"PDHDDCapaChange", "0", "0", "0x1000"}, nullptr},
    {"PDPrintModePage", {"PDPrintModePage", "0", "0", "3F", "0", "FF"}, nullptr},
    {"LDOneSectorRead", {"LDOneSectorRead", "0", "1", "0x10"}, nullptr},
    {"LDOneSectorWrite", {"LDOneSectorWrite", "0", "1", "0x10"}, nullptr},
    {"r", {"r", "0", "1", "0x100"}, nullptr},
    {"w", {"w", "0", "1", "0x100", "2"}, nullptr},
    {"r64", {"r64", "0", "2", "0x100000000"}, nullptr},
    {"w64", {"w64", "0", "2", "0x100000000", "1"}, nullptr},
    {"PFixedRead", {"P", "p.txt"}, kSasFixedRead},
    {"PFixedWrite", {"P", "p.txt"}, kSasFixedWrite},
    {"AnySasRead", {"ANY", "p.txt"}, kSasAnyRead},
    {"AnySasWrite", {"ANY", "p.txt"}, kSasAnyWrite},
    {"AnySataRead", {"ANY", "p.txt"}, kSataAnyRead},
    {"AnySataWrite", {"ANY", "p.txt"}, kSataAnyWrite},
    {"R", {"R", "p.txt"}, kStripe},
    {"W", {"W", "p.txt"}, kStripe},
    {"E", {"E", "p.txt"}, kMediaError},
    {"e", {"e", "p.txt"}, kMediaError},
    {"N", {"N", "p.txt"}, kInjection},
    {"N5", {"N5", "p.txt"}, kInjection},
    {"A", {"A", "p.txt"}, kSataInjection},
    {"L", {"L"}, nullptr},
    {"F", {"F", "p.txt"}, kStripe},
};

void PrintTo(const BadLibraryCase &c, std::ostream *os) {
    *os << c.name;
}

class MisbehavingLibrary : public FarmTest, public ::testing::WithParamInterface<BadLibraryCase> {};

TEST_P(MisbehavingLibrary, EveryRunEndsWithAStatusAndStaysInItsBuffers) {
    const BadLibraryCase &c = GetParam();
    if (c.paramFile != nullptr) {
        writeFile("p.txt", c.paramFile);
    }
    std::vector<std::string> args = {KELPTH_BINARY};
    args.insert(args.end(), c.args.begin(), c.args.end());
    int succeeded = 0;
    for (int seed = 1; seed <= kSeeds; seed++) {
        const RunResult r = run(args, {"LD_LIBRARY_PATH=" BADLIB_DIR, "KELBAD_SEED=" + std::to_string(seed),
                                       "ASAN_OPTIONS=exitcode=86", "UBSAN_OPTIONS=halt_on_error=1:exitcode=87"});
        const std::string where = "seed " + std::to_string(seed) + "\n" + r.out + r.err;
        ASSERT_TRUE(r.exitStatus == 0 || r.exitStatus == 1) << "exit status " << r.exitStatus << ", " << where;
        EXPECT_EQ(r.err.find("Sanitizer"), std::string::npos) << where;
        EXPECT_EQ(r.err.find("runtime error"), std::string::npos) << where;
        if (r.exitStatus == 1) {
            EXPECT_NE(r.out.find("KEL0"), std::string::npos) << "a failure without a message, " << where;
        }
        succeeded += r.exitStatus == 0;
    }
    // The generator lets some runs through to the end, so the data paths are exercised.
    RecordProperty("succeeded", succeeded);
}

INSTANTIATE_TEST_SUITE_P(AllCommands, MisbehavingLibrary, ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<BadLibraryCase> &info) { return info.param.name; });

} // namespace
