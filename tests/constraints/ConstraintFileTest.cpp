#include <gtest/gtest.h>

#include <cctype>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <functional>
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
namespace cf = constraint_file;

const std::string kInvalid = std::string(msg::kInvalidFileContent) + "\n";

// Bytes from hex pairs and 'quoted' text; the spaces are for reading.
Bytes Hex(std::string_view s) {
    Bytes out;
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] == '\'')
            while (s[++i] != '\'')
                out.push_back(static_cast<uint8_t>(s[i]));
        else if (std::isxdigit(static_cast<unsigned char>(s[i])))
            out.push_back(
                static_cast<uint8_t>(std::stoi(std::string(s.substr(i++, 2)), nullptr, 16)));
    }
    return out;
}

Bytes Sample() {
    ConstraintSet set;
    testing::FillSample(set);
    return writeConstraintData(set, testing::MakeContext());
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

// A hand-made file for MakeContext()'s camera: version 4, 4000 x 3000, these
// settings (by default the context's own) and the records `body` writes.
struct Head {
    float physical = 15.0f, crop = 1.0f, focal = 1666.6666f;
    uint32_t projection = 0, regularizer = 3;
    int32_t scale = 120;
    float offsetX = 0.5f, offsetY = 0.5f;
    uint32_t word = 0, count = 0;
};
Bytes File(const Head& h, const std::function<void(ByteWriter&)>& body = {}) {
    Bytes b;
    ByteWriter w{b};
    w.U32(cf::kMagic), w.U32(cf::kVersionTag), w.U16(4), w.U16(4000), w.U16(3000);
    for (const char* s : {"Kestrix", "K1", "Lens 15mm"})
        w.String(s, cf::kUtf8Encoding);
    w.F32(h.physical), w.F32(h.crop), w.F32(h.focal), w.U32(h.projection), w.U32(h.regularizer);
    w.I32(h.scale), w.F32(h.offsetX), w.F32(h.offsetY), w.U32(h.word), w.U32(h.count);
    if (body)
        body(w);
    return b;
}

auto Fields(const ConstraintFileSettings& s) {
    return std::tuple(s.physicalFocal, s.cropFactor, s.focalLength, s.projectionModel,
                      s.regularizerModel, s.scale, s.offsetX, s.offsetY);
}

// A mismatch message: its key, then the file's and the document's values.
std::string Mismatch(std::string_view key, const std::string& inFile, const std::string& inDoc) {
    return std::string(key) + "\n" + std::string(msg::kUnmatchedValueInFile) + inFile + "\n" +
           std::string(msg::kUnmatchedValueInDoc) + inDoc;
}

// Reading `bytes` fails with `message` and leaves the target's list, its
// state word and the document's settings as they were.
void ExpectRefused(const Bytes& bytes, const std::string& message,
                   SimpleConstraintFileContext ctx = testing::MakeContext()) {
    ctx.settings.focalLength = 999.0f;  // every file here would change it
    ConstraintSet target;
    target.Add(std::make_unique<LineConstraint>(1, 2, 3, 4));
    target.SetStateWord(5);
    target.SetMessage("old text");
    EXPECT_FALSE(readConstraintData(target, ctx, bytes));
    EXPECT_FALSE(target.Success());
    EXPECT_EQ(target.Message(), message);
    EXPECT_EQ(target.Size(), 1u);
    EXPECT_EQ(target.StateWord(), 5u);
    EXPECT_EQ(ctx.settings.focalLength, 999.0f);
    EXPECT_EQ(ctx.settingsChangedCalls, 0);
    // A later success clears the message.
    SimpleConstraintFileContext plain = testing::MakeContext();
    EXPECT_TRUE(readConstraintData(target, plain, Sample()));
    EXPECT_EQ(target.Message(), "");
}

TEST(ConstraintFileWrite, ByteLayoutOfHeaderAndRecords) {
    SimpleConstraintFileContext ctx = testing::MakeContext();
    ctx.model.clear();
    ctx.settings.projectionModel = ProjectionModel::Perspective;
    ctx.settings.regularizerModel = RegularizerModel::Panini;
    ConstraintSet set;
    set.Add(std::make_unique<LineConstraint>(1.0f, 2.0f, 3.0f, 4.0f, Orientation::Vertical, 5.0f));
    const Bytes bytes = writeConstraintData(set, ctx);
    EXPECT_EQ(bytes, Hex("'FCVC' 'sreV' 0400 A00F B80B"  // tags reversed, version 4, 4000 x 3000
                         "07000000 00010008 'Kestrix' 00000000"  // the empty model: its count
                         "09000000 00010008 'Lens 15mm'"
                         "00007041 0000803F 5555D044"           // 15, 1, 1666.6666
                         "01000000 02000000"                    // Perspective, Panini
                         "78000000 0000003F 0000003F"           // scale 120, offsets 0.5
                         "00000000 01000000 'eniL'"             // set word, one record
                         "0000803F 00000040 00004040 00008040"  // (1, 2) - (3, 4)
                         "03000000 0000A040 01000000"));        // Vertical, angle 5, id 1
    EXPECT_EQ(constraintDataBytes(set, ctx), bytes.size());

    // A polygon record; another class is counted but not written.
    ConstraintSet planes;
    auto plane = std::make_unique<PlaneConstraint>();
    plane->AddVertex({1.0f, 2.0f}, 3);
    planes.Add(std::move(plane));
    planes.Add(std::make_unique<OtherConstraint>());
    const Bytes planeFile = writeConstraintData(planes, ctx);
    const Bytes tail = Hex("02000000 'nalP' 01000000 01000000 0000803F 00000040 03000000");
    ASSERT_GE(planeFile.size(), tail.size());
    EXPECT_EQ(Bytes(planeFile.end() - static_cast<ptrdiff_t>(tail.size()), planeFile.end()), tail);
    EXPECT_EQ(constraintDataBytes(planes, ctx), planeFile.size());
    EXPECT_EQ(planes.At(0)->PayloadSize() + 4, 24u);
}

TEST(ConstraintFileRead, HandWrittenFile) {
    // Not produced by our writer: bytes straight from the layout.
    const Bytes file =
        Hex("'FCVC' 'sreV' 0900 A00F B80B"  // version 9 (not checked)
            "07000000 44332211 'Kestrix'"   // any encoding word
            "02000000 00000000 'K1' 09000000 00010008 'Lens 15mm'"
            "0000C041 0000C03F 0000FA44"  // 24 mm, crop 1.5, 2000 px
            "01000000 02000000"           // Perspective, Panini
            "64000000 0000803E 0000403F"  // scale 100, 0.25, 0.75
            "EFBEADDE 03000000"           // set word, three records
            // Line, orientation 7 (reads 1), 45 degrees, id 5
            "'eniL' 00002041 0000A041 0000F041 00002042 07000000 00003442 05000000"
            "'knuJ'"                        // unknown tag: nothing created
            "'nalP' 09000000 03000000"      // id 9, 3 vertices
            "0000803F 00000040 00000000"    // (1, 2), code 0 -> 1
            "00004040 00008040 02000000"    // (3, 4), code 2
            "0000A040 0000C040 03000000");  // (5, 6), code 3
    SimpleConstraintFileContext ctx = testing::MakeContext();
    ConstraintSet set;
    set.Add(std::make_unique<LineConstraint>());  // replaced by the file's list
    ASSERT_TRUE(readConstraintData(set, ctx, file)) << set.Message();

    EXPECT_EQ(Fields(ctx.settings), Fields({24.0f, 1.5f, 2000.0f, ProjectionModel::Perspective,
                                            RegularizerModel::Panini, 100, 0.25f, 0.75f}));
    EXPECT_EQ(ctx.chooseProjectionCalls, std::vector{ProjectionModel::Fisheye});
    EXPECT_EQ(ctx.settingsChangedCalls, 1);
    EXPECT_EQ(set.StateWord(), 0xDEADBEEFu);

    ASSERT_EQ(set.Size(), 2u);
    const LineConstraint* line = AsLine(*set.At(0));
    ASSERT_NE(line, nullptr);
    EXPECT_EQ(line->GetId(), 5);
    EXPECT_EQ(line->First(), (PointF{10.0f, 20.0f}));
    EXPECT_EQ(line->Second(), (PointF{30.0f, 40.0f}));
    EXPECT_EQ(line->GetOrientation(), Orientation::Unfixed);
    EXPECT_EQ(line->Angle(), 45.0f);
    const PlaneConstraint* plane = AsPlane(*set.At(1));
    ASSERT_NE(plane, nullptr);
    EXPECT_EQ(plane->GetId(), 9);
    ASSERT_EQ(plane->VertexCount(), 3);
    for (int32_t k = 0; k < 3; ++k) {
        EXPECT_EQ(plane->Vertex(k).edgeCode, k + 1);
        EXPECT_TRUE(plane->Vertex(k).present);
    }
    EXPECT_EQ(plane->Vertex(2).x, 5.0f);
    EXPECT_EQ(plane->Vertex(2).y, 6.0f);

    // Repeated or missing identifiers are made unique.
    const Bytes ids = File({.count = 3}, [](ByteWriter& w) {
        for (int32_t id : {7, 7, -1})
            w.U32(cf::kLineTag), w.F32(1), w.F32(2), w.F32(3), w.F32(4), w.U32(1), w.F32(0),
                w.I32(id);
    });
    ASSERT_TRUE(readConstraintData(set, ctx, ids));
    ASSERT_EQ(set.Size(), 3u);
    EXPECT_EQ(set.At(0)->GetId(), 7);
    EXPECT_NE(set.At(1)->GetId(), 7);
    EXPECT_GE(set.At(2)->GetId(), 0);
    EXPECT_NE(set.At(2)->GetId(), set.At(1)->GetId());
}

// Every way a file is not one, each refused with the same message: a changed
// magic or version tag, any truncation, absurd counts, settings that are not
// numbers.
TEST(ConstraintFileRead, InvalidContentChangesNothing) {
    const Bytes full = Sample();
    for (size_t at : {size_t{0}, size_t{4}}) {
        Bytes bytes = full;
        bytes[at] ^= 0x20;
        SCOPED_TRACE(at);
        ExpectRefused(bytes, kInvalid);
    }
    for (size_t len = 0; len < full.size(); ++len) {
        SCOPED_TRACE(len);
        ExpectRefused(Bytes(full.begin(), full.begin() + static_cast<ptrdiff_t>(len)), kInvalid);
    }
    ExpectRefused(File({.count = 0xFFFFFFFFu}), kInvalid);
    for (uint32_t vertices : {0x7FFFFFFFu, 0x80000000u, 2u}) {
        SCOPED_TRACE(vertices);
        ExpectRefused(File({.count = 1},
                           [&](ByteWriter& w) {  // one vertex present
                               w.U32(cf::kPlaneTag), w.U32(1), w.U32(vertices), w.F32(0), w.F32(0),
                                   w.U32(1);
                           }),
                      kInvalid);
    }
    Bytes longString = File({});
    longString.resize(14);  // after the image size: a camera make of 4 GB
    ByteWriter w{longString};
    w.U32(0xFFFFFFF0u), w.U32(cf::kUtf8Encoding), w.U32(0);
    ExpectRefused(longString, kInvalid);
    for (const Head& h : {Head{.physical = NAN}, Head{.focal = NAN}, Head{.physical = INFINITY},
                          Head{.crop = -INFINITY}}) {
        SCOPED_TRACE(::testing::Message() << h.physical << " " << h.crop << " " << h.focal);
        ExpectRefused(File(h), kInvalid);
    }
}

// The image size, then the make, the model and the lens (only when both
// match: the differing lens of the second case is not reported).
TEST(ConstraintFileRead, MismatchedImageOrCameraIsRefusedInOrder) {
    SimpleConstraintFileContext wide = testing::MakeContext();
    wide.width = 70000;
    ConstraintSet one;
    one.Add(std::make_unique<LineConstraint>());
    const Bytes wideFile = writeConstraintData(one, wide);
    EXPECT_EQ(wideFile[10] | (wideFile[11] << 8), 70000 - 65536);
    // Read back on the very same image: 4464 (the stored 16 bits) never
    // equals 70000.
    ExpectRefused(wideFile, Mismatch(msg::kUnmatchedImageWidth, "4464x3000", "70000x3000"), wide);

    struct Case {
        int32_t height;
        const char *make, *model, *lens;
        std::string message;
    };
    for (const Case& c :
         {Case{2999, "Kestrix", "K1", "Lens 15mm",
               Mismatch(msg::kUnmatchedImageWidth, "4000x3000", "4000x2999")},
          Case{3000, "Other", "K2", "Lens 15mm",
               Mismatch(msg::kUnmatchedCameraMake, "Kestrix", "Other")},
          Case{3000, "Kestrix", "K2", "Another lens",
               Mismatch(msg::kUnmatchedCameraModel, "K1", "K2")},
          Case{3000, "Kestrix", "K1", "", Mismatch(msg::kUnmatchedLensModel, "Lens 15mm", "")}}) {
        SCOPED_TRACE(c.message);
        SimpleConstraintFileContext ctx = testing::MakeContext();
        ctx.height = c.height;
        ctx.make = c.make;
        ctx.model = c.model;
        ctx.lens = c.lens;
        ExpectRefused(Sample(), c.message, ctx);
    }
}

TEST(ConstraintFileRead, ZeroConstraintsAppliesSettingsAndEmptiesTheList) {
    SimpleConstraintFileContext ctx = testing::MakeContext();
    ConstraintSet set;
    testing::FillSample(set);
    set.Select(set.At(0)->GetId());
    const Bytes file = File({.focal = 3000.0f, .regularizer = 0, .word = 77});
    ASSERT_TRUE(readConstraintData(set, ctx, file)) << set.Message();
    EXPECT_TRUE(set.Empty());
    EXPECT_TRUE(set.Selection().empty());
    EXPECT_EQ(set.StateWord(), 77u);
    EXPECT_EQ(ctx.settings.focalLength, 3000.0f);
    EXPECT_EQ(ctx.settings.regularizerModel, RegularizerModel::Stereographic);
    EXPECT_EQ(ctx.settingsChangedCalls, 1);
}

// Focal changes within a hundredth are ignored; focal lengths are clamped,
// the crop factor is stored as read; scale and offsets change without
// counting as a change, the offsets together once either differs by more
// than 1e-06.
TEST(ConstraintFileRead, SettingsClampingAndWhatCountsAsAChange) {
    // The context's settings with these values.
    const auto want = [](float physical, float crop, float focal, int32_t scale, float offsetY) {
        return ConstraintFileSettings{
            physical, crop, focal,  ProjectionModel::Fisheye, RegularizerModel::Auto,
            scale,    0.5f, offsetY};
    };
    const float minP = kMinPhysicalFocalMm, maxP = kMaxPhysicalFocalMm, f = 1666.6666f;
    const struct {
        Head head;
        float before;  // the document's focal length
        ConstraintFileSettings after;
        int changes;
    } cases[] = {
        {{.focal = 1000.0078f}, 1000.0f, want(15, 1, 1000.0f, 120, 0.5f), 0},
        {{.focal = 1000.0156f}, 1000.0f, want(15, 1, 1000.0156f, 120, 0.5f), 1},
        {{.physical = 0.1f, .crop = -2, .focal = 0.5f},
         f,
         want(minP, -2, kMinFocalPixels, 120, .5f),
         1},
        {{.physical = 5000, .crop = -2, .focal = 1e12f},
         f,
         want(maxP, -2, kMaxFocalPixels, 120, .5f),
         1},
        {{.scale = 150, .offsetY = 0.50000048f}, f, want(15, 1, f, 150, 0.5f), 0},
        {{.scale = 150, .offsetY = 0.5001f}, f, want(15, 1, f, 150, 0.5001f), 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.head.focal << " " << c.head.offsetY);
        SimpleConstraintFileContext ctx = testing::MakeContext();
        ctx.settings.focalLength = c.before;
        ConstraintSet set;
        ASSERT_TRUE(readConstraintData(set, ctx, File(c.head)));
        EXPECT_EQ(Fields(ctx.settings), Fields(c.after));
        EXPECT_EQ(ctx.settingsChangedCalls, c.changes);
    }

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
    ASSERT_TRUE(readConstraintData(set, ctx, File({.projection = 3})));  // Full Spherical
    EXPECT_EQ(ctx.chooseProjectionCalls, std::vector{ProjectionModel::Fisheye});
    EXPECT_EQ(ctx.settings.projectionModel, ProjectionModel::Fisheye);
    EXPECT_EQ(ctx.settingsChangedCalls, 0);
}

// --- Files on disk and the fitting pass.

TEST(ConstraintFileDisk, SaveThenLoadFitsAndResetsTheMarker) {
    test::TempFolder dir;
    SimpleConstraintFileContext ctx = testing::MakeContext();
    ConstraintSet set;
    testing::FillSample(set);
    ctx.undoPosition = 12;
    ASSERT_TRUE(saveConstraintFile(set, ctx, dir.Path(), "Constraints.cvc"));
    EXPECT_EQ(set.SavedMarker(), 12);
    // Only the target is left in the folder.
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.Path()), {}), 1);
    std::ifstream in(dir.Path() / "Constraints.cvc", std::ios::binary);
    EXPECT_EQ(Bytes(std::istreambuf_iterator<char>(in), {}), Sample());

    // Saving again replaces the file.
    set.Remove(set.At(0)->GetId());
    ASSERT_TRUE(saveConstraintFile(set, ctx, dir.Path(), "Constraints.cvc"));
    EXPECT_FALSE(saveConstraintFile(set, ctx, dir.Path() / "missing", "x.cvc"));

    auto photo = std::make_shared<PerspectiveImage>(std::make_shared<SourceRaster>(4000, 3000),
                                                    2500.0f, 2000.0f, 1500.0f);
    GeodesicLines lines(photo, std::make_shared<const OctaMap>(5, false));
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
    EXPECT_TRUE(AsLine(*loaded.At(0))->HasValidEntry());
}

