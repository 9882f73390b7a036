// Commands N and N5: MODE SELECT(6) of the vendor error-injection page 0x22 to a SAS
// drive, in its 28-byte (N) or 32-byte (N5) form. The values of the parameter file are
// placed by the form's field table; what they mean is the drive's business.
#define KEL_MODULE "KelPthCmd"
#include "kelpth/error_injection.h"

#include <cstdlib>
#include <cstring>
#include <vector>

#include "kelpth.h"
#include "kelpth/checks.h"
#include "kelpth/command_codes.h"
#include "kelpth/command_steps.h"
#include "kelpth/functbl.h"
#include "kelpth/handlers.h"
#include "kelpth/messages.h"
#include "kelpth/param_file.h"
#include "kelpth/trace.h"
#include "kelpth/value_syntax.h"

using kellayouts::InjectionField;
using kellayouts::InjectionLayout;

namespace {

constexpr uint8_t kModeSelect6 = 0x15;
constexpr uint8_t kPageFormat = 0x10; // PF: the list holds a page in the standard format
constexpr uint32_t kModeSelectCdbLength = 8;

bool readFieldValue(const InjectionField &field, char *text, unsigned long *value) {
    if (field.form == kellayouts::ValueForm::Decimal) {
        if (!scanDecimalNumber(text, field.maxDigits)) {
            return false;
        }
        *value = static_cast<unsigned long>(atoi(text));
        return true;
    }
    return scanHexNumber(text, field.maxDigits) && convertULong(text, 16, ConvertRules{true, false}, value);
}

// Line 3: one decimal digit, the MODE SELECT flags (SP and the rest) beside PF.
bool readModeSelectFlags(char *text, uint8_t *flags) {
    long digit = 0;
    if (!readDigitValue(text, ConvertRules{true, false}, &digit)) {
        return false;
    }
    *flags = static_cast<uint8_t>(digit | kPageFormat);
    return true;
}

int32_t setInjectionPage(const char *handlerName, FuncTblIndex entry, const InjectionLayout &layout) {
    traceCall(handlerName);
    PassThroughRequest request;
    memset(&request, 0, sizeof request);
    SenseArea sense;
    std::vector<uint8_t> list(kLongLineBuffer, 0);

    ParamFile file(kLongLineBuffer, kLongLineBuffer);
    if (file.open(KEL_HERE, functbl[entry].argv[2]) == 0) {
        return 0;
    }
    showParamFileName(file.path());

    const int lastValue = kellayouts::lastValueOf(layout);
    bool complete = false;
    while (!complete) {
        char *line = file.nextValueLine();
        if (line == nullptr) {
            break;
        }
        const int valueNo = file.valueLineCount();
        if (valueNo == 1) {
            if (readControllerLine(KEL_HERE, line, &request) == 0) {
                return 0;
            }
        } else if (valueNo == 2) {
            if (readPhysicalDriveLine(KEL_HERE, line, &request) == 0 ||
                refusesInterface(KEL_HERE, request.controllerNo, request.driveNo, &request.interfaceType,
                                 kInterfaceSata)) {
                return 0;
            }
        } else if (valueNo == 3) {
            if (!readModeSelectFlags(line, &request.cdb[3])) {
                return reportBadParameterLine(KEL_HERE, valueNo);
            }
        } else {
            if (!packInjectionValue(layout, valueNo, line, list.data())) {
                return reportBadParameterLine(KEL_HERE, valueNo);
            }
            complete = valueNo == lastValue;
        }
    }
    file.reportReadError(KEL_HERE);
    file.close();
    if (!complete) {
        return reportIncompleteFile(KEL_HERE, 0);
    }

    request.interfaceType = KEL_IF_SAS;
    request.targetKind = KEL_TARGET_PHYSICAL;
    request.direction = KEL_DIR_OUT;
    request.cdb[0] = kWrapDataOut;
    request.cdb[1] = request.driveNo;
    request.cdb[2] = kModeSelect6;
    request.cdb[6] = layout.listLength;
    request.cdbLength = kModeSelectCdbLength;
    showCdb(request);
    uint32_t dataLength = layout.listLength;
    return sendDataIn(KEL_HERE, KelPasAnyCommand, &request, list.data(), &dataLength, &sense);
}

} // namespace

bool packInjectionValue(const InjectionLayout &layout, int valueNo, char *text, uint8_t *list) {
    const int fieldNo = valueNo - kellayouts::kFirstPageValue;
    if (fieldNo < 0 || static_cast<size_t>(fieldNo) >= layout.fieldCount) {
        return false;
    }
    const InjectionField &field = layout.fields[fieldNo];
    cutLineEnd(text);
    unsigned long value = 0;
    if (!readFieldValue(field, text, &value)) {
        return false;
    }
    if (fieldNo == 0) {
        memset(list, 0, layout.listLength);
        list[kellayouts::kModeHeaderBytes] = kellayouts::kInjectionPageCode;
        list[kellayouts::kModeHeaderBytes + 1] = layout.pageLength;
    }
    value *= field.multiplier;
    for (int at = field.offset + field.width - 1; at >= field.offset; at--) {
        list[at] |= static_cast<uint8_t>(value);
        value >>= 8;
    }
    return true;
}

int32_t KelPDHDDErrorInjectionSet() {
    return setInjectionPage("KelPDHDDErrorInjectionSet", kTblErrorInjection, kellayouts::kPage28);
}

int32_t KelPDHDDErrorInjectionSet5() {
    return setInjectionPage("KelPDHDDErrorInjectionSet5", kTblErrorInjection5, kellayouts::kPage32);
}
