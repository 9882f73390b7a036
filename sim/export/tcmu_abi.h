// The shared-memory layout of the kernel's user-space SCSI target (its mailbox, command
// entries and replies), as <linux/target_core_user.h> defines it for user space. That
// header's inline helpers are C that C++ does not take, so the layout is restated here,
// its offsets checked against the kernel's fixed ABI.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kelsim::tcmu {

constexpr uint16_t kMailboxCapReadLength = 1 << 1; // TCMU_MAILBOX_FLAG_CAP_READ_LEN

struct Mailbox {
    uint16_t version;
    uint16_t flags;
    uint32_t ringOffset; // cmdr_off: where the command ring starts in the mapping
    uint32_t ringSize;   // cmdr_size
    uint32_t head;       // cmd_head: moved by the kernel
    uint8_t pad[48];
    uint32_t tail; // cmd_tail: moved by us, on its own cache line
};
static_assert(offsetof(Mailbox, head) == 12 && offsetof(Mailbox, tail) == 64, "tcmu_mailbox layout");

enum Opcode : uint32_t { kOpPad = 0, kOpCommand = 1, kOpTaskManagement = 2 };
constexpr uint32_t kOpMask = 0x7;

constexpr uint8_t kReplyUnknownOp = 0x1;  // TCMU_UFLAG_UNKNOWN_OP
constexpr uint8_t kReplyReadLength = 0x2; // TCMU_UFLAG_READ_LEN
constexpr size_t kSenseBytes = 96;        // TCMU_SENSE_BUFFERSIZE

#pragma pack(push, 1)
struct EntryHeader {
    uint32_t lengthAndOp; // length (a multiple of 8) | opcode in the low 3 bits
    uint16_t commandId;
    uint8_t kernelFlags;
    uint8_t replyFlags;
};

// A buffer piece of a command: iov_base holds its offset from the start of the mapping.
struct IoVector {
    uint64_t offset;
    uint64_t length;
};

struct Request {
    EntryHeader header;
    uint32_t vectorCount;
    uint32_t bidiVectorCount;
    uint32_t difVectorCount;
    uint32_t pad0;      // the request part of the entry is not packed: cdb_off is 8-aligned
    uint64_t cdbOffset; // from the start of the mapping
    uint64_t pad1;
    uint64_t pad2;
    // IoVector vectors[vectorCount] follow
};

struct Reply {
    EntryHeader header;
    uint8_t scsiStatus;
    uint8_t pad1;
    uint16_t pad2;
    uint32_t readLength;
    uint8_t sense[kSenseBytes];
};
#pragma pack(pop)
static_assert(sizeof(EntryHeader) == 8 && offsetof(Request, cdbOffset) == 24 && sizeof(Request) == 48 &&
                  offsetof(Reply, readLength) == 12 && sizeof(Reply) == 112,
              "tcmu_cmd_entry layout");

} // namespace kelsim::tcmu
