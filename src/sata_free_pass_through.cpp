// The SATA form of command ANY: one ATA PASS-THROUGH CDB taken whole from the parameter
// file, with a no-data direction, lengths counted in bytes or 512-byte blocks, and the
// bytes of each 16-bit data word swapped on request.
#define KEL_MODULE "KelPthCmd_SATA"
#include <cstdlib>
#include <cstring>
#include <memory>

#include "kelpth.h"
#include "kelpth/checks.h"
#include "kelpth/command_codes.h"
#include "kelpth/command_steps.h"
#include "kelpth/dump.h"
#include "kelpth/functbl.h"
#include "kelpth/handlers.h"
#include "kelpth/messages.h"
#include "kelpth/param_file.h"
#include "kelpth/pass_through.h"
#include "kelpth/sata_line_readers.h"
#include "kelpth/trace.h"

namespace {

constexpr uint32_t kLargestBlockTransfer = 0x10000;
constexpr uint32_t kLargestByteTransfer = 0xFFFF;
constexpr uint32_t kEmptySwap = 0xE0000000;
constexpr uint32_t kUnknownSwapMode = 0xE0000001;

int refuse(int line, const char *label) {
    KelPthErr0022(KEL_MODULE, line, label);
    KelPthErr0002(KEL_MODULE, line);
    return 0;
}

} // namespace

int endianChange(uint32_t mode, const uint8_t *source, uint32_t length, uint8_t *destination) {
    traceCall("endianChange");
    if (length == 0 || mode != 0) {
        KelPthErr0004d(KEL_HERE, "endianChange", length == 0 ? kEmptySwap : kUnknownSwapMode);
        KelPthErr0002(KEL_HERE);
        return 0;
    }
    for (uint32_t word = 0; word < length / 2; word++) {
        const uint8_t first = source[2 * word];
        const uint8_t second = source[2 * word + 1];
        destination[2 * word] = second;
        destination[2 * word + 1] = first;
    }
    return 1;
}

int32_t KelFreAnyPassThrough_SATA() {
    traceCall("KelFreAnyPassThrough_SATA");
    PassThroughRequest request;
    memset(&request, 0, sizeof request);
    SenseArea sense;
    request.interfaceType = KEL_IF_SATA;
    int32_t swapWords = 0;
    int32_t repeatData = 0;

    ParamFile file(kLongLineBuffer, kSataLineRead);
    if (file.open(KEL_HERE, functbl[kTblFreePassThrough].argv[2]) == 0) {
        return 0;
    }

    uint32_t dataLength = 0;
    DataBuffer data;
    uint32_t filled = 0;
    int32_t complete = 0;
    bool stop = false;
    while (!stop) {
        char *line = file.nextValueLine();
        if (line == nullptr) {
            break;
        }
        switch (file.valueLineCount()) {
        case 1:
            if (getContNoFromLineBuf(line, &request.controllerNo) == 0 ||
                ControllerCheck(KEL_HERE, request.controllerNo) == 0) {
                return 0;
            }
            break;
        case 2:
            if (getPhyDrvNoFromLineBuf(line, &request.driveNo) == 0 ||
                DriveCheck(KEL_HERE, request.controllerNo, request.driveNo, kPhysicalDrive) == 0) {
                return 0;
            }
            // A drive of unknown type is given the benefit of the doubt.
            if (refusesInterface(KEL_HERE, request.controllerNo, request.driveNo, &request.interfaceType,
                                 kInterfaceSas)) {
                return 0;
            }
            break;
        case 3: {
            int32_t cdbLength = 0;
            if (freeMakeCdbFromLineBuf(line, request.cdb, &cdbLength) == 0) {
                return 0;
            }
            request.cdbLength = static_cast<uint32_t>(cdbLength);
            break;
        }
        case 4:
            if (getDirectionFromLineBuf(line, &request.direction) == 0) {
                return 0;
            }
            if (request.direction == KEL_DIR_NONE) {
                complete = 1;
                stop = true;
            }
            break;
        case 5:
            if (getDataLengthFromLineBuffer(line, &dataLength, &complete) == 0) {
                return 0;
            }
            break;
        case 6: {
            int32_t countsBlocks = 0;
            if (getFlagOnOrNot(line, "A unit of transfer length", &countsBlocks) == 0) {
                return 0;
            }
            request.reserved32 = 0;
            request.ataCommandFlag = static_cast<uint8_t>(countsBlocks);
            if (countsBlocks == 1) {
                // At most 128 blocks; the product is taken wide so that no count wraps.
                const uint64_t bytes = static_cast<uint64_t>(dataLength) * kSectorSize;
                if (bytes > kLargestBlockTransfer) {
                    return refuse(__LINE__, "Data Length: Send max size over 64K bytes");
                }
                dataLength = static_cast<uint32_t>(bytes);
            } else if (dataLength > kLargestByteTransfer) {
                return refuse(__LINE__, "Data Length: When Tx unit is BYTE send max size over 64K bytes - 1");
            }
            uint8_t *allocated = nullptr;
            if (MakeAllocData(&allocated, dataLength + 1) == 0) {
                return 0;
            }
            data.reset(allocated);
            break;
        }
        case 7:
            if (request.direction == KEL_DIR_IN) {
                if (getFlagOnOrNot(line, "Word block change on or not", &swapWords) == 0) {
                    return 0;
                }
                complete = 1;
                stop = true;
            } else if (getFlagOnOrNot(line, "Continuousness", &repeatData) == 0) {
                return 0;
            }
            break;
        default: // Data lines
            if (request.direction == KEL_DIR_OUT && data != nullptr &&
                createWriteDataFromLineBuffer(line, dataLength, data.get(), &filled) == 0) {
                return 0;
            }
            complete = 1;
            break;
        }
    }
    file.reportReadError(KEL_HERE);
    if (complete == 0) {
        return reportIncompleteFile(KEL_HERE, file.valueLineCount());
    }

    if (request.direction == KEL_DIR_OUT && repeatData == 1 && filled < dataLength) {
        if (filled == 0) {
            return refuse(__LINE__, "Data");
        }
        if (CopyWriteData(data.get(), dataLength, filled) == 0) {
            return 0;
        }
    }

    showCdb(request);
    uint32_t received = dataLength;
    if (sendDataIn(KEL_HERE, KelPasAnyCommand, &request, data.get(), &received, &sense) == 0) {
        return 0;
    }
    if (request.direction == KEL_DIR_IN) {
        if (swapWords == 1 && endianChange(0, data.get(), received, data.get()) == 0) {
            return 0;
        }
        KelPasPrintData("Command Result", data.get(), received, 0, static_cast<int32_t>(received));
        printf("\n");
    }
    return 1;
}
