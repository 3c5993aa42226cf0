// The correction's geometry end to end, through the curvana binary and the
// real filter module: the closed form the user names is the one drawn, and
// matches an independent render of it; the empty border is the same black in
// every image mode; crop to content leaves none; a full spherical panorama
// keeps the closed form with straight, smooth edges.
//
// Geometry is read off coordinate photographs: 16-bit pictures whose red and
// green values are their own column and row, so every output pixel tells
// where in the source it was sampled, to a small fraction of a pixel.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <numbers>
#include <optional>
#include <tuple>

#include "RealModuleTest.h"
#include "curvana/CurvanaScripting.h"
#include "host/ApplyDescriptor.h"
#include "host/ImageFiles.h"
#include "samplegen/SampleFiles.h"
#include "samplegen/SampleScene.h"

namespace Curvana::Host::Test {
namespace {

using SampleGen::Point;
using SampleGen::Vec3;

// Source position of the coordinate photograph: pixel k's value is
// (k + 0.5) * scale, so a bilinear sample at pixel-centre coordinate c reads
// (c + 0.5) * scale. The blue plane is full everywhere: it marks coverage.
struct CoordinatePhoto {
    int32_t width = 0, height = 0;
    double scaleX = 0, scaleY = 0;

    CoordinatePhoto(int32_t w, int32_t h) : width(w), height(h) {
        scaleX = 32000.0 / w;
        scaleY = 32000.0 / h;
    }
    void write(const fs::path& path) const {
        Raster r = Raster::allocate(ImageInfo{width, height, Mode::RGB, 16});
        auto* p = reinterpret_cast<uint16_t*>(r.data.data());
        for (int32_t y = 0; y < height; ++y)
            for (int32_t x = 0; x < width; ++x, p += 3) {
                p[0] = static_cast<uint16_t>(std::lround((x + 0.5) * scaleX));
                p[1] = static_cast<uint16_t>(std::lround((y + 0.5) * scaleY));
                p[2] = 32768;
            }
        writePng(path, r, {});
    }
    // The source pixel-centre coordinate an output pixel sampled, when covered.
    std::optional<Point> sampled(const Raster& out, int32_t x, int32_t y) const {
        const auto* p = reinterpret_cast<const uint16_t*>(out.row(y)) + 3 * x;
        if (p[2] < 32000)
            return std::nullopt;
        return Point{p[0] / scaleX - 0.5, p[1] / scaleY - 0.5};
    }
};

// Direction (x right, y down, z forward) of a point of a closed form's plane
// (y downwards, like the photo's rows); nullopt outside the form's range.
using InverseForm = std::function<std::optional<Vec3>(double x, double y)>;
using ForwardForm = std::function<Point(const Vec3&)>;

Vec3 fromAngles(double lambda, double phi) {
    return {std::sin(lambda) * std::cos(phi), std::sin(phi), std::cos(lambda) * std::cos(phi)};
}
double lambdaOf(const Vec3& d) {
    return std::atan2(d[0], d[2]);
}
double phiOf(const Vec3& d) {
    return std::asin(std::clamp(d[1], -1.0, 1.0));
}

struct ClosedForm {
    const char* name;
    uint32_t code;  // as recorded
    ForwardForm forward;
    InverseForm inverse;
};

ClosedForm stereographic() {
    return {"stereographic", cvRegularizerStereographic,
            [](const Vec3& d) {
                const double k = 2.0 / (1.0 + d[2]);
                return Point{k * d[0], k * d[1]};
            },
            [](double x, double y) -> std::optional<Vec3> {
                const double rho = std::hypot(x, y);
                if (rho < 1e-12)
                    return Vec3{0, 0, 1};
                const double c = 2.0 * std::atan(rho / 2.0);
                return Vec3{std::sin(c) * x / rho, std::sin(c) * y / rho, std::cos(c)};
            }};
}

ClosedForm mercator() {
    return {"mercator", cvRegularizerMercator,
            [](const Vec3& d) {
                return Point{lambdaOf(d), std::log(std::tan(std::numbers::pi / 4 + phiOf(d) / 2))};
            },
            [](double x, double y) -> std::optional<Vec3> {
                if (std::abs(x) >= std::numbers::pi)
                    return std::nullopt;
                return fromAngles(x, 2.0 * std::atan(std::exp(y)) - std::numbers::pi / 2);
            }};
}

ClosedForm panini() {
    // The general form with distance 1.001: x = m sin(lambda), y = m tan(phi),
    // m = 2.001 / (1.001 + cos(lambda)); x grows with lambda over the front.
    auto m = [](double lambda) { return 2.001 / (1.001 + std::cos(lambda)); };
    return {"panini", cvRegularizerPanini,
            [m](const Vec3& d) {
                const double l = lambdaOf(d);
                return Point{m(l) * std::sin(l), m(l) * std::tan(phiOf(d))};
            },
            [m](double x, double y) -> std::optional<Vec3> {
                double lo = -2.5, hi = 2.5;
                for (int k = 0; k < 80; ++k) {
                    const double mid = 0.5 * (lo + hi);
                    (m(mid) * std::sin(mid) < x ? lo : hi) = mid;
                }
                const double l = 0.5 * (lo + hi);
                return fromAngles(l, std::atan(y / m(l)));
            }};
}

// The output frame of a picture of width x height pixels showing a plane
// region of the given bounds at a scale (percent), centred: the fit frame
// divided by the scale. Pixel (x, y) -> plane point at its centre.
struct Frame {
    double left = 0, top = 0, unit = 0;  // top: smallest y (the plane's y runs down here)
    Frame(double minX, double maxX, double minY, double maxY, int32_t w, int32_t h, double scale) {
        const double aspect = static_cast<double>(w) / h;
        const double ew = maxX - minX, eh = maxY - minY;
        const double fw = std::max(ew, eh * aspect) / (scale / 100.0);
        const double fh = fw / aspect;
        left = minX + 0.5 * (ew - fw);
        top = minY + 0.5 * (eh - fh);
        unit = fw / w;
    }
    Point plane(int32_t x, int32_t y) const {
        return {left + (x + 0.5) * unit, top + (y + 0.5) * unit};
    }
};

// Root mean square, in output pixels, of where the output sampled the source
// against where the reference says it should, over the covered pixels whose
// reference position lies inside the source by a margin. reference: output
// pixel -> source pixel-centre coordinate.
struct Mismatch {
    double rms = 0;
    size_t pixels = 0;
};
Mismatch mismatch(const Raster& out, const CoordinatePhoto& photo,
                  const std::function<std::optional<Point>(double x, double y)>& reference) {
    double sum = 0;
    size_t n = 0;
    const int32_t w = out.info.width, h = out.info.height;
    auto inside = [&](const Point& p) {
        return p.x > 2 && p.y > 2 && p.x < photo.width - 3 && p.y < photo.height - 3;
    };
    for (int32_t y = 2; y + 2 < h; ++y)
        for (int32_t x = 2; x + 2 < w; ++x) {
            const auto got = photo.sampled(out, x, y);
            const auto want = reference(x, y);
            const auto wantX = reference(x + 1, y);
            const auto wantY = reference(x, y + 1);
            if (!got || !want || !wantX || !wantY || !inside(*want))
                continue;
            // The source displacement in output pixels, through the
            // reference's local derivative.
            const double a = wantX->x - want->x, b = wantY->x - want->x;
            const double c = wantX->y - want->y, d = wantY->y - want->y;
            const double det = a * d - b * c;
            if (std::abs(det) < 1e-12)
                continue;
            const double sx = got->x - want->x, sy = got->y - want->y;
            const double ox = (d * sx - b * sy) / det, oy = (-c * sx + a * sy) / det;
            sum += ox * ox + oy * oy;
            ++n;
        }
    return {n ? std::sqrt(sum / static_cast<double>(n)) : 0.0, n};
}

using CorrectionGeometry = RealModuleTest;

// A fisheye of 85 degrees across its diagonal, corrected without constraints:
// the picture is the closed form of the named regulariser, framed at the
// default 120 %, as an independent render computes it from the sample
// generator's lens, and not either other form; the action records the name.
TEST_F(CorrectionGeometry, ANarrowFisheyeFollowsTheNamedClosedForm) {
    SampleGen::SceneOptions lens;
    lens.width = 900;
    lens.height = 600;
    lens.focalMm = 30;
    const CoordinatePhoto photo(lens.width, lens.height);
    const fs::path input = dir / "coords.png";
    photo.write(input);

    using Reference = std::function<std::optional<Point>(double x, double y)>;
    const ClosedForm forms[] = {stereographic(), mercator(), panini()};
    std::vector<Raster> pictures;
    std::vector<Reference> references;
    for (const ClosedForm& form : forms) {
        const fs::path out = dir / (std::string(form.name) + ".png");
        const RunResult r =
            curvana({"apply", input.string(), "-o", out.string(), "--projection", "fisheye",
                     "--focal-mm", "30", "--crop", "1", "--regularizer", form.name});
        ASSERT_EQ(r.exitCode, 0) << r.err;
        pictures.push_back(readWhole(out));
        const auto action = lastAction();
        const DescriptorEntry* regulariser = action->find(cvKeyRegularizerModel);
        ASSERT_NE(regulariser, nullptr);
        EXPECT_EQ(regulariser->enumValue, form.code) << form.name;

        // The photo's own outline through the closed form bounds the picture.
        double minX = 1e9, maxX = -1e9, minY = 1e9, maxY = -1e9;
        for (int k = 0; k <= 4000; ++k) {
            const double t = k / 4000.0;
            for (const Point& edge : {Point{-0.5 + t * lens.width, -0.5},
                                      Point{-0.5 + t * lens.width, lens.height - 0.5},
                                      Point{-0.5, -0.5 + t * lens.height},
                                      Point{lens.width - 0.5, -0.5 + t * lens.height}}) {
                const auto d = SampleGen::unproject(lens, edge);
                ASSERT_TRUE(d);
                const Point p = form.forward(*d);
                minX = std::min(minX, p.x), maxX = std::max(maxX, p.x);
                minY = std::min(minY, p.y), maxY = std::max(maxY, p.y);
            }
        }
        const Frame frame(minX, maxX, minY, maxY, lens.width, lens.height, 120);
        references.push_back([frame, &form, &lens](double x, double y) -> std::optional<Point> {
            const Point p = frame.plane(static_cast<int32_t>(x), static_cast<int32_t>(y));
            const auto d = form.inverse(p.x, p.y);
            return d ? SampleGen::project(lens, *d) : std::nullopt;
        });
    }
    for (size_t a = 0; a < pictures.size(); ++a)
        for (size_t b = 0; b < references.size(); ++b) {
            const Mismatch m = mismatch(pictures[a], photo, references[b]);
            std::printf("[ closed form ] %s against %s: %.3f px RMS over %zu pixels\n",
                        forms[a].name, forms[b].name, m.rms, m.pixels);
            if (a == b) {
                EXPECT_GT(m.pixels, static_cast<size_t>(lens.width * lens.height * 3 / 4));
                EXPECT_LT(m.rms, 1.0) << forms[a].name;
                RecordProperty(std::string(forms[a].name) + "_rms_px", std::to_string(m.rms));
            } else {
                EXPECT_GT(m.rms, 3.0) << forms[a].name << " against " << forms[b].name;
            }
        }
}

// Zoomed out to half the fit, the picture has an empty border all round. It
// is black in every mode and depth: zero for grey and RGB, black ink alone
// for CMYK (zero is no ink), L = 0 with neutral a and b for Lab.
class EmptyBorder : public CorrectionGeometry,
                    public ::testing::WithParamInterface<std::tuple<Mode, int>> {};

TEST_P(EmptyBorder, IsBlackInEveryMode) {
    const auto [mode, depth] = GetParam();
    SampleGen::SampleFileOptions o;
    o.scene.width = 240;
    o.scene.height = 160;
    o.scene.samples = 1;
    o.mode = mode;
    o.depth = depth;
    const fs::path input = dir / "room.tif", out = dir / "out.tif";
    SampleGen::writeSampleFile(input, o);
    const RunResult r = curvana(
        {"apply", input.string(), "-o", out.string(), "--params", paramsFile("imgS", 50).string()});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    const Raster picture = readWhole(out);
    ASSERT_EQ(picture.info.mode, mode);
    const uint32_t full = depth == 16 ? 32768 : 255, neutral = depth == 16 ? 16384 : 128;
    const std::vector<uint32_t> black = mode == Mode::Gray   ? std::vector<uint32_t>{0}
                                        : mode == Mode::CMYK ? std::vector<uint32_t>{0, 0, 0, full}
                                        : mode == Mode::Lab
                                            ? std::vector<uint32_t>{0, neutral, neutral}
                                            : std::vector<uint32_t>{0, 0, 0};
    auto value = [&](int32_t x, int32_t y, size_t plane) -> uint32_t {
        const size_t i = static_cast<size_t>(x) * black.size() + plane;
        return depth == 16 ? reinterpret_cast<const uint16_t*>(picture.row(y))[i]
                           : picture.row(y)[i];
    };
    // The four corners are border; the middle is the photo.
    for (const auto& [x, y] :
         {std::pair{0, 0}, std::pair{239, 0}, std::pair{0, 159}, std::pair{239, 159}})
        for (size_t p = 0; p < black.size(); ++p)
            EXPECT_EQ(value(x, y, p), black[p]) << "plane " << p << " at " << x << ", " << y;
    bool photoInMiddle = false;
    for (size_t p = 0; p < black.size(); ++p)
        photoInMiddle = photoInMiddle || value(120, 80, p) != black[p];
    EXPECT_TRUE(photoInMiddle);
}

INSTANTIATE_TEST_SUITE_P(Modes, EmptyBorder,
                         ::testing::Combine(::testing::Values(Mode::Gray, Mode::RGB, Mode::CMYK,
                                                              Mode::Lab),
                                            ::testing::Values(8, 16)),
                         [](const auto& p) {
                             return std::string(modeName(std::get<0>(p.param))) +
                                    std::to_string(std::get<1>(p.param));
                         });

// --crop-to-content: no empty pixel, and the frame is the largest such (it
// reaches the photo's edge), recorded for replay.
TEST_F(CorrectionGeometry, CropToContentLeavesNoEmptyPixelAndReachesThePhotosEdge) {
    SampleGen::SceneOptions lens;
    lens.width = 600;
    lens.height = 400;
    const CoordinatePhoto photo(lens.width, lens.height);
    const fs::path input = dir / "coords.png";
    photo.write(input);
    auto run = [&](const std::string& name, std::vector<std::string> extra) {
        std::vector<std::string> args = {"apply",        input.string(),
                                         "-o",           (dir / name).string(),
                                         "--projection", "fisheye",
                                         "--focal-mm",   "15",
                                         "--crop",       "1"};
        args.insert(args.end(), extra.begin(), extra.end());
        const RunResult r = curvana(args);
        EXPECT_EQ(r.exitCode, 0) << r.err;
        return readWhole(dir / name);
    };
    auto empty = [&](const Raster& r) {
        size_t count = 0;
        for (int32_t y = 0; y < r.info.height; ++y)
            for (int32_t x = 0; x < r.info.width; ++x)
                count += photo.sampled(r, x, y) ? 0 : 1;
        return count;
    };
    const Raster plain = run("plain.png", {});
    EXPECT_GT(empty(plain), 0u);  // the default frame shows some border
    const Raster cropped = run("cropped.png", {"--crop-to-content"});
    EXPECT_EQ(empty(cropped), 0u);
    double nearest = 1e9;
    const int32_t w = cropped.info.width, h = cropped.info.height;
    for (int32_t y = 0; y < h; ++y)
        for (int32_t x = 0; x < w; ++x) {
            if (x > 0 && y > 0 && x + 1 < w && y + 1 < h)
                continue;
            if (const auto p = photo.sampled(cropped, x, y))
                nearest = std::min({nearest, p->x + 0.5, p->y + 0.5, lens.width - 0.5 - p->x,
                                    lens.height - 0.5 - p->y});
        }
    EXPECT_LT(nearest, 4.0);
    const auto action = lastAction();
    const DescriptorEntry* crop = action->find(cvKeyCropToContent);
    ASSERT_NE(crop, nullptr);
    EXPECT_TRUE(crop->boolean);
}

// A 2:1 equirectangular panorama under the full spherical model and the
// Mercator form, zoomed out so that its edges show: the picture is the
// Mercator map of the latitudes and longitudes the model keeps (+-74 and
// +-176 degrees), edged by straight lines, not by the mesh's steps.
TEST_F(CorrectionGeometry, AFullSphericalPanoramaIsAMercatorMapWithStraightEdges) {
    const CoordinatePhoto photo(1600, 800);
    const fs::path input = dir / "pano.png", out = dir / "out.png";
    photo.write(input);
    const RunResult r =
        curvana({"apply", input.string(), "-o", out.string(), "--projection", "full-spherical",
                 "--regularizer", "mercator", "--params", paramsFile("imgS", 90).string()});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    const Raster picture = readWhole(out);

    const double maxLambda = 3.0717797, maxPhi = 1.2915437;
    const double maxY = std::log(std::tan(std::numbers::pi / 4 + maxPhi / 2));
    const Frame frame(-maxLambda, maxLambda, -maxY, maxY, 1600, 800, 90);
    const double f = 800 / 3.1415927;
    const Mismatch m = mismatch(picture, photo, [&](double x, double y) -> std::optional<Point> {
        const Point p = frame.plane(static_cast<int32_t>(x), static_cast<int32_t>(y));
        const double lambda = p.x, phi = 2.0 * std::atan(std::exp(p.y)) - std::numbers::pi / 2;
        if (std::abs(lambda) > maxLambda || std::abs(phi) > maxPhi)
            return std::nullopt;
        return Point{800 + f * lambda, 400 + f * phi};
    });
    EXPECT_GT(m.pixels, size_t{1600} * 800 / 2);
    EXPECT_LT(m.rms, 1.0);
    std::printf("[ full spherical ] mercator: %.3f px RMS over %zu pixels\n", m.rms, m.pixels);

    // The covered area's first and last column in every row of its middle,
    // and first and last row in every column: straight edges.
    auto covered = [&](int32_t x, int32_t y) { return photo.sampled(picture, x, y).has_value(); };
    std::vector<int32_t> lefts, rights, tops, bottoms;
    for (int32_t y = 250; y < 550; ++y) {
        int32_t l = -1, rr = -1;
        for (int32_t x = 0; x < 1600; ++x)
            if (covered(x, y))
                rr = x, l = l < 0 ? x : l;
        lefts.push_back(l), rights.push_back(rr);
    }
    for (int32_t x = 400; x < 1200; ++x) {
        int32_t t = -1, b = -1;
        for (int32_t y = 0; y < 800; ++y)
            if (covered(x, y))
                b = y, t = t < 0 ? y : t;
        tops.push_back(t), bottoms.push_back(b);
    }
    for (const auto* edge : {&lefts, &rights, &tops, &bottoms}) {
        const auto [lo, hi] = std::minmax_element(edge->begin(), edge->end());
        EXPECT_GE(*lo, 1);  // an edge inside the picture
        EXPECT_LE(*hi - *lo, 1);
    }
}

}  // namespace
}  // namespace Curvana::Host::Test
