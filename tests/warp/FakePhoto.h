#pragma once

#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "geometry/PhotoToSphere.h"

namespace Project::testing {

// A photo whose visibility is any predicate of (lambda, phi); it records the
// calls it receives. Image point = (100 lambda, 100 phi).
class FakePhoto final : public PhotoToSphere {
public:
    using Predicate = std::function<bool(float lambda, float phi)>;

    explicit FakePhoto(Predicate visible)
        : PhotoToSphere(std::make_shared<SourceRaster>(64, 64)), visible_(std::move(visible)) {}

    std::array<float, 3> SampleColor(float, float) const override { return {0.0f, 0.0f, 0.0f}; }
    bool IsVisible(float lambda, float phi) const override {
        calls.push_back({lambda, phi});
        return visible_(lambda, phi);
    }
    bool QueryFlag3() const override { return true; }
    ImagePoint ToImagePoint(float lambda, float phi) const override {
        return {100.0f * lambda, 100.0f * phi};
    }
    bool ToSphere(ImagePoint point, SphereDirection& out) const override {
        out = {point.x / 100.0f, point.y / 100.0f};
        return true;
    }

    mutable std::vector<SphereDirection> calls;

private:
    Predicate visible_;
};

}  // namespace Project::testing
