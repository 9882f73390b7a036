// The SG_IO back end's discovery over a fake sysfs tree, its device list, and the routing
// of a request: wrapper checks and stripping, refusals, directions.
#include "discovery.h"
#include "pass_through.h"
#include "support/scratch_folder.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

namespace kelsgio {
namespace {

class FakeSysfs : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_FALSE(folder.path().empty());
        root = folder.path();
        makeFolder("/bus/scsi/devices");
    }

    void makeFolder(const std::string &path) {
        std::string full = root;
        for (size_t pos = 1; pos != std::string::npos;) {
            size_t next = path.find('/', pos);
            full = root + path.substr(0, next);
            mkdir(full.c_str(), 0755);
            pos = next == std::string::npos ? next : next + 1;
        }
    }
    void writeFile(const std::string &path, const std::string &text) { std::ofstream(root + path) << text; }
    // A SCSI device with its type, INQUIRY strings (padded as sysfs shows them) and nodes.
    void addDevice(const std::string &hctl, int type, const std::string &sg, const std::string &sd,
                   const std::string &vendor = "QEMU    ") {
        const std::string folder = "/bus/scsi/devices/" + hctl;
        makeFolder(folder);
        writeFile(folder + "/type", std::to_string(type) + "\n");
        writeFile(folder + "/vendor", vendor + "\n");
        writeFile(folder + "/model", "QEMU HARDDISK   \n");
        writeFile(folder + "/rev", "2.5+\n");
        if (!sg.empty()) {
            makeFolder(folder + "/scsi_generic/" + sg);
        }
        if (!sd.empty()) {
            makeFolder(folder + "/block/" + sd);
            writeFile(folder + "/block/" + sd + "/size", "131072\n");
        }
    }
    std::vector<std::string> hctls(const Controller &controller) {
        std::vector<std::string> names;
        for (const Disk &disk : controller.disks) {
            names.push_back(disk.hctl);
        }
        return names;
    }

    ScratchFolder folder{"kelsgio-sysfs"};
    std::string root;
};

TEST_F(FakeSysfs, DisksGroupedByHostInNumericHctlOrderAtMostEightAHost) {
    addDevice("0:0:10:0", 0, "sg3", "sdc");
    addDevice("0:0:2:0", 0, "sg1", "sda");
    addDevice("0:0:3:0", 5, "sg2", ""); // a CD-ROM is no disk
    addDevice("0:0:4:0", 0, "", "");    // no node bound: nothing to talk to
    makeFolder("/bus/scsi/devices/host0");
    makeFolder("/bus/scsi/devices/target0:0:2");
    for (int t = 0; t < 9; t++) {
        addDevice("12:0:" + std::to_string(t) + ":0", 0, "sg" + std::to_string(10 + t), "");
    }
    addDevice("3:0:0:0", 0, "", "sdz"); // host 3 comes before host 12

    std::vector<Controller> controllers = discoverFromSysfs(root);
    ASSERT_EQ(controllers.size(), 3u);
    EXPECT_EQ(controllers[0].host, 0);
    EXPECT_EQ(hctls(controllers[0]), (std::vector<std::string>{"0:0:2:0", "0:0:10:0"}));
    EXPECT_EQ(controllers[1].host, 3);
    EXPECT_EQ(controllers[2].host, 12);
    ASSERT_EQ(controllers[2].disks.size(), kSlotsPerController);
    EXPECT_EQ(controllers[2].disks.back().hctl, "12:0:7:0");
}

