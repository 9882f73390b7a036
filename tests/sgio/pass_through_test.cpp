// The SG_IO pass-through library end to end on a node that is no SCSI device: the status
// and text of a failed system call, argument checks before anything is sent, and the
// journal lines KELSGIO_JOURNAL collects.
#include "pass_through.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

namespace kelsgio {
namespace {

class SgioPassThrough : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/kelsgio-journal.XXXXXX";
        int fd = mkstemp(pattern);
        ASSERT_GE(fd, 0);
        close(fd);
        journalPath = pattern;
        setenv("KELSGIO_DEVICES", "/dev/null;/dev/kelsgio-absent", 1);
        setenv("KELSGIO_JOURNAL", journalPath.c_str(), 1);
    }
    void TearDown() override {
        unsetenv("KELSGIO_DEVICES");
        unsetenv("KELSGIO_JOURNAL");
        unlink(journalPath.c_str());
    }
    int send(uint8_t controller, uint32_t kind, std::vector<uint8_t> cdb, uint8_t direction = KEL_DIR_IN) {
        request = PassThroughRequest{};
        request.controllerNo = controller;
        request.targetKind = kind;
        request.direction = direction;
        std::copy(cdb.begin(), cdb.end(), request.cdb);
        request.cdbLength = static_cast<uint32_t>(cdb.size());
        length = sizeof data;
        std::fill(std::begin(sense), std::end(sense), 0);
        kelcommon::PassCall call;
        call.function = kelcommon::PassFunction::ReadExtend;
        call.request = &request;
        call.data = data;
        call.readLength = &length;
        call.sense = sense;
        call.senseSize = &senseSize;
        return runPassThrough(backend, call);
    }
    std::string senseText() const { return reinterpret_cast<const char *>(sense); }
    std::vector<std::string> journal() const {
        std::ifstream in(journalPath);
        std::vector<std::string> lines;
        for (std::string line; std::getline(in, line);) {
            lines.push_back(line);
        }
        return lines;
    }

    Backend backend;
    std::string journalPath;
    PassThroughRequest request{};
    uint8_t data[512] = {};
    uint32_t length = 0;
    uint8_t sense[KEL_SENSE_SIZE] = {};
    uint32_t senseSize = KEL_SENSE_SIZE;
};

TEST_F(SgioPassThrough, FailedSystemCallsGiveErrnoAndTheCallsName) {
    const std::vector<uint8_t> read10 = {0x28, 0, 0, 0, 0, 0x10, 0, 0, 1, 0};
    // /dev/null opens but knows no SG_IO.
    EXPECT_EQ(send(0, KEL_TARGET_LOGICAL, read10), KEL_STATUS_SYSTEM_CALL);
    EXPECT_EQ(senseText(), "0025ioctl");
    EXPECT_EQ(length, 0u);
    // A listed node that does not exist fails at open.
    EXPECT_EQ(send(1, KEL_TARGET_LOGICAL, read10), KEL_STATUS_SYSTEM_CALL);
    EXPECT_EQ(senseText(), "0002open");
    // A physical drive needs its INQUIRY first to know its interface.
    EXPECT_EQ(send(0, KEL_TARGET_PHYSICAL, {0xBB, 0, 0x28, 0, 0, 0, 0, 0x10, 0, 0, 1, 0}), KEL_STATUS_EXECUTION);
    EXPECT_EQ(senseText(), "INQUIRY of the drive failed");
}

TEST_F(SgioPassThrough, EveryCallIsJournaledInTheSimsFormat) {
    EXPECT_EQ(send(0, KEL_TARGET_LOGICAL, {0x28, 0, 0, 0, 0, 0x10, 0, 0, 1, 0}), KEL_STATUS_SYSTEM_CALL);
    EXPECT_EQ(send(2, KEL_TARGET_LOGICAL, {0x28, 0, 0, 0, 0, 0x10, 0, 0, 1, 0}), KEL_STATUS_PARAMETER);
    EXPECT_EQ(sense[0], 1);
    EXPECT_EQ(send(0, KEL_TARGET_LOGICAL, {0x28, 0, 0, 0, 0, 0x10, 0, 0, 1, 0}, KEL_DIR_OUT),
              KEL_STATUS_READ_AND_WRITE);
    const std::vector<std::string> lines = journal();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0], "1 KelPasReadExtend ctl=0 ld=0 if=0 dir=1 ata=0 cdb=28 00 00 00 00 10 00 00 01 00 len=512 "
                        "status=5 sense=-");
    EXPECT_EQ(lines[1].substr(0, 26), "2 KelPasReadExtend ctl=2 l");
    EXPECT_NE(lines[1].find(" status=1 "), std::string::npos);
    EXPECT_EQ(lines[2].substr(0, 2), "3 ");
    EXPECT_NE(lines[2].find(" dir=0 "), std::string::npos);
}

} // namespace
} // namespace kelsgio
