// One command through the Linux SCSI generic interface (SG_IO), and what its answer
// means as a pass-through library status.
#pragma once

#include "pass_request.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kelsgio {

// A library status with what goes to the caller's sense area: fixed-format sense for
// status 4, else a NUL-terminated text.
using Outcome = kelcommon::PassOutcome;
using kelcommon::executionError;

// What SG_IO reported for one command (the fields of sg_io_hdr that matter here).
struct SgAnswer {
    int callErrno = 0;       // errno of a failed system call, 0 when it succeeded
    const char *call = "";   // the call's name when callErrno is set
    uint8_t scsiStatus = 0;  // status byte
    uint16_t hostStatus = 0; // DID_*
    uint16_t driverStatus = 0;
    const uint8_t *sense = nullptr;
    size_t senseLength = 0; // bytes the kernel wrote
    uint32_t requested = 0; // dxfer_len
    int resid = 0;
};

// The status the program reads for an answer. ataPassThrough: the command was ATA
// PASS-THROUGH, so its register sense is read as such and "information available" is success.
Outcome interpretAnswer(const SgAnswer &answer, bool ataPassThrough);

// Status 5 with "%04d" errno and the call's name; status 7 with the errno for ENOMEM.
Outcome systemCallFailed(int errorNumber, const char *call);

// Sends one command to device and waits for it (60 s at most); direction is a KEL_DIR_*.
Outcome sendCommand(const std::string &device, const uint8_t *cdb, size_t cdbLength, uint8_t direction, void *data,
                    uint32_t dataLength, bool ataPassThrough);

} // namespace kelsgio
