// Placeholders for the commands not built yet, so that the program links. Each one
// traces its entry, says the command is not supported and fails; delete a stub when
// its real handler arrives.
#define KEL_MODULE "KelPthCmd"
#include "kelpth/handlers.h"
#include "kelpth/messages.h"
#include "kelpth/trace.h"

namespace {
[[maybe_unused]] int32_t unbuiltMainCommand(const char *name) {
    traceCall(name);
    KelPthErr0015(KEL_HERE);
    KelPthErr0002(KEL_HERE);
    return 0;
}

} // namespace

// L: log-sense report.
int32_t KelPrintLogsense() {
    return unbuiltMainCommand("KelPrintLogsense");
}
// F: firmware download.
int32_t KelFirmwareUpdate() {
    return unbuiltMainCommand("KelFirmwareUpdate");
}
// PDPrintModePage: mode page print.
int32_t KelPDPrintModePage() {
    return unbuiltMainCommand("KelPDPrintModePage");
}
