#pragma once

#include <memory>

#include "session/PFilterComponents.h"

namespace Project {

// The components every instance of the module runs with. This is the one
// place where the renderer, the warp solver, the lens-profile lookup, the
// editor and the constraint set are chosen.
std::unique_ptr<PFilterComponents> CreateModuleComponents();

}  // namespace Project
