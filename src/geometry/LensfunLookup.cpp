#include <lensfun.h>

#include <Eigen/Dense>
#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "geometry/LensProfile.h"
#include "geometry/LensfunConversion.h"

namespace Project {

namespace detail {

namespace {

constexpr double kThobyK1 = 1.47;
constexpr double kThobyK2 = 0.713;
// Rays are followed up to this angle from the axis (about 88.8 degrees): the
// profile models see nothing at or beyond 90 degrees.
constexpr double kMaxTheta = 1.55;

std::string lower(const char* s) {
    std::string out = s != nullptr ? s : "";
    std::transform(out.begin(), out.end(), out.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return out;
}

// lensfun's correction of the focal length for the two models whose
// paraxial magnification is not 1 (1 - k1, 1 - a - b - c).
double paraxialScale(const lfLensCalibDistortion& d) {
    if (d.Model == LF_DIST_MODEL_POLY3)
        return 1.0 - d.Terms[0];
    if (d.Model == LF_DIST_MODEL_PTLENS)
        return 1.0 - d.Terms[0] - d.Terms[1] - d.Terms[2];
    return 1.0;
}

}  // namespace

bool LensfunRadialModel::isFisheye() const {
    return lensType != LF_RECTILINEAR;
}

double LensfunRadialModel::radius(double theta) const {
    double g = 0.0;
    switch (lensType) {
        case LF_RECTILINEAR:
            g = std::tan(theta);
            break;
        case LF_FISHEYE:
            g = theta;
            break;
        case LF_FISHEYE_EQUISOLID:
            g = 2.0 * std::sin(theta / 2.0);
            break;
        case LF_FISHEYE_ORTHOGRAPHIC:
            g = std::sin(theta);
            break;
        case LF_FISHEYE_STEREOGRAPHIC:
            g = 2.0 * std::tan(theta / 2.0);
            break;
        case LF_FISHEYE_THOBY:
            g = kThobyK1 * std::sin(kThobyK2 * theta);
            break;
        default:
            return 0.0;
    }
    const double ru = dist * g;
    double factor = 1.0;
    switch (distortionModel) {
        case LF_DIST_MODEL_POLY3:
            factor = 1.0 - terms[0] + terms[0] * ru * ru;
            break;
        case LF_DIST_MODEL_POLY5:
            factor = 1.0 + terms[0] * ru * ru + terms[1] * ru * ru * ru * ru;
            break;
        case LF_DIST_MODEL_PTLENS:
            factor = ((terms[0] * ru + terms[1]) * ru + terms[2]) * ru + 1.0 - terms[0] - terms[1] -
                     terms[2];
            break;
        default:
            break;
    }
    return ru * factor * pixelsPerUnit;
}

int effectiveLensType(const lfLens& lens) {
    if (lens.Type == LF_RECTILINEAR || lens.Type == LF_UNKNOWN) {
        // Every language's name: the words may appear in any of them.
        std::string name;
        for (const char* part = lens.Model; part != nullptr && *part != '\0';
             part += std::strlen(part) + 1)
            name += lower(part) + " ";
        for (const char* word : {"fisheye", "fish-eye", "fish eye"})
            if (name.find(word) != std::string::npos)
                return LF_FISHEYE;
    }
    return lens.Type;
}

std::optional<LensfunRadialModel> lensfunRadialModel(const lfLens& lens, float focalMm,
                                                     float cameraCrop, uint32_t width,
                                                     uint32_t height) {
    LensfunRadialModel m;
    m.lensType = effectiveLensType(lens);
    switch (m.lensType) {
        case LF_RECTILINEAR:
        case LF_FISHEYE:
        case LF_FISHEYE_EQUISOLID:
        case LF_FISHEYE_ORTHOGRAPHIC:
        case LF_FISHEYE_STEREOGRAPHIC:
        case LF_FISHEYE_THOBY:
            break;
        default:
            return std::nullopt;  // panoramic, equirectangular, unknown: no lens model of ours
    }
    if (!(focalMm > 0.0f) || !(cameraCrop > 0.0f) || !(lens.CropFactor > 0.0f) || width < 2 ||
        height < 2)
        return std::nullopt;
    lfLensCalibDistortion d{};
    if (!lens.InterpolateDistortion(focalMm, d))
        return std::nullopt;
    m.distortionModel = d.Model;
    for (int i = 0; i < 3; ++i)
        m.terms[i] = d.Terms[i];

    // lensfun's normalised frame: one unit is the half-diagonal of the
    // photo's pixel grid (pixel centres, so (W - 1, H - 1)) divided by
    // sqrt(A^2 + 1) for the calibration aspect ratio A, scaled by the ratio
    // of the crop factors (lensfun compares sensors on the diagonal). Its
    // origin is the centre of the pixel grid, ((W - 1) / 2, (H - 1) / 2),
    // shifted by the lens's calibrated centre. (Measured against lensfun's
    // modifier; its sources of other versions normalise by the shorter side.)
    const double w = width;
    const double h = height;
    const double lensAspect = lens.AspectRatio > 0.0f ? lens.AspectRatio : 1.5;
    const double aspectCorrection = std::sqrt(lensAspect * lensAspect + 1.0);
    m.pixelsPerUnit =
        std::hypot(w - 1.0, h - 1.0) / 2.0 / aspectCorrection * cameraCrop / lens.CropFactor;
    const double normalisedInMm =
        std::sqrt(36.0 * 36.0 + 24.0 * 24.0) / 2.0 / aspectCorrection / lens.CropFactor;

    // The focal length lensfun's projections use: the measured real focal
    // length when the calibration has one (undoing the paraxial scale), else
    // the nominal one. (Field-of-view calibrations are not used: lensfun
    // deprecates them and its database carries none.)
    double focal = focalMm;
    lfLensCalibRealFocal real{};
    if (lens.InterpolateRealFocal(focalMm, real) && real.RealFocal > 0.0f)
        focal = real.RealFocal / paraxialScale(d);
    m.dist = focal / normalisedInMm;

    // The distortion centre as an image point from (floor(W / 2), floor(H / 2)).
    // NOLINTNEXTLINE(bugprone-integer-division): floor(W / 2) on purpose
    m.centreX = (w - 1.0) / 2.0 + lens.CenterX * m.pixelsPerUnit - static_cast<double>(width / 2);
    // NOLINTNEXTLINE(bugprone-integer-division): floor(W / 2) on purpose
    m.centreY = (h - 1.0) / 2.0 + lens.CenterY * m.pixelsPerUnit - static_cast<double>(height / 2);
    if (!std::isfinite(m.dist) || !(m.dist > 0.0) || !std::isfinite(m.pixelsPerUnit))
        return std::nullopt;
    return m;
}

namespace {

// The field to fit: rays from the axis out to the one that lands on the image
// corner farthest from the distortion centre, or to where the lens's radius
// stops growing (a fold), or to kMaxTheta. Radians.
double FieldToFit(const LensfunRadialModel& model, uint32_t width, uint32_t height) {
    // NOLINTNEXTLINE(bugprone-integer-division): floor(W / 2) on purpose
    const double halfW = static_cast<double>(width / 2);
    // NOLINTNEXTLINE(bugprone-integer-division): floor(W / 2) on purpose
    const double halfH = static_cast<double>(height / 2);
    double farthest = 0.0;
    for (double cx : {-halfW, static_cast<double>(width) - 1.0 - halfW})
        for (double cy : {-halfH, static_cast<double>(height) - 1.0 - halfH})
            farthest = std::max(farthest, std::hypot(cx - model.centreX, cy - model.centreY));

    constexpr int kScan = 2000;
    double previous = 0.0;
    for (int i = 1; i <= kScan; ++i) {
        const double theta = kMaxTheta * i / kScan;
        const double r = model.radius(theta);
        if (!std::isfinite(r) || r <= previous)  // folded: the field ends before it
            return kMaxTheta * (i - 1) / kScan;
        if (r >= farthest) {
            // Bisect between the previous step and this one.
            double lo = kMaxTheta * (i - 1) / kScan;
            double hi = theta;
            for (int k = 0; k < 40; ++k) {
                const double mid = 0.5 * (lo + hi);
                (model.radius(mid) < farthest ? lo : hi) = mid;
            }
            return hi;
        }
        previous = r;
    }
    return kMaxTheta;
}

// The polynomial coefficients (of t, t^3, t^5 [, t^7]; the rest 0) that
// follow the lens over the field, 256 evenly spaced field positions t in
// (0, tMax]: t = theta for a fisheye, t = tan(theta) (the pinhole radius) for
// a rectilinear lens. The fit compares lensfun's radius with ours, fx (t + k1
// t^3 + k2 t^5) for the fisheye form and fx (t + k1 t^3 + k2 t^5 + k3 t^7)
// for the radial (Brown-Conrady) form, in pixels, with fx free: the problem
// is linear in (fx, fx k1, fx k2 [, fx k3]). Tangential terms stay 0
// (lensfun's models are radially symmetric). It minimises the largest error:
// a least-squares solution refined by Lawson's reweighting, which converges
// to the minimax one. (Poly3 and poly5 become odd polynomials that the forms
// hold almost exactly; the ptlens model's even powers cannot be held by them
// and leave a residual.) t is scaled to [0, 1] for conditioning.
std::optional<std::array<double, 4>> FitOddPolynomial(const LensfunRadialModel& model,
                                                      double thetaMax) {
    const bool fisheye = model.isFisheye();
    const int terms = fisheye ? 3 : 4;
    const double tMax = fisheye ? thetaMax : std::tan(thetaMax);
    constexpr int kSamples = 256;
    Eigen::MatrixXd a(kSamples, terms);
    Eigen::VectorXd b(kSamples);
    for (int i = 0; i < kSamples; ++i) {
        const double s = static_cast<double>(i + 1) / kSamples;  // t / tMax
        const double t = s * tMax;
        const double theta = fisheye ? t : std::atan(t);
        double power = s;
        for (int j = 0; j < terms; ++j) {
            a(i, j) = power;
            power *= s * s;
        }
        b(i) = model.radius(theta);
    }
    Eigen::VectorXd weights = Eigen::VectorXd::Constant(kSamples, 1.0 / kSamples);
    Eigen::VectorXd c;
    double bestError = std::numeric_limits<double>::infinity();
    for (int iteration = 0; iteration < 60; ++iteration) {
        const Eigen::VectorXd root = weights.cwiseSqrt();
        const Eigen::VectorXd trial =
            (root.asDiagonal() * a).colPivHouseholderQr().solve(root.asDiagonal() * b);
        const Eigen::VectorXd error = (a * trial - b).cwiseAbs();
        if (!error.allFinite())
            break;
        if (error.maxCoeff() < bestError) {
            bestError = error.maxCoeff();
            c = trial;
        }
        weights = weights.cwiseProduct(error);
        const double sum = weights.sum();
        if (!(sum > 0.0))
            break;
        weights /= sum;
    }
    if (c.size() != terms)
        return std::nullopt;
    // Undo the scaling: c_j s^(2j+1) = (c_j / tMax^(2j+1)) t^(2j+1).
    std::array<double, 4> coeff = {0, 0, 0, 0};
    for (int j = 0; j < terms; ++j)
        coeff[static_cast<size_t>(j)] = c(j) / std::pow(tMax, 2 * j + 1);
    return coeff;
}

}  // namespace

std::optional<LensProfile> profileFromRadialModel(const LensfunRadialModel& model, float lensCrop,
                                                  float cameraCrop, float metadataCrop,
                                                  uint32_t width, uint32_t height) {
    const double thetaMax = FieldToFit(model, width, height);
    if (!(thetaMax > 0.01))
        return std::nullopt;
    const auto coeff = FitOddPolynomial(model, thetaMax);
    if (!coeff)
        return std::nullopt;
    const double fx = (*coeff)[0];
    if (!std::isfinite(fx) || !(fx > 0.0))
        return std::nullopt;

    const bool fisheye = model.isFisheye();
    LensProfile p;
    p.found = true;
    p.cameraModel = fisheye ? LensCameraModel::Fisheye : LensCameraModel::RadialDistortion;
    p.k1 = static_cast<float>((*coeff)[1] / fx);
    p.k2 = static_cast<float>((*coeff)[2] / fx);
    p.k3 = static_cast<float>((*coeff)[3] / fx);
    p.sensorFormatFactor = lensCrop;
    // lensfun's calibrations belong to a lens, measured on some body: never
    // known to be the photo's own.
    p.matchedOtherCamera = true;
    p.matchedOtherSensorFormat = std::fabs(cameraCrop - lensCrop) > 0.01f;

    const double S = std::max(width, height);
    const double ratio = focalScaleRatio(metadataCrop, p);
    p.focalLengthX = static_cast<float>(fx / (S * ratio));
    p.focalLengthY = p.focalLengthX;
    // The fisheye model adds its centre offsets, the radial model subtracts
    // them: place lensfun's distortion centre accordingly.
    if (fisheye) {
        p.imageXCenter = static_cast<float>(0.5 + model.centreX / S);
        p.imageYCenter = static_cast<float>(0.5 - model.centreY / S);
    } else {
        p.imageXCenter = static_cast<float>(0.5 - model.centreX / S);
        p.imageYCenter = static_cast<float>(0.5 + model.centreY / S);
    }
    return p;
}

}  // namespace detail

namespace {

struct LfFree {
    void operator()(const void* p) const { lf_free(const_cast<void*>(p)); }
};
template <typename T>
using LfList = std::unique_ptr<const T*[], LfFree>;

struct LfDatabaseDeleter {
    void operator()(lfDatabase* db) const { lf_db_destroy(db); }
};

// The timestamp of a database folder: -1 when it does not exist, 0 when it
// has no readable timestamp.txt.
long readTimestamp(const std::filesystem::path& dir) {
    std::error_code ec;
    if (dir.empty() || !std::filesystem::is_directory(dir, ec))
        return -1;
    std::ifstream in(dir / "timestamp.txt");
    long stamp = 0;
    if (!(in >> stamp))
        return 0;
    return stamp;
}

// lensfun 0.3's own Load() leaks the name of its system-updates folder on
// every call. This makes the same choice without it: the newest of the
// installed database, the system updates and the user's updates (by their
// timestamps), then the user's own additions on top.
bool loadSystemDatabase(lfDatabase& db) {
    const std::filesystem::path installed =
        std::filesystem::path(CURVANA_LENSFUN_DATADIR) / "lensfun" / "version_1";
    const std::filesystem::path systemUpdates = "/var/lib/lensfun-updates/version_1";
    const std::filesystem::path userUpdates = db.UserUpdatesDir != nullptr ? db.UserUpdatesDir : "";
    const long tInstalled = readTimestamp(installed);
    const long tSystemUpdates = readTimestamp(systemUpdates);
    const long tUserUpdates = readTimestamp(userUpdates);
    const std::filesystem::path* chosen = nullptr;
    if (tInstalled > tSystemUpdates)
        chosen = tUserUpdates > tInstalled ? &userUpdates : &installed;
    else
        chosen = tUserUpdates > tSystemUpdates ? &userUpdates : &systemUpdates;
    bool found = db.LoadDirectory(chosen->c_str());
    if (db.HomeDataDir != nullptr)
        found |= db.LoadDirectory(db.HomeDataDir);
    return found;
}

class LensfunLookup final : public LensProfileLookup {
public:
    LensfunLookup() : db_(lf_db_new()) {
        if (db_ && !loadSystemDatabase(*db_))
            db_.reset();
    }

