#include "session/PPreview.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <exception>
#include <map>
#include <stdexcept>
#include <utility>

#include "render/PResult.h"
#include "session/SessionWarp.h"

namespace Project {

namespace {

using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

constexpr PixelFormat kDisplayFormat{4, 8};

// Half the size, each pixel the mean of its 2 x 2 block (a lone last row or
// column averages what it has).
std::shared_ptr<const MemoryImage> HalfSize(const MemoryImage& image) {
    const int32_t w = std::max(1, (image.Width() + 1) / 2);
    const int32_t h = std::max(1, (image.Height() + 1) / 2);
    auto half = std::make_shared<MemoryImage>(w, h, kDisplayFormat);
    for (int32_t p = 0; p < kDisplayFormat.planes; ++p) {
        const uint8_t* in = image.PlaneData(p);
        uint8_t* out = half->PlaneData(p);
        for (int32_t y = 0; y < h; ++y) {
            const int32_t y0 = 2 * y, y1 = std::min(2 * y + 1, image.Height() - 1);
            for (int32_t x = 0; x < w; ++x) {
                const int32_t x0 = 2 * x, x1 = std::min(2 * x + 1, image.Width() - 1);
                const auto at = [&](int32_t xx, int32_t yy) {
                    return static_cast<uint32_t>(in[static_cast<size_t>(yy) * image.Width() + xx]);
                };
                out[static_cast<size_t>(y) * w + x] = static_cast<uint8_t>(
                    (at(x0, y0) + at(x1, y0) + at(x0, y1) + at(x1, y1) + 2) / 4);
            }
        }
    }
    return half;
}

// A source level as the renderer reads it. The levels are shared and never
// written, so reading them needs no MemoryImage bookkeeping.
class LevelSource final : public RenderSource {
public:
    explicit LevelSource(const MemoryImage& image) : image_(image) {}

    bool ReadWindow(const PixelRect& rect, std::span<void* const> planes,
                    ptrdiff_t rowBytes) override {
        if (rect.left < 0 || rect.top < 0 || rect.right > image_.Width() ||
            rect.bottom > image_.Height() || rect.Empty() ||
            planes.size() != static_cast<size_t>(image_.Format().planes) || rowBytes < rect.Width())
            return false;
        for (size_t p = 0; p < planes.size(); ++p) {
            const uint8_t* from = image_.PlaneData(static_cast<int32_t>(p));
            auto* to = static_cast<uint8_t*>(planes[p]);
            for (int32_t y = rect.top; y < rect.bottom; ++y)
                std::memcpy(to + static_cast<ptrdiff_t>(y - rect.top) * rowBytes,
                            from + static_cast<size_t>(y) * image_.Width() + rect.left,
                            static_cast<size_t>(rect.Width()));
        }
        return true;
    }

private:
    const MemoryImage& image_;
};

// The source picture as a warp: one quad from the picture's corners to the
// same corners of the plane (y up), so that it frames and scrolls exactly like
// the corrected picture.
std::shared_ptr<const RenderMesh> IdentityMesh(int32_t width, int32_t height) {
    auto mesh = std::make_shared<RenderMesh>();
    mesh->n = 2;
    const auto w = static_cast<float>(width), h = static_cast<float>(height);
    mesh->positions = {0.0f, 0.0f, w, 0.0f, 0.0f, -h, w, -h};
    mesh->texcoords = {0.0f, 0.0f, 1.0f, 0.0f, 0.0f, 1.0f, 1.0f, 1.0f};
    mesh->quadValid = {1};
    return mesh;
}

// The warped grid: every step-th row and column of mesh vertices, split where
// no valid quad holds a segment, in the plan's output pixels.
std::vector<std::vector<PointF>> MeshLines(const RenderMesh& mesh, const RenderPlan& plan,
                                           int32_t step) {
    std::vector<std::vector<PointF>> lines;
    const int32_t n = mesh.n;
    const int32_t quads = mesh.QuadsPerSide();
    const auto valid = [&](int32_t i, int32_t j) {
        return i >= 0 && j >= 0 && i < quads && j < quads && mesh.IsQuadValid(mesh.QuadIndex(i, j));
    };
    const auto point = [&](int32_t i, int32_t j) {
        const auto k = static_cast<size_t>(mesh.VertexIndex(i, j));
        double px = 0.0, py = 0.0;
        plan.PlaneToPixel(mesh.positions[2 * k], mesh.positions[2 * k + 1], px, py);
        return PointF{static_cast<float>(px), static_cast<float>(py)};
    };
    // One grid line: vertices a(t) for t = 0 ... n - 1; segment t joins a(t)
    // and a(t + 1) when one of its two quads is valid.
    const auto walk = [&](auto vertex, auto segmentDrawn) {
        std::vector<PointF> line;
        for (int32_t t = 0; t + 1 < n; ++t) {
            if (segmentDrawn(t)) {
                if (line.empty())
                    line.push_back(vertex(t));
                line.push_back(vertex(t + 1));
            } else if (!line.empty()) {
                lines.push_back(std::move(line));
                line.clear();
            }
        }
        if (!line.empty())
            lines.push_back(std::move(line));
    };
    for (int32_t j = 0; j < n; j += step)
        walk([&](int32_t t) { return point(t, j); },
             [&](int32_t t) { return valid(t, j - 1) || valid(t, j); });
    for (int32_t i = 0; i < n; i += step)
        walk([&](int32_t t) { return point(i, t); },
             [&](int32_t t) { return valid(i - 1, t) || valid(i, t); });
    return lines;
}

}  // namespace

// ---- The renderer's side: device, source levels, reduced renders ---------------

class PPreview::Renderer {
public:
    Renderer(std::shared_ptr<const MemoryImage> source, int32_t pictureWidth, int32_t pictureHeight,
             const Options& options)
        : options_(options),
          pictureWidth_(pictureWidth),
          pictureHeight_(pictureHeight),
          identity_(IdentityMesh(pictureWidth, pictureHeight)) {
        levels_.push_back(std::move(source));
    }

