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

[[maybe_unused]] int32_t unbuiltSataCommand(const char *name) {
    traceCall(name);
    KelPthErr0024("KelPthCmd_SATA", __LINE__, "SATA");
    KelPthErr0002("KelPthCmd_SATA", __LINE__);
    return 0;
}
} // namespace

// E: media error set.
int32_t KelPDHDDMediaErrorSet() {
    return unbuiltMainCommand("KelPDHDDMediaErrorSet");
}
// N: error injection.
int32_t KelPDHDDErrorInjectionSet() {
    return unbuiltMainCommand("KelPDHDDErrorInjectionSet");
}
// N5: error injection, second form.
int32_t KelPDHDDErrorInjectionSet5() {
    return unbuiltMainCommand("KelPDHDDErrorInjectionSet5");
}

// e: SATA media error set.
int32_t KelPDHDDMediaErrorSet_SATA() {
    return unbuiltSataCommand("KelPDHDDMediaErrorSet_SATA");
}
// A: SATA error injection.
int32_t KelPDHDDErrorInjectionSet_SATA() {
    return unbuiltSataCommand("KelPDHDDErrorInjectionSet_SATA");
}
