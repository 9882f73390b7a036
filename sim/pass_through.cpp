// The pass-through library's work: request checks, routing to a SAS drive (through the
// 0xBB/0xBA wrapper), a SATA drive (ATA PASS-THROUGH(16)) or a logical drive, statuses,
// sense delivery, scripted faults and the journal. One store transaction per call.
#include "pass_through.h"

#include "faults.h"

#include <algorithm>
#include <cstring>

namespace kelsim {
namespace {

using kelcommon::executionError;
using kelcommon::parameterError;
using kelcommon::statusOnly;
using Outcome = kelcommon::PassOutcome;

// A scripted status comes back with its detail bytes; a status 4 detail is sense data.
Outcome scriptedOutcome(const ScriptedFault &fault) {
    Outcome outcome;
    outcome.status = static_cast<int>(fault.value);
    outcome.detail = fault.detail;
    outcome.hasSense = fault.value == KEL_STATUS_CHECK_CONDITION && fault.detail.size() >= 14;
    return outcome;
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

bool targetExists(Farm &farm, const PassThroughRequest &request) {
    if (farm.controller(request.controllerNo) == nullptr || request.driveNo >= kSlotsPerController) {
        return false;
    }
    return request.targetKind == KEL_TARGET_LOGICAL
               ? farm.logicalDrive(request.controllerNo, request.driveNo) != nullptr
               : farm.slot(request.controllerNo, request.driveNo) != nullptr;
}

Outcome execute(Farm &farm, const PassCall &call) {
    int argumentNo = kelcommon::firstBadArgument(
        call, [&](const PassThroughRequest &request) { return targetExists(farm, request); });
    if (argumentNo != 0) {
        return parameterError(argumentNo);
    }
    const PassThroughRequest &request = *call.request;
    bool sata = request.targetKind == KEL_TARGET_PHYSICAL &&
                farm.slot(request.controllerNo, request.driveNo)->identity.interface == DriveInterface::Sata;
    kelcommon::RoutedCommand routed;
    if (Outcome refused = kelcommon::routeRequest(call, sata, &routed); refused.status != KEL_STATUS_GOOD) {
        return refused;
    }
    ScsiCommand command;
    command.direction = toDataDirection(routed.direction);
    command.data = static_cast<uint8_t *>(call.data);
    command.dataLength = kelcommon::passedLength(call);
    command.cdb = routed.cdb;
    command.cdbLength = routed.cdbLength;
    command.blockTransferUnit = sata && request.ataCommandFlag != 0;
    ScsiTarget *target = request.targetKind == KEL_TARGET_LOGICAL
                             ? farm.volume(request.controllerNo, request.driveNo)
                             : farm.physicalDrive(request.controllerNo, request.driveNo);
    if (target == nullptr) {
        return executionError("no target");
    }

    ScsiResult result = target->execute(command);
    Outcome outcome;
    outcome.setLength = !kelcommon::passFunctionSendsData(call.function);
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

} // namespace

int runPassThrough(Farm &farm, const PassCall &call) {
    std::string loadError;
    if (!farm.load(&loadError)) {
        Outcome failed = executionError(loadError);
        kelcommon::deliver(call, failed);
        return failed.status;
    }
    StateStore &store = farm.store();
    Outcome outcome;
    {
        StoreTransaction transaction(store, true);
        if (!transaction.active()) {
            outcome = executionError("farm state unavailable: " + store.lastError());
            kelcommon::deliver(call, outcome);
            return outcome.status;
        }
        ScriptedFault fault;
        if (store.faultsMayBePending() && store.takeFault(fault_kind::kPassStatus, &fault)) {
            outcome = scriptedOutcome(fault);
        } else {
            outcome = execute(farm, call);
        }
        // A call that changed nothing else (an INQUIRY, a LOG SENSE) leaves its row in the
        // journal's tail, which costs no database write.
        const JournalEntry entry = kelcommon::journalEntry(call, outcome);
        if (store.changedInTransaction()) {
            store.appendJournal(entry);
        } else {
            store.appendJournalToTail(entry);
        }
        if (transaction.commit()) {
            kelcommon::deliver(call, outcome);
            return outcome.status;
        }
    }
    // The drive's work is rolled back with the transaction; the call fails as a whole
    // and is journaled on its own if the store lets it.
    outcome = executionError("farm state: " + store.lastError());
    StoreTransaction retry(store, true);
    if (retry.active() && store.appendJournal(kelcommon::journalEntry(call, outcome))) {
        retry.commit();
    }
    kelcommon::deliver(call, outcome);
    return outcome.status;
}

} // namespace kelsim