    const std::string& Failure() const { return failure_; }

    // Draws `mesh` (null: nothing to draw) as the view shows it into result.
    void Draw(const PreviewView& view, std::shared_ptr<const RenderMesh> mesh,
              PreviewResult& result) {
        result.width = view.paneWidth;
        result.height = view.paneHeight;
        result.rgba.assign(static_cast<size_t>(view.paneWidth) * view.paneHeight * 4, 0);
        if (!view.corrected)
            mesh = identity_;
        if (!mesh || !EnsureDevice())
            return;

        const int32_t level = LevelFor(view.zoom);
        const MemoryImage& source = *levels_[static_cast<size_t>(level)];
        PResultScaled* scaled = ScaledFor(view, level, source);
        if (!scaled)
            return;
        const ViewFraming framing = view.corrected ? view.framing : ViewFraming{100, 0.5f, 0.5f};
        scaled->SetFraming(framing);
        scaled->SetWindow(PictureWindow{pictureWidth_, pictureHeight_, view.left, view.top,
                                        view.paneWidth / view.zoom, view.paneHeight / view.zoom});
        scaled->SetMesh(mesh);
        LevelSource reader(source);
        const RenderStatus status = scaled->Render(reader, planar_);
        if (!status.ok()) {
            failure_ = status.message;
            return;
        }
        failure_.clear();
        Interleave(result.rgba);
        if (view.corrected && view.meshStep > 0)
            result.meshLines = MeshLines(*mesh, *scaled->Plan(), view.meshStep);
    }

private:
    bool EnsureDevice() {
        if (device_)
            return true;
        auto created = Gpu::GpuDevice::Create(options_.gpu);
        if (!created) {
            failure_ = created.error().message;
            return false;
        }
        device_ = std::move(created).value();
        return true;
    }

