// What every implementation of the pass-through library does the same way: the twelve
// functions, one call's arguments, the request checks in their order, the routing rules of
// the 0xBB/0xBA wrapper, ATA PASS-THROUGH and logical drives, and the delivery of a status's
// detail to the caller's sense area and length.
#pragma once

#include "journal.h"

#include "kelpth.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace kelcommon {

enum class PassFunction {
    ReadExtend,
    WriteExtend,
    ReadSectorExt,
    WriteSectorExt,
    AnyCommand,
    Inquiry,
    LogSense,
    ModeSense,
    ModeSelect,
    ReadLong,
    WriteLong,
    WriteBuffer,
};

const char *passFunctionName(PassFunction function);
// True for the functions whose data length is passed by value (they send data).
bool passFunctionSendsData(PassFunction function);

// The five arguments of a KelPas* call. readLength is used by the reading functions
// (in: buffer size, out: bytes moved), writeLength by the sending ones.
struct PassCall {
    PassFunction function = PassFunction::AnyCommand;
    PassThroughRequest *request = nullptr;
    void *data = nullptr;
    uint32_t *readLength = nullptr;
    uint32_t writeLength = 0;
    uint8_t *sense = nullptr;
    uint32_t *senseSize = nullptr;
};

// Largest transfer a library accepts in one call.
constexpr uint32_t kMaxTransferBytes = 16u << 20;

// The data length the caller passed, whichever way it was passed.
uint32_t passedLength(const PassCall &call);

// What a call ends with, before it is delivered to the caller's buffers.
struct PassOutcome {
    int status = KEL_STATUS_GOOD;
    std::vector<uint8_t> detail; // bytes for the sense area
    bool hasSense = false;       // detail is fixed-format sense data
    bool setLength = false;      // the read length is reported back
    uint32_t transferred = 0;
};

PassOutcome statusOnly(int status);
PassOutcome parameterError(int argumentNo);
// Status 3 with the text, NUL terminated.
PassOutcome executionError(const std::string &text);

// The first argument, counted from 1, that the library cannot work with; 0 when all are
// fine. targetExists is asked once the request's own fields are valid.
int firstBadArgument(const PassCall &call, const std::function<bool(const PassThroughRequest &)> &targetExists);

// The command a checked request sends to its target: a logical drive's CDB as it is, a SATA
// drive's CDB as it is (ATA PASS-THROUGH(16) or a command for its SCSI/ATA translation), a
// SAS drive's command from inside the wrapper (CDB[2..length-1]).
struct RoutedCommand {
    const uint8_t *cdb = nullptr;
    size_t cdbLength = 0;
    uint8_t direction = KEL_DIR_NONE; // KEL_DIR_*
    bool ataPassThrough = false; // ATA PASS-THROUGH(16) to a SATA drive
};

// Checks a request whose arguments passed firstBadArgument against its function and its
// target (sataDrive: a physical drive with a SATA interface); status 0 with the command
// when it may be sent, else the status that refuses it.
PassOutcome routeRequest(const PassCall &call, bool sataDrive, RoutedCommand *command);

// Copies the detail into the sense area (within the size given, at most 260 bytes) and
// the bytes moved into the read length when the outcome reports it.
void deliver(const PassCall &call, const PassOutcome &outcome);

// The journal's entry for a call and how it ended.
kelsim::JournalEntry journalEntry(const PassCall &call, const PassOutcome &outcome);

} // namespace kelcommon
