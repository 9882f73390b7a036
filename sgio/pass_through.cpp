// The pass-through library over SG_IO: request checks, routing, statuses, sense delivery
// and the journal (KELSGIO_JOURNAL names its file).
#include "pass_through.h"

#include "journal.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace kelsgio {
namespace {

constexpr uint8_t kWrapperDataIn = 0xBB;
constexpr uint8_t kWrapperDataOutOrNone = 0xBA;
constexpr uint8_t kAtaPassThrough16 = 0x85;

Outcome statusOnly(int status) {
    Outcome outcome;
    outcome.status = status;
    return outcome;
}

Outcome parameterError(int argumentNo) {
    Outcome outcome = statusOnly(KEL_STATUS_PARAMETER);
    outcome.detail.push_back(static_cast<uint8_t>(argumentNo));
    return outcome;
}

uint32_t passedLength(const PassCall &call) {
    if (call.sends) {
        return call.writeLength;
    }
    return call.readLength != nullptr ? *call.readLength : 0;
}

// The first argument, counted from 1, that cannot be worked with; 0 when all are fine.
int firstBadArgument(const Backend &backend, const PassCall &call) {
    const PassThroughRequest *request = call.request;
    if (request == nullptr) {
        return 1;
    }
    uint32_t length = passedLength(call);
    if (request->interfaceType > KEL_IF_SATA || request->targetKind > KEL_TARGET_LOGICAL ||
        request->direction > KEL_DIR_NONE || request->cdbLength < 6 || request->cdbLength > 16 ||
        (request->targetKind == KEL_TARGET_LOGICAL && request->interfaceType != KEL_IF_SAS)) {
        return 1;
    }
    if (backend.disk(request->controllerNo, request->driveNo) == nullptr) {
        return 1;
    }
    if (call.data == nullptr && length > 0) {
        return 2;
    }
    if ((!call.sends && call.readLength == nullptr) || length > kMaxTransferBytes) {
        return 3;
    }
    if (call.sense == nullptr) {
        return 4;
    }
    if (call.senseSize == nullptr || *call.senseSize < 18) {
        return 5;
    }
    return 0;
}

// Plain block commands whose direction is known from the opcode.
bool contradictsOpcode(uint8_t opcode, uint8_t direction) {
    switch (opcode) {
    case 0x28: // READ(10)
    case 0x88: // READ(16)
    case 0x12: // INQUIRY
    case 0x25: // READ CAPACITY(10)
    case 0x9E: // READ CAPACITY(16)
        return direction == KEL_DIR_OUT;
    case 0x2A: // WRITE(10)
    case 0x8A: // WRITE(16)
        return direction == KEL_DIR_IN;
    default:
        return false;
    }
}

// A command block's length by its operation code's group; the others take what they are given.
size_t groupCdbLength(uint8_t opcode) {
    switch (opcode >> 5) {
    case 0:
        return 6;
    case 1:
    case 2:
        return 10;
    case 4:
        return 16;
    case 5:
        return 12;
    default:
        return 16;
    }
}

Direction toDirection(uint8_t direction) {
    switch (direction) {
    case KEL_DIR_OUT:
        return Direction::ToDevice;
    case KEL_DIR_IN:
        return Direction::FromDevice;
    default:
        return Direction::None;
    }
}

Outcome execute(Backend &backend, const PassCall &call) {
    if (int argumentNo = firstBadArgument(backend, call); argumentNo != 0) {
        return parameterError(argumentNo);
    }
    const PassThroughRequest &request = *call.request;
    bool sata = false;
    if (request.targetKind == KEL_TARGET_PHYSICAL) {
        DriveIdentity identity;
        if (!backend.identity(request.controllerNo, request.driveNo, &identity)) {
            return executionError("INQUIRY of the drive failed");
        }
        sata = identity.sata;
    }
    DriveCommand command;
    Outcome refused = checkRouting(request, sata, call.sends, call.anyCommand, &command);
    if (refused.status != KEL_STATUS_GOOD) {
        return refused;
    }
    std::string device = backend.device(request.controllerNo, request.driveNo);
    if (device.empty()) {
        return executionError("the drive has no sg or sd node");
    }
    Outcome outcome = sendCommand(device, command.cdb, command.cdbLength, command.direction, call.data,
                                  passedLength(call), command.ataPassThrough);
    if (call.sends) {
        outcome.transferred = 0;
    }
    return outcome;
}

void journal(const PassCall &call, const Outcome &outcome) {
    const char *path = getenv("KELSGIO_JOURNAL");
    if (path == nullptr || *path == '\0') {
        return;
    }
    kelsim::JournalEntry entry;
    entry.function = call.function;
    entry.dataLength = passedLength(call);
    if (call.request != nullptr) {
        const PassThroughRequest &request = *call.request;
        entry.hasRequest = true;
        entry.interfaceType = request.interfaceType;
        entry.targetKind = request.targetKind;
        entry.controllerNo = request.controllerNo;
        entry.driveNo = request.driveNo;
        entry.direction = request.direction;
        entry.ataCommandFlag = request.ataCommandFlag;
        entry.cdb.assign(request.cdb, request.cdb + std::min<uint32_t>(request.cdbLength, 16));
    }
    entry.status = outcome.status;
    entry.hasSense = outcome.hasSense;
    if (outcome.hasSense) {
        entry.senseKey = outcome.detail[2] & 0x0F;
        entry.asc = outcome.detail[12];
        entry.ascq = outcome.detail[13];
    }
    int fd = open(path, O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
        return;
    }
    flock(fd, LOCK_EX);
    // Lines are numbered from 1 in the file.
    int64_t seq = 1;
    char buffer[65536];
    ssize_t n;
    lseek(fd, 0, SEEK_SET);
    while ((n = read(fd, buffer, sizeof buffer)) > 0) {
        seq += std::count(buffer, buffer + n, '\n');
    }
    std::string line = kelsim::formatJournalLine(seq, entry) + "\n";
    ssize_t written = write(fd, line.data(), line.size());
    (void)written;
    close(fd);
}

void deliver(const PassCall &call, const Outcome &outcome) {
    if (call.sense != nullptr && call.senseSize != nullptr && !outcome.detail.empty()) {
        size_t room = std::min<size_t>(*call.senseSize, KEL_SENSE_SIZE);
        memcpy(call.sense, outcome.detail.data(), std::min(room, outcome.detail.size()));
    }
    if (!call.sends && call.readLength != nullptr && outcome.status != KEL_STATUS_PARAMETER) {
        *call.readLength = outcome.transferred;
    }
}

} // namespace

