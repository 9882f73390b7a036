// SG_IO: the ioctl and the reading of its answer.
#include "sg_command.h"

#include "kelpth.h"
#include "sense_convert.h"

#include <fcntl.h>
#include <scsi/sg.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace kelsgio {
namespace {

constexpr unsigned kTimeoutMs = 60000;
constexpr uint8_t kScsiCheckCondition = 0x02;
constexpr uint16_t kHostTimeOut = 0x03;   // DID_TIME_OUT
constexpr uint16_t kDriverTimeout = 0x06; // DRIVER_TIMEOUT
constexpr uint16_t kDriverSense = 0x08;   // DRIVER_SENSE
constexpr size_t kSenseBufferSize = 64;

const char *hostStatusName(uint16_t status) {
    static const char *const names[] = {"OK",
                                        "NO_CONNECT",
                                        "BUS_BUSY",
                                        "TIME_OUT",
                                        "BAD_TARGET",
                                        "ABORT",
                                        "PARITY",
                                        "ERROR",
                                        "RESET",
                                        "BAD_INTR",
                                        "PASSTHROUGH",
                                        "SOFT_ERROR",
                                        "IMM_RETRY",
                                        "REQUEUE",
                                        "TRANSPORT_DISRUPTED",
                                        "TRANSPORT_FAILFAST"};
    return status < sizeof names / sizeof names[0] ? names[status] : "?";
}

Outcome textOutcome(int status, const std::string &text) {
    Outcome outcome;
    outcome.status = status;
    outcome.detail.assign(text.begin(), text.end());
    outcome.detail.push_back(0);
    return outcome;
}

} // namespace

Outcome systemCallFailed(int errorNumber, const char *call) {
    char text[64];
    if (errorNumber == ENOMEM) {
        snprintf(text, sizeof text, "%d", errorNumber);
        return textOutcome(KEL_STATUS_NO_MEMORY, text);
    }
    snprintf(text, sizeof text, "%04d%s", errorNumber, call);
    return textOutcome(KEL_STATUS_SYSTEM_CALL, text);
}

Outcome interpretAnswer(const SgAnswer &answer, bool ataPassThrough) {
    if (answer.callErrno != 0) {
        return systemCallFailed(answer.callErrno, answer.call);
    }
    if (answer.hostStatus == kHostTimeOut || (answer.driverStatus & 0x0F) == kDriverTimeout) {
        Outcome timedOut;
        timedOut.status = KEL_STATUS_TIMEOUT;
        return timedOut;
    }
    Outcome outcome;
    int resid = answer.resid < 0 ? 0 : answer.resid;
    outcome.transferred = static_cast<uint32_t>(resid) >= answer.requested ? 0 : answer.requested - resid;
    bool senseCame = answer.senseLength > 0 &&
                     (answer.scsiStatus == kScsiCheckCondition || (answer.driverStatus & kDriverSense) != 0);
    if (senseCame) {
        FixedSense sense = toFixedSense(answer.sense, answer.senseLength, ataPassThrough);
        if (ataPassThrough && isAtaInformationOnly(sense)) {
            return outcome;
        }
        outcome.status = KEL_STATUS_CHECK_CONDITION;
        outcome.detail.assign(sense.begin(), sense.end());
        outcome.hasSense = true;
        return outcome;
    }
    char text[96];
    if (answer.hostStatus != 0) {
        snprintf(text, sizeof text, "host status 0x%02X (DID_%s)", answer.hostStatus,
                 hostStatusName(answer.hostStatus));
        return executionError(text);
    }
    if ((answer.driverStatus & ~kDriverSense) != 0) {
        snprintf(text, sizeof text, "driver status 0x%02X", answer.driverStatus);
        return executionError(text);
    }
    if (answer.scsiStatus != 0) {
        snprintf(text, sizeof text, "SCSI status 0x%02X", answer.scsiStatus);
        return executionError(text);
    }
    return outcome;
}

Outcome sendCommand(const std::string &device, const uint8_t *cdb, size_t cdbLength, uint8_t direction, void *data,
                    uint32_t dataLength, bool ataPassThrough) {
    int fd = open(device.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        return systemCallFailed(errno, "open");
    }
    uint8_t sense[kSenseBufferSize] = {};
    sg_io_hdr_t header{};
    header.interface_id = 'S';
    header.cmdp = const_cast<uint8_t *>(cdb);
    header.cmd_len = static_cast<unsigned char>(cdbLength);
    header.sbp = sense;
    header.mx_sb_len = sizeof sense;
    header.timeout = kTimeoutMs;
    switch (direction) {
    case KEL_DIR_OUT:
        header.dxfer_direction = dataLength > 0 ? SG_DXFER_TO_DEV : SG_DXFER_NONE;
        break;
    case KEL_DIR_IN:
        header.dxfer_direction = dataLength > 0 ? SG_DXFER_FROM_DEV : SG_DXFER_NONE;
        break;
    default:
        header.dxfer_direction = SG_DXFER_NONE;
        break;
    }
    if (header.dxfer_direction != SG_DXFER_NONE) {
        header.dxferp = data;
        header.dxfer_len = dataLength;
    }
    SgAnswer answer;
    if (ioctl(fd, SG_IO, &header) != 0) {
        answer.callErrno = errno;
        answer.call = "ioctl";
    }
    close(fd);
    answer.scsiStatus = header.status;
    answer.hostStatus = header.host_status;
    answer.driverStatus = header.driver_status;
    answer.sense = sense;
    answer.senseLength = header.sb_len_wr;
    answer.requested = header.dxfer_len;
    answer.resid = header.resid;
    return interpretAnswer(answer, ataPassThrough);
}

} // namespace kelsgio
