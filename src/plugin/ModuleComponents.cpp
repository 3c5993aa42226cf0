#include "plugin/ModuleComponents.h"

#include "session/StandIns.h"

namespace Project {

std::unique_ptr<PFilterComponents> CreateModuleComponents() {
    // Until the render, solver, geometry, constraints and editor layers
    // provide their implementations, every component is a stand-in: the
    // image is copied unchanged, no lens profile is found, the editor reports
    // that it is missing and ends like Cancel, constraint data round-trips
    // as raw bytes.
    return CreateStandInComponents();
}

}  // namespace Project
