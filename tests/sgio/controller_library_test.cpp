// The SG_IO controller library on listed nodes that are no SCSI devices: enumeration and
// RAID status from the list, the failures and their last-error codes.
#include "controller_library.h"

#include "library_codes.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace kelsgio {
namespace {

class SgioControllerLibrary : public ::testing::Test {
  protected:
    void SetUp() override { setenv("KELSGIO_DEVICES", "/dev/null,/dev/zero;/dev/full", 1); }
    void TearDown() override { unsetenv("KELSGIO_DEVICES"); }
    ControllerLibrary library;
};

TEST_F(SgioControllerLibrary, ControllersAndSlotsComeFromTheList) {
    uint8_t count = 0;
    EXPECT_EQ(library.getContNum(&count), 0);
    EXPECT_EQ(library.lastError(), kelsim::kErrorNotInitialised);

    ASSERT_EQ(library.initContData(0), 1);
    ASSERT_EQ(library.getContNum(&count), 1);
    EXPECT_EQ(count, 2);
    ContInfo info{};
    EXPECT_EQ(library.getContInfo(0, &info), 1);
    EXPECT_EQ(info.raw[2], 2); // drives present
    EXPECT_EQ(library.getContInfo(2, &info), 0);
    EXPECT_EQ(library.lastError(), kelsim::kErrorNoSuchController);

    RaidStatus status{};
    ASSERT_EQ(library.getRaidStatus(1, &status), 1);
    EXPECT_EQ(status.physicalDriveState[0], kelsim::kSlotOnline);
    EXPECT_EQ(status.logicalDriveState[0], kelsim::kLogicalDriveOptimal);
    for (int n = 1; n < 8; n++) {
        EXPECT_EQ(status.physicalDriveState[n], RAID_STATE_ABSENT) << n;
        EXPECT_EQ(status.logicalDriveState[n], RAID_STATE_ABSENT) << n;
    }
    EXPECT_EQ(library.getRaidStatus(0, nullptr), 0);
    EXPECT_EQ(library.lastError(), kelsim::kErrorBadArgument);
}

TEST_F(SgioControllerLibrary, DriveInformationOfEmptyAndUnreadableSlots) {
    ASSERT_EQ(library.initContData(0), 1);
    PhysicalDriveInfo info{};
    info.vendorId[0] = 'X';
    // An empty slot is a success with a zero record.
    ASSERT_EQ(library.getPhysicalDriveInfo(1, 5, &info), 1);
    EXPECT_EQ(info.vendorId[0], 0);
    EXPECT_EQ(library.getPhysicalDriveInfo(1, 8, &info), 0);
    EXPECT_EQ(library.lastError(), kelsim::kErrorBadArgument);
    // A listed node that answers no INQUIRY cannot be described.
    EXPECT_EQ(library.getPhysicalDriveInfo(0, 0, &info), 0);
    EXPECT_EQ(library.lastError(), kelsim::kErrorDriveInfoUnavailable);
}

TEST(SgioControllerLibraryList, AWrongListFailsInitialisation) {
    setenv("KELSGIO_DEVICES", "sg0", 1);
    ControllerLibrary library;
    EXPECT_EQ(library.initContData(0), 0);
    EXPECT_EQ(library.lastError(), kelsim::kErrorTopology);
    unsetenv("KELSGIO_DEVICES");
}

} // namespace
} // namespace kelsgio
