// The export's ring walk on memory laid out as the kernel lays out a user-space target's
// mapping: entries answered in order, padding skipped, the ring's end wrapped, buffers
// gathered and scattered through several pieces, replies and the tail written; and the
// command-block table that gives each command its direction.
#include "cdb_direction.h"
#include "tcmu_abi.h"
#include "tcmu_ring.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace kelsim {
namespace {

using namespace tcmu;
using Bytes = std::vector<uint8_t>;

constexpr uint32_t kRingOffset = 128, kRingSize = 1024, kDataOffset = 4096;

// The kernel's side: queues entries at the head and reads the replies.
class FakeKernel {
  public:
    FakeKernel() : memory(16384) {
        Mailbox mailbox{};
        mailbox.version = 2;
        mailbox.flags = kMailboxCapReadLength;
        mailbox.ringOffset = kRingOffset;
        mailbox.ringSize = kRingSize;
        std::memcpy(memory.data(), &mailbox, sizeof mailbox);
    }

    uint32_t head() { return word(offsetof(Mailbox, head)); }
    uint32_t tail() { return word(offsetof(Mailbox, tail)); }
    void setHeadAndTail(uint32_t at) {
        std::memcpy(&memory[offsetof(Mailbox, head)], &at, 4);
        std::memcpy(&memory[offsetof(Mailbox, tail)], &at, 4);
    }

    // A command whose buffer is cut into pieces of these lengths, filled from data; the
    // command block sits after the pieces' list, as the kernel puts it. Returns its place.
    uint32_t queue(const Bytes &cdb, const std::vector<uint32_t> &pieces, const Bytes &data = {}) {
        const uint32_t at = head();
        Request request{};
        request.vectorCount = static_cast<uint32_t>(pieces.size());
        const size_t base = sizeof request + pieces.size() * sizeof(IoVector);
        request.cdbOffset = kRingOffset + at + base;
        const uint32_t length = static_cast<uint32_t>(std::max(sizeof(Reply), base + cdb.size()) + 7) & ~7u;
        request.header.lengthAndOp = length | kOpCommand;
        std::memcpy(&memory[kRingOffset + at], &request, sizeof request);
        size_t filled = 0;
        for (size_t i = 0; i < pieces.size(); i++) {
            // Pieces out of order in the data area, as the kernel's free blocks come.
            IoVector vector{kDataOffset + 4096 * (pieces.size() - 1 - i), pieces[i]};
            std::memcpy(&memory[kRingOffset + at + sizeof request + i * sizeof vector], &vector, sizeof vector);
            for (uint32_t b = 0; b < pieces[i]; b++, filled++) {
                memory[vector.offset + b] = filled < data.size() ? data[filled] : 0xEE;
            }
            vectors.push_back(vector);
        }
        std::memcpy(&memory[request.cdbOffset], cdb.data(), cdb.size());
        advanceHead(length);
        return at;
    }
    void pad(uint32_t length) {
        EntryHeader header{length | kOpPad, 0, 0, 0};
        std::memcpy(&memory[kRingOffset + head()], &header, sizeof header);
        advanceHead(length);
    }
    Reply reply(uint32_t at) {
        Reply answer;
        std::memcpy(&answer, &memory[kRingOffset + at], sizeof answer);
        return answer;
    }
    // The buffer as the pieces hold it now.
    Bytes buffer() {
        Bytes data;
        for (const IoVector &vector : vectors) {
            data.insert(data.end(), &memory[vector.offset], &memory[vector.offset + vector.length]);
        }
        return data;
    }
    RingProgress drain(const RingHandler &handler) { return drainRing(memory.data(), memory.size(), handler); }

    Bytes memory;
    std::vector<IoVector> vectors;

