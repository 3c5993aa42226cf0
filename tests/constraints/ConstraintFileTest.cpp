#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "ConstraintTestSupport.h"
#include "constraints/ConstraintFile.h"
#include "constraints/GeodesicLines.h"
#include "core/ByteIO.h"
#include "geometry/Projections.h"
#include "support/TempFolder.h"
#include "warp/OctaMap.h"

namespace Project {
namespace {

using Bytes = std::vector<uint8_t>;
namespace msg = constraint_message;

std::string Key(std::string_view key) {
    return std::string(key);
}

// A constraint class of its own: counted but never written.
class OtherConstraint final : public Constraint {
public:
    std::unique_ptr<Constraint> Clone() const override {
        return std::make_unique<OtherConstraint>();
    }
    void Draw(ConstraintPainter&) const override {}
    uint32_t PayloadSize() const override { return 0; }
    int32_t Refresh(const GeodesicLines&) override { return 0; }
    bool HitTest(PointF, float, bool) const override { return false; }
    void UpdateDisplay(const GeodesicLines&, const DisplaySpace&) override {}
    ViewRect BoundingRect(bool, const Affine2D&) const override { return {}; }
};

// The file tests' usual start: a set with every kind of record, written with
// the standard context.
struct Fixture {
    SimpleConstraintFileContext ctx = testing::MakeContext();
    ConstraintSet set;
    Fixture() { testing::FillSample(set); }
    Bytes Write() const { return writeConstraintData(set, ctx); }
};

// A little-endian byte builder for hand-made files.
struct Builder {
    Bytes b;
    ByteWriter w{b};
    Builder& U16(uint16_t v) { return w.U16(v), *this; }
    Builder& U32(uint32_t v) { return w.U32(v), *this; }
    Builder& F32(float v) { return w.F32(v), *this; }
    Builder& Str(const std::string& s) {
        return w.String(s, constraint_file::kUtf8Encoding), *this;
    }
    // Magic, version tag, version 4 and the 4000 x 3000 size.
    Builder& Start() {
        return U32(constraint_file::kMagic)
            .U32(constraint_file::kVersionTag)
            .U16(4)
            .U16(4000)
            .U16(3000);
    }
    // The standard header for MakeContext() with the given settings.
    Builder& Header(float physical, float crop, float focal, uint32_t proj, uint32_t reg,
                    int32_t scale, float ox, float oy, uint32_t word, uint32_t count) {
        Start().Str("Kestrix").Str("K1").Str("Lens 15mm");
        F32(physical).F32(crop).F32(focal).U32(proj).U32(reg);
        U32(static_cast<uint32_t>(scale)).F32(ox).F32(oy);
        return U32(word).U32(count);
    }
};

// --- Writing.

TEST(ConstraintFileWrite, ByteLayoutOfHeaderAndRecords) {
    SimpleConstraintFileContext ctx = testing::MakeContext();
    ctx.model.clear();
    ctx.settings.projectionModel = ProjectionModel::Perspective;
    ctx.settings.regularizerModel = RegularizerModel::Panini;
    ConstraintSet set;
    set.Add(std::make_unique<LineConstraint>(1.0f, 2.0f, 3.0f, 4.0f, Orientation::Vertical, 5.0f));
    const Bytes bytes = writeConstraintData(set, ctx);
    const Bytes expected = {
        0x46, 0x43, 0x56, 0x43, 0x73, 0x72, 0x65, 0x56, 0x04, 0x00,  // "CVCF", "Vers" reversed;
                                                                     // version 4
        0xA0, 0x0F, 0xB8, 0x0B,                                      // 4000 x 3000
        0x07, 0x00, 0x00, 0x00, 0x00, 0x01, 0x00, 0x08, 'K', 'e', 's', 't', 'r', 'i', 'x', 0x00,
        0x00, 0x00, 0x00,  // the empty model: its count alone
        0x09, 0x00, 0x00, 0x00, 0x00, 0x01, 0x00, 0x08, 'L', 'e', 'n', 's', ' ', '1', '5', 'm', 'm',
        0x00, 0x00, 0x70, 0x41, 0x00, 0x00, 0x80, 0x3F, 0x55, 0x55, 0xD0, 0x44,  // 15, 1, 1666.6666
        0x01, 0x00, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00,  // Perspective, Panini
        0x78, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x3F, 0x00, 0x00, 0x00, 0x3F,  // scale 120,
                                                                                 // offsets 0.5
        0x00, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00,  // set word, one record
        0x65, 0x6E, 0x69, 0x4C,                          // "Line" reversed
        0x00, 0x00, 0x80, 0x3F, 0x00, 0x00, 0x00, 0x40, 0x00, 0x00, 0x40, 0x40, 0x00, 0x00, 0x80,
        0x40, 0x03, 0x00, 0x00, 0x00, 0x00, 0x00, 0xA0, 0x40, 0x01, 0x00, 0x00,
        0x00,  // Vertical, angle 5, id 1
    };
    EXPECT_EQ(bytes, expected);
    EXPECT_EQ(constraintDataBytes(set, ctx), bytes.size());
}

TEST(ConstraintFileWrite, PlaneRecordAndOtherClasses) {
    SimpleConstraintFileContext ctx = testing::MakeContext();
    ConstraintSet set;
    auto plane = std::make_unique<PlaneConstraint>();
    plane->AddVertex({1.0f, 2.0f}, 3);
    set.Add(std::move(plane));
    set.Add(std::make_unique<OtherConstraint>());
    const Bytes bytes = writeConstraintData(set, ctx);
    const Bytes tail = {
        0x02, 0x00, 0x00, 0x00,  // the count includes the other class
        0x6E, 0x61, 0x6C, 0x50,  // "Plan" reversed
        0x01, 0x00, 0x00, 0x00,  // identifier 1
        0x01, 0x00, 0x00, 0x00,  // one vertex
        0x00, 0x00, 0x80, 0x3F, 0x00, 0x00, 0x00, 0x40, 0x03, 0x00, 0x00, 0x00,
    };
    ASSERT_GE(bytes.size(), tail.size());
    EXPECT_EQ(Bytes(bytes.end() - static_cast<ptrdiff_t>(tail.size()), bytes.end()), tail);
    EXPECT_EQ(constraintDataBytes(set, ctx), bytes.size());
    EXPECT_EQ(set.At(0)->PayloadSize() + 4, 24u);
}

// --- Round trips.

TEST(ConstraintFileRead, RoundTripIsByteIdentical) {
    Fixture f;
    const Bytes first = f.Write();
    SimpleConstraintFileContext ctx = testing::MakeContext();
    ConstraintSet loaded;
    ASSERT_TRUE(readConstraintData(loaded, ctx, first)) << loaded.Message();
    EXPECT_EQ(loaded.Message(), "");
    EXPECT_EQ(writeConstraintData(loaded, ctx), first);

    // Field by field the reader is checked on a hand-written file below; the
    // same bytes back mean nothing was lost on the way.
    EXPECT_EQ(loaded.StateWord(), 0xA5C3'0F01u);
    // Same settings: nothing changed, no re-decision.
    EXPECT_EQ(ctx.settingsChangedCalls, 0);
    EXPECT_TRUE(ctx.chooseProjectionCalls.empty());
}

TEST(ConstraintFileRead, HandWrittenFile) {
    // Not produced by our writer: bytes straight from the layout.
    const Bytes file = {
        0x46, 0x43, 0x56, 0x43, 0x73, 0x72, 0x65, 0x56, 0x09, 0x00,  // magic, tag, version 9 (not
                                                                     // checked)
        0xA0, 0x0F, 0xB8, 0x0B,                                      // 4000 x 3000
        0x07, 0x00, 0x00, 0x00, 0x44, 0x33, 0x22, 0x11, 'K', 'e', 's', 't', 'r', 'i',
        'x',  // any encoding word
        0x02, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 'K', '1', 0x09, 0x00, 0x00, 0x00, 0x00,
        0x01, 0x00, 0x08, 'L', 'e', 'n', 's', ' ', '1', '5', 'm', 'm', 0x00, 0x00, 0xC0, 0x41, 0x00,
        0x00, 0xC0, 0x3F, 0x00, 0x00, 0xFA, 0x44,        // 24 mm, crop 1.5, 2000 px
        0x01, 0x00, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00,  // Perspective, Panini
        0x64, 0x00, 0x00, 0x00, 0x00, 0x00, 0x80, 0x3E, 0x00, 0x00, 0x40,
        0x3F,                                            // scale 100, 0.25, 0.75
        0xEF, 0xBE, 0xAD, 0xDE, 0x03, 0x00, 0x00, 0x00,  // set word, three records
        0x65, 0x6E, 0x69, 0x4C,                          // Line
        0x00, 0x00, 0x20, 0x41, 0x00, 0x00, 0xA0, 0x41, 0x00, 0x00, 0xF0, 0x41, 0x00, 0x00, 0x20,
        0x42, 0x07, 0x00, 0x00, 0x00, 0x00, 0x00, 0x34, 0x42, 0x05, 0x00, 0x00,
        0x00,                // orientation 7 (reads 1), 45, id 5
        'k', 'n', 'u', 'J',  // unknown tag: nothing created
        0x6E, 0x61, 0x6C, 0x50, 0x09, 0x00, 0x00, 0x00, 0x03, 0x00, 0x00,
        0x00,  // Plan, id 9, 3 vertices
        0x00, 0x00, 0x80, 0x3F, 0x00, 0x00, 0x00, 0x40, 0x00, 0x00, 0x00,
        0x00,  // (1, 2), code 0 -> 1
        0x00, 0x00, 0x40, 0x40, 0x00, 0x00, 0x80, 0x40, 0x02, 0x00, 0x00,
        0x00,  // (3, 4), code 2
        0x00, 0x00, 0xA0, 0x40, 0x00, 0x00, 0xC0, 0x40, 0x03, 0x00, 0x00,
        0x00,  // (5, 6), code 3
    };
    SimpleConstraintFileContext ctx = testing::MakeContext();
    ConstraintSet set;
    set.Add(std::make_unique<LineConstraint>());  // replaced by the file's list
    ASSERT_TRUE(readConstraintData(set, ctx, file)) << set.Message();

    EXPECT_FLOAT_EQ(ctx.settings.physicalFocal, 24.0f);
    EXPECT_FLOAT_EQ(ctx.settings.cropFactor, 1.5f);
    EXPECT_FLOAT_EQ(ctx.settings.focalLength, 2000.0f);
    EXPECT_EQ(ctx.settings.projectionModel, ProjectionModel::Perspective);
    EXPECT_EQ(ctx.chooseProjectionCalls, std::vector{ProjectionModel::Fisheye});
    EXPECT_EQ(ctx.settings.regularizerModel, RegularizerModel::Panini);
    EXPECT_EQ(ctx.settings.scale, 100);
    EXPECT_FLOAT_EQ(ctx.settings.offsetX, 0.25f);
    EXPECT_FLOAT_EQ(ctx.settings.offsetY, 0.75f);
    EXPECT_EQ(ctx.settingsChangedCalls, 1);
    EXPECT_EQ(set.StateWord(), 0xDEADBEEFu);

    ASSERT_EQ(set.Size(), 2u);
    ASSERT_NE(AsLine(*set.At(0)), nullptr);
    const auto& line = static_cast<const LineConstraint&>(*set.At(0));
    EXPECT_EQ(line.GetId(), 5);
    EXPECT_EQ(line.First(), (PointF{10.0f, 20.0f}));
    EXPECT_EQ(line.Second(), (PointF{30.0f, 40.0f}));
    EXPECT_EQ(line.GetOrientation(), Orientation::Unfixed);
    EXPECT_EQ(line.Angle(), 45.0f);
    ASSERT_NE(AsPlane(*set.At(1)), nullptr);
    const auto& plane = static_cast<const PlaneConstraint&>(*set.At(1));
    EXPECT_EQ(plane.GetId(), 9);
    ASSERT_EQ(plane.VertexCount(), 3);
    EXPECT_EQ(plane.Vertex(0).edgeCode, 1);
    EXPECT_EQ(plane.Vertex(1).edgeCode, 2);
    EXPECT_EQ(plane.Vertex(2).edgeCode, 3);
    EXPECT_EQ(plane.Vertex(2).x, 5.0f);
    EXPECT_EQ(plane.Vertex(2).y, 6.0f);
    for (const PlaneVertex& v : plane.Vertices())
        EXPECT_TRUE(v.present);
}

TEST(ConstraintFileRead, RepeatedOrMissingIdentifiersAreMadeUnique) {
    Builder b;
    b.Header(15.0f, 1.0f, 1666.6666f, 0, 3, 120, 0.5f, 0.5f, 0, 3);
    for (int32_t id : {7, 7, -1}) {
        b.U32(constraint_file::kLineTag).F32(1).F32(2).F32(3).F32(4);
        b.U32(1).F32(0).U32(static_cast<uint32_t>(id));
    }
    SimpleConstraintFileContext ctx = testing::MakeContext();
    ConstraintSet set;
    ASSERT_TRUE(readConstraintData(set, ctx, b.b));
    ASSERT_EQ(set.Size(), 3u);
    EXPECT_EQ(set.At(0)->GetId(), 7);
    EXPECT_NE(set.At(1)->GetId(), 7);
    EXPECT_GE(set.At(2)->GetId(), 0);
    EXPECT_NE(set.At(2)->GetId(), set.At(1)->GetId());
}

// --- Every message of the reader.

void ExpectFailure(const ConstraintSet& set, const std::string& message) {
    EXPECT_FALSE(set.Success());
    EXPECT_EQ(set.Message(), message);
}

// A mismatch message: its key, then the file's and the document's values.
std::string Mismatch(std::string_view key, const std::string& inFile, const std::string& inDoc) {
    return Key(key) + "\n" + Key(msg::kUnmatchedValueInFile) + inFile + "\n" +
           Key(msg::kUnmatchedValueInDoc) + inDoc;
}

TEST(ConstraintFileRead, BadMagicOrVersionTag) {
    for (size_t at : {size_t{0}, size_t{4}}) {
        Fixture f;
        Bytes bytes = f.Write();
        bytes[at] ^= 0x20;
        SimpleConstraintFileContext ctx = testing::MakeContext();
        ConstraintSet target;
        target.Add(std::make_unique<LineConstraint>());
        target.SetMessage("old text");
        EXPECT_FALSE(readConstraintData(target, ctx, bytes));
        ExpectFailure(target, Key(msg::kInvalidFileContent) + "\n");
        EXPECT_EQ(target.Size(), 1u);
        // A later success clears the message.
        EXPECT_TRUE(readConstraintData(target, ctx, f.Write()));
        EXPECT_TRUE(target.Message().empty());
    }
}

TEST(ConstraintFileRead, ImageSizeMismatchIncludingA70000PixelWidth) {
    SimpleConstraintFileContext wide = testing::MakeContext();
    wide.width = 70000;
    ConstraintSet set;
    set.Add(std::make_unique<LineConstraint>());
    const Bytes bytes = writeConstraintData(set, wide);
    EXPECT_EQ(bytes[10] | (bytes[11] << 8), 70000 - 65536);

    // Read back on the very same image: 4464 (the stored 16 bits) never
    // equals 70000.
    ConstraintSet target;
    target.Add(std::make_unique<LineConstraint>());
    const ConstraintFileSettings before = wide.settings;
    EXPECT_FALSE(readConstraintData(target, wide, bytes));
    ExpectFailure(target, Mismatch(msg::kUnmatchedImageWidth, "4464x3000", "70000x3000"));
    EXPECT_EQ(target.Size(), 1u);
    EXPECT_EQ(wide.settings.focalLength, before.focalLength);

    // A height mismatch reports through the same message.
    SimpleConstraintFileContext other = testing::MakeContext();
    other.height = 2999;
    Fixture f;
    EXPECT_FALSE(readConstraintData(target, other, f.Write()));
    ExpectFailure(target, Mismatch(msg::kUnmatchedImageWidth, "4000x3000", "4000x2999"));
}

// The make is compared first, then the model; the lens only when both match
// (the differing lens of the second case is not reported).
TEST(ConstraintFileRead, CameraMismatchesInOrder) {
    struct Case {
        const char *make, *model, *lens;
        std::string message;
    };
    const Bytes bytes = Fixture().Write();
    for (const Case& c :
         {Case{"Other", "K2", "Lens 15mm", Mismatch(msg::kUnmatchedCameraMake, "Kestrix", "Other")},
          Case{"Kestrix", "K2", "Another lens", Mismatch(msg::kUnmatchedCameraModel, "K1", "K2")},
          Case{"Kestrix", "K1", "", Mismatch(msg::kUnmatchedLensModel, "Lens 15mm", "")}}) {
        SimpleConstraintFileContext ctx = testing::MakeContext();
        ctx.make = c.make;
        ctx.model = c.model;
        ctx.lens = c.lens;
        ConstraintSet target;
        EXPECT_FALSE(readConstraintData(target, ctx, bytes)) << c.make << " " << c.model;
        ExpectFailure(target, c.message);
        EXPECT_EQ(ctx.settings.physicalFocal, 15.0f);
    }
}

TEST(ConstraintFileRead, ZeroConstraintsAppliesSettingsAndEmptiesTheList) {
    Builder b;
    b.Header(35.0f, 1.6f, 3000.0f, 1, 0, 90, 0.4f, 0.6f, 77, 0);
    SimpleConstraintFileContext ctx = testing::MakeContext();
    ConstraintSet set;
    testing::FillSample(set);
    set.Select(set.At(0)->GetId());
    ASSERT_TRUE(readConstraintData(set, ctx, b.b)) << set.Message();
    EXPECT_TRUE(set.Empty());
    EXPECT_TRUE(set.Selection().empty());
    EXPECT_EQ(set.StateWord(), 77u);
    EXPECT_EQ(ctx.settings.focalLength, 3000.0f);
    EXPECT_EQ(ctx.settings.regularizerModel, RegularizerModel::Stereographic);
    EXPECT_EQ(ctx.settingsChangedCalls, 1);
}

TEST(ConstraintFileRead, FocalChangeWithinAHundredthIsIgnored) {
    SimpleConstraintFileContext ctx = testing::MakeContext();
    ctx.settings.focalLength = 1000.0f;
    ConstraintSet set;
    Builder near;
    near.Header(15.0f, 1.0f, 1000.0078f, 0, 3, 120, 0.5f, 0.5f, 0, 0);
    ASSERT_TRUE(readConstraintData(set, ctx, near.b));
    EXPECT_EQ(ctx.settings.focalLength, 1000.0f);
    EXPECT_EQ(ctx.settingsChangedCalls, 0);

    Builder far;
    far.Header(15.0f, 1.0f, 1000.0156f, 0, 3, 120, 0.5f, 0.5f, 0, 0);
    ASSERT_TRUE(readConstraintData(set, ctx, far.b));
    EXPECT_EQ(ctx.settings.focalLength, 1000.0156f);
    EXPECT_EQ(ctx.settingsChangedCalls, 1);
}

TEST(ConstraintFileRead, SettingsClampingAndWhatCountsAsAChange) {
    struct Case {
        float physical, focal;
        float wantPhysical, wantFocal;
    };
    for (const Case& c : {Case{0.1f, 0.5f, kMinPhysicalFocalMm, kMinFocalPixels},
                          Case{5000.0f, 1e12f, kMaxPhysicalFocalMm, kMaxFocalPixels}}) {
        SimpleConstraintFileContext ctx = testing::MakeContext();
        ConstraintSet set;
        Builder b;
        b.Header(c.physical, -2.0f, c.focal, 0, 3, 120, 0.5f, 0.5f, 0, 0);
        ASSERT_TRUE(readConstraintData(set, ctx, b.b));
        EXPECT_EQ(ctx.settings.physicalFocal, c.wantPhysical);
        EXPECT_EQ(ctx.settings.focalLength, c.wantFocal);
        EXPECT_EQ(ctx.settings.cropFactor, -2.0f);  // stored as read
    }
    // A value that is not a number is no value to clamp: the file is refused.
    for (const auto& [physical, crop, focal] :
         {std::tuple{NAN, 1.0f, 900.0f}, std::tuple{15.0f, 1.0f, NAN},
          std::tuple{INFINITY, 1.0f, 900.0f}, std::tuple{15.0f, -INFINITY, 900.0f}}) {
        SimpleConstraintFileContext ctx = testing::MakeContext();
        const ConstraintFileSettings before = ctx.settings;
        ConstraintSet set;
        Builder b;
        b.Header(physical, crop, focal, 0, 3, 120, 0.5f, 0.5f, 0, 0);
        EXPECT_FALSE(readConstraintData(set, ctx, b.b)) << physical << " " << crop << " " << focal;
        EXPECT_EQ(set.Message(), std::string(constraint_message::kInvalidFileContent) + "\n");
        EXPECT_EQ(ctx.settings.focalLength, before.focalLength);
    }

    // Scale and offsets change without counting as a change; offsets move
    // together once either differs by more than 1e-06.
    SimpleConstraintFileContext ctx = testing::MakeContext();
    ConstraintSet set;
    Builder tiny;
    tiny.Header(15.0f, 1.0f, 1666.6666f, 0, 3, 150, 0.5f, 0.50000048f, 0, 0);
    ASSERT_TRUE(readConstraintData(set, ctx, tiny.b));
    EXPECT_EQ(ctx.settings.scale, 150);
    EXPECT_EQ(ctx.settings.offsetY, 0.5f);
    Builder moved;
    moved.Header(15.0f, 1.0f, 1666.6666f, 0, 3, 150, 0.5f, 0.5001f, 0, 0);
    ASSERT_TRUE(readConstraintData(set, ctx, moved.b));
    EXPECT_EQ(ctx.settings.offsetX, 0.5f);
    EXPECT_EQ(ctx.settings.offsetY, 0.5001f);
    EXPECT_EQ(ctx.settingsChangedCalls, 0);

    // Unknown popup indices: Fisheye and Auto.
    EXPECT_EQ(projectionModelFromIndex(4), ProjectionModel::Fisheye);
    EXPECT_EQ(regularizerModelFromIndex(99), RegularizerModel::Auto);
    EXPECT_EQ(projectionIndexFromModel(ProjectionModel::None), 0u);
    EXPECT_EQ(regularizerIndexFromModel(RegularizerModel::Equirectangular), 3u);
}

TEST(ConstraintFileRead, ProjectionReDecisionThatFallsBackIsNoChange) {
    // A session that refuses the file's model and keeps the previous one.
    struct Refusing : SimpleConstraintFileContext {
        void ChooseProjection(ProjectionModel previous) override {
            SimpleConstraintFileContext::ChooseProjection(previous);
            settings.projectionModel = previous;
        }
    } ctx;
    static_cast<SimpleConstraintFileContext&>(ctx) = testing::MakeContext();
    ConstraintSet set;
    Builder b;
    b.Header(15.0f, 1.0f, 1666.6666f, 3, 3, 120, 0.5f, 0.5f, 0, 0);  // Full Spherical
    ASSERT_TRUE(readConstraintData(set, ctx, b.b));
    EXPECT_EQ(ctx.chooseProjectionCalls, std::vector{ProjectionModel::Fisheye});
    EXPECT_EQ(ctx.settings.projectionModel, ProjectionModel::Fisheye);
    EXPECT_EQ(ctx.settingsChangedCalls, 0);
}

TEST(ConstraintFileRead, ShortDataChangesNothing) {
    Fixture f;
    const Bytes full = f.Write();
    for (size_t len = 0; len < full.size(); ++len) {
        SimpleConstraintFileContext ctx = testing::MakeContext();
        ctx.settings.focalLength = 999.0f;  // the file would change it
        ConstraintSet target;
        target.Add(std::make_unique<LineConstraint>(1, 2, 3, 4));
        target.SetStateWord(5);
        const Bytes cut(full.begin(), full.begin() + static_cast<ptrdiff_t>(len));
        EXPECT_FALSE(readConstraintData(target, ctx, cut)) << len;
        ExpectFailure(target, Key(msg::kInvalidFileContent) + "\n");
        EXPECT_EQ(target.Size(), 1u) << len;
        EXPECT_EQ(target.StateWord(), 5u);
        EXPECT_EQ(ctx.settings.focalLength, 999.0f) << len;
        EXPECT_EQ(ctx.settingsChangedCalls, 0);
    }
}

TEST(ConstraintFileRead, AbsurdCountsAreRefused) {
    SimpleConstraintFileContext ctx = testing::MakeContext();
    ConstraintSet set;
    Builder records;
    records.Header(15.0f, 1.0f, 1666.6666f, 0, 3, 120, 0.5f, 0.5f, 0, 0xFFFFFFFFu);
    EXPECT_FALSE(readConstraintData(set, ctx, records.b));
    ExpectFailure(set, Key(msg::kInvalidFileContent) + "\n");

    for (uint32_t vertices : {0x7FFFFFFFu, 0x80000000u, 2u}) {
        Builder b;
        b.Header(15.0f, 1.0f, 1666.6666f, 0, 3, 120, 0.5f, 0.5f, 0, 1);
        b.U32(constraint_file::kPlaneTag).U32(1).U32(vertices).F32(0).F32(0).U32(1);  // one vertex
                                                                                      // present
        EXPECT_FALSE(readConstraintData(set, ctx, b.b)) << vertices;
        ExpectFailure(set, Key(msg::kInvalidFileContent) + "\n");
    }

    Builder longString;
    longString.Start().U32(0xFFFFFFF0u).U32(constraint_file::kUtf8Encoding).U32(0);
    EXPECT_FALSE(readConstraintData(set, ctx, longString.b));
    ExpectFailure(set, Key(msg::kInvalidFileContent) + "\n");
}

// --- Files on disk and the fitting pass.

TEST(ConstraintFileDisk, SaveThenLoadFitsAndResetsTheMarker) {
    test::TempFolder dir;
    Fixture f;
    f.ctx.undoPosition = 12;
    ASSERT_TRUE(saveConstraintFile(f.set, f.ctx, dir.Path(), "Constraints.cvc"));
    EXPECT_EQ(f.set.SavedMarker(), 12);
    // Only the target is left in the folder.
    size_t files = 0;
    for ([[maybe_unused]] const auto& e : std::filesystem::directory_iterator(dir.Path()))
        ++files;
    EXPECT_EQ(files, 1u);
    std::ifstream in(dir.Path() / "Constraints.cvc", std::ios::binary);
    const Bytes onDisk((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_EQ(onDisk, f.Write());

    // Saving again replaces the file.
    f.set.Remove(f.set.At(0)->GetId());
    ASSERT_TRUE(saveConstraintFile(f.set, f.ctx, dir.Path(), "Constraints.cvc"));

    auto photo = std::make_shared<PerspectiveImage>(std::make_shared<SourceRaster>(4000, 3000),
                                                    2500.0f, 2000.0f, 1500.0f);
    GeodesicLines lines(photo, std::make_shared<const OctaMap>(5, false));
    SimpleConstraintFileContext ctx = testing::MakeContext();
    ctx.lines = &lines;
    ConstraintSet loaded;
    loaded.SetSavedMarker(3);
    loadConstraintFile(loaded, ctx, dir.Path() / "Constraints.cvc");
    ASSERT_TRUE(loaded.Success()) << loaded.Message();
    EXPECT_EQ(loaded.Message(), "");
    EXPECT_EQ(loaded.SavedMarker(), 0);
    EXPECT_EQ(loaded.Size(), 5u);
    EXPECT_EQ(lines.Lines().size(), 3u);
    EXPECT_EQ(lines.Planes().size(), 2u);
    EXPECT_TRUE(static_cast<LineConstraint&>(*loaded.At(0)).HasValidEntry());

    EXPECT_FALSE(saveConstraintFile(f.set, f.ctx, dir.Path() / "missing", "x.cvc"));
}

TEST(ConstraintFileDisk, EmptyMissingAndUnfittableFiles) {
    test::TempFolder dir;
    SimpleConstraintFileContext ctx = testing::MakeContext();
    ConstraintSet set;
    set.SetSavedMarker(4);
    { std::ofstream(dir.Path() / "empty.cvc", std::ios::binary); }
    loadConstraintFile(set, ctx, dir.Path() / "empty.cvc");
    ExpectFailure(set, Key(msg::kEmptyFile) + "\n");
    EXPECT_EQ(set.SavedMarker(), 4);

    loadConstraintFile(set, ctx, dir.Path() / "none.cvc");
    ExpectFailure(set, Key(msg::kInvalidFileContent) + "\n");

    // A fisheye on which one line and one polygon corner lie beyond the image
    // circle: each reports, the rest is loaded and fitted.
    ConstraintSet source;
    source.Add(std::make_unique<LineConstraint>(1500.0f, 1500.0f, 2500.0f, 1600.0f));
    source.Add(std::make_unique<LineConstraint>(2.0f, 2.0f, 2500.0f, 1600.0f));
    auto plane = std::make_unique<PlaneConstraint>();
    plane->AddVertex({1800.0f, 1200.0f});
    plane->AddVertex({2200.0f, 1200.0f});
    plane->AddVertex({3990.0f, 2990.0f});
    source.Add(std::move(plane));
    ASSERT_TRUE(saveConstraintFile(source, ctx, dir.Path(), "fish.cvc"));
    auto photo = std::make_shared<FisheyeImage>(std::make_shared<SourceRaster>(4000, 3000), 1000.0f,
                                                2000.0f, 1500.0f);
    GeodesicLines lines(photo, std::make_shared<const OctaMap>(4, false));
    ctx.lines = &lines;
    loadConstraintFile(set, ctx, dir.Path() / "fish.cvc");
    EXPECT_TRUE(set.Success());
    EXPECT_EQ(set.Message(), Key(msg::kBadPlaneConstraintFile) + "\n");  // the last one reported
    EXPECT_EQ(set.Size(), 3u);
    EXPECT_TRUE(static_cast<LineConstraint&>(*set.At(0)).HasValidEntry());
    EXPECT_FALSE(static_cast<LineConstraint&>(*set.At(1)).HasValidEntry());
    EXPECT_EQ(static_cast<PlaneConstraint&>(*set.At(2)).Flag(), 0);

    ConstraintSet lineOnly;
    lineOnly.Add(source.At(1)->Clone());
    ASSERT_TRUE(saveConstraintFile(lineOnly, ctx, dir.Path(), "line.cvc"));
    loadConstraintFile(set, ctx, dir.Path() / "line.cvc");
    EXPECT_TRUE(set.Success());
    EXPECT_EQ(set.Message(), Key(msg::kBadLineConstraintFile) + "\n");
}

// --- The scripting value and the message helper.

TEST(ConstraintData, IsTheFileBytesAndEmptyForAnEmptySet) {
    Fixture f;
    EXPECT_EQ(makeConstraintData(f.set, f.ctx), f.Write());
    EXPECT_EQ(constraintDataSize(f.set, f.ctx), f.Write().size());
    ConstraintSet empty;
    EXPECT_TRUE(makeConstraintData(empty, f.ctx).empty());
    EXPECT_EQ(constraintDataSize(empty, f.ctx), 0u);

    SimpleConstraintFileContext ctx = testing::MakeContext();
    ConstraintSet target;
    target.SetSavedMarker(9);
    EXPECT_TRUE(applyConstraintData(target, ctx, makeConstraintData(f.set, f.ctx)));
    EXPECT_EQ(target.Size(), f.set.Size());
    EXPECT_EQ(target.SavedMarker(), 9);
    EXPECT_FALSE(applyConstraintData(target, ctx, Bytes{}));
    ExpectFailure(target, Key(msg::kInvalidFileContent) + "\n");
}

TEST(ConstraintMessage, LocalizesEachKeyAndKeepsValues) {
    const std::string raw = Key(msg::kUnmatchedImageWidth) + "\n" +
                            Key(msg::kUnmatchedValueInFile) + "4464x3000\n" +
                            Key(msg::kUnmatchedValueInDoc) + "70000x3000";
    const std::string text = localizeConstraintMessage(raw, [](std::string_view key) {
        const size_t eq = key.find('=');
        return "<" + std::string(key.substr(eq + 1)) + ">";
    });
    EXPECT_EQ(text,
              "<Image size doesn't match.>\n<Value in the loaded file: >4464x3000\n<Value of the "
              "current image: "
              ">70000x3000");
    EXPECT_EQ(localizeConstraintMessage(Key(msg::kEmptyFile) + "\n",
                                        [](std::string_view) { return "E"; }),
              "E\n");
    EXPECT_EQ(localizeConstraintMessage("plain", [](std::string_view) { return "X"; }), "plain");
}

// --- The fuzz corpus: every seed is a valid file for the fuzz target's context.

TEST(ConstraintFuzzCorpus, SeedsAreValidFiles) {
    const std::filesystem::path dir = std::filesystem::path(CURVANA_TEST_DATA_DIR) / ".." / ".." /
                                      "fuzz" / "corpus" / "constraints";
    ASSERT_TRUE(std::filesystem::is_directory(dir)) << dir;
    size_t seeds = 0;
    for (const auto& e : std::filesystem::directory_iterator(dir)) {
        if (!e.is_regular_file())
            continue;
        std::ifstream in(e.path(), std::ios::binary);
        const Bytes bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        SimpleConstraintFileContext ctx = testing::MakeContext();
        ConstraintSet set;
        EXPECT_TRUE(readConstraintData(set, ctx, bytes)) << e.path() << ": " << set.Message();
        // What we read, we write back the same (identifiers are unique and
        // codes in range in the seeds).
        SimpleConstraintFileContext back = testing::MakeContext();
        back.settings = ctx.settings;
        EXPECT_EQ(writeConstraintData(set, back), bytes) << e.path();
        ++seeds;
    }
    EXPECT_GE(seeds, 3u);
}

}  // namespace
}  // namespace Project
