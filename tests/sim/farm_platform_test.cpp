// The farm's platform: the pass-through library's checks and routing, the state store
// (sparse blocks, persistence, faults, journal), the controller library, farm.conf and
// the trace log's bound, shared by two writers. Every test has a state folder of its own.
#include "controller_library.h"
#include "faults.h"
#include "journal.h"
#include "pass_through.h"
#include "support/scratch_folder.h"
#include "trace_writer.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

namespace kelsim {
namespace {

class FarmFolder : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_FALSE(folder.path().empty());
        root = folder.path();
        stateDir = root + "/state/nested";
    }

    // Faults scripted as "kelsim fault" does, in a connection of its own.
    void scriptFaults(const std::vector<std::pair<ScriptedFault, int>> &faults) {
        std::string error;
        ASSERT_TRUE(makeDirectories(stateDir, &error)) << error;
        StateStore script(stateDir);
        StoreTransaction transaction(script, true);
        for (const auto &fault : faults) {
            script.addFault(fault.first, fault.second);
        }
        ASSERT_TRUE(transaction.commit());
    }

    std::vector<std::string> journalLines() {
        StateStore store(stateDir);
        std::vector<std::string> lines;
        store.readJournal([&](int64_t seq, const JournalEntry &e) { lines.push_back(formatJournalLine(seq, e)); });
        return lines;
    }

    ScratchFolder folder{"kelsim-test"};
    std::string root;
    std::string stateDir;
};

// One pass-through call with the program's usual buffers.
struct Call {
    PassThroughRequest request{};
    std::vector<uint8_t> data = std::vector<uint8_t>(512);
    uint32_t length = 512;
    uint8_t sense[KEL_SENSE_SIZE] = {};
    uint32_t senseSize = KEL_SENSE_SIZE;

    Call(uint8_t controller, uint8_t drive, uint8_t direction, std::vector<uint8_t> cdb, uint32_t kind = 0) {
        request.targetKind = kind;
        request.controllerNo = controller;
        request.driveNo = drive;
        request.direction = direction;
        std::copy(cdb.begin(), cdb.end(), request.cdb);
        request.cdbLength = static_cast<uint32_t>(cdb.size());
    }
    int send(Farm &farm, PassFunction function) {
        PassCall call;
        call.function = function;
        call.request = &request;
        call.data = data.data();
        call.readLength = &length;
        call.writeLength = length;
        call.sense = sense;
        call.senseSize = &senseSize;
        return runPassThrough(farm, call);
    }
};

std::vector<uint8_t> read10(uint32_t lba) {
    std::vector<uint8_t> cdb = {0x28, 0, 0, 0, 0, 0, 0, 0, 1, 0};
    for (int i = 0; i < 4; i++) {
        cdb[2 + i] = static_cast<uint8_t>(lba >> (24 - 8 * i));
    }
    return cdb;
}
std::vector<uint8_t> wrappedRead10(uint8_t drive, uint32_t lba) {
    std::vector<uint8_t> cdb = {0xBB, drive};
    std::vector<uint8_t> inner = read10(lba);
    cdb.insert(cdb.end(), inner.begin(), inner.end());
    return cdb;
}
std::vector<uint8_t> wrappedWrite10(uint8_t drive, uint32_t lba) {
    std::vector<uint8_t> cdb = wrappedRead10(drive, lba);
    cdb[0] = 0xBA;
    cdb[2] = 0x2A;
    return cdb;
}

using PassThroughChecks = FarmFolder;