Outcome checkRouting(const PassThroughRequest &request, bool sata, bool sends, bool anyCommand, DriveCommand *command) {
    // A sending function cannot take data in, and a reading one (but the free form) cannot send.
    if ((sends && request.direction == KEL_DIR_IN) || (!sends && !anyCommand && request.direction == KEL_DIR_OUT)) {
        return statusOnly(KEL_STATUS_READ_AND_WRITE);
    }
    command->cdb = request.cdb;
    command->cdbLength = request.cdbLength;
    command->direction = toDirection(request.direction);
    if (request.targetKind == KEL_TARGET_LOGICAL) {
        if (contradictsOpcode(request.cdb[0], request.direction)) {
            return statusOnly(KEL_STATUS_READ_AND_WRITE);
        }
        return Outcome{};
    }
    if (sata) {
        if (request.cdb[0] != kAtaPassThrough16) {
            return statusOnly(KEL_STATUS_UNSUPPORTED);
        }
        command->ataPassThrough = true;
        return Outcome{};
    }
    if (request.cdb[0] != kWrapperDataIn && request.cdb[0] != kWrapperDataOutOrNone) {
        return statusOnly(KEL_STATUS_UNSUPPORTED);
    }
    if ((request.cdb[0] == kWrapperDataIn) != (request.direction == KEL_DIR_IN)) {
        return statusOnly(KEL_STATUS_READ_AND_WRITE);
    }
    if (request.cdb[1] != request.driveNo) {
        return parameterError(1);
    }
    // The drive's own command block follows the wrapper's two bytes; its length is the
    // one its operation code's group gives, at most what the wrapper holds.
    command->cdb = request.cdb + 2;
    command->cdbLength = std::min<size_t>(groupCdbLength(request.cdb[2]), request.cdbLength - 2);
    return Outcome{};
}

int runPassThrough(Backend &backend, const PassCall &call) {
    std::string error;
    Outcome outcome = backend.load(&error) ? execute(backend, call) : executionError(error);
    journal(call, outcome);
    deliver(call, outcome);
    return outcome.status;
}

} // namespace kelsgio
