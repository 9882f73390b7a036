// libkelctl.so over SG_IO: the controller library's exported functions.
#include "controller_exports.h"
#include "controller_library.h"

namespace {

kelsgio::ControllerLibrary &library() {
    static kelsgio::ControllerLibrary instance;
    return instance;
}

} // namespace

KEL_DEFINE_CONTROLLER_EXPORTS(library)