TEST_F(PassThroughChecks, MalformedRequestsGetTheLibrarysStatus) {
    Farm farm(stateDir);
    struct Case {
        const char *what;
        Call call;
        PassFunction function;
        int status;
        int argumentNo; // sense byte 0 for status 1
    };
    std::vector<Case> cases = {
        {"CDB too short", Call(0, 0, 1, {0xBB, 0, 0x28, 0, 0}), PassFunction::ReadExtend, 1, 1},
        {"no such controller", Call(2, 0, 1, wrappedRead10(0, 0)), PassFunction::ReadExtend, 1, 1},
        {"drive number 8", Call(0, 8, 1, wrappedRead10(8, 0)), PassFunction::ReadExtend, 1, 1},
        {"empty slot", Call(0, 7, 1, wrappedRead10(7, 0)), PassFunction::ReadExtend, 1, 1},
        {"absent logical drive", Call(0, 3, 1, read10(0), 1), PassFunction::ReadExtend, 1, 1},
        {"wrapper names another drive", Call(0, 2, 1, wrappedRead10(3, 0)), PassFunction::ReadExtend, 1, 1},
        {"plain CDB to a SAS slot", Call(0, 0, 1, read10(0)), PassFunction::ReadExtend, 2, 0},
        // A SATA slot takes any CDB: its translation layer knows no opcode 0xBB.
        {"SCSI wrapper to a SATA slot", Call(0, 4, 1, wrappedRead10(4, 0)), PassFunction::ReadExtend, 4, 0x70},
        {"0xBB with data out", Call(0, 0, 0, wrappedRead10(0, 0)), PassFunction::AnyCommand, 6, 0},
        {"0xBA with data in", Call(0, 0, 1, wrappedWrite10(0, 0)), PassFunction::AnyCommand, 6, 0},
        {"write function taking data in", Call(0, 0, 1, wrappedRead10(0, 0)), PassFunction::WriteExtend, 6, 0},
        {"logical READ with data out", Call(0, 0, 0, read10(0), 1), PassFunction::AnyCommand, 6, 0},
    };
    cases.push_back({"CDB too long", Call(0, 0, 1, wrappedRead10(0, 0)), PassFunction::ReadExtend, 1, 1});
    cases.back().call.request.cdbLength = 17;
    cases.push_back({"SATA interface to a logical drive", Call(0, 0, 1, read10(0), 1), PassFunction::ReadExtend, 1, 1});
    cases.back().call.request.interfaceType = 1;
    cases.push_back({"sense area too small", Call(0, 0, 1, wrappedRead10(0, 0)), PassFunction::ReadExtend, 1, 5});
    cases.back().call.senseSize = 8;

    for (Case &c : cases) {
        EXPECT_EQ(c.call.send(farm, c.function), c.status) << c.what;
        EXPECT_EQ(c.call.sense[0], c.argumentNo) << c.what;
    }
    EXPECT_EQ(journalLines().size(), cases.size()) << "every call is journaled";
}

TEST_F(PassThroughChecks, NullArgumentsAreNamedByPosition) {
    Farm farm(stateDir);
    Call call(0, 0, 1, wrappedRead10(0, 0));
    PassCall raw;
    raw.function = PassFunction::ReadExtend;
    raw.sense = call.sense;
    raw.senseSize = &call.senseSize;
    raw.readLength = &call.length;
    EXPECT_EQ(runPassThrough(farm, raw), 1);
    EXPECT_EQ(call.sense[0], 1);

    raw.request = &call.request; // data missing, 512 bytes announced
    EXPECT_EQ(runPassThrough(farm, raw), 1);
    EXPECT_EQ(call.sense[0], 2);

    raw.data = call.data.data();
    raw.readLength = nullptr;
    EXPECT_EQ(runPassThrough(farm, raw), 1);
    EXPECT_EQ(call.sense[0], 3);

    std::vector<std::string> lines = journalLines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0], "1 KelPasReadExtend ctl=- pd=- if=- dir=- ata=- cdb= len=512 status=1 sense=-");
}

using PassThroughRouting = FarmFolder;