    LensProfileLookupResult Find(const CameraMetadata& metadata, uint32_t width,
                                 uint32_t height) const override {
        LensProfileLookupResult fail{std::nullopt, std::string(kNoMatchedProfileKey)};
        if (!db_ || width < 2 || height < 2)
            return fail;
        const std::lock_guard<std::mutex> lock(mutex_);

        const lfCamera* camera = nullptr;
        LfList<lfCamera> cameras;
        if (!metadata.make.empty() || !metadata.model.empty()) {
            cameras.reset(
                db_->FindCamerasExt(metadata.make.empty() ? nullptr : metadata.make.c_str(),
                                    metadata.model.empty() ? nullptr : metadata.model.c_str()));
            if (cameras && cameras[0] != nullptr)
                camera = cameras[0];
        }

        LfList<lfLens> lenses;
        if (!metadata.lens.empty())
            lenses.reset(db_->FindLenses(camera, nullptr, metadata.lens.c_str()));
        if ((!lenses || lenses[0] == nullptr) && camera != nullptr) {
            // A fixed-lens camera: its mount admits exactly one lens.
            lenses.reset(db_->FindLenses(camera, nullptr, nullptr));
            if (lenses && lenses[0] != nullptr && lenses[1] != nullptr)
                lenses.reset();
        }
        if (!lenses || lenses[0] == nullptr)
            return fail;

        float focal = metadata.focalLength;
        // Prefer the best-scored lens whose focal range holds the photo's focal length.
        const lfLens* lens = lenses[0];
        for (int i = 0; lenses[i] != nullptr; ++i) {
            const lfLens* l = lenses[i];
            if (!(focal > 0.0f) || l->MinFocal <= 0.0f ||
                (focal >= l->MinFocal - 0.5f && focal <= l->MaxFocal + 0.5f)) {
                lens = l;
                break;
            }
        }
        if (!(focal > 0.0f) && lens->MinFocal > 0.0f && lens->MinFocal == lens->MaxFocal)
            focal = lens->MinFocal;
        if (!(focal > 0.0f))
            return fail;

        const float metadataCrop = metadata.cropFactor();
        float crop = metadataCrop;
        if (!(crop > 0.0f) && camera != nullptr)
            crop = camera->CropFactor;
        if (!(crop > 0.0f))
            crop = lens->CropFactor;

        const auto model = detail::lensfunRadialModel(*lens, focal, crop, width, height);
        if (!model)
            return fail;
        auto profile = detail::profileFromRadialModel(*model, lens->CropFactor, crop, metadataCrop,
                                                      width, height);
        if (!profile)
            return fail;
        // The database's own names (the first of each multi-language string), not a translation.
        profile->description = std::string(lens->Maker != nullptr ? lens->Maker : "") + " " +
                               (lens->Model != nullptr ? lens->Model : "");
        return {std::move(profile), std::string()};
    }

private:
    std::unique_ptr<lfDatabase, LfDatabaseDeleter> db_;
    mutable std::mutex mutex_;
};

}  // namespace

bool detail::loadLensfunDatabase(lfDatabase& db) {
    return loadSystemDatabase(db);
}

std::shared_ptr<const LensProfileLookup> lensfunProfileLookup() {
    static const std::shared_ptr<const LensProfileLookup> instance =
        std::make_shared<LensfunLookup>();
    return instance;
}

}  // namespace Project
