// The pass-through calls' common rules: function names, argument checks, routing, delivery.
#include "pass_request.h"

#include <algorithm>
#include <cstring>

namespace kelcommon {
namespace {

constexpr uint8_t kWrapperDataIn = 0xBB;
constexpr uint8_t kWrapperDataOutOrNone = 0xBA;
constexpr uint8_t kAtaPassThrough16 = 0x85;

// Plain block commands to a logical drive whose direction is known from the opcode.
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

} // namespace

const char *passFunctionName(PassFunction function) {
    switch (function) {
    case PassFunction::ReadExtend:
        return "KelPasReadExtend";
    case PassFunction::WriteExtend:
        return "KelPasWriteExtend";
    case PassFunction::ReadSectorExt:
        return "KelPasReadSectorExt";
    case PassFunction::WriteSectorExt:
        return "KelPasWriteSectorExt";
    case PassFunction::AnyCommand:
        return "KelPasAnyCommand";
    case PassFunction::Inquiry:
        return "KelPasInquiry";
    case PassFunction::LogSense:
        return "KelPasLogSense";
    case PassFunction::ModeSense:
        return "KelPasModeSense";
    case PassFunction::ModeSelect:
        return "KelPasModeSelect";
    case PassFunction::ReadLong:
        return "KelPasReadLong";
    case PassFunction::WriteLong:
        return "KelPasWriteLong";
    case PassFunction::WriteBuffer:
        return "KelPasWriteBuffer";
    }
    return "KelPas?";
}

bool passFunctionSendsData(PassFunction function) {
    switch (function) {
    case PassFunction::WriteExtend:
    case PassFunction::WriteSectorExt:
    case PassFunction::ModeSelect:
    case PassFunction::WriteLong:
    case PassFunction::WriteBuffer:
        return true;
    default:
        return false;
    }
}

uint32_t passedLength(const PassCall &call) {
    if (passFunctionSendsData(call.function)) {
        return call.writeLength;
    }
    return call.readLength != nullptr ? *call.readLength : 0;
}

PassOutcome statusOnly(int status) {
    PassOutcome outcome;
    outcome.status = status;
    return outcome;
}

PassOutcome parameterError(int argumentNo) {
    PassOutcome outcome = statusOnly(KEL_STATUS_PARAMETER);
    outcome.detail.push_back(static_cast<uint8_t>(argumentNo));
    return outcome;
}

PassOutcome executionError(const std::string &text) {
    PassOutcome outcome = statusOnly(KEL_STATUS_EXECUTION);
    outcome.detail.assign(text.begin(), text.end());
    outcome.detail.push_back(0);
    return outcome;
}

int firstBadArgument(const PassCall &call, const std::function<bool(const PassThroughRequest &)> &targetExists) {
    const PassThroughRequest *request = call.request;
    if (request == nullptr) {
        return 1;
    }
    uint32_t length = passedLength(call);
    bool sends = passFunctionSendsData(call.function);
    if (request->interfaceType > KEL_IF_SATA || request->targetKind > KEL_TARGET_LOGICAL ||
        request->direction > KEL_DIR_NONE || request->cdbLength < 6 || request->cdbLength > 16 ||
        (request->targetKind == KEL_TARGET_LOGICAL && request->interfaceType != KEL_IF_SAS)) {
        return 1;
    }
    if (!targetExists(*request)) {
        return 1;
    }
    if (call.data == nullptr && length > 0) {
        return 2;
    }
    if ((!sends && call.readLength == nullptr) || length > kMaxTransferBytes) {
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

PassOutcome routeRequest(const PassCall &call, bool sataDrive, RoutedCommand *command) {
    const PassThroughRequest &request = *call.request;
    bool sends = passFunctionSendsData(call.function);
    // A sending function cannot take data in, and a reading one (but the free form) cannot send.
    if ((sends && request.direction == KEL_DIR_IN) ||
        (!sends && call.function != PassFunction::AnyCommand && request.direction == KEL_DIR_OUT)) {
        return statusOnly(KEL_STATUS_READ_AND_WRITE);
    }
    command->cdb = request.cdb;
    command->cdbLength = request.cdbLength;
    command->direction = request.direction;
    command->ataPassThrough = false;
    if (request.targetKind == KEL_TARGET_LOGICAL) {
        if (contradictsOpcode(request.cdb[0], request.direction)) {
            return statusOnly(KEL_STATUS_READ_AND_WRITE);
        }
        return PassOutcome{};
    }
    if (sataDrive) {
        // ATA PASS-THROUGH goes to the device; the SCSI/ATA translation answers the rest.
        command->ataPassThrough = request.cdb[0] == kAtaPassThrough16;
        return PassOutcome{};
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
    // The drive's own command block follows the wrapper's two bytes.
    command->cdb = request.cdb + 2;
    command->cdbLength = request.cdbLength - 2;
    return PassOutcome{};
}

void deliver(const PassCall &call, const PassOutcome &outcome) {
    if (call.sense != nullptr && call.senseSize != nullptr && !outcome.detail.empty()) {
        size_t room = std::min<size_t>(*call.senseSize, KEL_SENSE_SIZE);
        memcpy(call.sense, outcome.detail.data(), std::min(room, outcome.detail.size()));
    }
    if (outcome.setLength && call.readLength != nullptr) {
        *call.readLength = outcome.transferred;
    }
}

kelsim::JournalEntry journalEntry(const PassCall &call, const PassOutcome &outcome) {
    kelsim::JournalEntry entry;
    entry.function = passFunctionName(call.function);
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
    entry.hasSense = outcome.hasSense && outcome.detail.size() >= 14;
    if (entry.hasSense) {
        entry.senseKey = outcome.detail[2] & 0x0F;
        entry.asc = outcome.detail[12];
        entry.ascq = outcome.detail[13];
    }
    return entry;
}

} // namespace kelcommon
