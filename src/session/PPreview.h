#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "constraints/ConstraintSet.h"
#include "constraints/GeodesicLines.h"
#include "geometry/PhotoToSphere.h"
#include "render/ImageAccess.h"
#include "render/RenderMesh.h"
#include "render/RenderPlan.h"
#include "render/gpu/GpuDevice.h"
#include "session/HostRecord.h"
#include "solver/Solver.h"
#include "warp/MeshLocator.h"

namespace Project {

// What a preview solve works on: the projection, the sphere mesh and a copy
// of the constraints under the solver settings, captured from the session on
// the dialog's thread (PWarpPipeline::CapturePreviewScene) and never changed
// afterwards, so the preview's solver can read it while the dialog edits the
// live ones. A scene is identified by its object: capture a new one after
// every change that needs a new solve (projection, focal length, regulariser,
// constraints), and send the same one again for a change of view alone.
struct PreviewScene {
    std::shared_ptr<const PhotoToSphere> photo;
    std::shared_ptr<const MeshLocator> locator;        // the mesh with its quad finder
    std::shared_ptr<const ConstraintSet> constraints;  // never null (may be empty)
    SolverSettings solver;
};

// A finished preview solve: the warp and what the overlays need of it.
struct PreviewWarp {
    std::shared_ptr<const PreviewScene> scene;
    bool solved = false;  // false: the solve failed ("Solve failed")
    // A draft: solved on a coarser mesh first, for a quick first image; the
    // scene's own warp follows.
    bool draft = false;
    std::shared_ptr<const SphereWarp> warp;
    // The scene's constraints fitted on the sphere, the warp handed over: the
    // display copies of the live constraints come from it
    // (Constraint::UpdateDisplay, on the dialog's thread).
    std::shared_ptr<const GeodesicLines> lines;
    std::shared_ptr<const RenderMesh> mesh;  // what the renderer draws
    // The regulariser the session should keep (a wide field falls back to
    // stereographic; see Solver).
    RegularizerModel regulariserChoice = RegularizerModel::Auto;
    // Went on from the last warp of the same level (only the constraints
    // changed since): a warm re-solve, not a fresh one.
    bool continued = false;
    double solveSeconds = 0.0;
};

// What the preview pane shows. The picture is the image at its own size
// (the filter rectangle): corrected, what the final render would write under
// the framing; otherwise the source photograph. The pane shows the picture
// magnified by zoom, with picture point (left, top) at its top-left corner.
struct PreviewView {
    int32_t paneWidth = 0;
    int32_t paneHeight = 0;
    double zoom = 1.0;  // pane pixels per picture pixel
    double left = 0.0;
    double top = 0.0;
    ViewFraming framing;    // the settings' scale, offsets ("imgS", "imgX", "imgY") and crop
    bool corrected = true;  // false: the source as it is (Preview off)
    // Show Mesh: when > 0, the warped grid of every meshStep-th mesh line.
    int32_t meshStep = 0;

    friend bool operator==(const PreviewView& a, const PreviewView& b) {
        return a.paneWidth == b.paneWidth && a.paneHeight == b.paneHeight && a.zoom == b.zoom &&
               a.left == b.left && a.top == b.top &&
               a.framing.scalePercent == b.framing.scalePercent &&
               a.framing.offsetX == b.framing.offsetX && a.framing.offsetY == b.framing.offsetY &&
               a.framing.cropToContent == b.framing.cropToContent && a.corrected == b.corrected &&
               a.meshStep == b.meshStep;
    }
};

// One preview image, for the request with the same id.
struct PreviewResult {
    uint64_t id = 0;
    PreviewView view;
    int32_t width = 0;  // the pane's size
    int32_t height = 0;
    // Interleaved RGBA, 8 bits, rows top to bottom. Alpha is 0 where the
    // picture has nothing (beside the warped photograph, or no warp yet).
    std::vector<uint8_t> rgba;
    // The warp drawn (null for the source picture, and before any solve
    // succeeded).
    std::shared_ptr<const PreviewWarp> warp;
    // Drawn with the finished warp of the request's own scene. False for an
    // interim image while the request's solve runs -- the draft of its scene,
    // or the last good warp for a change of view -- (a later result with the
    // same id follows), and after a failed solve.
    bool current = true;
    bool solveFailed = false;  // the request's scene did not solve
    // Show Mesh: polylines of the warped grid in pane pixels.
    std::vector<std::vector<PointF>> meshLines;
    double renderSeconds = 0.0;
};

// The live preview: corrected images of the dialog's scene at the pane's
// size, made off the dialog's thread.
//
// Threads. Two workers of its own: the solver runs the newest scene's mesh
// warp; the renderer owns the preview's GPU device (made on its first image)
// and every render call on it -- the GPU layer is single-threaded, so
// nothing else touches that device, and the final render keeps its own
// device on the host's thread. Request may be called from any thread; the
// callback runs on the renderer's thread (a dialog forwards it to its own).
//
// Newest wins. A request replaces any not yet started; a result whose
// request was superseded while it was made is dropped, never delivered, and
// a scene superseded before its solve is never solved. A change of view
// alone (zoom, scroll, pane size, framing, Preview off, Show Mesh) is drawn
// from the last solved warp without a solve; a new scene is solved first, and
// meanwhile a change of view is drawn at once from the last good warp
// (current false), so zooming and scrolling never wait for a solve.
//
// Drafts. A solve at the session's mesh level takes hundreds of
// milliseconds on a small machine; a scene is first solved a few levels
// coarser (tens of milliseconds) and that draft drawn (current false), then
// solved at its own level unless a newer scene is waiting -- while a slider
// is dragged the preview follows with drafts and settles on the exact warp.
//
// Edits. A scene whose projection object, mesh and solver settings are those
// of the last one solved at the same level differs only in its constraints
// (a line drawn, moved or deleted): it goes on from that warp
// (Solver::Resolve), which costs a fraction of a fresh solve. Scenes
// captured by the session share their projection while it stays the same.
class PPreview {
public:
    using Callback = std::function<void(PreviewResult)>;

