// The pass-through library's work: request checks, routing to a SAS drive (through the
// 0xBB/0xBA wrapper), a SATA drive (ATA PASS-THROUGH(16)) or a logical drive, statuses,
// sense delivery, scripted faults and the journal. One store transaction per call.
#include "pass_through.h"

#include "faults.h"

#include <algorithm>
#include <cstring>

namespace kelsim {
namespace {

constexpr uint8_t kWrapperDataIn = 0xBB;
constexpr uint8_t kWrapperDataOutOrNone = 0xBA;

// What the call ends with, before it is delivered to the caller's buffers.
struct Outcome {
    int status = KEL_STATUS_GOOD;
    std::vector<uint8_t> detail; // bytes for the sense area
    bool hasSense = false;       // detail is fixed-format sense data
    bool setLength = false;      // the read length is reported back
    uint32_t transferred = 0;
};

Outcome statusOnly(int status) {
    Outcome outcome;
    outcome.status = status;
    return outcome;
}

Outcome parameterError(int argumentNo) {
    Outcome outcome;
    outcome.status = KEL_STATUS_PARAMETER;
    outcome.detail.push_back(static_cast<uint8_t>(argumentNo));
    return outcome;
}

Outcome executionError(const std::string &text) {
    Outcome outcome;
    outcome.status = KEL_STATUS_EXECUTION;
    outcome.detail.assign(text.begin(), text.end());
    outcome.detail.push_back(0);
    return outcome;
}

// A scripted status comes back with its detail bytes; a status 4 detail is sense data.
Outcome scriptedOutcome(const ScriptedFault &fault) {
    Outcome outcome;
    outcome.status = static_cast<int>(fault.value);
    outcome.detail = fault.detail;
    outcome.hasSense = fault.value == KEL_STATUS_CHECK_CONDITION && fault.detail.size() >= 14;
    return outcome;
}

uint32_t passedLength(const PassCall &call) {
    if (passFunctionSendsData(call.function)) {
        return call.writeLength;
    }
    return call.readLength != nullptr ? *call.readLength : 0;
}

// The first argument, counted from 1, that the library cannot work with; 0 when all are fine.
int firstBadArgument(Farm &farm, const PassCall &call) {
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
    if (farm.controller(request->controllerNo) == nullptr || request->driveNo >= kSlotsPerController) {
        return 1;
    }
    bool exists = request->targetKind == KEL_TARGET_LOGICAL
                      ? farm.logicalDrive(request->controllerNo, request->driveNo) != nullptr
                      : farm.slot(request->controllerNo, request->driveNo) != nullptr;
    if (!exists) {
        return 1;
    }
    if (call.data == nullptr && length > 0) {
        return 2;
    }
    if (!sends && call.readLength == nullptr) {
        return 3;
    }
    if (length > kMaxTransferBytes) {
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

DataDirection toDataDirection(uint8_t direction) {
    switch (direction) {
    case KEL_DIR_OUT:
        return DataDirection::ToDevice;
    case KEL_DIR_IN:
        return DataDirection::FromDevice;
    default:
        return DataDirection::None;
    }
}

Outcome execute(Farm &farm, const PassCall &call) {
    if (int argumentNo = firstBadArgument(farm, call); argumentNo != 0) {
        return parameterError(argumentNo);
    }
    const PassThroughRequest &request = *call.request;
    bool sends = passFunctionSendsData(call.function);
    // A sending function cannot take data in, and a reading one (but the free form) cannot send.
    if ((sends && request.direction == KEL_DIR_IN) ||
        (!sends && call.function != PassFunction::AnyCommand && request.direction == KEL_DIR_OUT)) {
        return statusOnly(KEL_STATUS_READ_AND_WRITE);
    }

    ScsiCommand command;
    command.direction = toDataDirection(request.direction);
    command.data = static_cast<uint8_t *>(call.data);
    command.dataLength = passedLength(call);
    command.cdb = request.cdb;
    command.cdbLength = request.cdbLength;
    ScsiTarget *target = nullptr;
    if (request.targetKind == KEL_TARGET_LOGICAL) {
        if (contradictsOpcode(request.cdb[0], request.direction)) {
            return statusOnly(KEL_STATUS_READ_AND_WRITE);
        }
        target = farm.volume(request.controllerNo, request.driveNo);
    } else if (farm.slot(request.controllerNo, request.driveNo)->identity.interface == DriveInterface::Sata) {
        // ATA PASS-THROUGH goes to the device; the translation layer answers the rest.
        command.blockTransferUnit = request.ataCommandFlag != 0;
        target = farm.physicalDrive(request.controllerNo, request.driveNo);
    } else {
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
        command.cdb = request.cdb + 2;
        command.cdbLength = request.cdbLength - 2;
        target = farm.physicalDrive(request.controllerNo, request.driveNo);
    }
    if (target == nullptr) {
        return executionError("no target");
    }

    ScsiResult result = target->execute(command);
    Outcome outcome;
    outcome.setLength = !sends;
    outcome.transferred = std::min(result.transferred, command.dataLength);
    if (result.timedOut) {
        return statusOnly(KEL_STATUS_TIMEOUT);
    }
    if (result.checkCondition) {
        outcome.status = KEL_STATUS_CHECK_CONDITION;
        outcome.detail.assign(result.sense.begin(), result.sense.end());
        outcome.hasSense = true;
    }
    return outcome;
}

void fillJournalEntry(const PassCall &call, JournalEntry *entry) {
    entry->function = passFunctionName(call.function);
    entry->dataLength = passedLength(call);
    if (call.request != nullptr) {
        const PassThroughRequest &request = *call.request;
        entry->hasRequest = true;
        entry->interfaceType = request.interfaceType;
        entry->targetKind = request.targetKind;
        entry->controllerNo = request.controllerNo;
        entry->driveNo = request.driveNo;
        entry->direction = request.direction;
        entry->ataCommandFlag = request.ataCommandFlag;
        entry->cdb.assign(request.cdb, request.cdb + std::min<uint32_t>(request.cdbLength, 16));
    }
}

void deliver(const PassCall &call, const Outcome &outcome) {
    if (call.sense != nullptr && call.senseSize != nullptr && !outcome.detail.empty()) {
        size_t room = std::min<size_t>(*call.senseSize, KEL_SENSE_SIZE);
        memcpy(call.sense, outcome.detail.data(), std::min(room, outcome.detail.size()));
    }
    if (outcome.setLength && call.readLength != nullptr) {
        *call.readLength = outcome.transferred;
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

int runPassThrough(Farm &farm, const PassCall &call) {
    JournalEntry entry;
    fillJournalEntry(call, &entry);

    std::string loadError;
    if (!farm.load(&loadError)) {
        Outcome failed = executionError(loadError);
        deliver(call, failed);
        return failed.status;
    }
    StateStore &store = farm.store();
    Outcome outcome;
    {
        StoreTransaction transaction(store, true);
        if (!transaction.active()) {
            outcome = executionError("farm state unavailable: " + store.lastError());
            deliver(call, outcome);
            return outcome.status;
        }
        ScriptedFault fault;
        if (store.faultsMayBePending() && store.takeFault(fault_kind::kPassStatus, &fault)) {
            outcome = scriptedOutcome(fault);
        } else {
            outcome = execute(farm, call);
        }
        entry.status = outcome.status;
        entry.hasSense = outcome.hasSense;
        if (outcome.hasSense) {
            entry.senseKey = outcome.detail[2] & 0x0F;
            entry.asc = outcome.detail[12];
            entry.ascq = outcome.detail[13];
        }
        store.appendJournal(entry);
        if (transaction.commit()) {
            deliver(call, outcome);
            return outcome.status;
        }
    }
    // The drive's work is rolled back with the transaction; the call fails as a whole
    // and is journaled on its own if the store lets it.
    outcome = executionError("farm state: " + store.lastError());
    StoreTransaction retry(store, true);
    entry.status = outcome.status;
    entry.hasSense = false;
    if (retry.active() && store.appendJournal(entry)) {
        retry.commit();
    }
    deliver(call, outcome);
    return outcome.status;
}

} // namespace kelsim
