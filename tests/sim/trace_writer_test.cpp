// The trace log kept open by two runs at once: when one run replaces the file to keep it
// within its bound, the other's next entries go to the new file, not to the old one.
#include "support/scratch_folder.h"
#include "trace_writer.h"

#include <gtest/gtest.h>

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace kelsim {
namespace {

TEST(TraceLogShared, WritersFollowTheFileAnotherOneReplaced) {
    ScratchFolder folder("kelsim-trace");
    ASSERT_FALSE(folder.path().empty());
    const std::string path = folder.path() + "/kelpth.log";
    TraceLogWriter first, second;
    ASSERT_TRUE(first.open(path.c_str(), 3000));
    ASSERT_TRUE(second.open(path.c_str(), 3000));
    for (int i = 0; i < 200; i++) {
        for (TraceLogWriter *writer : {&first, &second}) {
            const std::string text = (writer == &first ? "first " : "second ") + std::to_string(i);
            ASSERT_TRUE(writer->append(nullptr, 0, text.c_str(), nullptr, 0)) << text;
        }
        ASSERT_LE(std::filesystem::file_size(path), 3000u) << i;
    }
    std::stringstream content;
    content << std::ifstream(path).rdbuf();
    const std::string log = content.str();
    EXPECT_NE(log.find("] first 199\n"), std::string::npos) << log;
    EXPECT_NE(log.find("] second 199\n"), std::string::npos) << log;
    EXPECT_LT(log.find("] first 199\n"), log.find("] second 199\n"));
}

} // namespace
} // namespace kelsim