    // The smallest source level that still has a texel for every pane pixel:
    // bilinear sampling without mipmaps would skip texels of a larger one.
    int32_t LevelFor(double zoom) {
        int32_t level = 0;
        for (;;) {
            const MemoryImage& current = *levels_[static_cast<size_t>(level)];
            if (current.Width() <= 1 && current.Height() <= 1)
                return level;
            const double halfDensity = 0.5 * current.Width() / pictureWidth_;
            if (halfDensity < zoom)
                return level;
            if (static_cast<size_t>(level) + 1 == levels_.size())
                levels_.push_back(HalfSize(current));
            ++level;
        }
    }

    PResultScaled* ScaledFor(const PreviewView& view, int32_t level, const MemoryImage& source) {
        if (scaled_ && scaledWidth_ == view.paneWidth && scaledHeight_ == view.paneHeight &&
            scaledLevel_ == level)
            return scaled_.get();
        scaled_.reset();
        PResultScaled::Config config;
        config.outputWidth = view.paneWidth;
        config.outputHeight = view.paneHeight;
        config.sourceWidth = source.Width();
        config.sourceHeight = source.Height();
        config.format = kDisplayFormat;
        config.options.sourceTextureBudget = options_.sourceTextureBudget;
        auto made = PResultScaled::Create(device_, config);
        if (!made) {
            failure_ = made.error().message;
            return nullptr;
        }
        scaled_ = std::move(made).value();
        scaledWidth_ = view.paneWidth;
        scaledHeight_ = view.paneHeight;
        scaledLevel_ = level;
        return scaled_.get();
    }

    void Interleave(std::vector<uint8_t>& rgba) const {
        const size_t pixels = static_cast<size_t>(planar_.Width()) * planar_.Height();
        for (int32_t p = 0; p < 4; ++p) {
            const uint8_t* plane = planar_.PlaneData(p);
            for (size_t i = 0; i < pixels; ++i)
                rgba[4 * i + static_cast<size_t>(p)] = plane[i];
        }
    }

    Options options_;
    int32_t pictureWidth_;
    int32_t pictureHeight_;
    std::shared_ptr<const RenderMesh> identity_;
    std::vector<std::shared_ptr<const MemoryImage>> levels_;  // level k: 1 / 2^k of the source
    std::shared_ptr<Gpu::GpuDevice> device_;
    std::unique_ptr<PResultScaled> scaled_;
    int32_t scaledWidth_ = 0;
    int32_t scaledHeight_ = 0;
    int32_t scaledLevel_ = -1;
    MemoryImage planar_;
    std::string failure_;
};

// ---- Solving -------------------------------------------------------------------------

namespace {

// The texture coordinates of a mesh under a projection, per vertex, kept
// while both stay (an inverse lens model costs a Newton solve per vertex).
struct TextureCoordinates {
    std::shared_ptr<const MeshLocator> locator;
    std::shared_ptr<const PhotoToSphere> photo;
    std::vector<float> uv;  // u, v of vertex (i, j) at 2 (j n + i)

