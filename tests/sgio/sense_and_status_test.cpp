// The SG_IO back end's reading of the kernel's answers: sense conversion to fixed format
// and the library status each kind of answer gives.
#include "sense_convert.h"
#include "sg_command.h"

#include "kelpth.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

namespace kelsgio {
namespace {

std::string detailText(const Outcome &outcome) {
    return std::string(reinterpret_cast<const char *>(outcome.detail.data()));
}

TEST(SenseConversion, DescriptorSenseKeepsKeyCodesInformationAndPointer) {
    const std::vector<uint8_t> sense = {
        0x72, 0x05, 0x24, 0x01, 0,    0,    0,    20,   0x00, 0x0A,
        0x80, 0,    0,    0,    0,    0,    0x12, 0x34, 0x56, 0x78, // information, VALID
        0x02, 0x06, 0,    0,    0xC0, 0x00, 0x02, 0,                // sense-key specific: CDB byte 2
    };
    FixedSense fixed = toFixedSense(sense.data(), sense.size(), false);
    EXPECT_EQ(fixed[0], 0xF0);
    EXPECT_EQ(fixed[2], 0x05);
    EXPECT_EQ(fixed[7], 10);
    EXPECT_EQ(fixed[12], 0x24);
    EXPECT_EQ(fixed[13], 0x01);
    EXPECT_EQ((std::vector<uint8_t>{fixed[3], fixed[4], fixed[5], fixed[6]}),
              (std::vector<uint8_t>{0x12, 0x34, 0x56, 0x78}));
    EXPECT_EQ((std::vector<uint8_t>{fixed[15], fixed[16], fixed[17]}), (std::vector<uint8_t>{0xC0, 0x00, 0x02}));
}

TEST(SenseConversion, AtaStatusReturnDescriptorFillsTheRegisterFields) {
    // ABORTED COMMAND; descriptor: extend, error 0x04, count 0x0001, LBA 0x0000_1122_3344 with
    // its upper bytes nonzero, device 0x40, status 0x51.
    const std::vector<uint8_t> sense = {0x72, 0x0B, 0x00, 0x00, 0,    0,    0,    14,   0x09, 0x0C, 0x01,
                                        0x04, 0x00, 0x01, 0x11, 0x44, 0x00, 0x33, 0x00, 0x22, 0x40, 0x51};
    FixedSense fixed = toFixedSense(sense.data(), sense.size(), true);
    EXPECT_EQ(fixed[0], 0x70);
    EXPECT_EQ(fixed[2], 0x0B);
    EXPECT_EQ(fixed[3], 0x04); // error
    EXPECT_EQ(fixed[4], 0x51); // status
    EXPECT_EQ(fixed[5], 0x40); // device
    EXPECT_EQ(fixed[6], 0x01); // count
    EXPECT_EQ(fixed[8], 0x80 | 0x20);
    EXPECT_EQ(fixed[9], 0x44);
    EXPECT_EQ(fixed[10], 0x33);
    EXPECT_EQ(fixed[11], 0x22);
}

TEST(SenseConversion, FixedSenseOfBothLibataLayoutsReadsTheSame) {
    std::vector<uint8_t> standard = {0x70, 0, 0x0B, 0x04, 0x51, 0x40, 0x01, 10, 0x80, 0x44, 0x33, 0x22};
    standard.resize(24);
    // The registers eight bytes further on.
    std::vector<uint8_t> shifted = {0x70, 0,    0x0B, 0, 0, 0, 0,    10,   0x04, 0x51,
                                    0x40, 0x01, 0,    0, 0, 0, 0x80, 0x44, 0x33, 0x22};
    shifted.resize(24);
    EXPECT_EQ(toFixedSense(shifted.data(), shifted.size(), true), toFixedSense(standard.data(), 18, true));
    // A command other than ATA PASS-THROUGH keeps its sense as it came.
    FixedSense plain = toFixedSense(shifted.data(), shifted.size(), false);
    EXPECT_EQ(plain[8], 0x04);
    EXPECT_EQ(plain[3], 0x00);
}

TEST(SenseConversion, ShortSenseGivesAnEmptyFixedSense) {
    const uint8_t sense[4] = {0x70, 0, 0x03, 0};
    FixedSense fixed = toFixedSense(sense, sizeof sense, false);
    EXPECT_EQ(fixed[0], 0x70);
    EXPECT_EQ(fixed[2], 0);
    EXPECT_EQ(fixed[7], 10);
}

TEST(AnswerStatus, EachKindOfAnswerGivesItsStatus) {
    const uint8_t mediumError[18] = {0x70, 0, 0x03, 0, 0, 0, 0, 10, 0, 0, 0, 0, 0x11, 0x00};
    const uint8_t ataInformation[22] = {0x72, 0x01, 0x00, 0x1D, 0, 0, 0, 14, 0x09, 0x0C, 0,
                                        0,    0,    0,    0,    0, 0, 0, 0,  0,    0,    0x50};
    struct Case {
        const char *name;
        SgAnswer answer;
        bool ata;
        int status;
        std::string text;
    };
    auto answer = [](auto change) {
        SgAnswer a;
        a.requested = 512;
        change(a);
        return a;
    };
    const std::vector<Case> cases = {
        {"good", answer([](SgAnswer &) {}), false, KEL_STATUS_GOOD, ""},
        {"ioctl failed", answer([](SgAnswer &a) { a.callErrno = EIO, a.call = "ioctl"; }), false,
         KEL_STATUS_SYSTEM_CALL, "0005ioctl"},
        {"no memory", answer([](SgAnswer &a) { a.callErrno = ENOMEM, a.call = "ioctl"; }), false, KEL_STATUS_NO_MEMORY,
         "12"},
        {"host time-out", answer([](SgAnswer &a) { a.hostStatus = 0x03; }), false, KEL_STATUS_TIMEOUT, ""},
        {"driver time-out", answer([](SgAnswer &a) { a.driverStatus = 0x06; }), false, KEL_STATUS_TIMEOUT, ""},
        {"host error", answer([](SgAnswer &a) { a.hostStatus = 0x04; }), false, KEL_STATUS_EXECUTION,
         "host status 0x04 (DID_BAD_TARGET)"},
        {"busy", answer([](SgAnswer &a) { a.scsiStatus = 0x08; }), false, KEL_STATUS_EXECUTION, "SCSI status 0x08"},
        {"check condition",
         answer([&](SgAnswer &a) { a.scsiStatus = 0x02, a.sense = mediumError, a.senseLength = 18; }), false,
         KEL_STATUS_CHECK_CONDITION, ""},
        {"ATA registers asked for",
         answer([&](SgAnswer &a) { a.scsiStatus = 0x02, a.sense = ataInformation, a.senseLength = 22; }), true,
         KEL_STATUS_GOOD, ""},
        {"ATA registers, not ATA",
         answer([&](SgAnswer &a) { a.scsiStatus = 0x02, a.sense = ataInformation, a.senseLength = 22; }), false,
         KEL_STATUS_CHECK_CONDITION, ""},
    };
    for (const Case &c : cases) {
        Outcome outcome = interpretAnswer(c.answer, c.ata);
        EXPECT_EQ(outcome.status, c.status) << c.name;
        if (!c.text.empty()) {
            EXPECT_EQ(detailText(outcome), c.text) << c.name;
        }
        EXPECT_EQ(outcome.hasSense, c.status == KEL_STATUS_CHECK_CONDITION) << c.name;
    }
    Outcome medium = interpretAnswer(cases[7].answer, false);
    ASSERT_EQ(medium.detail.size(), 18u);
    EXPECT_EQ(medium.detail[2], 0x03);
    EXPECT_EQ(medium.detail[12], 0x11);
}

TEST(AnswerStatus, BytesMovedComeFromTheResidue) {
    SgAnswer answer;
    answer.requested = 0x10000;
    answer.resid = 0x200;
    EXPECT_EQ(interpretAnswer(answer, false).transferred, 0xFE00u);
    answer.resid = 0x20000; // more than asked for: nothing moved
    EXPECT_EQ(interpretAnswer(answer, false).transferred, 0u);
}

} // namespace
} // namespace kelsgio
