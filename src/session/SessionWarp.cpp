#include "session/SessionWarp.h"

#include <algorithm>
#include <cstring>
#include <span>

#include "geometry/ProjectionFactory.h"
#include "session/PFilter.h"
#include "session/PPreview.h"
#include "session/SettingsCheck.h"

namespace Project {

namespace {

// The constraint file's view of a settings record being read from scripting
// parameters. The projection decision and the solver reset are not run here:
// the session decides the projection and rebuilds the warp right after the
// whole descriptor was read.
class ScriptConstraintContext final : public ConstraintFileContext {
public:
    ScriptConstraintContext(PFilter& filter, PSettings& settings)
        : filter_(filter), settings_(settings), rect_(filter.imageRect()) {}

    int32_t ImageWidth() const override { return rect_.Width(); }
    int32_t ImageHeight() const override { return rect_.Height(); }
    std::string CameraMake() const override { return filter_.cameraMetadata().make; }
    std::string CameraModel() const override { return filter_.cameraMetadata().model; }
    std::string LensModel() const override { return filter_.cameraMetadata().lens; }

    ConstraintFileSettings Settings() const override { return ConstraintFileSettingsOf(settings_); }
    void SetPhysicalFocal(float mm) override { settings_.physicalFocalLength = mm; }
    void SetCropFactor(float crop) override { settings_.cropFactor = crop; }
    void SetFocalLength(float pixels) override { settings_.focalLength = pixels; }
    void SetProjectionModel(ProjectionModel model) override { settings_.projectionModel = model; }
    void SetRegularizerModel(RegularizerModel model) override {
        settings_.regularizerModel = model;
    }
    void SetScale(int32_t scale) override { settings_.scale = scale; }
    void SetOffsets(float x, float y) override {
        settings_.offsetX = x;
        settings_.offsetY = y;
    }
    void ChooseProjection(ProjectionModel) override {}
    void SettingsChanged() override {}
    std::string CheckSettings(const ConstraintFileSettings& file) const override {
        PSettings s = settings_;
        s.physicalFocalLength = file.physicalFocal;
        s.cropFactor = file.cropFactor;
        s.focalLength = file.focalLength;
        s.scale = file.scale;
        s.offsetX = file.offsetX;
        s.offsetY = file.offsetY;
        return Project::CheckSettings(s);
    }

private:
    PFilter& filter_;
    PSettings& settings_;
    ImageRect rect_;
};

// The writer's view: the live settings and the invocation's image.
class LiveConstraintContext final : public ConstraintFileContext {
public:
    explicit LiveConstraintContext(PFilter& filter) : inner_(filter, filter.settings()) {}
    int32_t ImageWidth() const override { return inner_.ImageWidth(); }
    int32_t ImageHeight() const override { return inner_.ImageHeight(); }
    std::string CameraMake() const override { return inner_.CameraMake(); }
    std::string CameraModel() const override { return inner_.CameraModel(); }
    std::string LensModel() const override { return inner_.LensModel(); }
    ConstraintFileSettings Settings() const override { return inner_.Settings(); }
    void SetPhysicalFocal(float) override {}
    void SetCropFactor(float) override {}
    void SetFocalLength(float) override {}
    void SetProjectionModel(ProjectionModel) override {}
    void SetRegularizerModel(RegularizerModel) override {}
    void SetScale(int32_t) override {}
    void SetOffsets(float, float) override {}
    void ChooseProjection(ProjectionModel) override {}
    void SettingsChanged() override {}

private:
    ScriptConstraintContext inner_;
};

// The closed form the solver pulls towards for the user's choice.
//
// Auto builds the stereographic form, as the closed-form construction does
// for every code that names no form. Auto used to start from Panini and rely
// on the wide-field fallback, but a fisheye or rectilinear photo is valid over
// its whole front hemisphere, so the field check always sees 180 degrees and
// the fallback always fired: Auto ended stereographic anyway, after a wasted
// first build. Stereographic is conformal and finite over that hemisphere,
// which is why it is the safe automatic choice; Mercator and Panini are the
// user's to name.
RegularizerModel closedFormFor(RegularizerModel model) {
    switch (model) {
        case RegularizerModel::Mercator:
        case RegularizerModel::Panini:
        case RegularizerModel::Equirectangular:
            return model;
        default:
            return RegularizerModel::Stereographic;
    }
}

// The projection under the live settings. The projection decision never
// leaves a model that builds nothing (Auto without panorama metadata keeps
// only a profile one of the two profile projections takes); the fisheye
// below only guards the solver against a null projection.
std::shared_ptr<const PhotoToSphere> sessionProjection(PFilter& filter) {
    const PSettings& s = filter.settings();
    const ImageRect rect = filter.imageRect();
    std::shared_ptr<const PhotoToSphere> photo =
        makeProjection(s.projectionModel, s.focalLength, rect.Width(), rect.Height(),
                       filter.cameraMetadata(), filter.lensProfile(), filter.lensFocalScaleRatio());
    if (!photo)
        photo = makeProjection(ProjectionModel::Fisheye, s.focalLength, rect.Width(), rect.Height(),
                               filter.cameraMetadata(), std::nullopt, 1.0f);
    return photo;
}

}  // namespace

// --- SessionConstraintData -------------------------------------------------

SessionConstraintData::SessionConstraintData(PFilter& filter, std::shared_ptr<ConstraintSet> set)
    : filter_(filter), set_(std::move(set)) {}

bool SessionConstraintData::Parse(const uint8_t* data, size_t size, PSettings& settings) {
    ScriptConstraintContext context(filter_, settings);
    const bool ok = readConstraintData(*set_, context, std::span<const uint8_t>(data, size));
    failure_ = ok ? std::string() : set_->Message();
    unread_ = ok ? set_->UnreadRecords() : 0;
    return ok;
}

size_t SessionConstraintData::SerializedSize() const {
    if (set_->Empty())
        return 0;
    LiveConstraintContext context(filter_);
    return static_cast<size_t>(constraintDataSize(*set_, context));
}

void SessionConstraintData::Serialize(uint8_t* out) const {
    LiveConstraintContext context(filter_);
    const std::vector<uint8_t> bytes = makeConstraintData(*set_, context);
    if (!bytes.empty())
        std::memcpy(out, bytes.data(), bytes.size());
}

// --- MeshWarpPipeline ------------------------------------------------------

SolverSettings solverSettingsFrom(const PSettings& s) {
    SolverSettings out;
    out.meshLevel = s.meshLevel;
    out.meshLayoutFlag = s.solverFlags[0] != 0;
    out.boundaryOnly = s.solverFlags[1] != 0;
    out.regulariserWeight = s.regularizerWeight;
    out.iterationCount = s.iterationCount;
    out.modeValue = s.modeValue;
    out.lineWeight = s.lineWeight;
    out.shapeWeight = s.shapeWeight;
    out.smoothnessWeight = s.smoothnessWeight;
    out.projectionModel = s.projectionModel;
    out.regulariserCode = closedFormFor(s.regularizerModel);
    out.storedRegulariserChoice = s.regularizerModel;
    // A named closed form in the settings was named by someone: the user in
    // the editor or its preferences, a descriptor's "regM" or a constraint
    // file (the factory value is Auto, and the solver no longer rewrites the
    // choice). So it is honoured whatever the field; only Auto falls back to
    // stereographic for a wide field.
    out.explicitRegulariserChoice = s.regularizerModel != RegularizerModel::Auto;
    return out;
}

TextureBox ContentBoxOf(const SphereWarp& warp, const PhotoToSphere& photo) {
    const auto* solver = dynamic_cast<const IterativeWarpSolver*>(&warp);
    // QueryFlag6 is false exactly for the cylindrical and spherical models.
    if (!solver || !solver->TwoPass() || photo.QueryFlag6())
        return {};
    const AngleRange lat = solver->LatitudeRange();
    const AngleRange lon = solver->LongitudeRange();
    float u0 = 0.0f, u1 = 1.0f, v0 = 0.0f, v1 = 1.0f, ignored = 0.0f;
    PhotoTexture(photo, lon.first, 0.0f, u0, ignored);
    PhotoTexture(photo, lon.second, 0.0f, u1, ignored);
    PhotoTexture(photo, 0.0f, lat.first, ignored, v0);
    PhotoTexture(photo, 0.0f, lat.second, ignored, v1);
    TextureBox box;
    box.u0 = std::clamp(std::min(u0, u1), 0.0f, 1.0f);
    box.u1 = std::clamp(std::max(u0, u1), 0.0f, 1.0f);
    box.v0 = std::clamp(std::min(v0, v1), 0.0f, 1.0f);
    box.v1 = std::clamp(std::max(v0, v1), 0.0f, 1.0f);
    return box;
}

MeshWarpPipeline::MeshWarpPipeline(std::shared_ptr<ConstraintSet> set) : set_(std::move(set)) {}

void MeshWarpPipeline::EnsureMesh(const PSettings& s) {
    const bool layout = s.solverFlags[0] != 0;
    if (!mesh_ || mesh_->Level() != s.meshLevel || mesh_->LayoutFlag() != layout) {
        mesh_ = std::make_shared<const OctaMap>(s.meshLevel, layout);
        locator_ = std::make_shared<const MeshLocator>(mesh_);
    }
}

void MeshWarpPipeline::RebuildSolver(PFilter& filter) {
    const PSettings& s = filter.settings();
    solved_ = false;
    EnsureMesh(s);
    photo_ = sessionProjection(filter);
    lines_ = std::make_shared<GeodesicLines>(photo_, locator_);
    const FitFailures failed = lines_->FitAll(*set_);
    lastFit_ = {static_cast<uint32_t>(set_->Size()), failed.lines, failed.planes};
    solver_ = std::make_unique<Solver>(mesh_, photo_, lines_, solverSettingsFrom(s));
}

std::shared_ptr<const PreviewScene> MeshWarpPipeline::CapturePreviewScene(PFilter& filter) {
    const PSettings& s = filter.settings();
    EnsureMesh(s);
    auto scene = std::make_shared<PreviewScene>();
    if (!scenePhoto_.photo || scenePhoto_.model != s.projectionModel ||
        scenePhoto_.focalLength != s.focalLength ||
        scenePhoto_.focalScaleRatio != filter.lensFocalScaleRatio())
        scenePhoto_ = {sessionProjection(filter), s.projectionModel, s.focalLength,
                       filter.lensFocalScaleRatio()};
    scene->photo = scenePhoto_.photo;
    scene->locator = locator_;
    auto copy = std::make_shared<ConstraintSet>();
    for (const auto& constraint : set_->Constraints())
        copy->Add(constraint->Clone());
    scene->constraints = std::move(copy);
    scene->solver = solverSettingsFrom(s);
    return scene;
}

void MeshWarpPipeline::Solve(PFilter& filter) {
    if (!solver_)
        RebuildSolver(filter);
    solved_ = solver_->Run();
    if (solver_->FellBack()) {
        // The field was too wide for the chosen closed form: the settings
        // keep the stereographic choice the solver fell back to.
        filter.settings().regularizerModel = solver_->StoredRegulariserChoice();
    }
}

std::shared_ptr<const SphereWarp> MeshWarpPipeline::SolvedWarp() const {
    if (!solved_ || !solver_ || !solver_->Warp() || !solver_->Warp()->IsSolved())
        return nullptr;
    return solver_->Warp();
}

}  // namespace Project
