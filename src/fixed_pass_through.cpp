// Command P, the fixed pass-through: one wrapped SCSI command from a parameter file,
// whose address and transfer length the program reads from the CDB itself and rewrites
// while it splits the transfer into commands of at most 64 KiB.
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
#include "kelpth/pass_through.h"
#include "kelpth/trace.h"
#include "kelpth/value_syntax.h"

namespace {

constexpr uint32_t kLargestChunk = 0x10000;
constexpr uint32_t kLargestTransfer = 0x200000;
constexpr uint8_t kReadBuffer = 0x3C;
constexpr uint8_t kReadBufferDataMode = 2;

// Character positions in the CDB text (end exclusive), or inner CDB bytes (last
// inclusive); a zero-width range means the opcode has no such field.
struct CharRange {
    uint8_t first;
    uint8_t end;
};
struct ByteRange {
    uint8_t first;
    uint8_t last;
};

struct OpcodeLayout {
    uint8_t opcode;
    CharRange addressChars;
    uint32_t fixedAddress; // when the address is not in the text
    ByteRange addressBytes;
    CharRange lengthChars;
    uint32_t fixedLength; // when the length is not in the text
    ByteRange lengthBytes;
    uint32_t lengthUnit;   // 512 when the field counts blocks
    bool zeroMeansMaximum; // a 6-byte READ/WRITE length of 0 is 256 blocks
};

constexpr CharRange kNoChars{0, 0};
constexpr ByteRange kNoBytes{0, 0};

// clang-format off
constexpr OpcodeLayout kLayouts[] = {
    // opcode  address chars  fixed  address bytes  length chars  fixed  length bytes  unit        0=256
    {0x00, kNoChars, 1, kNoBytes, kNoChars, 1, kNoBytes, 1, false},           // TEST UNIT READY
    {0x1B, kNoChars, 1, kNoBytes, kNoChars, 1, kNoBytes, 1, false},           // START STOP UNIT
    {0x1D, kNoChars, 0, kNoBytes, kNoChars, 1, kNoBytes, 1, false},           // SEND DIAGNOSTIC
    {0x08, {2, 8}, 0, {1, 3}, {8, 10}, 0, {4, 4}, kSectorSize, true},          // READ(6)
    {0x0A, {2, 8}, 0, {1, 3}, {8, 10}, 0, {4, 4}, kSectorSize, true},          // WRITE(6)
    {0x28, {4, 12}, 0, {2, 5}, {14, 18}, 0, {7, 8}, kSectorSize, false},       // READ(10)
    {0x2A, {4, 12}, 0, {2, 5}, {14, 18}, 0, {7, 8}, kSectorSize, false},       // WRITE(10)
    {0x2E, {4, 12}, 0, {2, 5}, {14, 18}, 0, {7, 8}, kSectorSize, false},       // WRITE AND VERIFY(10)
    {0x2F, {4, 12}, 0, {2, 5}, {14, 18}, 0, {7, 8}, 1, false},                // VERIFY(10)
    {0x3E, {4, 12}, 0, {2, 5}, {14, 18}, 0, {7, 8}, 1, false},                // READ LONG
    {0x3F, {4, 12}, 0, {2, 5}, {14, 18}, 0, {7, 8}, 1, false},                // WRITE LONG
    {0x3B, {6, 12}, 0, {3, 5}, {12, 18}, 0, {6, 8}, 1, false},                // WRITE BUFFER
    {0x3C, {6, 12}, 0, {3, 5}, {12, 18}, 0, {6, 8}, 1, false},                // READ BUFFER
    {0x12, kNoChars, 0, kNoBytes, {8, 10}, 0, kNoBytes, 1, false},            // INQUIRY
    {0x15, kNoChars, 0, kNoBytes, {8, 10}, 0, kNoBytes, 1, false},            // MODE SELECT(6)
    {0x1A, kNoChars, 0, kNoBytes, {8, 10}, 0, kNoBytes, 1, false},            // MODE SENSE(6)
    {0x1C, kNoChars, 0, kNoBytes, {6, 10}, 0, kNoBytes, 1, false},            // RECEIVE DIAGNOSTIC
    {0x41, kNoChars, 0, kNoBytes, kNoChars, kSectorSize, kNoBytes, 1, false},  // WRITE SAME(10)
    {0x4C, kNoChars, 0, kNoBytes, {14, 18}, 0, kNoBytes, 1, false},           // LOG SELECT
    {0x4D, kNoChars, 0, kNoBytes, {14, 18}, 0, kNoBytes, 1, false},           // LOG SENSE
    {0x55, kNoChars, 0, kNoBytes, {14, 18}, 0, kNoBytes, 1, false},           // MODE SELECT(10)
    {0x5A, kNoChars, 0, kNoBytes, {14, 18}, 0, kNoBytes, 1, false},           // MODE SENSE(10)
    {0xFE, kNoChars, 0, kNoBytes, {12, 18}, 0, kNoBytes, 1, false},           // vendor specific
    {kReadCapacity10, kNoChars, 0, kNoBytes, kNoChars, 8, kNoBytes, 1, false},
};
// clang-format on

const OpcodeLayout *findLayout(int32_t opcode) {
    for (const OpcodeLayout &layout : kLayouts) {
        if (layout.opcode == opcode) {
            return &layout;
        }
    }
    return nullptr;
}

bool hasChars(CharRange range) {
    return range.end > range.first;
}

// The characters of one field as a hex number of at most 8 digits. The text is the
// line as read: a line end inside the field is not a hex digit and fails.
bool readCharField(const char *cdbText, CharRange range, uint32_t *value) {
    char field[9] = {};
    const size_t textLength = strnlen(cdbText, range.end);
    for (size_t at = range.first; at < textLength && at - range.first < sizeof field - 1; at++) {
        field[at - range.first] = cdbText[at];
    }
    unsigned long converted = 0;
    if (!scanHexNumber(field, 8) || !convertULong(field, 16, ConvertRules{true, false}, &converted)) {
        return false;
    }
    *value = static_cast<uint32_t>(converted);
    return true;
}

void writeBigEndian(PassThroughRequest *request, ByteRange innerBytes, uint32_t value) {
    for (int inner = innerBytes.last; inner >= innerBytes.first; inner--) {
        request->cdb[kWrapBytes + inner] = static_cast<uint8_t>(value);
        value >>= 8;
    }
}

int refuseNullRequest() {
    KelPthErr0014(KEL_HERE, 1);
    KelPthErr0002(KEL_HERE);
    return 0;
}

} // namespace