TEST_F(PassThroughRouting, WrappedCommandsReachTheSlotsMedium) {
    Farm farm(stateDir);
    Call write(0, 3, 0, wrappedWrite10(3, 0x1234));
    std::fill(write.data.begin(), write.data.end(), 0x5A);
    ASSERT_EQ(write.send(farm, PassFunction::WriteExtend), 0);

    std::vector<uint8_t> onMedium(512);
    farm.medium(0, 3)->read(0x1234, 1, onMedium.data());
    EXPECT_EQ(onMedium, std::vector<uint8_t>(512, 0x5A));

    Call read(0, 3, 1, wrappedRead10(3, 0x1234));
    read.length = 4096; // a bigger buffer: the length comes back as what was moved
    read.data.resize(4096);
    ASSERT_EQ(read.send(farm, PassFunction::ReadExtend), 0);
    EXPECT_EQ(read.length, 512u);
    EXPECT_EQ(read.data[511], 0x5A);

    Call pastEnd(0, 3, 1, wrappedRead10(3, 0xFFFFFFF0));
    EXPECT_EQ(pastEnd.send(farm, PassFunction::ReadExtend), 4);
    EXPECT_EQ(pastEnd.sense[0], 0x70);
    EXPECT_EQ(pastEnd.sense[2] & 0x0F, sense::kIllegalRequest);
    EXPECT_EQ(pastEnd.sense[12], sense::kAscLbaOutOfRange);

    std::vector<std::string> lines = journalLines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0], "1 KelPasWriteExtend ctl=0 pd=3 if=0 dir=0 ata=0 cdb=BA 03 2A 00 00 00 12 34 00 00 01 00 "
                        "len=512 status=0 sense=-");
    EXPECT_EQ(lines[1].substr(lines[1].find(" len=")), " len=4096 status=0 sense=-");
    EXPECT_EQ(lines[2].substr(lines[2].find(" status=")), " status=4 sense=05/21/00");
}

TEST_F(PassThroughRouting, LogicalDriveWritesLandOnTheMembers) {
    Farm farm(stateDir);
    Call write(0, 0, 0, {0x2A, 0, 0, 0, 0, 0x30, 0, 0, 1, 0}, 1);
    std::fill(write.data.begin(), write.data.end(), 0xA5);
    ASSERT_EQ(write.send(farm, PassFunction::WriteExtend), 0);
    for (int slot : {0, 1}) {
        std::vector<uint8_t> block(512);
        farm.medium(0, slot)->read(0x30, 1, block.data());
        EXPECT_EQ(block[0], 0xA5) << "slot " << slot;
    }
    // LD2 of controller 0 reaches past 2^32 blocks with READ(16).
    Call capacity(0, 2, 1, {0x9E, 0x10, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 32, 0, 0}, 1);
    ASSERT_EQ(capacity.send(farm, PassFunction::AnyCommand), 0);
    EXPECT_EQ(capacity.length, 32u);
    EXPECT_GE(capacity.data[3], 1) << "last LBA above 2^32";
}

using StateStoreTest = FarmFolder;

TEST_F(StateStoreTest, BlocksAreSparseAndSurviveReopening) {
    std::string error;
    ASSERT_TRUE(makeDirectories(stateDir, &error)) << error;
    std::vector<uint8_t> block(512 * 3, 0);
    std::fill_n(block.begin(), 512, 0x11);
    std::fill_n(block.begin() + 1024, 512, 0x33);
    {
        StateStore store(stateDir);
        StoreTransaction transaction(store, true);
        ASSERT_TRUE(store.writeBlocks(driveKey(0, 5), 34359738000ULL, 3, block.data()));
        EXPECT_TRUE(transaction.commit());
        EXPECT_EQ(store.storedBlockCount(driveKey(0, 5)), 2u) << "the zero block is not kept";
    }
    StateStore store(stateDir);
    std::vector<uint8_t> back(512 * 4, 0xEE);
    ASSERT_TRUE(store.readBlocks(driveKey(0, 5), 34359737999ULL, 4, back.data()));
    EXPECT_EQ(back[0], 0);
    EXPECT_EQ(back[512], 0x11);
    EXPECT_EQ(back[1024], 0);
    EXPECT_EQ(back[1536], 0x33);
    // Same block numbers of another drive are untouched; rewriting zeros frees the rows.
    ASSERT_TRUE(store.readBlocks(driveKey(1, 5), 34359738000ULL, 1, back.data()));
    EXPECT_EQ(back[0], 0);
    std::vector<uint8_t> zeros(512 * 3, 0);
    ASSERT_TRUE(store.writeBlocks(driveKey(0, 5), 34359738000ULL, 3, zeros.data()));
    EXPECT_EQ(store.storedBlockCount(driveKey(0, 5)), 0u);
}