    void Update(const std::shared_ptr<const MeshLocator>& mesh,
                const std::shared_ptr<const PhotoToSphere>& projection) {
        if (locator == mesh && photo == projection)
            return;
        locator = mesh;
        photo = projection;
        const int32_t n = mesh->Mesh().Size();
        uv.assign(2 * static_cast<size_t>(n) * static_cast<size_t>(n), 0.0f);
        const TexCoordFunction texCoord = MeshTextureCoordinates(mesh->Mesh(), *projection);
        for (int32_t j = 0; j < n; ++j)
            for (int32_t i = 0; i < n; ++i) {
                const size_t at =
                    2 * (static_cast<size_t>(j) * static_cast<size_t>(n) + static_cast<size_t>(i));
                texCoord(i, j, uv[at], uv[at + 1]);
            }
    }
    TexCoordFunction Function() const {
        const int32_t n = locator->Mesh().Size();
        return [this, n](int32_t i, int32_t j, float& u, float& v) {
            const size_t at =
                2 * (static_cast<size_t>(j) * static_cast<size_t>(n) + static_cast<size_t>(i));
            u = uv[at];
            v = uv[at + 1];
        };
    }
};

// A solver kept between the solves of one mesh level: a scene that differs
// from the last one only in its constraints goes on from the last warp
// (Solver::Resolve), tens of milliseconds where a fresh solve takes hundreds.
struct PreviewSolver {
    std::shared_ptr<const PreviewScene> scene;  // the last one solved
    std::unique_ptr<Solver> solver;
    TextureCoordinates coordinates;
};

std::shared_ptr<const PreviewWarp> SolveScene(const std::shared_ptr<const PreviewScene>& scene,
                                              const std::shared_ptr<const MeshLocator>& locator,
                                              bool draft, PreviewSolver& kept) {
    const Clock::time_point start = Clock::now();
    auto out = std::make_shared<PreviewWarp>();
    out->scene = scene;
    out->draft = draft;
    SolverSettings settings = scene->solver;
    settings.meshLevel = locator->Mesh().Level();
    auto lines = std::make_shared<GeodesicLines>(scene->photo, locator);
    lines->FitAll(*scene->constraints);
    // Only the constraints changed: the projection, mesh and settings are
    // the very ones the kept solver works on.
    const bool continues =
        kept.solver && kept.scene && kept.scene->photo == scene->photo && kept.solver->Warp() &&
        &kept.solver->Warp()->Mesh() == &locator->Mesh() && kept.scene->solver == scene->solver;
    if (continues) {
        out->continued = true;
        out->solved = kept.solver->Resolve(lines);
    } else {
        kept.solver = std::make_unique<Solver>(locator->MeshRef(), scene->photo, lines, settings);
        out->solved = kept.solver->Run();
    }
    kept.scene = scene;
    const Solver& solver = *kept.solver;
    out->regulariserChoice = solver.StoredRegulariserChoice();
    if (out->solved && solver.Warp() && solver.Warp()->IsSolved()) {
        out->warp = solver.Warp();
        kept.coordinates.Update(locator, scene->photo);
        out->mesh = std::make_shared<const RenderMesh>(BuildRenderMesh(
            *out->warp, kept.coordinates.Function(), ContentBoxOf(*out->warp, *scene->photo)));
    } else {
        out->solved = false;
        // A failed solve is no start for the next one.
        kept.solver.reset();
        kept.scene.reset();
    }
    out->lines = std::move(lines);
    out->solveSeconds = SecondsSince(start);
    return out;
}

}  // namespace

std::shared_ptr<const PreviewWarp> SolvePreviewScene(
    std::shared_ptr<const PreviewScene> scene,
    const std::shared_ptr<const MeshLocator>& draftMesh) {
    PreviewSolver fresh;
    const bool draft = draftMesh != nullptr;
    const std::shared_ptr<const MeshLocator>& locator = draft ? draftMesh : scene->locator;
    return SolveScene(scene, locator, draft, fresh);
}

// ---- The engine ------------------------------------------------------------------------

PPreview::PPreview(std::shared_ptr<const MemoryImage> source, int32_t pictureWidth,
                   int32_t pictureHeight, Callback deliver)
    : PPreview(std::move(source), pictureWidth, pictureHeight, std::move(deliver), Options{}) {}

PPreview::PPreview(std::shared_ptr<const MemoryImage> source, int32_t pictureWidth,
                   int32_t pictureHeight, Callback deliver, Options options)
    : source_(std::move(source)),
      pictureWidth_(pictureWidth),
      pictureHeight_(pictureHeight),
      deliver_(std::move(deliver)),
      options_(std::move(options)) {
    if (!source_ || source_->Width() <= 0 || source_->Height() <= 0 ||
        source_->Format().planes != kDisplayFormat.planes ||
        source_->Format().depth != kDisplayFormat.depth || pictureWidth <= 0 || pictureHeight <= 0)
        throw std::invalid_argument("PPreview needs a display-form source and a picture size");
    solver_ = std::thread([this] { SolveLoop(); });
    try {
        renderer_ = std::thread([this] { RenderLoop(); });
    } catch (...) {
        {
            std::lock_guard lock(mutex_);
            stop_ = true;
        }
        solveWake_.notify_all();
        solver_.join();
        throw;
    }
}

PPreview::~PPreview() {
    {
        std::lock_guard lock(mutex_);
        stop_ = true;
    }
    renderWake_.notify_all();
    solveWake_.notify_all();
    renderer_.join();
    solver_.join();
}

uint64_t PPreview::Request(std::shared_ptr<const PreviewScene> scene, const PreviewView& view) {
    if (view.paneWidth <= 0 || view.paneHeight <= 0 || !(view.zoom > 0.0) ||
        !std::isfinite(view.zoom) || !std::isfinite(view.left) || !std::isfinite(view.top))
        throw std::invalid_argument("PPreview::Request: an empty pane or a bad zoom");
    if (view.corrected && (!scene || !scene->photo || !scene->locator || !scene->constraints))
        throw std::invalid_argument("PPreview::Request: the corrected picture needs a scene");
    uint64_t id = 0;
    {
        std::lock_guard lock(mutex_);
        id = ++nextId_;
        pending_ = Job{id, std::move(scene), view};
    }
    renderWake_.notify_one();
    return id;
}

void PPreview::WaitIdle() {
    std::unique_lock lock(mutex_);
    idle_.wait(lock, [this] { return !pending_ && !jobHeld_ && !solveWanted_ && !solving_; });
}

PPreview::Counters PPreview::Statistics() const {
    std::lock_guard lock(mutex_);
    return counters_;
}

std::string PPreview::GpuFailure() const {
    std::lock_guard lock(mutex_);
    return gpuFailure_;
}

std::shared_ptr<const PreviewWarp> PPreview::FinishedFor(const Job& job) const {
    if (finished_ && finished_->scene == job.scene)
        return finished_;
    if (lastGood_ && lastGood_->scene == job.scene)
        return lastGood_;
    return nullptr;
}

void PPreview::SolveLoop() {
    // The draft meshes with their quad finders, by level (kept: building
    // one costs about as much as a draft solve).
    std::map<int32_t, std::shared_ptr<const MeshLocator>> draftMeshes;
    // One kept solver for the drafts and one for the exact warps.
    PreviewSolver draftSolver;
    PreviewSolver exactSolver;
    const auto solve = [](const std::shared_ptr<const PreviewScene>& scene,
                          const std::shared_ptr<const MeshLocator>& locator, bool draft,
                          PreviewSolver& kept) {
        try {
            return SolveScene(scene, locator, draft, kept);
        } catch (const std::exception&) {
            // Out of memory inside the solver: shown like a failed solve.
            kept = PreviewSolver{};
            auto failed = std::make_shared<PreviewWarp>();
            failed->scene = scene;
            return std::shared_ptr<const PreviewWarp>(std::move(failed));
        }
    };
    std::unique_lock lock(mutex_);
    for (;;) {
        solveWake_.wait(lock, [this] { return stop_ || solveWanted_; });
        if (stop_)
            return;
        solving_ = std::exchange(solveWanted_, nullptr);
        const std::shared_ptr<const PreviewScene> scene = solving_;
        lock.unlock();

        const int32_t level = scene->locator->Mesh().Level();
        const int32_t draftLevel = std::max(3, level - options_.draftLevelsBelow);
        if (options_.draftLevelsBelow > 0 && draftLevel < level) {
            std::shared_ptr<const MeshLocator>& draftMesh = draftMeshes[draftLevel];
            if (!draftMesh)
                draftMesh = std::make_shared<const MeshLocator>(std::make_shared<const OctaMap>(
                    draftLevel, scene->locator->Mesh().LayoutFlag()));
            std::shared_ptr<const PreviewWarp> draft = solve(scene, draftMesh, true, draftSolver);
            lock.lock();
            Publish(std::move(draft));
            // A newer scene waits: this one is stale, its exact solve not needed.
            const bool stale = solveWanted_ != nullptr || stop_;
            if (stale) {
                solving_.reset();
                idle_.notify_all();
                continue;
            }
            lock.unlock();
        }
        std::shared_ptr<const PreviewWarp> warp = solve(scene, scene->locator, false, exactSolver);
        lock.lock();
        solving_.reset();
        Publish(std::move(warp));
        idle_.notify_all();
    }
}

void PPreview::Publish(std::shared_ptr<const PreviewWarp> warp) {
    if (warp->solved && !warp->draft)
        lastGood_ = warp;
    finished_ = std::move(warp);
    ++counters_.solves;
    renderWake_.notify_one();
}

void PPreview::RenderLoop() {
    Renderer renderer(source_, pictureWidth_, pictureHeight_, options_);
    std::optional<Job> job;
    // What was drawn as the held job's interim: its scene's draft, or the
    // last good warp for a change of view.
    std::shared_ptr<const PreviewWarp> interim;
    const auto newDraft = [&] {
        const std::shared_ptr<const PreviewWarp> warp = FinishedFor(*job);
        return warp && (!warp->draft || warp != interim);
    };
    std::unique_lock lock(mutex_);
    for (;;) {
        renderWake_.wait(lock, [&] { return stop_ || pending_ || (job && newDraft()); });
        if (stop_)
            return;
        if (pending_) {
            job = std::exchange(pending_, std::nullopt);
            jobHeld_ = true;
            interim.reset();
        }
        const Job current = *job;
        const std::shared_ptr<const PreviewWarp> warp =
            current.view.corrected ? FinishedFor(current) : nullptr;
        if (!current.view.corrected) {
            job.reset();
            lock.unlock();
            Draw(renderer, current, nullptr, true, false);
            lock.lock();
        } else if (warp && !warp->draft) {
            job.reset();
            const std::shared_ptr<const PreviewWarp> good = lastGood_;
            lock.unlock();
            if (warp->solved)
                Draw(renderer, current, warp, true, false);
            else
                Draw(renderer, current, good, false, true);
            lock.lock();
        } else {
            if (!warp && solving_ != current.scene && solveWanted_ != current.scene) {
                solveWanted_ = current.scene;
                solveWake_.notify_one();
            }
            // Meanwhile: the scene's draft, or for a change of view the last
            // good warp (the same view again would only repeat what is shown).
            std::shared_ptr<const PreviewWarp> show;
            if (warp) {
                if (warp != interim && warp->solved)
                    show = warp;
                interim = warp;
            } else if (!interim && lastGood_ &&
                       !(lastDelivered_ && *lastDelivered_ == current.view)) {
                show = interim = lastGood_;
            }
            if (show) {
                lock.unlock();
                Draw(renderer, current, show, false, false);
                lock.lock();
            }
        }
        if (!job && !pending_) {
            jobHeld_ = false;
            idle_.notify_all();
        }
    }
}

void PPreview::Draw(Renderer& renderer, const Job& job, std::shared_ptr<const PreviewWarp> warp,
                    bool current, bool failed) {
    PreviewResult result;
    result.id = job.id;
    result.view = job.view;
    result.current = current;
    result.solveFailed = failed;
    if (job.view.corrected)
        result.warp = warp;
    const Clock::time_point start = Clock::now();
    std::string failure;
    try {
        renderer.Draw(job.view, warp && job.view.corrected ? warp->mesh : nullptr, result);
        failure = renderer.Failure();
    } catch (const std::exception& e) {
        failure = e.what();
        result.rgba.assign(static_cast<size_t>(job.view.paneWidth) * job.view.paneHeight * 4, 0);
        result.meshLines.clear();
    }
    result.renderSeconds = SecondsSince(start);
    {
        std::lock_guard lock(mutex_);
        ++counters_.renders;
        gpuFailure_ = failure;
        if (job.id != nextId_) {
            ++counters_.dropped;
            return;
        }
        ++counters_.delivered;
        lastDelivered_ = job.view;
    }
    try {
        deliver_(std::move(result));
    } catch (...) {
        // The callback's own failure is not the preview's to handle.
    }
}

}  // namespace Project