uint32_t KelPthGetAddress(int32_t opcode, const char *cdbText, uint32_t *ok) {
    *ok = 1;
    const OpcodeLayout *layout = findLayout(opcode);
    if (layout == nullptr) {
        return 0;
    }
    if (!hasChars(layout->addressChars)) {
        return layout->fixedAddress;
    }
    uint32_t address = 0;
    if (!readCharField(cdbText, layout->addressChars, &address)) {
        KelPthErr0022(KEL_HERE, "Address");
        KelPthErr0002(KEL_HERE);
        *ok = 0;
        return 0;
    }
    return address;
}

uint32_t GetDataLen(int32_t opcode, const char *cdbText, uint32_t *ok) {
    *ok = 1;
    const OpcodeLayout *layout = findLayout(opcode);
    if (layout == nullptr) {
        return 0;
    }
    if (!hasChars(layout->lengthChars)) {
        return layout->fixedLength;
    }
    uint32_t length = 0;
    if (!readCharField(cdbText, layout->lengthChars, &length)) {
        KelPthErr0022(KEL_HERE, "Data Length");
        KelPthErr0002(KEL_HERE);
        *ok = 0;
        return 0;
    }
    if (length == 0 && layout->zeroMeansMaximum) {
        length = 256;
    }
    return length * layout->lengthUnit;
}

int AddressSetting(PassThroughRequest *request, uint32_t address) {
    if (request == nullptr) {
        return refuseNullRequest();
    }
    const OpcodeLayout *layout = findLayout(request->cdb[kWrapBytes]);
    if (layout == nullptr) {
        return 0;
    }
    if (layout->addressBytes.last != 0) {
        writeBigEndian(request, layout->addressBytes, address);
    }
    return 1;
}