TEST_F(StateStoreTest, RolledBackCallsLeaveNoTrace) {
    std::string error;
    ASSERT_TRUE(makeDirectories(stateDir, &error)) << error;
    StateStore store(stateDir);
    std::vector<uint8_t> block(512, 0x42);
    {
        StoreTransaction transaction(store, true);
        store.writeBlocks(7, 10, 1, block.data());
        store.setSetting(7, "capacity", "1000");
    } // not committed
    StateStore other(stateDir);
    std::string value;
    EXPECT_FALSE(other.getSetting(7, "capacity", &value));
    EXPECT_EQ(other.storedBlockCount(7), 0u);
}

TEST_F(StateStoreTest, FaultsAreUsedUpInOrderAndAcrossProcesses) {
    Farm farm(stateDir);
    ScriptedFault fault;
    int count;
    std::string error;
    ASSERT_TRUE(parseFaultArguments(
        {"pass-status", "4", "--detail-hex", "70 00 04 00 00 00 00 0A 00 00 00 00 44 00", "--count", "2"}, &fault,
        &count, &error))
        << error;
    scriptFaults({{fault, count}});
    EXPECT_TRUE(farm.store().faultsMayBePending());
    for (int i = 0; i < 2; i++) {
        Call call(0, 0, 1, wrappedRead10(0, 0));
        EXPECT_EQ(call.send(farm, PassFunction::ReadExtend), 4);
        EXPECT_EQ(call.sense[12], 0x44);
    }
    Call call(0, 0, 1, wrappedRead10(0, 0));
    EXPECT_EQ(call.send(farm, PassFunction::ReadExtend), 0);
    EXPECT_FALSE(farm.store().faultsMayBePending()) << "the marker goes with the last fault";
    std::vector<std::string> lines = journalLines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_NE(lines[0].find("status=4 sense=04/44/00"), std::string::npos) << lines[0];
    EXPECT_NE(lines[2].find("status=0 sense=-"), std::string::npos);
}

TEST(FaultArguments, RefusalsAndForms) {
    ScriptedFault fault;
    int count;
    std::string error;
    EXPECT_TRUE(parseFaultArguments({"init-fail", "0x1234"}, &fault, &count, &error));
    EXPECT_EQ(fault.value, 0x1234u);
    EXPECT_TRUE(parseFaultArguments({"pass-status", "5", "--detail-text", "0013fopen"}, &fault, &count, &error));
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(fault.detail.data())), "0013fopen");
    EXPECT_TRUE(parseFaultArguments({"no-controller", "--count", "9"}, &fault, &count, &error));
    EXPECT_EQ(count, 9);
    for (const std::vector<std::string> &bad :
         std::vector<std::vector<std::string>>{{"pass-status"},
                                               {"pass-status", "0"},
                                               {"pass-status", "256"},
                                               {"pass-status", "4", "--detail-hex", "ABC"},
                                               {"init-fail"},
                                               {"init-fail", "-1"},
                                               {"no-controller", "3"},
                                               {"continfo-fail", "5", "--detail-text", "x"},
                                               {"driveinfo-fail", "--count", "0"},
                                               {"power-cut"}}) {
        EXPECT_FALSE(parseFaultArguments(bad, &fault, &count, &error)) << bad[0];
    }
}

using ControllerLibraryTest = FarmFolder;

