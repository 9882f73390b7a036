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

Outcome execute(Backend &backend, const PassCall &call) {
    int argumentNo = kelcommon::firstBadArgument(call, [&](const PassThroughRequest &request) {
        return backend.disk(request.controllerNo, request.driveNo) != nullptr;
    });
    if (argumentNo != 0) {
        return kelcommon::parameterError(argumentNo);
    }
    const PassThroughRequest &request = *call.request;
    bool sata = false;
    if (request.targetKind == KEL_TARGET_PHYSICAL && !backend.isSata(request.controllerNo, request.driveNo, &sata)) {
        return executionError("INQUIRY of the drive failed");
    }
    kelcommon::RoutedCommand routed;
    if (Outcome refused = kelcommon::routeRequest(call, sata, &routed); refused.status != KEL_STATUS_GOOD) {
        return refused;
    }
    size_t cdbLength = routed.cdb == request.cdb ? routed.cdbLength : commandLength(routed.cdb[0], routed.cdbLength);
    std::string device = backend.device(request.controllerNo, request.driveNo);
    if (device.empty()) {
        return executionError("the drive has no sg or sd node");
    }
    Outcome outcome = sendCommand(device, routed.cdb, cdbLength, routed.direction, call.data,
                                  kelcommon::passedLength(call), routed.ataPassThrough);
    outcome.setLength = !kelcommon::passFunctionSendsData(call.function);
    return outcome;
}

void journal(const PassCall &call, const Outcome &outcome) {
    const char *path = getenv("KELSGIO_JOURNAL");
    if (path == nullptr || *path == '\0') {
        return;
    }
    kelsim::JournalEntry entry = kelcommon::journalEntry(call, outcome);
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

} // namespace

size_t commandLength(uint8_t opcode, size_t available) {
    size_t length = available;
    switch (opcode >> 5) {
    case 0:
        length = 6;
        break;
    case 1:
    case 2:
        length = 10;
        break;
    case 4:
        length = 16;
        break;
    case 5:
        length = 12;
        break;
    default:
        break;
    }
    return std::min(length, available);
}

int runPassThrough(Backend &backend, const PassCall &call) {
    std::string error;
    Outcome outcome = backend.load(&error) ? execute(backend, call) : executionError(error);
    journal(call, outcome);
    kelcommon::deliver(call, outcome);
    return outcome.status;
}

} // namespace kelsgio