    struct Options {
        Gpu::GpuOptions gpu;
        // Source levels larger than this are drawn through source windows
        // (only what the pane shows is uploaded): bytes, four per texel.
        uint64_t sourceTextureBudget = uint64_t{16} << 20;
        // The draft's mesh level is this much below the scene's (never below
        // 3); 0: no drafts.
        int32_t draftLevelsBelow = 2;
    };

    // source: the photograph in display form (four planes R, G, B, A at 8
    // bits; ReadPreviewSource), of pictureWidth x pictureHeight pixels or a
    // reduction of it.
    PPreview(std::shared_ptr<const MemoryImage> source, int32_t pictureWidth, int32_t pictureHeight,
             Callback deliver, Options options);
    PPreview(std::shared_ptr<const MemoryImage> source, int32_t pictureWidth, int32_t pictureHeight,
             Callback deliver);
    // Stops both workers; waits for a solve under way (it cannot be
    // interrupted).
    ~PPreview();
    PPreview(const PPreview&) = delete;
    PPreview& operator=(const PPreview&) = delete;

    // Asks for the picture of `scene` (may be null when view.corrected is
    // false) as `view` shows it. Returns the request's id; ids grow.
    uint64_t Request(std::shared_ptr<const PreviewScene> scene, const PreviewView& view);
    // Blocks until every request was delivered or dropped and no solve runs.
    void WaitIdle();

    struct Counters {
        uint64_t solves = 0;
        uint64_t renders = 0;
        uint64_t delivered = 0;
        uint64_t dropped = 0;  // made but superseded before delivery
    };
    Counters Statistics() const;
    // The GPU could not start or render: the reason, else empty. Results are
    // still delivered (empty images) so the dialog can show it.
    std::string GpuFailure() const;

    int32_t PictureWidth() const { return pictureWidth_; }
    int32_t PictureHeight() const { return pictureHeight_; }

private:
    struct Job {
        uint64_t id = 0;
        std::shared_ptr<const PreviewScene> scene;
        PreviewView view;
    };
    class Renderer;

    void SolveLoop();
    // Publishes a finished solve; with the lock held.
    void Publish(std::shared_ptr<const PreviewWarp> warp);
    void RenderLoop();
    // With the lock held: the warp of the job's scene when it was solved.
    std::shared_ptr<const PreviewWarp> FinishedFor(const Job& job) const;
    // Renders and delivers unless superseded; takes the lock itself.
    void Draw(Renderer& renderer, const Job& job, std::shared_ptr<const PreviewWarp> warp,
              bool current, bool failed);

    std::shared_ptr<const MemoryImage> source_;
    int32_t pictureWidth_;
    int32_t pictureHeight_;
    Callback deliver_;
    Options options_;

    mutable std::mutex mutex_;
    std::condition_variable renderWake_;
    std::condition_variable solveWake_;
    std::condition_variable idle_;
    bool stop_ = false;
    uint64_t nextId_ = 0;
    std::optional<Job> pending_;  // the newest request, not yet taken
    bool jobHeld_ = false;        // the renderer holds a request
    std::shared_ptr<const PreviewScene> solveWanted_;
    std::shared_ptr<const PreviewScene> solving_;
    std::shared_ptr<const PreviewWarp> finished_;  // the last finished solve
    std::shared_ptr<const PreviewWarp> lastGood_;  // the last successful one
    std::optional<PreviewView> lastDelivered_;
    std::string gpuFailure_;
    Counters counters_;

    // Started last, stopped first.
    std::thread solver_;
    std::thread renderer_;
};

// A solve of a scene as the preview makes it, on the calling thread. With a
// coarser mesh (its locator), the draft of the scene.
std::shared_ptr<const PreviewWarp> SolvePreviewScene(
    std::shared_ptr<const PreviewScene> scene,
    const std::shared_ptr<const MeshLocator>& draftMesh = nullptr);

// The host's source image in display form for PPreview: four planes R, G, B
// and A (255) at 8 bits, reduced by the smallest whole factor that brings
// the longer side to at most maxSide (each pixel the mean of its block).
// Grey, RGB, CMYK (ink amounts) and Lab (L 0 ... 100, a and b offset by 128)
// at 8 or 16 bits are converted to sRGB. Reads the filter rectangle in
// strips on the calling thread (the host's); HostError when a read fails.
std::shared_ptr<MemoryImage> ReadPreviewSource(const HostRecord& host, int32_t maxSide);

}  // namespace Project