TEST_F(ControllerLibraryTest, StatusAndDriveInformationFollowTheTopology) {
    Farm farm(stateDir);
    ControllerLibrary library(farm);
    uint8_t count = 0;
    EXPECT_EQ(library.getContNum(&count), 0) << "before initContData";
    EXPECT_EQ(library.lastError(), 0x101u);
    ASSERT_EQ(library.initContData(0), 1);
    ASSERT_EQ(library.getContNum(&count), 1);
    EXPECT_EQ(count, 2);

    ContInfo info{};
    EXPECT_EQ(library.getContInfo(1, &info), 1);
    EXPECT_EQ(library.getContInfo(2, &info), 0);
    EXPECT_NE(library.lastError() & 0x10000, 0u);

    RaidStatus status{};
    ASSERT_EQ(library.getRaidStatus(0, &status), 1);
    for (int i = 0; i < 8; i++) {
        EXPECT_EQ(status.logicalDriveState[i] == RAID_STATE_ABSENT, i >= 3) << "ld " << i;
        EXPECT_EQ(status.physicalDriveState[i] == RAID_STATE_ABSENT, i == 7) << "slot " << i;
    }
    EXPECT_EQ(library.getRaidStatus(9, &status), 0);

    PhysicalDriveInfo drive{};
    ASSERT_EQ(library.getPhysicalDriveInfo(0, 4, &drive), 1);
    EXPECT_EQ(std::string(drive.vendorId, 8), "ATA     ");
    EXPECT_EQ(std::string(drive.productId, 16), "MQX5108SIM      ");
    EXPECT_EQ(std::string(drive.productRevision, 4), "SIM1");
    memset(&drive, 0x55, sizeof drive);
    ASSERT_EQ(library.getPhysicalDriveInfo(0, 7, &drive), 1) << "an empty slot is not a failure";
    EXPECT_EQ(drive.vendorId[0], 0);
    EXPECT_EQ(library.getPhysicalDriveInfo(0, 8, &drive), 0);
}

TEST_F(ControllerLibraryTest, ScriptedFaultsHitOnlyTheirOwnCall) {
    scriptFaults({{{"init-fail", 0x1234, {}}, 1}, {{"continfo-fail", 0x20000, {}}, 1}, {{"no-controller", 0, {}}, 1}});
    Farm farm(stateDir);
    ControllerLibrary library(farm);
    EXPECT_EQ(library.initContData(0), 0);
    EXPECT_EQ(library.lastError(), 0x1234u);
    ASSERT_EQ(library.initContData(0), 1);
    RaidStatus status{};
    EXPECT_EQ(library.getRaidStatus(0, &status), 1);
    uint8_t count = 9;
    EXPECT_EQ(library.getContNum(&count), 1);
    EXPECT_EQ(count, 0);
    ContInfo info{};
    EXPECT_EQ(library.getContInfo(0, &info), 0);
    EXPECT_EQ(library.lastError(), 0x20000u);
    EXPECT_EQ(library.getContInfo(0, &info), 1);
    EXPECT_EQ(library.getContNum(&count), 1);
    EXPECT_EQ(count, 2);
}

using TopologyFile = FarmFolder;

TEST_F(TopologyFile, DefaultFarmRoundTripsAndEditsTakeEffect) {
    Topology topology;
    std::string error;
    ASSERT_TRUE(loadTopologyFile(stateDir, &topology, &error)) << error;
    EXPECT_TRUE(std::filesystem::exists(stateDir + "/farm.conf"));
    Topology reread;
    ASSERT_TRUE(parseTopology(formatTopology(topology), &reread, &error)) << error;
    EXPECT_EQ(formatTopology(reread), formatTopology(topology));
    ASSERT_EQ(reread.controllers.size(), 2u);
    EXPECT_TRUE(reread.controllers[0].slots[5].identity.writeUncorrectableSupported);
    EXPECT_EQ(reread.controllers[0].slots[5].identity.nativeBlocks, 16ULL << 40 >> 9);

    std::ofstream(stateDir + "/farm.conf") << "controller 0\n"
                                              "slot 2 sas vendor=ACME product=BIG revision=7 blocks=0x100000\n"
                                              "slot 3 sas vendor=ACME product=BIG blocks=1048576 # twin\n"
                                              "ld 4 raid1 strip=64 members=2,3\n";
    ASSERT_TRUE(loadTopologyFile(stateDir, &topology, &error)) << error;
    ASSERT_EQ(topology.controllers.size(), 1u);
    EXPECT_EQ(topology.controllers[0].slots[2].identity.revision, "7   ");
    EXPECT_EQ(topology.controllers[0].logicalDrives[4].stripBlocks, 64u);
    EXPECT_FALSE(topology.controllers[0].slots[0].present);
}

