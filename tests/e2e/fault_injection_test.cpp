// End to end: the fault-injection commands E, e, N, N5 and A on the default farm. Each
// fault is set through kelpth and then seen where it was set: a later read fails as the
// drive says, and the journal shows what the drive was sent.
#include "harness.h"

#include <string>
#include <vector>

namespace {

// argno 0 is shown as "*".
const std::string kIncomplete = "KEL0014-E Parameter error. argno=*\n";

// The values of the example files, on the farm's drives: E on slot 3, e on slot 5, N
// and N5 on slot 2, A on slot 4 (the MQX5108).
const std::vector<std::string> kMediaErrorValues = {"0", "3", "0x0012A0", "4", "8"};
const std::vector<std::string> kSataMediaErrorValues = {"0", "5", "0x00000001F400", "2", "1"};
const std::vector<std::string> kPage28Values = {
    "0",    "2",    "1", "1", "0", "0x3",    "0x0100", "16", "0x05", "0x00012000", "0x00000008", "0x01",
    "0x00", "0xFF", "1", "0", "3", "0x0010", "0",      "0",  "0x02", "0x00",       "0x0004",     "0x0000"};
const std::vector<std::string> kPage32Values = {"0",      "2",          "1",          "1",    "0",    "0x0100", "16",
                                                "0x05",   "0x00012000", "0x00000008", "0x01", "0x00", "0xFF",   "1",
                                                "3",      "0x00",       "0x0010",     "0",    "0",    "0x02",   "0x00",
                                                "0x0004", "0x0000",     "0x00",       "0x00", "0x00", "0x00"};
const std::vector<std::string> kSataInjectionValues = {"0",    "4",    "1", "2", "0",        "16",
                                                       "IDNF", "0010", "3", "0", "0001F400", "00000008"};

std::vector<std::string> with(std::vector<std::string> values, size_t valueNo, const std::string &text) {
    values[valueNo - 1] = text;
    return values;
}

std::vector<std::string> firstOf(const std::vector<std::string> &values, size_t count) {
    return std::vector<std::string>(values.begin(), values.begin() + count);
}

class FaultInjection : public FarmTest {
  protected:
    RunResult runWith(const std::string &command, const std::vector<std::string> &values) {
        writeFile("param.txt", paramFile(values));
        return kelpth({command, "param.txt"});
    }
    RunResult readSector(const std::string &slot, const std::string &lba) {
        return kelpth({"PDOneSectorRead", "0", slot, lba});
    }
};

TEST_F(FaultInjection, MediaErrorsLandEverySkipCountBlocksOfALongBlock) {
    RunResult set = runWith("E", kMediaErrorValues);
    ASSERT_EQ(set.exitStatus, 0) << set.out;
    for (const char *bad : {"0x12A0", "0x12A8", "0x12B0", "0x12B8"}) {
        RunResult read = readSector("3", bad);
        EXPECT_EQ(read.exitStatus, 1) << bad;
        EXPECT_TRUE(endsWith(read.out, kMediumError)) << bad << read.out;
    }
    EXPECT_EQ(readSector("3", "0x12A1").exitStatus, 0);
    EXPECT_EQ(readSector("3", "0x12C0").exitStatus, 0);

    const std::vector<std::string> calls = journal();
    ASSERT_GE(calls.size(), 5u);
    EXPECT_EQ(journalCall(calls[0]),
              "KelPasReadLong ctl=0 pd=3 if=0 dir=1 ata=0 cdb=BB 03 3E 00 00 01 00 00 00 02 00 00");
    EXPECT_EQ(journalCall(calls[1]),
              "KelPasWriteLong ctl=0 pd=3 if=0 dir=0 ata=0 cdb=BA 03 3F 00 00 00 12 A0 00 02 08 00");
    EXPECT_EQ(journalField(calls[1], "len"), "520") << "the long block the READ LONG residue gave";
    EXPECT_EQ(journalCall(calls[4]),
              "KelPasWriteLong ctl=0 pd=3 if=0 dir=0 ata=0 cdb=BA 03 3F 00 00 00 12 B8 00 02 08 00");
}

TEST_F(FaultInjection, MediaErrorAddressAndCounts) {
    // A prefixed address keeps six digits; skip 0 hits one block Count times; count 0
    // only probes.
    RunResult truncated = runWith("E", {"0", "3", "0x0001000A", "2", "0"});
    EXPECT_EQ(truncated.exitStatus, 0) << truncated.out;
    EXPECT_NE(truncated.out.find("Media Error Address : 0x00000100\n"), std::string::npos) << truncated.out;
    std::vector<std::string> calls = journal();
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_EQ(journalCall(calls[1]), journalCall(calls[2]));
    EXPECT_NE(calls[2].find("cdb=BA 03 3F 00 00 00 01 00 00 02 08 00"), std::string::npos) << calls[2];

    kelsim({"journal", "--clear"});
    RunResult plain = runWith("E", {"0", "3", "0001000A", "0", "1"});
    EXPECT_EQ(plain.exitStatus, 0) << plain.out;
    EXPECT_NE(plain.out.find("Media Error Address : 0x0001000A\n"), std::string::npos);
    EXPECT_EQ(journal().size(), 1u) << "count 0: the READ LONG alone";
}

TEST_F(FaultInjection, SataMediaErrorsFailTheReadThroughTheTranslationLayer) {
    RunResult set = runWith("e", kSataMediaErrorValues);
    ASSERT_EQ(set.exitStatus, 0) << set.out;
    for (const char *bad : {"0x1F400", "0x1F401"}) {
        RunResult read = readSector("5", bad);
        EXPECT_EQ(read.exitStatus, 1) << bad;
        EXPECT_TRUE(endsWith(read.out, kMediumError)) << bad << read.out;
    }
    EXPECT_EQ(readSector("5", "0x1F402").exitStatus, 0);
    const std::vector<std::string> calls = journal();
    ASSERT_GE(calls.size(), 3u);
    EXPECT_NE(calls[0].find("cdb=85 08 0E 00 00 00 01 00 00 00 00 00 00 00 EC 00"), std::string::npos) << "IDENTIFY";
    EXPECT_EQ(journalCall(calls[1]),
              "KelPasAnyCommand ctl=0 pd=5 if=1 dir=2 ata=1 cdb=85 07 00 00 55 00 01 00 00 00 F4 00 01 40 45 00");
    EXPECT_EQ(journalField(calls[1], "len"), "0") << "WRITE UNCORRECTABLE EXT carries no data";
}

TEST_F(FaultInjection, InjectionPagesAreSentByteForByte) {
    RunResult shortForm = runWith("N", kPage28Values);
    EXPECT_EQ(shortForm.exitStatus, 0) << shortForm.out;
    EXPECT_NE(shortForm.out.find("00000000: BA 02 15 11 00 00 22 00"), std::string::npos) << shortForm.out;
    RunResult longForm = runWith("N5", kPage32Values);
    EXPECT_EQ(longForm.exitStatus, 0) << longForm.out;
    EXPECT_NE(longForm.out.find("00000000: BA 02 15 11 00 00 26 00"), std::string::npos) << longForm.out;
    const std::vector<std::string> calls = journal();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(journalField(calls[0], "len"), "34");
    EXPECT_EQ(journalField(calls[1], "len"), "38");
}

TEST_F(FaultInjection, SataInjectionSendsTheStructureAndShowsItSwapped) {
    RunResult set = runWith("A", kSataInjectionValues);
    ASSERT_EQ(set.exitStatus, 0) << set.out;
    EXPECT_NE(set.out.find("Physical Drive No.4\n\n[CDB] Size=16\n"), std::string::npos) << set.out;
    EXPECT_NE(set.out.find("00000000: 85 0B 06 00 00 00 01 00  00 00 49 00 45 40 FE 00"), std::string::npos);
    EXPECT_NE(set.out.find("[Data structure for set error injection mode command.(1 Sector)] Size=512\n"),
              std::string::npos);
    EXPECT_NE(set.out.find("00000000: 00 01 02 13 00 10 00 10  00 03 F4 00 00 01 00 08"), std::string::npos) << set.out;
    EXPECT_EQ(journalField(onlyCall(), "len"), "512");
}

// The example pages of N and N5 fail reads and writes of blocks 0x12000..0x12007 with
// MEDIUM ERROR, ASC 0x10, 16 times; a page with injection off restores normal answers.
TEST_F(FaultInjection, InjectionPagesFailMatchingCommandsAsTheDriveDefinesThem) {
    const std::string injected = senseError("03", "10", "00");
    for (const auto &[command, values] : {std::pair{"N", kPage28Values}, std::pair{"N5", kPage32Values}}) {
        ASSERT_EQ(runWith(command, values).exitStatus, 0) << command;
        EXPECT_TRUE(endsWith(readSector("2", "0x12007").out, injected)) << command;
        EXPECT_TRUE(endsWith(kelpth({"PDOneSectorWrite", "0", "2", "0x12000"}).out, injected)) << command;
        EXPECT_EQ(readSector("2", "0x12008").exitStatus, 0) << command << ": past the range";
        EXPECT_EQ(readSector("2", "0x11FFF").exitStatus, 0) << command << ": before the range";
    }
    // The page also comes back from MODE SENSE, as the drive keeps it.
    RunResult sense = runWith("ANY", {"0", "2", "1A0822002A00", "0", "0x2A"});
    EXPECT_NE(sense.out.find("A2 20 01 00  01 00 10 05"), std::string::npos) << sense.out;
    ASSERT_EQ(runWith("N5", with(kPage32Values, 4, "0")).exitStatus, 0);
    EXPECT_EQ(readSector("2", "0x12000").exitStatus, 0);

    // It fires as many times as the page says (16 here), then answers normally.
    ASSERT_EQ(runWith("N", kPage28Values).exitStatus, 0);
    int failed = 0;
    for (int i = 0; i < 17; i++) {
        failed += readSector("2", "0x12001").exitStatus;
    }
    EXPECT_EQ(failed, 16);
}

TEST_F(FaultInjection, SataInjectionFailsReadsWithTheNamedError) {
    struct Case {
        const char *type;
        std::string tail;
    };
    for (const Case &c : std::vector<Case>{
             {"IDNF", senseError("05", "21", "00")},
             {"CTO", "KEL0023-E Request time out.\n" + kAbnormalEnd},
             {"DCE", senseError("04", "44", "00")},
             {"AMNF", senseError("03", "13", "00")},
             {"CRC", senseError("0B", "47", "00")},
             {"ECC", kMediumError},
         }) {
        ASSERT_EQ(runWith("A", with(kSataInjectionValues, 7, c.type)).exitStatus, 0) << c.type;
        RunResult read = readSector("4", "0x1F407");
        EXPECT_EQ(read.exitStatus, 1) << c.type;
        EXPECT_TRUE(endsWith(read.out, c.tail)) << c.type << "\n" << read.out;
        EXPECT_EQ(readSector("4", "0x1F408").exitStatus, 0) << c.type;
        EXPECT_EQ(kelpth({"PDOneSectorWrite", "0", "4", "0x1F400"}).exitStatus, 0) << c.type << ": reads only";
    }
    // Injection off.
    ASSERT_EQ(runWith("A", with(kSataInjectionValues, 3, "0")).exitStatus, 0);
    EXPECT_EQ(readSector("4", "0x1F400").exitStatus, 0);
}

// Every refusal: what the screen ends with, and that nothing reached a drive.
TEST_F(FaultInjection, RefusalsSendNothing) {
    const std::string sasRefused = "KEL0024-E <SAS> drive does not support this command.\n";
    const std::string sataRefused = "KEL0024-E <SATA> drive does not support this command.\n";
    struct Case {
        std::string command;
        std::vector<std::string> values;
        std::string tail;
    };
    const std::vector<Case> cases = {
        {"E", with(kMediaErrorValues, 2, "4"), sataRefused},
        {"E", with(kMediaErrorValues, 1, "10"), badValue("Controller No")},
        {"E", with(kMediaErrorValues, 3, "123456789"), badValue("Address")},
        {"E", with(kMediaErrorValues, 4, "12345678901"), badValue("Media Error Count")},
        {"E", with(kMediaErrorValues, 5, "-1"), badValue("Media Error Skip Count")},
        {"E", firstOf(kMediaErrorValues, 4), kIncomplete + kAbnormalEnd},
        {"e", with(kSataMediaErrorValues, 2, "3"), sasRefused},
        {"e", with(kSataMediaErrorValues, 3, "0x1000000000000"), badValue("Address")},
        {"e", firstOf(kSataMediaErrorValues, 4), kIncomplete + kAbnormalEnd},
        {"N", with(kPage28Values, 2, "4"), sataRefused},
        {"N", with(kPage28Values, 3, "x"), badValue("Parameter(3)")},
        {"N", with(kPage28Values, 22, "0x0004"), badValue("Parameter(22)")},
        {"N", firstOf(kPage28Values, 23), kIncomplete + kAbnormalEnd},
        {"N5", with(std::vector<std::string>(24, "0"), 2, "2"), kIncomplete + kAbnormalEnd},
        {"N5", with(kPage32Values, 6, "0x10000"), badValue("Parameter(6)")},
        {"A", with(kSataInjectionValues, 2, "2"), sasRefused},
        {"A", with(kSataInjectionValues, 2, "5"),
         "KEL0025-E This command is vendor specific.\nKEL0026-I Supprted by Zolt Pinecrest2.\n"},
        {"A", with(kSataInjectionValues, 4, "3"), badValue("Parameter(4)")},
        {"A", with(kSataInjectionValues, 7, "IDNF "), badValue("Parameter(7)")},
        {"A", with(kSataInjectionValues, 8, "10000"), badValue("Parameter(8)")},
        {"A", with(kSataInjectionValues, 9, "256"), badValue("Parameter(9)")},
        {"A", firstOf(kSataInjectionValues, 11), "KEL0014-E Parameter error. argno=11\n" + kAbnormalEnd},
    };
    for (const Case &c : cases) {
        RunResult run = runWith(c.command, c.values);
        EXPECT_EQ(run.exitStatus, 1) << c.command << "\n" << run.out;
        EXPECT_TRUE(endsWith(run.out, c.tail)) << c.command << "\n" << run.out;
    }
    EXPECT_EQ(journal().size(), 0u);
}

} // namespace
