// Command ANY, the free pass-through: one wrapped SCSI command of at most 64 KiB whose
// CDB, direction, length and write data all come from the parameter file. SATA drives
// are handed to the SATA module, which reads the same file under its own layout.
#define KEL_MODULE "KelPthCmd"
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
#include "kelpth/trace.h"

namespace {

constexpr uint32_t kReadCapacity10Length = 8;

// The Data Length line is not checked for text after the number.
constexpr LineRules kDataLengthRules{{true, false}, nullptr, nullptr};

} // namespace

int32_t KelFreAnyPassThrough() {
    traceCall("KelFreAnyPassThrough");
    PassThroughRequest request;
    memset(&request, 0, sizeof request);
    SenseArea sense;

    ParamFile file(kLongLineBuffer, kShortLineRead);
    if (file.open(KEL_HERE, functbl[kTblFreePassThrough].argv[2]) == 0) {
        return 0;
    }
    showParamFileName(file.path());

    uint32_t dataLength = 0;
    DataBuffer writeData;
    uint32_t filled = 0;
    long continuousness = 0;
    bool complete = false;
    bool stop = false;
    while (!stop) {
        char *line = file.nextValueLine();
        if (line == nullptr) {
            break;
        }
        switch (file.valueLineCount()) {
        case 1:
            if (readControllerLine(KEL_HERE, line, &request) == 0) {
                return 0;
            }
            break;
        case 2: {
            if (readPhysicalDriveLine(KEL_HERE, line, &request) == 0) {
                return 0;
            }
            if (getHddType(request.controllerNo, request.driveNo, &request.interfaceType) == 1 &&
                request.interfaceType == kInterfaceSata) {
                file.close();
                return KelFreAnyPassThrough_SATA();
            }
            break;
        }
        case 3:
            request.interfaceType = KEL_IF_SAS;
            if (readCdbLine(KEL_HERE, kInlineLineRules, line, kWrapBytes, request.cdb, &request.cdbLength) == 0) {
                return 0;
            }
            break;
        case 4:
            if (readDirectionLine(KEL_HERE, kInlineLineRules, line, false, &request.direction) == 0) {
                return 0;
            }
            request.cdb[0] = request.direction == KEL_DIR_IN ? kWrapDataIn : kWrapDataOut;
            break;
        case 5:
            if (readDataLengthLine(KEL_HERE, kDataLengthRules, line, &dataLength) == 0) {
                return 0;
            }
            if (dataLength == 0) {
                complete = true;
            }
            // READ CAPACITY(10) always moves 8 bytes; a zero length has completed the file.
            if (request.cdb[kWrapBytes] == kReadCapacity10) {
                dataLength = kReadCapacity10Length;
            }
            if (request.direction == KEL_DIR_IN) {
                complete = true;
                stop = true;
            } else if (dataLength != 0) {
                uint8_t *allocated = nullptr;
                if (MakeAllocData(&allocated, dataLength + 1) == 0) {
                    return 0;
                }
                writeData.reset(allocated);
            }
            break;
        case 6:
            if (readChoiceLine(KEL_HERE, kInlineLineRules, line, "Continuousness", 1, &continuousness) == 0) {
                return 0;
            }
            break;
        default: // Data lines; once the data is complete the rest are ignored
            if (writeData != nullptr && filled < dataLength) {
                if (appendDataLine(KEL_HERE, kInlineLineRules, line, DataOverflow::LineLongerThanLength,
                                   writeData.get(), dataLength, &filled) == 0) {
                    return 0;
                }
            }
            complete = true;
            break;
        }
    }
    file.reportReadError(KEL_HERE);
    file.close();
    if (!complete) {
        return reportIncompleteFile(KEL_HERE, 0);
    }

    if (continuousness == 1 && filled < dataLength) {
        if (filled == 0) {
            KelPthErr0022(KEL_HERE, "Data");
            KelPthErr0002(KEL_HERE);
            return 0;
        }
        if (CopyWriteData(writeData.get(), dataLength, filled) == 0) {
            return 0;
        }
    }

    if (request.direction == KEL_DIR_OUT) {
        showCdb(request);
        uint32_t sentLength = dataLength;
        return sendDataIn(KEL_HERE, KelPasAnyCommand, &request, writeData.get(), &sentLength, &sense);
    }

    uint8_t *allocated = nullptr;
    if (MakeAllocData(&allocated, dataLength) == 0) {
        return 0;
    }
    DataBuffer readData(allocated);
    showCdb(request);
    uint32_t receivedLength = dataLength;
    if (sendDataIn(KEL_HERE, KelPasAnyCommand, &request, readData.get(), &receivedLength, &sense) == 0) {
        return 0;
    }
    KelPasPrintData("Command Result", readData.get(), receivedLength, 0, static_cast<int32_t>(receivedLength));
    printf("\n");
    return 1;
}