TEST_F(FakeSysfs, DeviceNodePrefersSgAndIdentityComesFromSysfs) {
    addDevice("0:0:0:0", 0, "sg4", "sdb", "ATA     ");
    addDevice("1:0:0:0", 0, "", "sdc");
    std::vector<Controller> controllers = discoverFromSysfs(root);
    ASSERT_EQ(controllers.size(), 2u);
    Disk &both = controllers[0].disks[0];
    ASSERT_TRUE(resolveDevice(&both, "/dev"));
    EXPECT_EQ(both.device, "/dev/sg4");
    Disk &blockOnly = controllers[1].disks[0];
    ASSERT_TRUE(resolveDevice(&blockOnly, "/dev"));
    EXPECT_EQ(blockOnly.device, "/dev/sdc");

    readSysfsIdentity(&both);
    EXPECT_EQ(both.vendor, "ATA");
    EXPECT_EQ(both.product, "QEMU HARDDISK");
    EXPECT_EQ(both.revision, "2.5+");
    EXPECT_EQ(both.blocks, 131072u);
}

TEST_F(FakeSysfs, NoSysfsMeansNoControllers) {
    EXPECT_TRUE(discoverFromSysfs(root + "/absent").empty());
}

TEST(DeviceList, ControllersAndSlotsFromTheList) {
    std::vector<Controller> controllers;
    std::string error;
    ASSERT_TRUE(parseDeviceList("/dev/sg1,/dev/sda;/dev/sg4", &controllers, &error)) << error;
    ASSERT_EQ(controllers.size(), 2u);
    ASSERT_EQ(controllers[0].disks.size(), 2u);
    EXPECT_EQ(controllers[0].disks[1].device, "/dev/sda");
    EXPECT_EQ(controllers[1].disks[0].device, "/dev/sg4");

    for (const char *wrong :
         {"sg1", "/dev/sg1,,/dev/sg2", "/dev/sg1;", "/dev/a,/dev/b,/dev/c,/dev/d,/dev/e,/dev/f,/dev/g,/dev/h,/dev/i"}) {
        EXPECT_FALSE(parseDeviceList(wrong, &controllers, &error)) << wrong;
        EXPECT_NE(error.find("KELSGIO_DEVICES"), std::string::npos);
    }
}

PassThroughRequest request(uint32_t targetKind, uint8_t direction, std::vector<uint8_t> cdb) {
    PassThroughRequest r{};
    r.targetKind = targetKind;
    r.driveNo = 3;
    r.direction = direction;
    std::copy(cdb.begin(), cdb.end(), r.cdb);
    r.cdbLength = static_cast<uint32_t>(cdb.size());
    return r;
}

// Routes a request; the routed command points into it.
kelcommon::PassOutcome route(PassThroughRequest &request, bool sata, kelcommon::PassFunction function,
                             kelcommon::RoutedCommand *command) {
    kelcommon::PassCall call;
    call.function = function;
    call.request = &request;
    return kelcommon::routeRequest(call, sata, command);
}

