// The two-half stripe transfer against a recording library, for what no simulated
// volume can show: the 64-bit wrap-around of the second half (no volume is that large)
// and a library that reports a transfer shorter or longer than the buffer.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "kelctl.h"
#include "kelpth/stripe.h"
#include "stdout_capture.h"

namespace {

std::vector<std::vector<uint8_t>> sentCdbs;
uint32_t reportedLength = 0x10000;        // what the reads claim to have transferred
const uint8_t kHalfFill[] = {0xA0, 0xB1}; // what each read half returns

int recordDataIn(PassThroughRequest *request, void *data, uint32_t *dataLength, uint8_t *, uint32_t *) {
    EXPECT_EQ(*dataLength, 0x10000u) << "the length is reset before each half";
    sentCdbs.emplace_back(request->cdb, request->cdb + request->cdbLength);
    memset(data, kHalfFill[(sentCdbs.size() - 1) % 2], *dataLength);
    *dataLength = reportedLength;
    return KEL_STATUS_GOOD;
}

class StripeHalves : public ::testing::Test {
  protected:
    void SetUp() override {
        sentCdbs.clear();
        reportedLength = 0x10000;
        logPath = ::testing::TempDir() + "stripe_halves.log";
        initLog(logPath.c_str(), 2000000);
    }
    void TearDown() override { remove(logPath.c_str()); }

    // Runs the transfer and returns what it printed.
    std::string transfer(PassThroughRequest request, const StripeCdbLayout &layout, uint64_t lba, StripeCall call,
                         int *result) {
        return screenOf([&] { *result = transferStripeHalves("KelPthCmd", __LINE__, &request, layout, lba, call); });
    }

    static PassThroughRequest started(uint8_t direction, uint8_t opcode, const StripeCdbLayout &layout,
                                      uint32_t shownBlocks) {
        PassThroughRequest request{};
        request.targetKind = KEL_TARGET_LOGICAL;
        startStripeCdb(&request, direction, opcode, layout, shownBlocks);
        return request;
    }

    std::string logPath;
};

TEST_F(StripeHalves, SixteenByteReadWrapsIn64Bits) {
    int result = 0;
    std::string out = transfer(started(KEL_DIR_IN, 0x88, kStripeCdb16, kStripeBlocks), kStripeCdb16,
                               0xFFFFFFFFFFFFFF80ull, StripeCall{recordDataIn, nullptr}, &result);
    EXPECT_EQ(result, 1);
    ASSERT_EQ(sentCdbs.size(), 2u);
    const std::vector<uint8_t> firstHalf = {0x88, 0,    0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
                                            0xFF, 0x80, 0,    0,    0,    0x80, 0,    0};
    const std::vector<uint8_t> secondHalf = {0x88, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x80, 0, 0};
    EXPECT_EQ(sentCdbs[0], firstHalf);
    EXPECT_EQ(sentCdbs[1], secondHalf);
    EXPECT_NE(out.find("00000000: 88 00 FF FF FF FF FF FF  FF 80 00 00 01 00 00 00  "), std::string::npos) << out;

    // Above 2^32 the 16-byte block keeps the high half of the address.
    sentCdbs.clear();
    transfer(started(KEL_DIR_IN, 0x88, kStripeCdb16, kStripeBlocks), kStripeCdb16, 0x123456789ABCull,
             StripeCall{recordDataIn, nullptr}, &result);
    ASSERT_EQ(sentCdbs.size(), 2u);
    EXPECT_EQ(std::vector<uint8_t>(sentCdbs[1].begin() + 2, sentCdbs[1].begin() + 10),
              (std::vector<uint8_t>{0, 0, 0x12, 0x34, 0x56, 0x78, 0x9B, 0x3C}));
}

TEST_F(StripeHalves, TheDumpFollowsTheLengthTheLibraryReportsWithinTheBuffer) {
    int result = 0;
    reportedLength = 0x200; // a short transfer makes a short dump
    std::string out = transfer(started(KEL_DIR_IN, 0x28, kStripeCdb10, kStripeBlocks), kStripeCdb10, 0,
                               StripeCall{recordDataIn, nullptr}, &result);
    EXPECT_EQ(result, 1);
    EXPECT_NE(out.find("000001F0: A0"), std::string::npos);
    EXPECT_NE(out.find("00000200: B1"), std::string::npos);
    EXPECT_NE(out.find("000003F0: B1"), std::string::npos);
    EXPECT_EQ(out.find("00000400: "), std::string::npos);

    // A library that claims more than the buffer holds never makes the dump read past it.
    reportedLength = 0x30000;
    out = transfer(started(KEL_DIR_IN, 0x28, kStripeCdb10, kStripeBlocks), kStripeCdb10, 0,
                   StripeCall{recordDataIn, nullptr}, &result);
    EXPECT_NE(out.find("0001FFF0: B1"), std::string::npos);
    EXPECT_EQ(out.find("00020000: "), std::string::npos);
}

} // namespace
