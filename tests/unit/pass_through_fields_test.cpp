// The fixed pass-through's view of a CDB text (address and length fields by opcode),
// the rewriting of those fields per chunk, and the swap of ATA data words.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "kelpth/pass_through.h"
#include "stdout_capture.h"

namespace {

const std::string kAbnormalEnd = "KEL0002-I PassThrough Tool abnormal end.\n";

struct FieldCase {
    const char *cdbText; // line 4 as read
    uint32_t address;
    uint32_t length;
};

TEST(CdbTextFields, AddressAndByteLengthByOpcode) {
    const FieldCase cases[] = {
        {"28000000100000010000\n", 0x1000, 0x100 * 512}, // READ(10): blocks
        {"2A000102030400000800\n", 0x01020304, 8 * 512}, // WRITE(10)
        {"3E000000002000020800\n", 0x20, 0x208},         // READ LONG: bytes
        {"0800100000\n", 0x1000, 256 * 512},             // READ(6): 0 blocks means 256
        {"0A00100001\n", 0x1000, 512},                   // WRITE(6)
        {"3C020000100000001000\n", 0x1000, 0x10},        // READ BUFFER: 3-byte fields
        {"120000006000\n", 0, 0x60},                     // INQUIRY: allocation length
        {"1C0100100000\n", 0, 0x1000},                   // RECEIVE DIAGNOSTIC
        {"4D0031000000000200\n", 0, 0x200},              // LOG SENSE
        {"410000000000000000\n", 0, 512},                // WRITE SAME always 512
        {"FE000000000000123400\n", 0, 0x1234},           // vendor specific
        {"000000000000\n", 1, 1},                        // TEST UNIT READY
        {"1D0000000000\n", 0, 1},                        // SEND DIAGNOSTIC
        {"250000000000000000000000\n", 0, 8},            // READ CAPACITY(10)
        {"A00000000000\n", 0, 0},                        // not known: nothing sent
    };
    for (const FieldCase &c : cases) {
        uint8_t opcode = 0;
        sscanf(c.cdbText, "%2hhx", &opcode);
        uint32_t ok = 0;
        std::string screen = screenOf([&] {
            EXPECT_EQ(KelPthGetAddress(opcode, c.cdbText, &ok), c.address) << c.cdbText;
            EXPECT_EQ(ok, 1u) << c.cdbText;
            EXPECT_EQ(GetDataLen(opcode, c.cdbText, &ok), c.length) << c.cdbText;
            EXPECT_EQ(ok, 1u) << c.cdbText;
        });
        EXPECT_EQ(screen, "") << c.cdbText;
    }
}

TEST(CdbTextFields, ATextTooShortForItsFieldsIsRefused) {
    uint32_t ok = 1;
    // The line end falls inside the length field.
    std::string screen = screenOf([&] {
        EXPECT_EQ(KelPthGetAddress(0x28, "2800000010000001\n", &ok), 0x1000u);
        EXPECT_EQ(GetDataLen(0x28, "2800000010000001\n", &ok), 0u);
    });
    EXPECT_EQ(ok, 0u);
    EXPECT_EQ(screen, "KEL0022-E Ileagal Parameter. detail=Data Length\n" + kAbnormalEnd);

    ok = 1;
    screen = screenOf([&] { KelPthGetAddress(0x28, "2800001\r\n", &ok); });
    EXPECT_EQ(ok, 0u);
    EXPECT_EQ(screen, "KEL0022-E Ileagal Parameter. detail=Address\n" + kAbnormalEnd);

    ok = 1;
    screen = screenOf([&] { KelPthGetAddress(0x2A, "2A00XX001000\n", &ok); });
    EXPECT_EQ(ok, 0u);
}

PassThroughRequest wrapped(std::vector<uint8_t> inner) {
    PassThroughRequest request;
    memset(&request, 0, sizeof request);
    request.cdb[0] = 0xBB;
    memcpy(request.cdb + 2, inner.data(), inner.size());
    return request;
}

std::vector<uint8_t> innerCdb(const PassThroughRequest &request, size_t length) {
    return std::vector<uint8_t>(request.cdb + 2, request.cdb + 2 + length);
}

TEST(CdbRewriting, AddressAndChunkLengthGoWhereTheOpcodeKeepsThem) {
    PassThroughRequest read10 = wrapped({0x28, 0, 0, 0, 0, 0, 0, 0x01, 0x00, 0});
    EXPECT_EQ(AddressSetting(&read10, 0x00011000), 1);
    EXPECT_EQ(DataLenSetting(&read10, 0x10000), 1);
    EXPECT_EQ(innerCdb(read10, 10), (std::vector<uint8_t>{0x28, 0, 0x00, 0x01, 0x10, 0x00, 0, 0x00, 0x80, 0}));

    PassThroughRequest read6 = wrapped({0x08, 0, 0, 0, 0, 0});
    EXPECT_EQ(AddressSetting(&read6, 0x123456), 1);
    EXPECT_EQ(DataLenSetting(&read6, 0x10000), 1);
    EXPECT_EQ(innerCdb(read6, 6), (std::vector<uint8_t>{0x08, 0x12, 0x34, 0x56, 0x80, 0}));

    PassThroughRequest writeLong = wrapped({0x3F, 0, 0, 0, 0, 0, 0, 0, 0, 0});
    EXPECT_EQ(DataLenSetting(&writeLong, 0x208), 1);
    EXPECT_EQ(innerCdb(writeLong, 10), (std::vector<uint8_t>{0x3F, 0, 0, 0, 0, 0, 0, 0x02, 0x08, 0}));

    PassThroughRequest writeBuffer = wrapped({0x3B, 0x07, 0, 0, 0, 0, 0, 0, 0, 0});
    EXPECT_EQ(AddressSetting(&writeBuffer, 0x10000), 1);
    EXPECT_EQ(DataLenSetting(&writeBuffer, 0x8000), 1);
    EXPECT_EQ(innerCdb(writeBuffer, 10), (std::vector<uint8_t>{0x3B, 0x07, 0, 0x01, 0x00, 0x00, 0x00, 0x80, 0x00, 0}));

    // Known opcodes without such fields keep their CDB; unknown ones say so.
    PassThroughRequest inquiry = wrapped({0x12, 0, 0, 0, 0x60, 0});
    EXPECT_EQ(AddressSetting(&inquiry, 0x1234), 1);
    EXPECT_EQ(DataLenSetting(&inquiry, 0x60), 1);
    EXPECT_EQ(innerCdb(inquiry, 6), (std::vector<uint8_t>{0x12, 0, 0, 0, 0x60, 0}));
    PassThroughRequest unknown = wrapped({0xA0, 0, 0, 0, 0, 0});
    EXPECT_EQ(AddressSetting(&unknown, 0x1234), 0);
    EXPECT_EQ(DataLenSetting(&unknown, 0x1234), 0);
    EXPECT_EQ(innerCdb(unknown, 6), (std::vector<uint8_t>{0xA0, 0, 0, 0, 0, 0}));

    EXPECT_EQ(screenOf([] { EXPECT_EQ(AddressSetting(nullptr, 0), 0); }),
              "KEL0014-E Parameter error. argno=1\n" + kAbnormalEnd);
}

TEST(EndianChange, SwapsWordsInPlaceAndRefusesEmptyOrUnknown) {
    uint8_t data[5] = {'M', 'Q', 'X', '5', 0x7F};
    EXPECT_EQ(endianChange(0, data, sizeof data, data), 1);
    EXPECT_EQ(std::vector<uint8_t>(data, data + 5), (std::vector<uint8_t>{'Q', 'M', '5', 'X', 0x7F}));

    uint8_t copy[4] = {};
    EXPECT_EQ(endianChange(0, data, 4, copy), 1);
    EXPECT_EQ(std::vector<uint8_t>(copy, copy + 4), (std::vector<uint8_t>{'M', 'Q', 'X', '5'}));

    EXPECT_EQ(screenOf([&] { EXPECT_EQ(endianChange(0, data, 0, data), 0); }),
              "KEL0004-E endianChange() failed. detail=0xe0000000\n" + kAbnormalEnd);
    EXPECT_EQ(screenOf([&] { EXPECT_EQ(endianChange(1, data, 4, data), 0); }),
              "KEL0004-E endianChange() failed. detail=0xe0000001\n" + kAbnormalEnd);
}

} // namespace
