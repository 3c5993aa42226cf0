#pragma once

#include <cstdint>
#include <memory>

#include "curvana/CurvanaPlugin.h"
#include "geometry/LensProfile.h"
#include "geometry/PhotoToSphere.h"
#include "session/HostRecord.h"
#include "session/PSettings.h"
#include "session/ScriptParameters.h"
#include "warp/OctaMap.h"
#include "warp/SphereWarp.h"

// The seams between the filter session and the layers that do the work. The
// session drives an invocation through these interfaces only; the module's
// component factory decides which implementations run (tests plug in their
// own). Every call happens on the host's thread, inside runFilter.

namespace Project {

class PFilter;
struct PreviewScene;

// What the host offers for image access in the current invocation.
struct HostImageContext {
    HostRecord host;
    uint64_t cacheBudget = 0;                 // bytes the pixel cache may hold
    const CvBufferSuite1* buffers = nullptr;  // host buffers; null: use the heap
};

// Access to the host image and the final full-resolution pass. Created
// without arguments on first need and kept for the plug-in instance.
class PImageHub {
public:
    virtual ~PImageHub() = default;
    // The host of the current invocation; called before anything else is
    // asked in an invocation. The context stays valid until it ends.
    virtual void AttachHost(const HostImageContext& context) = 0;
    // The filtered area of the host image.
    virtual ImageRect GetImageRect() const = 0;
    // Renders the whole image through the current warp into the host's result
    // pixels, showing "Applying Curvana." under the title "Progress" and
    // honouring the host's abort. False when cancelled, true when the result
    // was written. Host failures are thrown (HostError).
    virtual bool RenderFinal(PFilter& filter) = 0;
    // A final render will follow: start what it needs that does not depend
    // on the warp (the GPU device, the result's pipeline and source texture)
    // now, beside the solve.
    virtual void Prewarm(PFilter& /*filter*/) {}
};

// What the last rebuild could do with the constraint set.
struct ConstraintFitReport {
    uint32_t constraints = 0;  // in the set
    uint32_t badLines = 0;     // lines that could not be fitted under the projection
    uint32_t badPlanes = 0;    // polygons that could not be set up
};

// The warp: projection, mesh and solver under the live settings.
class PWarpPipeline {
public:
    virtual ~PWarpPipeline() = default;
    // Rebuilds the solver from the constraint set under the live settings
    // (projection, focal length, regulariser).
    virtual void RebuildSolver(PFilter& filter) = 0;
    // Brings the warp up to date. A failed solve is a flag the pipeline keeps,
    // never an exception.
    virtual void Solve(PFilter& filter) = 0;
    // The constraints the last RebuildSolver left out.
    virtual ConstraintFitReport LastFit() const { return {}; }

    // The solved warp that the final render draws, with the projection whose
    // texture coordinates it samples and the mesh it was built on; null
    // before the first solve and after a failed one.
    virtual std::shared_ptr<const SphereWarp> SolvedWarp() const = 0;
    virtual std::shared_ptr<const PhotoToSphere> Photo() const = 0;
    virtual std::shared_ptr<const OctaMap> Mesh() const = 0;

    // A copy of what a solve works on under the live settings and
    // constraints, for the editor's live preview (session/PPreview.h); null
    // when the pipeline has nothing to offer.
    virtual std::shared_ptr<const PreviewScene> CapturePreviewScene(PFilter&) { return nullptr; }
};

// The modal editor.
class PEditor {
public:
    enum class Result { Ok, Cancel };
    virtual ~PEditor() = default;
    // Runs the dialog from the layout resource, placed (and re-placed by the
    // user) by placement. Its OK path renders the final result itself.
    virtual Result Run(PFilter& filter, const char* layoutResource, DialogPlacement& placement) = 0;
    // The projection model changed: refresh the projection controls and the
    // preview.
    virtual void RefreshProjection() = 0;
};

// Makes the components of one plug-in instance.
class PFilterComponents {
public:
    virtual ~PFilterComponents() = default;
    virtual std::unique_ptr<PImageHub> CreateImageHub() = 0;
    virtual std::unique_ptr<PWarpPipeline> CreateWarpPipeline() = 0;
    // The lens-profile lookup for the Auto projection model. The session
    // acquires it on the first lookup of an invocation and lets it go at the
    // invocation's end (the lens-profile suite's handle).
    virtual std::shared_ptr<const LensProfileLookup> AcquireLensProfileLookup() = 0;
    virtual std::unique_ptr<PEditor> CreateEditor() = 0;
    // The constraint set of the instance; `filter` is the instance being
    // constructed (keep the reference, do not call it yet).
    virtual std::unique_ptr<PConstraintData> CreateConstraintData(PFilter& filter) = 0;
};

}  // namespace Project
