// The command ring walk: entries from tail to head, buffers gathered from and scattered
// to the data area, replies written in place.
#include "tcmu_ring.h"

#include "cdb_direction.h"
#include "tcmu_abi.h"

#include <algorithm>
#include <cstring>

namespace kelsim {
namespace {

using namespace tcmu;

// The mailbox words the kernel and we share; the kernel moves the head, we move the tail.
uint32_t *mailboxWord(uint8_t *memory, size_t offset) {
    return reinterpret_cast<uint32_t *>(memory + offset);
}

bool readPieces(const uint8_t *entry, size_t entryLength, size_t memorySize, std::vector<IoVector> *pieces) {
    Request request;
    std::memcpy(&request, entry, sizeof request);
    if (request.vectorCount > (entryLength - sizeof request) / sizeof(IoVector)) {
        return false;
    }
    for (uint32_t i = 0; i < request.vectorCount; i++) {
        IoVector piece;
        std::memcpy(&piece, entry + sizeof request + i * sizeof piece, sizeof piece);
        if (piece.offset > memorySize || piece.length > memorySize - piece.offset) {
            return false;
        }
        pieces->push_back(piece);
    }
    return true;
}

void reply(uint8_t *entry, const RingReply &answer, bool readLength) {
    Reply written;
    std::memcpy(&written, entry, sizeof written);
    written.scsiStatus = answer.status;
    std::memset(written.sense, 0, sizeof written.sense);
    std::copy_n(answer.sense.begin(), std::min(answer.sense.size(), sizeof written.sense), written.sense);
    if (readLength) {
        written.header.replyFlags |= kReplyReadLength;
        written.readLength = answer.returned;
    }
    std::memcpy(entry, &written, sizeof written);
}

// One command entry: gather, run, scatter, reply. False when the entry is damaged.
bool runEntry(uint8_t *memory, size_t memorySize, uint8_t *entry, size_t entryLength, bool readLength,
              const RingHandler &handler) {
    std::vector<IoVector> pieces;
    if (entryLength < sizeof(Reply) || !readPieces(entry, entryLength, memorySize, &pieces)) {
        return false;
    }
    Request request;
    std::memcpy(&request, entry, sizeof request);
    if (request.cdbOffset >= memorySize) {
        return false;
    }
    const uint8_t *cdb = memory + request.cdbOffset;
    const size_t cdbBytes = cdbLength(cdb, memorySize - request.cdbOffset);
    if (cdbBytes > memorySize - request.cdbOffset) {
        return false;
    }
    std::vector<uint8_t> buffer;
    for (const IoVector &piece : pieces) {
        buffer.insert(buffer.end(), memory + piece.offset, memory + piece.offset + piece.length);
    }
    RingReply answer = handler(cdb, cdbBytes, buffer);
    answer.returned = std::min<uint32_t>(answer.returned, static_cast<uint32_t>(buffer.size()));
    size_t at = 0;
    for (const IoVector &piece : pieces) {
        const size_t part = std::min<size_t>(piece.length, answer.returned - at);
        std::copy_n(buffer.begin() + static_cast<ptrdiff_t>(at), part, memory + piece.offset);
        at += part;
    }
    reply(entry, answer, readLength);
    return true;
}

} // namespace

RingProgress drainRing(uint8_t *memory, size_t memorySize, const RingHandler &handler) {
    RingProgress progress;
    if (memorySize < sizeof(Mailbox)) {
        progress.damaged = true;
        return progress;
    }
    Mailbox mailbox;
    std::memcpy(&mailbox, memory, sizeof mailbox);
    const uint32_t ringOffset = mailbox.ringOffset, ringSize = mailbox.ringSize;
    const bool readLength = (mailbox.flags & kMailboxCapReadLength) != 0;
    if (ringOffset > memorySize || ringSize > memorySize - ringOffset || ringSize == 0) {
        progress.damaged = true;
        return progress;
    }
    uint32_t *tailWord = mailboxWord(memory, offsetof(Mailbox, tail));
    const uint32_t head = __atomic_load_n(mailboxWord(memory, offsetof(Mailbox, head)), __ATOMIC_ACQUIRE);
    uint32_t tail = __atomic_load_n(tailWord, __ATOMIC_RELAXED);
    while (tail != head) {
        if (tail >= ringSize || ringSize - tail < sizeof(EntryHeader)) {
            progress.damaged = true;
            break;
        }
        uint8_t *entry = memory + ringOffset + tail;
        EntryHeader header;
        std::memcpy(&header, entry, sizeof header);
        const uint32_t entryLength = header.lengthAndOp & ~kOpMask;
        if (entryLength == 0 || entryLength > ringSize - tail) {
            progress.damaged = true;
            break;
        }
        switch (header.lengthAndOp & kOpMask) {
        case kOpPad:
            break;
        case kOpCommand:
            if (!runEntry(memory, memorySize, entry, entryLength, readLength, handler)) {
                progress.damaged = true;
                return progress;
            }
            progress.commands++;
            break;
        case kOpTaskManagement:
            break; // task management is for information only: the kernel has done it
        default:
            entry[offsetof(EntryHeader, replyFlags)] |= kReplyUnknownOp;
            progress.commands++;
            break;
        }
        tail = (tail + entryLength) % ringSize;
        __atomic_store_n(tailWord, tail, __ATOMIC_RELEASE);
    }
    return progress;
}

} // namespace kelsim