  private:
    uint32_t word(size_t offset) {
        uint32_t value;
        std::memcpy(&value, &memory[offset], 4);
        return value;
    }
    void advanceHead(uint32_t length) {
        const uint32_t next = (head() + length) % kRingSize;
        std::memcpy(&memory[offsetof(Mailbox, head)], &next, 4);
    }
};

const Bytes kInquiry = {0x12, 0, 0, 0, 0x60, 0};
const Bytes kWrite10 = {0x2A, 0, 0, 0, 0, 0, 0, 0, 3, 0};

TEST(TcmuRing, AnswersInOrderScattersAndSetsReadLength) {
    FakeKernel kernel;
    const uint32_t first = kernel.queue(kInquiry, {40, 40, 16});
    const uint32_t second = kernel.queue({0x00, 0, 0, 0, 0, 0}, {});
    std::vector<uint8_t> seen;
    const RingProgress progress = kernel.drain([&](const uint8_t *cdb, size_t length, Bytes &buffer) {
        seen.push_back(cdb[0]);
        RingReply reply;
        if (cdb[0] == 0x12) {
            EXPECT_EQ(length, 6u);
            EXPECT_EQ(buffer.size(), 96u);
            for (size_t i = 0; i < 50; i++) {
                buffer[i] = static_cast<uint8_t>(i); // 50 bytes: the second piece only in part
            }
            reply.returned = 50;
        } else {
            reply.status = 2;
            reply.sense = Bytes(120, 0x70); // more than the kernel takes
        }
        return reply;
    });
    EXPECT_EQ(progress.commands, 2);
    EXPECT_FALSE(progress.damaged);
    EXPECT_EQ(seen, (std::vector<uint8_t>{0x12, 0x00}));
    EXPECT_EQ(kernel.tail(), kernel.head());

    const Reply inquiry = kernel.reply(first);
    EXPECT_EQ(inquiry.scsiStatus, 0);
    EXPECT_TRUE(inquiry.header.replyFlags & kReplyReadLength);
    EXPECT_EQ(inquiry.readLength, 50u);
    const Bytes data = kernel.buffer();
    for (size_t i = 0; i < 96; i++) {
        EXPECT_EQ(data[i], i < 50 ? i : 0xEE) << "byte " << i; // the rest is left alone
    }
    const Reply status = kernel.reply(second);
    EXPECT_EQ(status.scsiStatus, 2);
    EXPECT_EQ(status.readLength, 0u);
    EXPECT_EQ(status.sense[0], 0x70);
    EXPECT_EQ(status.sense[kSenseBytes - 1], 0x70);
}

TEST(TcmuRing, GathersAcrossPiecesAndWrapsAfterPadding) {
    FakeKernel kernel;
    // Room for less than one entry before the end: the kernel pads it and starts over.
    kernel.setHeadAndTail(kRingSize - 64);
    kernel.pad(64);
    Bytes sent(1536);
    for (size_t i = 0; i < sent.size(); i++) {
        sent[i] = static_cast<uint8_t>(i * 7);
    }
    const uint32_t at = kernel.queue(kWrite10, {512, 1000, 24}, sent);
    EXPECT_EQ(at, 0u);
    Bytes got;
    const RingProgress progress = kernel.drain([&](const uint8_t *cdb, size_t, Bytes &buffer) {
        EXPECT_EQ(cdb[0], 0x2A);
        got = buffer;
        return RingReply{};
    });
    EXPECT_EQ(progress.commands, 1);
    EXPECT_EQ(got, sent);
    EXPECT_EQ(kernel.tail(), kernel.head());
    EXPECT_EQ(kernel.buffer(), sent); // nothing written back for a write
    EXPECT_EQ(kernel.reply(at).readLength, 0u);
}

TEST(TcmuRing, StopsAtAnEntryThatPointsOutside) {
    FakeKernel kernel;
    kernel.queue(kInquiry, {96});
    IoVector outside{kernel.memory.size() - 8, 96};
    std::memcpy(&kernel.memory[kRingOffset + sizeof(Request)], &outside, sizeof outside);
    int calls = 0;
    const RingProgress progress = kernel.drain([&](const uint8_t *, size_t, Bytes &) {
        calls++;
        return RingReply{};
    });
    EXPECT_TRUE(progress.damaged);
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(kernel.tail(), 0u);
}

TEST(CdbDirection, DirectionsAndLengths) {
    struct Case {
        Bytes cdb;
        DataDirection direction;
        uint64_t length;
    };
    const Case cases[] = {
        {{0x28, 0, 0, 0, 0, 0, 0, 0x01, 0x00, 0}, DataDirection::FromDevice, 256 * 512},
        {{0x0A, 0, 0, 0, 0, 0}, DataDirection::ToDevice, 256 * 512}, // WRITE(6): 0 blocks means 256
        {{0x3B, 0x07, 0, 0, 0, 0, 0x01, 0x00, 0x00, 0}, DataDirection::ToDevice, 65536},
        {{0x5F, 0x01, 0, 0, 0, 0, 0, 0, 0x18, 0}, DataDirection::ToDevice, 24},
        {{0x04, 0x00, 0, 0, 0, 0}, DataDirection::None, 0},                              // FORMAT UNIT without a list
        {{0x2F, 0x02, 0, 0, 0, 0, 0, 0, 1, 0}, DataDirection::ToDevice, kUnknownLength}, // VERIFY, BYTCHK
        // ATA PASS-THROUGH(16): PIO data-in IDENTIFY; PIO data-out; non-data with T_DIR set.
        {{0x85, 0x08, 0x0E, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0xEC, 0}, DataDirection::FromDevice, kUnknownLength},
        {{0x85, 0x0A, 0x06, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0x30, 0}, DataDirection::ToDevice, kUnknownLength},
        {{0x85, 0x06, 0x2C, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xE5, 0}, DataDirection::None, 0},
        {{0xA1, 0x08, 0x0E, 0, 1, 0, 0, 0, 0, 0xEC, 0, 0}, DataDirection::FromDevice, kUnknownLength},
        {{0xC0, 0, 0, 0, 0, 0}, DataDirection::None, 0},
    };
    for (const Case &c : cases) {
        const TransferShape shape = transferShape(c.cdb.data(), c.cdb.size());
        EXPECT_EQ(shape.direction, c.direction) << std::hex << int{c.cdb[0]};
        EXPECT_EQ(shape.expectedLength, c.length) << std::hex << int{c.cdb[0]};
    }
    const uint8_t variable[] = {0x7F, 0, 0, 0, 0, 0, 0, 0x18};
    EXPECT_EQ(cdbLength(variable, sizeof variable), 32u);
    EXPECT_EQ(cdbLength(kInquiry.data(), 6), 6u);
}

} // namespace
} // namespace kelsim
