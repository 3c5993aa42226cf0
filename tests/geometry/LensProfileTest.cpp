#include <gtest/gtest.h>

#include <lensfun.h>

#include <cmath>
#include <cstdio>
#include <memory>
#include <ostream>
#include <string>

#include "geometry/LensProfile.h"
#include "geometry/LensfunConversion.h"
#include "geometry/ProjectionFactory.h"
#include "geometry/Projections.h"

namespace Project {
namespace {

constexpr uint32_t kWidth = 6000;
constexpr uint32_t kHeight = 4000;

struct LensCase {
    std::string name;
    std::string make;
    std::string model;
    std::string lens;
    float focal;
    float focal35;  // 0: the crop factor comes from the camera table
    LensCameraModel expected;
    // Largest distance allowed, in pixels of the 6000-pixel photo. Our two
    // forms are odd polynomials: lensfun's poly3 and poly5 models become odd
    // polynomials too and convert within half a pixel; the ptlens model has
    // even powers, which a rectilinear lens's four terms absorb to about half
    // a pixel but the fisheye form's three terms leave at a few pixels
    // (bounded here by 0.2 % of the long side).
    double tolerance;
};

void PrintTo(const LensCase& c, std::ostream* os) {
    *os << c.name;
}

std::vector<LensCase> lensCases() {
    return {
        {"EquisolidFisheyePtlens", "NIKON CORPORATION", "NIKON D90",
         "Nikon AF DX Fisheye-Nikkor 10.5mm f/2.8G ED", 10.5f, 15.0f, LensCameraModel::Fisheye,
         12.0},
        {"CircularFisheyeOnFullFrame", "Canon", "Canon EOS 5D Mark II",
         "Canon EF 8-15mm f/4L Fisheye USM", 8.0f, 0.0f, LensCameraModel::Fisheye, 12.0},
        {"FisheyeStoredAsRectilinear", "Canon", "Canon EOS 5D Mark II",
         "Canon EF 15mm f/2.8 Fisheye", 15.0f, 0.0f, LensCameraModel::Fisheye, 12.0},
        {"RectilinearPtlens", "NIKON CORPORATION", "NIKON D90",
         "Nikon AF-S DX Zoom-Nikkor 18-105mm f/3.5-5.6G ED VR", 18.0f, 27.0f,
         LensCameraModel::RadialDistortion, 0.5},
        {"EquisolidFisheyePoly3", "OLYMPUS IMAGING CORP.", "E-M1MarkII",
         "Olympus M.Zuiko Digital ED 8mm f/1.8 Fisheye Pro", 8.0f, 16.0f, LensCameraModel::Fisheye,
         0.5},
        {"RectilinearPoly3", "SONY", "DSLR-A700", "Sony AF DT 55-200mm f/4-5.6 SAM (SAL55200-2)",
         55.0f, 0.0f, LensCameraModel::RadialDistortion, 0.5},
    };
}

CameraMetadata camera(const std::string& make, const std::string& model, const std::string& lens,
                      float focal, float focal35 = 0.0f) {
    CameraMetadata m;
    m.make = make;
    m.model = model;
    m.lens = lens;
    m.focalLength = focal;
    m.focalLength35mm = focal35;
    return m;
}

CameraMetadata metadataFor(const LensCase& c) {
    CameraMetadata m = camera(c.make, c.model, c.lens, c.focal, c.focal35);
    m.imageWidth = kWidth;
    m.imageHeight = kHeight;
    return m;
}

struct LfDb {
    std::unique_ptr<lfDatabase, void (*)(lfDatabase*)> db{lf_db_new(), lf_db_destroy};
    LfDb() { EXPECT_TRUE(detail::loadLensfunDatabase(*db)); }
};

const lfLens* findLens(const lfDatabase& db, const std::string& model) {
    std::unique_ptr<const lfLens*[], void (*)(void*)> lenses(
        db.FindLenses(nullptr, nullptr, model.c_str()), lf_free);
    for (int i = 0; lenses && lenses[i] != nullptr; ++i)
        if (model == lenses[i]->Model)
            return lenses[i];  // the database's own name
    return nullptr;
}

class LensfunProfileTest : public ::testing::TestWithParam<LensCase> {
protected:
    static LfDb& Db() {
        static LfDb db;
        return db;
    }
};

// The profile, through the projection the session builds from it, lands
// every direction where lensfun's own modifier does: lensfun maps a pixel of
// an equirectangular view (a direction) to the photo, with its distortion
// and its lens-type geometry. The photo is 6000 x 4000.
TEST_P(LensfunProfileTest, ProfileReproducesLensfun) {
    const LensCase& c = GetParam();
    const CameraMetadata meta = metadataFor(c);
    const LensProfileLookupResult found = lensfunProfileLookup()->Find(meta, kWidth, kHeight);
    ASSERT_TRUE(found.profile.has_value()) << found.messageKey;
    EXPECT_TRUE(found.messageKey.empty());
    const LensProfile& profile = *found.profile;
    EXPECT_TRUE(profile.found);
    EXPECT_EQ(profile.cameraModel, c.expected) << profile.description;
    EXPECT_NE(profile.description.find(c.lens), std::string::npos) << profile.description;

    const float ratio = focalScaleRatio(meta.cropFactor(), profile);
    const auto projection =
        makeProjection(ProjectionModel::Auto, 0.0f, static_cast<int32_t>(kWidth),
                       static_cast<int32_t>(kHeight), meta, profile, ratio);
    ASSERT_TRUE(projection);

    const lfLens* stored = findLens(*Db().db, c.lens);
    ASSERT_NE(stored, nullptr);
    lfLens lens(*stored);
    // lensfun itself believes the stored type; our lookup corrects it.
    lens.Type = static_cast<lfLensType>(detail::effectiveLensType(*stored));
    const float crop = meta.cropFactor();
    ASSERT_GT(crop, 0.0f);
    const auto frame = detail::lensfunRadialModel(lens, c.focal, crop, kWidth, kHeight);
    ASSERT_TRUE(frame.has_value());

    lfModifier modifier(&lens, crop, static_cast<int>(kWidth), static_cast<int>(kHeight));
    const int applied =
        modifier.Initialize(&lens, LF_PF_F32, c.focal, 0.0f, 0.0f, 1.0f, LF_EQUIRECTANGULAR,
                            LF_MODIFY_DISTORTION | LF_MODIFY_GEOMETRY, false);
    ASSERT_EQ(applied, LF_MODIFY_DISTORTION | LF_MODIFY_GEOMETRY);

    // The near-axis scale is the focal length in pixels of the photo.
    const double fx =
        projection->ToImagePoint(1e-3f, 0.0f).x - projection->ToImagePoint(0.0f, 0.0f).x;
    const double nominal =
        c.focal * crop * std::hypot(double(kWidth), double(kHeight)) / std::hypot(36.0, 24.0);
    EXPECT_NEAR(fx / 1e-3 / nominal, 1.0, 0.05);

    const double halfW = kWidth / 2;
    const double halfH = kHeight / 2;
    const double scale = frame->dist * frame->pixelsPerUnit;  // pixels per radian of the view
    const auto lensfunAt = [&](double lambda, double phi, float out[2]) {
        const float in[2] = {static_cast<float>(halfW + frame->centreX + scale * lambda),
                             static_cast<float>(halfH + frame->centreY + scale * phi)};
        return modifier.ApplyGeometryDistortion(in[0], in[1], 1, 1, out);
    };
    // The lens's field on this photo: out from the axis until lensfun's image
    // radius reaches the farthest corner or stops growing (past that, a
    // folding distortion polynomial maps rays back into the frame).
    const double corner = std::hypot(halfW + 1.0, halfH + 1.0);
    double field = 0.0;
    for (double previous = -1.0; field < 1.5; field += 0.001) {
        float out[2];
        ASSERT_TRUE(lensfunAt(field, 0.0, out));
        const double r =
            std::hypot(out[0] - halfW - frame->centreX, out[1] - halfH - frame->centreY);
        if (r >= corner || r <= previous)
            break;
        previous = r;
    }
    double worst = 0.0;
    int compared = 0;
    const double step = field / 60.0;
    for (double lambda = -field; lambda <= field; lambda += step) {
        for (double phi = -field; phi <= field; phi += step) {
            if (std::acos(std::cos(lambda) * std::cos(phi)) > field)
                continue;
            float out[2];
            ASSERT_TRUE(lensfunAt(lambda, phi, out));
            // Only where lensfun lands on the photo.
            if (!(out[0] >= 0.0f && out[0] <= kWidth - 1.0f && out[1] >= 0.0f &&
                  out[1] <= kHeight - 1.0f))
                continue;
            const float l = static_cast<float>(lambda);
            const float p = static_cast<float>(phi);
            ASSERT_TRUE(projection->IsVisible(l, p));
            const ImagePoint q = projection->ToImagePoint(l, p);
            const double error = std::hypot(q.x + halfW - out[0], q.y + halfH - out[1]);
            worst = std::max(worst, error);
            ++compared;
        }
    }
    EXPECT_GT(compared, 1000);
    EXPECT_LT(worst, c.tolerance) << "largest distance in pixels over " << compared
                                  << " directions";
    std::printf("%s: largest distance %.3f pixels over %d directions\n", c.name.c_str(), worst,
                compared);
}

INSTANTIATE_TEST_SUITE_P(DatabaseLenses, LensfunProfileTest, ::testing::ValuesIn(lensCases()),
                         [](const ::testing::TestParamInfo<LensCase>& tpi) {
                             return tpi.param.name;
                         });

TEST(LensfunLookup, MatchingAndTheNoMatchKey) {
    CameraMetadata m = camera("NoSuchMaker", "NoSuchCamera 1", "", 24.0f);
    const LensProfileLookupResult r = lensfunProfileLookup()->Find(m, kWidth, kHeight);
    EXPECT_FALSE(r.profile.has_value());
    EXPECT_EQ(r.messageKey,
              "$$$/Curvana/LensProfileWarning/NoMatchedProfile=No matching lens profile found.");
    // A known lens without a focal length has nothing to interpolate at.
    m = camera("NIKON CORPORATION", "NIKON D90",
               "Nikon AF-S DX Zoom-Nikkor 18-105mm f/3.5-5.6G ED VR", 0.0f);
    EXPECT_FALSE(lensfunProfileLookup()->Find(m, kWidth, kHeight).profile.has_value());
    m.focalLength = 18.0f;
    EXPECT_FALSE(lensfunProfileLookup()->Find(m, 1, 1).profile.has_value());
    // A loosely written lens name still finds the lens.
    m.lens = "Nikkor 18-105mm VR";
    const auto loose = lensfunProfileLookup()->Find(m, kWidth, kHeight);
    ASSERT_TRUE(loose.profile.has_value());
    EXPECT_NE(loose.profile->description.find("18-105mm"), std::string::npos)
        << loose.profile->description;
    // A camera with a fixed lens needs no lens name.
    m = camera("Canon", "Canon PowerShot G12", "", 6.1f);
    const auto fixed = lensfunProfileLookup()->Find(m, 3648, 2736);
    ASSERT_TRUE(fixed.profile.has_value());
    EXPECT_EQ(fixed.profile->cameraModel, LensCameraModel::RadialDistortion);
}

TEST(LensfunLookup, ProfileOnAnotherSensorFormatScalesTheFocalLength) {
    // The 18-105 was calibrated at crop 1.534; on a photo whose metadata says
    // 1.5 the selection's check holds and the projection's focal length still
    // comes out as the photo's.
    // 52 / 35 = 1.486, snapped to 1.5.
    const CameraMetadata m =
        camera("NIKON CORPORATION", "NIKON D90",
               "Nikon AF-S DX Zoom-Nikkor 18-105mm f/3.5-5.6G ED VR", 35.0f, 52.0f);
    const auto r = lensfunProfileLookup()->Find(m, kWidth, kHeight);
    ASSERT_TRUE(r.profile.has_value());
    EXPECT_NEAR(r.profile->sensorFormatFactor, 1.534f, 1e-4f);
    EXPECT_TRUE(r.profile->matchedOtherSensorFormat);
    const float ratio = focalScaleRatio(m.cropFactor(), *r.profile);
    EXPECT_NEAR(ratio, 1.5f / 1.534f, 1e-5f);
    const double fx = double(r.profile->focalLengthX) * kWidth * ratio;
    EXPECT_NEAR(fx / (35.0 * 1.5 * std::hypot(6000.0, 4000.0) / std::hypot(36.0, 24.0)), 1.0, 0.02);
}

}  // namespace
}  // namespace Project
