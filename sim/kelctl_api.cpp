// libkelctl.so of the simulated farm: the controller library's exported functions.
#include "controller_exports.h"
#include "controller_library.h"

namespace {

// Built on first use, so that loading the library costs nothing.
kelsim::ControllerLibrary &library() {
    static kelsim::ControllerLibrary instance(kelsim::stateDirectoryFromEnvironment());
    return instance;
}

} // namespace

KEL_DEFINE_CONTROLLER_EXPORTS(library)
