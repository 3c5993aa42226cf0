#include "plugin/ModuleComponents.h"

#include "constraints/ConstraintSet.h"
#include "geometry/LensProfile.h"
#include "plugin/EditorLoader.h"
#include "session/EditorObject.h"
#include "session/RenderingImageHub.h"
#include "session/SessionWarp.h"

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
        // The editor object beside the module, opened on the first dialog.
        return std::make_unique<LoadedEditor>(ThisObjectFolder() / kEditorObjectName);
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
