// The plug-in's own pieces without GIMP running: the byte form GIMP keeps the
// last action in, the descriptor built from a script's parameters, and the
// pixel layouts and value ranges handed to the filter.
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <limits>
#include <stdexcept>
#include <tuple>

#include "ApplyParameters.h"
#include "DrawablePixels.h"
#include "ScriptDescriptor.h"
#include "curvana/CurvanaScripting.h"
#include "host/HostTestUtil.h"

namespace Curvana::Gimp::Test {
namespace {

Descriptor everyKind() {
    Descriptor d;
    d.putData(cvKeyConstraintData, {1, 2, 3, 0, 255});
    d.putEnumerated(cvKeyProjectionModel, cvKeyProjectionModel, cvProjectionFisheye);
    d.putFloat(cvKeyFocalLength, 1234.5678);
    DescriptorEntry scale;
    scale.key = cvKeyScale;
    scale.type = cvTypeInteger;
    scale.integer = -120;
    d.put(scale);
    DescriptorEntry flag;
    flag.key = CV_FOURCC('f', 'l', 'a', 'g');
    flag.type = cvTypeBoolean;
    flag.boolean = true;
    d.put(flag);
    return d;
}

TEST(LastAction, SurvivesItsByteFormAndNoCutOrDamagedCopyIsTaken) {
    const std::vector<uint8_t> bytes = encodeDescriptor(everyKind());
    const auto back = decodeDescriptor(bytes);
    ASSERT_TRUE(back);
    EXPECT_EQ(encodeDescriptor(*back), bytes);
    EXPECT_EQ(back->find(cvKeyScale)->integer, -120);
    EXPECT_EQ(back->getFloat(cvKeyFocalLength), 1234.5678);

    for (size_t n = 0; n < bytes.size(); ++n)
        EXPECT_FALSE(decodeDescriptor(std::span(bytes.data(), n))) << "cut at " << n;
    std::vector<uint8_t> longer = bytes;
    longer.push_back(0);
    EXPECT_FALSE(decodeDescriptor(longer));
    std::vector<uint8_t> badType = bytes;
    badType[12] ^= 0xFF;  // the first entry's type
    EXPECT_FALSE(decodeDescriptor(badType));
}

TEST(LastAction, SuiteRefusesHandlesItDidNotMake) {
    const CvDescriptorSuite5* suite = descriptorSuite();
    Descriptor host = everyKind();
    EXPECT_NE(suite->release(host.handle()), cvNoErr);  // the host's own stays the host's
    uint32_t count = 0;
    int stranger = 0;
    EXPECT_NE(suite->count(reinterpret_cast<CvDescriptor>(&stranger), &count), cvNoErr);
    CvDescriptor made = nullptr;
    ASSERT_EQ(suite->make(&made), cvNoErr);
    ASSERT_EQ(suite->release(made), cvNoErr);
    EXPECT_NE(suite->count(made, &count), cvNoErr);  // released: stale from now on
}

class ScriptParameters : public ::testing::Test {
protected:
    Host::Test::ScratchDir dir;
};

// Only what the script names is passed; the filter completes the rest from
// the photo as its editor would, so no focal length in pixels is made here.
TEST_F(ScriptParameters, OnlyTheScriptsFocalLengthAndCropArePassed) {
    const std::tuple<double, double, bool, bool> cases[] = {
        {0, 0, false, false}, {12, 0, true, false}, {0, 1.6, false, true}, {8, 1.0, true, true}};
    for (const auto& [focalMm, crop, hasFocal, hasCrop] : cases) {
        ApplyParameters p;
        p.focalMm = focalMm;
        p.crop = crop;
        const auto d = applyDescriptor(p);
        EXPECT_FALSE(d->find(cvKeyFocalLength));
        EXPECT_EQ(d->getFloat(cvKeyPhysicalFocalLength).has_value(), hasFocal);
        EXPECT_EQ(d->getFloat(cvKeyCropFactor).has_value(), hasCrop);
        EXPECT_DOUBLE_EQ(d->getFloat(cvKeyPhysicalFocalLength).value_or(0), focalMm);
        EXPECT_DOUBLE_EQ(d->getFloat(cvKeyCropFactor).value_or(0), crop);
    }
}

TEST_F(ScriptParameters, ConstraintFileGoesFirstAndKeepsItsFocalLength) {
    const auto file = dir / "c.cvc";
    std::ofstream(file, std::ios::binary) << "constraint bytes";
    ApplyParameters p;
    p.constraintFile = file.string();
    p.projection = "perspective";
    p.regularizer = "panini";
    const auto d = applyDescriptor(p);
    ASSERT_EQ(d->entries().size(), 3u);
    EXPECT_EQ(d->entries()[0].key, cvKeyConstraintData);
    EXPECT_EQ(std::string(d->entries()[0].data.begin(), d->entries()[0].data.end()),
              "constraint bytes");
    EXPECT_EQ(d->find(cvKeyProjectionModel)->enumValue, cvProjectionPerspective);
    EXPECT_EQ(d->find(cvKeyRegularizerModel)->enumValue, cvRegularizerPanini);
}

TEST_F(ScriptParameters, BadParametersAreRefusedWithTheirReason) {
    std::ofstream(dir / "empty.cvc");
    const std::pair<ApplyParameters, const char*> cases[] = {
        {{"fish", "", 0, 0, ""}, "unknown projection 'fish'"},
        {{"", "polar", 0, 0, ""}, "unknown regulariser 'polar'"},
        {{"", "", -15, 0, ""}, "the focal length must be"},
        {{"", "", 0, std::numeric_limits<double>::quiet_NaN(), ""}, "the crop factor must be"},
        {{"", "", 0, 0, (dir / "missing.cvc").string()}, "cannot read the constraint file"},
        {{"", "", 0, 0, (dir / "empty.cvc").string()}, "the constraint file is empty"},
    };
    for (const auto& [parameters, why] : cases) {
        try {
            (void)applyDescriptor(parameters);
            ADD_FAILURE() << "accepted: " << why;
        } catch (const std::invalid_argument& e) {
            EXPECT_NE(std::string(e.what()).find(why), std::string::npos) << e.what();
        }
    }
}

TEST(PixelLayout, EveryKindOfLayerHasItsFormat) {
    struct Case {
        bool rgb, alpha;
        GimpPrecision precision;
        const char* format;
        int32_t depth, planes;
        bool narrowed;
    };
    const Case cases[] = {
        {true, false, GIMP_PRECISION_U8_GAMMA, "R'G'B' u8", 8, 3, false},
        {true, true, GIMP_PRECISION_U8_GAMMA, "R'aG'aB'aA u8", 8, 4, false},
        {true, true, GIMP_PRECISION_U16_GAMMA, "R'aG'aB'aA u16", 16, 4, false},
        {true, false, GIMP_PRECISION_U16_LINEAR, "RGB u16", 16, 3, false},
        {false, false, GIMP_PRECISION_U8_GAMMA, "Y' u8", 8, 1, false},
        {false, true, GIMP_PRECISION_U16_GAMMA, "Y'aA u16", 16, 2, false},
        {true, true, GIMP_PRECISION_FLOAT_LINEAR, "RaGaBaA u16", 16, 4, true},
        {false, false, GIMP_PRECISION_HALF_GAMMA, "Y' u16", 16, 1, true},
    };
    for (const Case& c : cases) {
        const DrawableLayout l = layoutFor(c.rgb, !c.rgb, c.alpha, c.precision, 10, 20);
        EXPECT_EQ(l.formatName, c.format);
        EXPECT_EQ(l.depth, c.depth) << c.format;
        EXPECT_EQ(l.planes, c.planes) << c.format;
        EXPECT_EQ(l.narrowed, c.narrowed) << c.format;
        EXPECT_EQ(l.mode, c.rgb ? cvModeRGB : cvModeGray);
    }
    EXPECT_THROW(layoutFor(false, false, false, GIMP_PRECISION_U8_GAMMA, 10, 20),
                 std::runtime_error);  // indexed
}

TEST(PixelLayout, SixteenBitValuesRoundTripWithinOneStep) {
    EXPECT_EQ(toHostRange(0), 0);
    EXPECT_EQ(toHostRange(65535), 32768);
    EXPECT_EQ(fromHostRange(32768), 65535);
    uint16_t previous = 0;
    for (uint32_t v = 0; v <= 65535; ++v) {
        const uint16_t host = toHostRange(static_cast<uint16_t>(v));
        ASSERT_GE(host, previous);
        previous = host;
        ASSERT_LE(std::abs(int(fromHostRange(host)) - int(v)), 1) << v;
    }
    for (uint32_t h = 0; h <= 32768; ++h)
        ASSERT_EQ(toHostRange(fromHostRange(static_cast<uint16_t>(h))), h);
}

}  // namespace
}  // namespace Curvana::Gimp::Test