TEST(ConstraintFileDisk, EmptyMissingAndUnfittableFiles) {
    test::TempFolder dir;
    SimpleConstraintFileContext ctx = testing::MakeContext();
    ConstraintSet set;
    set.SetSavedMarker(4);
    { std::ofstream(dir.Path() / "empty.cvc", std::ios::binary); }
    loadConstraintFile(set, ctx, dir.Path() / "empty.cvc");
    EXPECT_FALSE(set.Success());
    EXPECT_EQ(set.Message(), std::string(msg::kEmptyFile) + "\n");
    EXPECT_EQ(set.SavedMarker(), 4);
    loadConstraintFile(set, ctx, dir.Path() / "none.cvc");
    EXPECT_FALSE(set.Success());
    EXPECT_EQ(set.Message(), kInvalid);

    // A fisheye on which one line and one polygon corner lie beyond the image
    // circle: each reports, the rest is loaded and fitted.
    ConstraintSet source;
    source.Add(std::make_unique<LineConstraint>(1500.0f, 1500.0f, 2500.0f, 1600.0f));
    source.Add(std::make_unique<LineConstraint>(2.0f, 2.0f, 2500.0f, 1600.0f));
    auto plane = std::make_unique<PlaneConstraint>();
    for (const PointF p :
         std::vector<PointF>{{1800.0f, 1200.0f}, {2200.0f, 1200.0f}, {3990.0f, 2990.0f}})
        plane->AddVertex(p);
    source.Add(std::move(plane));
    ASSERT_TRUE(saveConstraintFile(source, ctx, dir.Path(), "fish.cvc"));
    auto photo = std::make_shared<FisheyeImage>(std::make_shared<SourceRaster>(4000, 3000), 1000.0f,
                                                2000.0f, 1500.0f);
    GeodesicLines lines(photo, std::make_shared<const OctaMap>(4, false));
    ctx.lines = &lines;
    loadConstraintFile(set, ctx, dir.Path() / "fish.cvc");
    EXPECT_TRUE(set.Success());
    EXPECT_EQ(set.Message(), std::string(msg::kBadPlaneConstraintFile) + "\n");  // the last
    EXPECT_EQ(set.Size(), 3u);
    EXPECT_TRUE(AsLine(*set.At(0))->HasValidEntry());
    EXPECT_FALSE(AsLine(*set.At(1))->HasValidEntry());
    EXPECT_EQ(AsPlane(*set.At(2))->Flag(), 0);

    ConstraintSet lineOnly;
    lineOnly.Add(source.At(1)->Clone());
    ASSERT_TRUE(saveConstraintFile(lineOnly, ctx, dir.Path(), "line.cvc"));
    loadConstraintFile(set, ctx, dir.Path() / "line.cvc");
    EXPECT_TRUE(set.Success());
    EXPECT_EQ(set.Message(), std::string(msg::kBadLineConstraintFile) + "\n");
}

