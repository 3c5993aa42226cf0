#include "plugin/ModuleComponents.h"

#include "constraints/ConstraintSet.h"
#include "geometry/LensProfile.h"
#include "session/RenderingImageHub.h"
#include "session/SessionWarp.h"
#include "session/StandIns.h"

namespace Project {

namespace {

// The module's components. The constraint set is shared by the scripting
// data (which fills it from "cnsD") and the warp pipeline (which fits it).
class ModuleComponents final : public PFilterComponents {
public:
    std::unique_ptr<PImageHub> CreateImageHub() override {
        return std::make_unique<RenderingImageHub>();
    }
    std::unique_ptr<PWarpPipeline> CreateWarpPipeline() override {
        return std::make_unique<MeshWarpPipeline>(set_);
    }
    std::shared_ptr<const LensProfileLookup> AcquireLensProfileLookup() override {
        return lensfunProfileLookup();
    }
    std::unique_ptr<PEditor> CreateEditor() override {
        return std::make_unique<UnavailableEditor>();
    }
    std::unique_ptr<PConstraintData> CreateConstraintData(PFilter& filter) override {
        return std::make_unique<SessionConstraintData>(filter, set_);
    }

private:
    std::shared_ptr<ConstraintSet> set_ = std::make_shared<ConstraintSet>();
};

}  // namespace

std::unique_ptr<PFilterComponents> CreateModuleComponents() {
    return std::make_unique<ModuleComponents>();
}

}  // namespace Project
