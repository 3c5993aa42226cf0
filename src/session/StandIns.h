#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "session/PFilterComponents.h"

// Stand-ins for the components that other layers provide, so that the module
// runs an invocation end to end before they are plugged in. Each does the
// least its interface allows without pretending to correct the image.

namespace Project {

// Copies the source pixels into the result unchanged, band by band, with the
// final pass's progress texts and the host's abort. A band holds as many rows
// as fit in the pixel-cache budget (at least one), and its buffer comes from
// the host's buffer suite when the host offers one.
class IdentityImageHub final : public PImageHub {
public:
    void AttachHost(const HostImageContext& context) override { context_ = context; }
    ImageRect GetImageRect() const override { return context_.host.FilterRect(); }
    bool RenderFinal(PFilter& filter) override;

private:
    HostImageContext context_;
};

// No warp yet: nothing to rebuild or solve.
class NullWarpPipeline final : public PWarpPipeline {
public:
    void RebuildSolver(PFilter&) override {}
    void Solve(PFilter&) override {}
};

// No editor in this build: says so and ends like Cancel.
class UnavailableEditor final : public PEditor {
public:
    Result Run(PFilter& filter, const char* layoutResource, DialogPlacement& placement) override;
    void RefreshProjection() override {}
};

// Keeps the constraint data as the bytes it was given, so a replayed action
// hands its constraints back unchanged.
class RawConstraintData final : public PConstraintData {
public:
    bool Parse(const uint8_t* data, size_t size) override;
    size_t SerializedSize() const override { return bytes_.size(); }
    void Serialize(uint8_t* out) const override;

private:
    std::vector<uint8_t> bytes_;
};

// A factory of the stand-ins above, with the lensfun lens-profile lookup of
// the geometry layer.
std::unique_ptr<PFilterComponents> CreateStandInComponents();

}  // namespace Project