// --- The scripting value and the message helper.

// Read and written back, a file is the same bytes; the scripting value is
// the file's bytes, and nothing for an empty set.
TEST(ConstraintData, RoundTripsByteForByteAndIsEmptyForAnEmptySet) {
    SimpleConstraintFileContext ctx = testing::MakeContext();
    ConstraintSet sample, empty, target;
    ASSERT_TRUE(readConstraintData(sample, ctx, Sample())) << sample.Message();
    EXPECT_EQ(sample.Message(), "");
    EXPECT_EQ(writeConstraintData(sample, ctx), Sample());
    EXPECT_EQ(sample.StateWord(), 0xA5C3'0F01u);
    // Same settings: nothing changed, no re-decision.
    EXPECT_EQ(ctx.settingsChangedCalls, 0);
    EXPECT_TRUE(ctx.chooseProjectionCalls.empty());
    EXPECT_EQ(makeConstraintData(sample, ctx), Sample());
    EXPECT_EQ(constraintDataSize(sample, ctx), Sample().size());
    EXPECT_TRUE(makeConstraintData(empty, ctx).empty());
    EXPECT_EQ(constraintDataSize(empty, ctx), 0u);

    target.SetSavedMarker(9);
    EXPECT_TRUE(applyConstraintData(target, ctx, Sample()));
    EXPECT_EQ(target.Size(), sample.Size());
    EXPECT_EQ(target.SavedMarker(), 9);
    EXPECT_FALSE(applyConstraintData(target, ctx, Bytes{}));
    EXPECT_EQ(target.Message(), kInvalid);
}

TEST(ConstraintMessage, LocalizesEachKeyAndKeepsValues) {
    const std::string raw = Mismatch(msg::kUnmatchedImageWidth, "4464x3000", "70000x3000");
    const std::string text = localizeConstraintMessage(raw, [](std::string_view key) {
        return "<" + std::string(key.substr(key.find('=') + 1)) + ">";
    });
    EXPECT_EQ(text,
              "<Image size doesn't match.>\n<Value in the loaded file: >4464x3000\n"
              "<Value of the current image: >70000x3000");
    EXPECT_EQ(localizeConstraintMessage(std::string(msg::kEmptyFile) + "\n",
                                        [](std::string_view) { return "E"; }),
              "E\n");
    EXPECT_EQ(localizeConstraintMessage("plain", [](std::string_view) { return "X"; }), "plain");
}

// Every seed of the fuzz corpus is a valid file for the fuzz target's
// context, written back the same (identifiers unique, codes in range).
TEST(ConstraintFuzzCorpus, SeedsAreValidFiles) {
    const std::filesystem::path dir = std::filesystem::path(CURVANA_TEST_DATA_DIR) / ".." / ".." /
                                      "fuzz" / "corpus" / "constraints";
    ASSERT_TRUE(std::filesystem::is_directory(dir)) << dir;
    size_t seeds = 0;
    for (const auto& e : std::filesystem::directory_iterator(dir)) {
        if (!e.is_regular_file())
            continue;
        std::ifstream in(e.path(), std::ios::binary);
        const Bytes bytes(std::istreambuf_iterator<char>(in), {});
        SimpleConstraintFileContext ctx = testing::MakeContext(), back = ctx;
        ConstraintSet set;
        EXPECT_TRUE(readConstraintData(set, ctx, bytes)) << e.path() << ": " << set.Message();
        back.settings = ctx.settings;
        EXPECT_EQ(writeConstraintData(set, back), bytes) << e.path();
        ++seeds;
    }
    EXPECT_GE(seeds, 3u);
}

}  // namespace
}  // namespace Project
