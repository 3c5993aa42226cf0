#include <memory>

#include "geometry/LensProfile.h"

namespace Project {

namespace {

// Placeholder until the lensfun database is wired in: finds nothing.
class NoLensProfiles final : public LensProfileLookup {
public:
    LensProfileLookupResult Find(const CameraMetadata&, uint32_t, uint32_t) const override {
        return {std::nullopt, std::string(kNoMatchedProfileKey)};
    }
};

}  // namespace

std::shared_ptr<const LensProfileLookup> lensfunProfileLookup() {
    static const std::shared_ptr<const LensProfileLookup> instance = std::make_shared<NoLensProfiles>();
    return instance;
}

}  // namespace Project