// A SAS drive's wrapper is taken off to the length of the inner command; ATA PASS-THROUGH,
// other commands to a SATA drive's translation layer and logical drives go as they are.
TEST(Routing, WhatReachesTheDrive) {
    using kelcommon::PassFunction;
    struct Case {
        std::vector<uint8_t> cdb;
        uint32_t target;
        uint8_t direction;
        bool sata;
        PassFunction function;
        size_t length; // of the inner command, or of the whole one sent as it is
        bool ata = false;
    };
    const uint32_t pd = KEL_TARGET_PHYSICAL;
    const std::vector<Case> cases = {
        {{0xBB, 3, 0x28, 0, 0, 0, 0x10, 0, 0, 1, 0, 0}, pd, KEL_DIR_IN, false, PassFunction::AnyCommand, 10},
        {{0xBA, 3, 0x2A, 0, 0, 0, 0x10, 0, 0, 1, 0, 0}, pd, KEL_DIR_OUT, false, PassFunction::WriteExtend, 10},
        {{0xBB, 3, 0x12, 0, 0, 0, 0x60, 0}, pd, KEL_DIR_IN, false, PassFunction::AnyCommand, 6},
        {{0xBA, 3, 0x15, 0x10, 0, 0, 0x18, 0, 0, 0, 0, 0}, pd, KEL_DIR_OUT, false, PassFunction::WriteExtend, 6},
        // READ(16), cut short
        {{0xBB, 3, 0x88, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 1}, pd, KEL_DIR_IN, false, PassFunction::AnyCommand, 14},
        {{0xBB, 3, 0xA0, 0, 0, 0, 0, 0, 0, 0x10, 0, 0}, pd, KEL_DIR_IN, false, PassFunction::AnyCommand, 10},
        {{0x85, 0x07, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x40, 0xEA, 0},
         pd,
         KEL_DIR_NONE,
         true,
         PassFunction::AnyCommand,
         16,
         true},
        {{0x12, 0, 0, 0, 0x60, 0}, pd, KEL_DIR_IN, true, PassFunction::Inquiry, 6},
        {{0x28, 0, 0, 0, 0, 0x20, 0, 0, 1, 0}, KEL_TARGET_LOGICAL, KEL_DIR_IN, false, PassFunction::ReadExtend, 10},
    };
    for (const Case &c : cases) {
        kelcommon::RoutedCommand command;
        PassThroughRequest r = request(c.target, c.direction, c.cdb);
        const bool wrapped = c.cdb[0] == 0xBB || c.cdb[0] == 0xBA;
        ASSERT_EQ(route(r, c.sata, c.function, &command).status, KEL_STATUS_GOOD) << int(c.cdb[wrapped ? 2 : 0]);
        EXPECT_EQ(command.cdb, r.cdb + (wrapped ? 2 : 0));
        EXPECT_EQ(command.direction, c.direction);
        EXPECT_EQ(command.ataPassThrough, c.ata);
        if (wrapped) {
            EXPECT_EQ(commandLength(c.cdb[2], command.cdbLength), c.length) << int(c.cdb[2]);
        } else {
            EXPECT_EQ(command.cdbLength, c.length) << int(c.cdb[0]);
        }
    }
}

TEST(Routing, RefusalsAndTheirStatuses) {
    using kelcommon::PassFunction;
    struct Case {
        const char *name;
        PassThroughRequest request;
        bool sata;
        PassFunction function;
        int status;
    };
    const std::vector<uint8_t> wrappedRead = {0xBB, 3, 0x28, 0, 0, 0, 0, 0, 0, 1, 0, 0};
    PassThroughRequest otherDrive = request(KEL_TARGET_PHYSICAL, KEL_DIR_IN, wrappedRead);
    otherDrive.cdb[1] = 2;
    const std::vector<Case> cases = {
        {"wrapper names another drive", otherDrive, false, PassFunction::AnyCommand, KEL_STATUS_PARAMETER},
        {"0xBB sending data", request(KEL_TARGET_PHYSICAL, KEL_DIR_OUT, wrappedRead), false, PassFunction::AnyCommand,
         KEL_STATUS_READ_AND_WRITE},
        {"unwrapped CDB to a SAS drive", request(KEL_TARGET_PHYSICAL, KEL_DIR_IN, {0x28, 0, 0, 0, 0, 0, 0, 0, 1, 0}),
         false, PassFunction::AnyCommand, KEL_STATUS_UNSUPPORTED},
        {"sending function reading", request(KEL_TARGET_PHYSICAL, KEL_DIR_IN, wrappedRead), false,
         PassFunction::WriteBuffer, KEL_STATUS_READ_AND_WRITE},
        {"reading function sending", request(KEL_TARGET_PHYSICAL, KEL_DIR_OUT, wrappedRead), false,
         PassFunction::Inquiry, KEL_STATUS_READ_AND_WRITE},
        {"READ(10) to a logical drive as data out",
         request(KEL_TARGET_LOGICAL, KEL_DIR_OUT, {0x28, 0, 0, 0, 0, 0, 0, 0, 1, 0}), false, PassFunction::AnyCommand,
         KEL_STATUS_READ_AND_WRITE},
    };
    for (const Case &c : cases) {
        kelcommon::RoutedCommand command;
        PassThroughRequest r = c.request;
        EXPECT_EQ(route(r, c.sata, c.function, &command).status, c.status) << c.name;
    }
}

} // namespace
} // namespace kelsgio