TEST(TopologyText, MistakesNameTheirLine) {
    struct Case {
        const char *text;
        const char *expected;
    };
    for (const Case &c : std::vector<Case>{
             {"slot 0 sas vendor=A product=B blocks=1\n", "line 1"},
             {"controller 1\n", "line 1"},
             {"controller 0\nslot 8 sas vendor=A product=B blocks=1\n", "line 2"},
             {"controller 0\nslot 0 scsi vendor=A product=B blocks=1\n", "line 2"},
             {"controller 0\nslot 0 sas vendor=A product=B\n", "line 2"},
             {"controller 0\nslot 0 sas vendor=ABCDEFGHI product=B blocks=1\n", "line 2"},
             {"controller 0\n\n# note\nld 0 raid5 members=0,1\n", "line 4"},
             {"controller 0\nld 0 raid0 members=3\n", "slot 3 is empty"},
             {"controller 0\nslot 0 sas vendor=A product=B blocks=1\nld 0 raid0 members=0\nld 1 raid0 members=0\n",
              "two logical drives"},
             {"# nothing\n", "no controller"},
         }) {
        Topology topology;
        std::string error;
        EXPECT_FALSE(parseTopology(c.text, &topology, &error)) << c.text;
        EXPECT_NE(error.find(c.expected), std::string::npos) << error;
    }
}

TEST(TraceLog, EntriesCarryModuleLineAndData) {
    timespec when{};
    const uint8_t cdb[] = {0xBB, 0x00, 0x28, 0, 0, 0, 0, 0x10, 0, 0, 1, 0, 0, 0, 0, 0, 0x99};
    std::string located = formatTraceEntry(when, 42, "KelPthCmd", 123, "KEL0009-E Gone.\n", nullptr, 0);
    EXPECT_NE(located.find(" [pid 42] KelPthCmd:123 KEL0009-E Gone.\n"), std::string::npos) << located;
    EXPECT_EQ(located.find("\n\n"), std::string::npos) << "a text's own newline ends the entry";
    std::string withData = formatTraceEntry(when, 42, nullptr, 0, "## CDB", cdb, sizeof cdb);
    EXPECT_NE(withData.find("] ## CDB\n    00000000: BB 00 28 00 00 00 00 10  00 00 01 00 00 00 00 00\n"
                            "    00000010: 99\n"),
              std::string::npos)
        << withData;
}

// Two runs at once keep the file open: when one replaces it to keep it within its bound,
// the other's next entries go to the new file, not to the old one.
TEST(TraceLog, FileStaysWithinItsBoundKeepingTheNewestEntriesOfEveryWriter) {
    ScratchFolder folder("kelsim-trace");
    ASSERT_FALSE(folder.path().empty());
    std::string path = folder.path() + "/kelpth.log";
    TraceLogWriter writer, other;
    ASSERT_TRUE(writer.open(path.c_str(), 4000));
    ASSERT_TRUE(other.open(path.c_str(), 4000));
    for (int i = 0; i < 300; i++) {
        for (TraceLogWriter *each : {&writer, &other}) {
            std::string text = (each == &writer ? "entry number " : "other number ") + std::to_string(i);
            ASSERT_TRUE(each->append(nullptr, 0, text.c_str(), nullptr, 0)) << text;
        }
        ASSERT_LE(std::filesystem::file_size(path), 4000u) << i;
    }
    std::stringstream content;
    content << std::ifstream(path).rdbuf();
    std::string log = content.str();
    EXPECT_NE(log.find("] entry number 299\n"), std::string::npos) << log;
    EXPECT_NE(log.find("] other number 299\n"), std::string::npos) << log;
    EXPECT_LT(log.find("] entry number 299\n"), log.find("] other number 299\n"));
    EXPECT_EQ(log.find("entry number 10\n"), std::string::npos);
    EXPECT_GT(log.size(), 1900u) << "about half the bound is kept";
    EXPECT_EQ(nextEntryStart(log, 0), 0u);
    EXPECT_TRUE(isdigit(static_cast<unsigned char>(log[0]))) << "the file starts at an entry";

    // An entry bigger than the bound stands alone, cut to it.
    std::string huge(5000, 'x');
    ASSERT_TRUE(writer.append(nullptr, 0, huge.c_str(), nullptr, 0));
    EXPECT_EQ(std::filesystem::file_size(path), 4000u);
}

} // namespace
} // namespace kelsim
