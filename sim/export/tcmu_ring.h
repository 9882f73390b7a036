// The command ring of one exported disk, as the kernel's user-space SCSI target lays it
// out in the memory it maps: a mailbox, a ring of command entries, and a data area the
// entries' buffers are scattered in. Works on any memory of that layout (tests use their own).
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace kelsim {

// What a command handler answers.
struct RingReply {
    uint8_t status = 0;         // SCSI status (0 GOOD, 2 CHECK CONDITION, 8 BUSY)
    std::vector<uint8_t> sense; // with CHECK CONDITION; at most 96 bytes go back
    uint32_t returned = 0;      // bytes of the buffer that go back to the initiator
};

// Runs one command: the command block and its buffer, which holds what the initiator sent
// (and is the size it gave); the handler leaves there what goes back.
using RingHandler = std::function<RingReply(const uint8_t *cdb, size_t cdbLength, std::vector<uint8_t> &buffer)>;

struct RingProgress {
    int commands = 0;     // entries answered (commands, and others marked as not known)
    bool damaged = false; // an entry or buffer pointed outside the memory: the walk stopped there
};

// Answers every entry from the mailbox's tail to its head in order, skipping padding, and
// moves the tail past them. The caller then tells the kernel (a write to the device).
RingProgress drainRing(uint8_t *memory, size_t memorySize, const RingHandler &handler);

} // namespace kelsim
