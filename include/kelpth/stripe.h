// One stripe of a logical drive (256 blocks, 0x20000 bytes) moved as two commands of
// 128 blocks each: the steps that the 10-byte and 16-byte stripe commands share.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kelpth.h"
#include "kelpth/command_steps.h"

constexpr uint32_t kStripeBlocks = 256;
constexpr uint32_t kStripeHalfBlocks = 128;
constexpr uint32_t kStripeHalfBytes = 0x10000;
constexpr uint32_t kStripeBytes = 0x20000;

// Where the LBA and the transfer length sit in the command block, both most
// significant byte first. Only the low bytes of the LBA are kept, so the second
// half's LBA wraps in 32 bits in a 10-byte block and in 64 bits in a 16-byte one.
struct StripeCdbLayout {
    uint32_t cdbLength;
    size_t lbaOffset;
    size_t lbaBytes;
    size_t lengthOffset;
    size_t lengthBytes;
};
constexpr StripeCdbLayout kStripeCdb10{10, 2, 4, 7, 2};
constexpr StripeCdbLayout kStripeCdb16{16, 2, 8, 10, 4};

// The library call that sends each half: dataIn for the reads and for the 16-byte
// write (whose length goes by address), dataOut for the 10-byte write.
struct StripeCall {
    DataInCall dataIn;
    DataOutCall dataOut;
};

// Controller number (checked with ControllerCheck) and logical drive number (checked
// with DriveCheck), each one decimal digit; fills the request's target. Reports and
// returns 0 on the first bad one.
int readLogicalDriveTarget(const char *module, int line, char *controllerText, char *driveText,
                           PassThroughRequest *request);

// DataHDD is one decimal digit ("Data HDD" when it is not) that is shown and traced but
// selects nothing: "Data HDD : %d" and a blank line.
void showDataHdd(int dataHdd);

// Sets direction, operation code, CDB length and the transfer length to show.
void startStripeCdb(PassThroughRequest *request, uint8_t direction, uint8_t opcode, const StripeCdbLayout &layout,
                    uint32_t shownBlocks);

// Sends the two halves at lba and lba + 128. The command block is shown before the
// first half as it stands, then the transfer length becomes 128 blocks for both.
// Reads dump each half under "Read Command(1 Stripe)" as one 0x20000-byte object;
// writes send 0x5A in every byte. The first failure is reported and gives 0.
int transferStripeHalves(const char *module, int line, PassThroughRequest *request, const StripeCdbLayout &layout,
                         uint64_t lba, StripeCall call);
