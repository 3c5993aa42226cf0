#pragma once

#include <cstdint>
#include <memory>

#include "session/PFilterComponents.h"

// Stand-ins for the components that no layer provides yet, so that the module
// runs every invocation path. Each does the least its interface allows
// without pretending to do the work.

namespace Project {

// No editor in this build: says so and ends like Cancel.
class UnavailableEditor final : public PEditor {
public:
    Result Run(PFilter& filter, const char* layoutResource, DialogPlacement& placement) override;
    void RefreshProjection() override {}
};

}  // namespace Project
