// The SATA module's own rules that the command line cannot reach: the 48-bit register
// layout and its refusals, IDENTIFY DEVICE, and the SATA handlers refusing a SAS drive
// (the SAS paths only hand SATA drives over). Runs against the simulated farm.
#define KEL_MODULE "KelPthCmd_SATA"
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "kelctl.h"
#include "kelpth/functbl.h"
#include "kelpth/handlers.h"
#include "stdout_capture.h"

namespace {

const std::string kAbnormalEnd = "KEL0002-I PassThrough Tool abnormal end.\n";

std::string badValue(const std::string &detail) {
    return "KEL0022-E Ileagal Parameter. detail=" + detail + "\n" + kAbnormalEnd;
}

TEST(AtaAddress48, PreviousBytesComeBeforeCurrentBytes) {
    std::vector<uint8_t> cdb(16, 0xEE);
    std::string screen;
    int result = 0;
    screen = screenOf([&] { result = setAtaAddress48bit(0, 0xA1B2C3D4E5F6ull, &cdb[7]); });
    EXPECT_EQ(result, 1);
    EXPECT_EQ(screen, "");
    // LBA low (31..24, 7..0), mid (39..32, 15..8), high (47..40, 23..16).
    const std::vector<uint8_t> expected = {0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xC3,
                                           0xF6, 0xB2, 0xE5, 0xA1, 0xD4, 0xEE, 0xEE, 0xEE};
    EXPECT_EQ(cdb, expected);

    EXPECT_EQ(setAtaAddress48bit(0, 0xFFFFFFFFFFFFull, &cdb[7]), 1);
    EXPECT_EQ(std::vector<uint8_t>(cdb.begin() + 7, cdb.begin() + 13), std::vector<uint8_t>(6, 0xFF));
}

TEST(AtaAddress48, RefusesWhatDoesNotFitOrAnUnknownMode) {
    struct Case {
        uint32_t mode;
        uint64_t lba;
        std::string screen;
    };
    for (const Case &c : std::vector<Case>{{0, 1ull << 48, badValue("Address")},
                                           {0, ~0ull, badValue("Address")},
                                           {1, 0, badValue("Unknown Vendor")},
                                           {1, 1ull << 48, badValue("Address")}}) { // the address is tested first
        std::vector<uint8_t> cdb(16, 0xEE);
        int result = -1;
        EXPECT_EQ(screenOf([&] { result = setAtaAddress48bit(c.mode, c.lba, &cdb[7]); }), c.screen);
        EXPECT_EQ(result, 0);
        EXPECT_EQ(cdb, std::vector<uint8_t>(16, 0xEE)) << "nothing written on a refusal";
    }
}

// Calls the handlers directly against the simulated farm, with argv placed in the
// command's table entry as the dispatcher would.
class SataHandlers : public ::testing::Test {
  protected:
    void SetUp() override {
        if (getenv("KELSIM_DIR") == nullptr) {
            char pattern[] = "/tmp/kelpth-unit-XXXXXX";
            ASSERT_NE(mkdtemp(pattern), nullptr);
            setenv("KELSIM_DIR", pattern, 1);
        }
        ASSERT_NE(initContData(0), 0);
    }
    void TearDown() override {
        for (FuncTblEntry &entry : functbl) {
            entry.argv = nullptr;
        }
        finContData();
    }

    // Runs handler with "kelpth <command> args..." and returns its screen output.
    std::string runHandler(FuncTblIndex index, KelHandler handler, std::vector<std::string> args, int *result) {
        args.insert(args.begin(), {"kelpth", functbl[index].name});
        std::vector<char *> argv;
        for (std::string &arg : args) {
            argv.push_back(arg.data());
        }
        argv.push_back(nullptr);
        functbl[index].argv = argv.data();
        return screenOf([&] { *result = handler(); });
    }
};

TEST_F(SataHandlers, SectorCommandsRefuseASasDriveEachAtItsOwnStep) {
    const std::string sasRefused = "KEL0024-E <SAS> drive does not support this command.\n";
    int result = -1;
    // The write checks the drive type before the address, the read after it.
    EXPECT_EQ(runHandler(kTblPDSectorWrite, KelPDOneSectorWrite_SATA, {"0", "0", "zz"}, &result), sasRefused);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(runHandler(kTblPDSectorRead, KelPDOneSectorRead_SATA, {"0", "0", "zz"}, &result), badValue("Address"));
    EXPECT_EQ(result, 0);
    EXPECT_EQ(runHandler(kTblPDSectorRead, KelPDOneSectorRead_SATA, {"0", "0", "10"}, &result), sasRefused);
    EXPECT_EQ(result, 0);
}

TEST_F(SataHandlers, CapacityChangeRefusesASasDriveAfterTheCapacity) {
    int result = -1;
    EXPECT_EQ(runHandler(kTblCapaChange, KelPDHDDCapaChange_SATA, {"0", "0", "1000000000000"}, &result),
              badValue("Capacity"));
    EXPECT_EQ(result, 0);
    EXPECT_EQ(runHandler(kTblCapaChange, KelPDHDDCapaChange_SATA, {"0", "0", "100"}, &result),
              "KEL0024-E <SAS> drive does not support this command.\n");
    EXPECT_EQ(result, 0);
}

TEST_F(SataHandlers, IdentifyDeviceFillsTheCallersBuffer) {
    std::vector<uint8_t> identify(512, 0xFF);
    int result = -1;
    std::string screen = screenOf([&] { result = getIdentifyDevice(0, 4, 12345, identify.data()); });
    EXPECT_EQ(result, 1);
    EXPECT_EQ(screen, "[CDB] Size=16\n" + std::string(77, '-') +
                          "\n00000000: 85 08 0E 00 00 00 01 00  00 00 00 00 00 00 EC 00  ................\n\n");
    // Words 27..46 hold the model with the two characters of each word swapped.
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(&identify[54]), 10), "QM5X01S8MI");

    // An empty slot fails, and the buffer has been cleared all the same.
    identify.assign(512, 0xFF);
    screenOf([&] { result = getIdentifyDevice(0, 7, 0, identify.data()); });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(identify, std::vector<uint8_t>(512, 0));
}

} // namespace