int DataLenSetting(PassThroughRequest *request, uint32_t length) {
    if (request == nullptr) {
        return refuseNullRequest();
    }
    const OpcodeLayout *layout = findLayout(request->cdb[kWrapBytes]);
    if (layout == nullptr) {
        return 0;
    }
    if (layout->lengthBytes.last != 0) {
        writeBigEndian(request, layout->lengthBytes, length / layout->lengthUnit);
    }
    return 1;
}

int32_t KelFixAnyPassThrough() {
    traceCall("KelFixAnyPassThrough");
    PassThroughRequest request;
    memset(&request, 0, sizeof request);
    SenseArea sense;

    ParamFile file(kShortLineRead, kShortLineRead);
    if (file.open(KEL_HERE, functbl[kTblFixPassThrough].argv[2]) == 0) {
        return 0;
    }
    showParamFileName(file.path());

    uint32_t address = 0;
    uint32_t totalLength = 0;
    bool complete = false;
    while (!complete) {
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
        case 2: // a placeholder: any text, but the line must be there
            break;
        case 3: {
            if (readPhysicalDriveLine(KEL_HERE, line, &request) == 0) {
                return 0;
            }
            if (refusesInterface(KEL_HERE, request.controllerNo, request.driveNo, &request.interfaceType,
                                 kInterfaceSata)) {
                return 0;
            }
            break;
        }
        case 4: {
            request.interfaceType = KEL_IF_SAS;
            if (readCdbLine(KEL_HERE, kInlineLineRules, line, kWrapBytes, request.cdb, &request.cdbLength) == 0) {
                return 0;
            }
            uint32_t ok = 0;
            address = KelPthGetAddress(request.cdb[kWrapBytes], line, &ok);
            if (ok == 0) {
                return 0;
            }
            totalLength = GetDataLen(request.cdb[kWrapBytes], line, &ok);
            if (ok == 0) {
                return 0;
            }
            break;
        }
        case 5:
            if (readDirectionLine(KEL_HERE, kInlineLineRules, line, false, &request.direction) == 0) {
                return 0;
            }
            request.cdb[0] = request.direction == KEL_DIR_IN ? kWrapDataIn : kWrapDataOut;
            complete = true;
            break;
        default:
            break;
        }
    }
    file.reportReadError(KEL_HERE);
    file.close();
    if (!complete) {
        return reportIncompleteFile(KEL_HERE, 0);
    }

    const uint8_t opcode = request.cdb[kWrapBytes];
    if (opcode == kReadCapacity10) {
        totalLength = 8;
    }
    showCdb(request);
    if (totalLength > kLargestTransfer) {
        totalLength = kLargestTransfer;
    }

    const bool dataIn = request.direction == KEL_DIR_IN;
    // READ BUFFER addresses its buffer only in data mode; other modes keep their offset.
    const bool keepsAddress = dataIn && opcode == kReadBuffer && request.cdb[kWrapBytes + 1] != kReadBufferDataMode;
    uint32_t done = 0;
    uint32_t printedRows = 0;
    for (uint32_t chunkIndex = 0; done < totalLength; chunkIndex++) {
        const uint32_t chunk = totalLength - done < kLargestChunk ? totalLength - done : kLargestChunk;
        uint8_t *allocated = nullptr;
        if (MakeAllocData(&allocated, chunk) == 0) {
            return 0;
        }
        DataBuffer buffer(allocated);
        // The address moves on by the chunk's byte count, whatever unit the opcode counts in.
        if (chunkIndex > 0) {
            address += chunk;
        }
        if (!keepsAddress) {
            AddressSetting(&request, address);
        }
        DataLenSetting(&request, chunk);
        if (!dataIn) {
            memset(buffer.get(), 0xFF, chunk);
        }
        uint32_t transferLength = chunk;
        const int status = KelPasAnyCommand(&request, buffer.get(), &transferLength, sense.bytes, &sense.size);
        if (status != 0) {
            buffer.reset();
            return KelIsErr(KEL_HERE, static_cast<uint32_t>(status), sense.bytes);
        }
        if (dataIn) {
            printedRows =
                KelPasPrintData("Command Result", buffer.get(), chunk, printedRows, static_cast<int32_t>(totalLength));
        }
        done += chunk;
    }
    if (dataIn) {
        printf("\n");
    }
    return 1;
}
