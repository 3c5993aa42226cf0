// The invocation driver with fake components: what runFilter asks of the
// image hub, the warp, the lens-profile lookup and the editor, and in what
// order.
#include "session/PFilter.h"

#include <gtest/gtest.h>

#include <exiv2/exiv2.hpp>

#include <functional>
#include <new>

#include "FakeHost.h"
#include "core/FourCC.h"
#include "session/PluginEntry.h"
#include "session/PreferencesFile.h"

namespace Project {
namespace {

using test::FakeHost;
using test::TempFolder;

// What the fakes do and what they saw, shared by a test and its components.
struct Scenario {
    std::vector<std::string> calls;
    std::optional<ImageRect> rect;  // else the host's filter rectangle
    bool renderResult = true;
    PEditor::Result editorResult = PEditor::Result::Cancel;
    std::function<void(PFilter&)> inEditor;
    bool profileFound = false;
    LensCameraModel profileModel = LensCameraModel::Fisheye;
    int lookupsAcquired = 0;
    std::weak_ptr<const LensProfileLookup> lookup;
    int focalChanges = 0;
    int refreshes = 0;
    std::function<void()> inSolve;
};

// Every component the driver asks for, recording into the test's scenario.
class FakeParts : public PImageHub,
                  public PWarpPipeline,
                  public PEditor,
                  public PConstraintData,
                  public LensProfileLookup {
public:
    explicit FakeParts(Scenario& scenario) : s_(scenario) {}

    void AttachHost(const HostImageContext& context) override {
        host_ = context.host;
        s_.calls.push_back("attach");
    }
    ImageRect GetImageRect() const override { return s_.rect ? *s_.rect : host_.FilterRect(); }
    bool RenderFinal(PFilter&) override {
        s_.calls.push_back("render");
        return s_.renderResult;
    }

    void RebuildSolver(PFilter&) override { s_.calls.push_back("rebuild"); }
    void Solve(PFilter&) override {
        s_.calls.push_back("solve");
        if (s_.inSolve)
            s_.inSolve();
    }
    std::shared_ptr<const SphereWarp> SolvedWarp() const override { return nullptr; }
    std::shared_ptr<const PhotoToSphere> Photo() const override { return nullptr; }
    std::shared_ptr<const OctaMap> Mesh() const override { return nullptr; }

    Result Run(PFilter& filter, const char* layout, DialogPlacement&) override {
        s_.calls.push_back(std::string("editor ") + layout);
        if (s_.inEditor)
            s_.inEditor(filter);
        return s_.editorResult;
    }
    void RefreshProjection() override { ++s_.refreshes; }

    bool Parse(const uint8_t*, size_t, PSettings&) override { return true; }
    size_t SerializedSize() const override { return 0; }
    void Serialize(uint8_t*) const override {}
    void FocalLengthChanged() override { ++s_.focalChanges; }

    LensProfileLookupResult Find(const CameraMetadata&, uint32_t, uint32_t) const override {
        s_.calls.push_back("lookup");
        if (!s_.profileFound)
            return {std::nullopt, std::string(kNoMatchedProfileKey)};
        LensProfile p;
        p.found = true;
        p.cameraModel = s_.profileModel;
        return {p, {}};
    }

private:
    Scenario& s_;
    HostRecord host_;
};

class FakeComponents : public PFilterComponents {
public:
    explicit FakeComponents(Scenario& scenario) : s_(scenario) {}
    std::unique_ptr<PImageHub> CreateImageHub() override { return std::make_unique<FakeParts>(s_); }
    std::unique_ptr<PWarpPipeline> CreateWarpPipeline() override {
        return std::make_unique<FakeParts>(s_);
    }
    std::shared_ptr<const LensProfileLookup> AcquireLensProfileLookup() override {
        ++s_.lookupsAcquired;
        auto lookup = std::make_shared<FakeParts>(s_);
        s_.lookup = lookup;
        return lookup;
    }
    std::unique_ptr<PEditor> CreateEditor() override { return std::make_unique<FakeParts>(s_); }
    std::unique_ptr<PConstraintData> CreateConstraintData(PFilter&) override {
        return std::make_unique<FakeParts>(s_);
    }

private:
    Scenario& s_;
};

class PFilterTest : public ::testing::Test {
protected:
    PFilterTest() : filter(std::make_unique<FakeComponents>(scenario)) {
        host.preferencesBase = prefsBase.Path();
    }

    // The selectors of one invocation; the result of Start.
    CvError Invoke(bool withDialog) {
        CvFilterRecord* r = host.Record();
        if (withDialog) {
            EXPECT_EQ(filter.HandleSelector(cvSelectorParameters, r), cvNoErr);
        }
        EXPECT_EQ(filter.HandleSelector(cvSelectorPrepare, r), cvNoErr);
        const CvError start = filter.HandleSelector(cvSelectorStart, r);
        EXPECT_EQ(filter.HandleSelector(cvSelectorFinish, r), cvNoErr);
        return start;
    }

    // Runs the editor path and calls body inside the dialog.
    void InEditor(std::function<void(PFilter&)> body) {
        scenario.inEditor = std::move(body);
        EXPECT_EQ(Invoke(true), cvNoErr);
    }

    static std::string Packet(const std::string& attributes) {
        return std::string(
                   "<rdf:RDF xmlns:rdf=\"http://www.w3.org/1999/02/22-rdf-syntax-ns#\">"
                   "<rdf:Description rdf:about=\"\" xmlns:tiff=\"") +
               Exiv2::XmpProperties::ns("tiff") + "\" xmlns:exif=\"" +
               Exiv2::XmpProperties::ns("exif") + "\" xmlns:cvpano=\"" + kXmpNsPanorama + "\" " +
               attributes + "/></rdf:RDF>";
    }

    TempFolder prefsBase;
    FakeHost host;
    Scenario scenario;
    PFilter filter;
};

TEST_F(PFilterTest, RepeatRebuildsSolvesRendersAndWritesParameters) {
    EXPECT_EQ(Invoke(false), cvNoErr);
    EXPECT_EQ(scenario.calls, (std::vector<std::string>{"attach", "rebuild", "solve", "render"}));
    EXPECT_TRUE(filter.applied());
    ASSERT_TRUE(host.result);
    EXPECT_EQ(host.result->GetEnumerated(FourCC("prjM"))->value, FourCC("fisP"));
    EXPECT_TRUE(std::filesystem::exists(test::PreferencesFileUnder(prefsBase.Path())));
}

// OK hands the parameters back without rendering (the host renders);
// Cancel writes none; both save the live settings.
TEST_F(PFilterTest, TheEditorsOkWritesParametersWithoutRenderingAndCancelWritesNone) {
    for (const auto result : {PEditor::Result::Ok, PEditor::Result::Cancel}) {
        const bool ok = result == PEditor::Result::Ok;
        scenario.calls.clear();
        scenario.editorResult = result;
        PEditor* during = nullptr;
        InEditor([&](PFilter& f) {
            during = f.dialog();
            f.settings().loupeSize = ok ? 111 : 222;
            f.settings().projectionModel = ProjectionModel::Perspective;
        });
        EXPECT_NE(during, nullptr);
        EXPECT_EQ(filter.dialog(), nullptr);
        if (ok) {
            EXPECT_EQ(scenario.calls, (std::vector<std::string>{"attach", "lookup", "rebuild",
                                                                "editor PDialog.zel"}));
        }
        EXPECT_FALSE(filter.applied());
        EXPECT_EQ(host.resultDescriptors, 1) << ok;  // OK's, not Cancel's
        PPreferences saved;
        ASSERT_TRUE(LoadPreferencesFile(test::PreferencesFileUnder(prefsBase.Path()), saved));
        EXPECT_EQ(saved.settings.loupeSize, ok ? 111 : 222);
        EXPECT_EQ(saved.settings.projectionModel, ProjectionModel::Perspective);
    }
}

TEST_F(PFilterTest, DescriptorWithParametersSelectorOpensTheEditor) {
    host.input = std::make_unique<ActionDescriptor>();
    host.input->Put(FourCC("prjM"), ActionDescriptor::Enumerated{FourCC("prjM"), FourCC("perP")});
    ProjectionModel seen = ProjectionModel::None;
    InEditor([&](PFilter& f) { seen = f.settings().projectionModel; });
    EXPECT_EQ(seen, ProjectionModel::Perspective);
    EXPECT_EQ(scenario.calls,
              (std::vector<std::string>{"attach", "rebuild", "editor PDialog.zel"}));
}

TEST_F(PFilterTest, FullSphericalNeedsATwoToOneImage) {
    struct Case {
        int32_t w, h;
        bool accepted;
    };
    // (The aspect rule's edges are ProjectionFactoryTest's.)
    for (const Case c : {Case{4000, 2000, true}, Case{4000, 1990, false}}) {
        scenario.rect = ImageRect{0, 0, c.w, c.h};
        host.alerts.clear();
        InEditor([](PFilter& f) {
            f.settings().projectionModel = ProjectionModel::FullSpherical;
            f.chooseProjection(ProjectionModel::Perspective, ProjectionDecision::Keep, false);
            const ProjectionModel quiet = f.settings().projectionModel;
            f.settings().projectionModel = ProjectionModel::FullSpherical;
            f.chooseProjection(ProjectionModel::Perspective, ProjectionDecision::Keep, true);
            EXPECT_EQ(quiet, f.settings().projectionModel);
        });
        const auto expected =
            c.accepted ? ProjectionModel::FullSpherical : ProjectionModel::Perspective;
        EXPECT_EQ(filter.settings().projectionModel, expected) << c.w << "x" << c.h;
        // Only the warned fall-back shows the alert (the editor stand-in shows none).
        EXPECT_EQ(host.alerts.size(), c.accepted ? 0u : 1u) << c.w << "x" << c.h;
    }
    EXPECT_NE(host.alerts.back().message.find("1:2"), std::string::npos);
}

TEST_F(PFilterTest, AutoKeepsTheModelWhenALensProfileIsFoundAndReleasesTheLookup) {
    scenario.profileFound = true;
    InEditor([](PFilter& f) {
        EXPECT_EQ(f.settings().projectionModel, ProjectionModel::Auto);
        EXPECT_TRUE(f.lensProfile().has_value());
    });
    EXPECT_EQ(scenario.lookupsAcquired, 1);
    EXPECT_TRUE(scenario.lookup.expired()) << "the lookup is held only during the invocation";
}

// Without a profile, or with one whose camera model neither projection takes
// (it builds nothing), Auto falls back to the previous model with the
// lookup's warning.
TEST_F(PFilterTest, AutoWithoutAUsableProfileFallsBackWithTheLookupsWarning) {
    for (const bool found : {false, true}) {
        scenario.profileFound = found;
        scenario.profileModel = LensCameraModel::None;
        scenario.lookupsAcquired = 0;
        host.alerts.clear();
        InEditor([](PFilter& f) {
            f.settings().projectionModel = ProjectionModel::Auto;
            f.chooseProjection(ProjectionModel::Perspective, ProjectionDecision::Keep, true);
            EXPECT_EQ(f.settings().projectionModel, ProjectionModel::Perspective);
            EXPECT_FALSE(f.lensProfile().has_value());
        });
        ASSERT_EQ(host.alerts.size(), 1u) << found;
        EXPECT_EQ(host.alerts[0].message, "No matching lens profile found.");
        EXPECT_EQ(scenario.lookupsAcquired, 1) << "acquired once per invocation";
    }
    EXPECT_GE(scenario.refreshes, 1) << "the running editor refreshes its projection controls";
}

// A fresh invocation decides by the photo's own focal length f; restoring
// the defaults decides by its 35 mm equivalent E (crop x f when the photo
// records none, 0 without a crop factor).
TEST_F(PFilterTest, SixteenMillimetreRulesOfAFreshStartAndOfAReset) {
    struct Case {
        const char* attributes;
        ProjectionModel fresh, reset;
    };
    const auto fish = ProjectionModel::Fisheye, persp = ProjectionModel::Perspective;
    for (const Case c : {
             Case{"exif:FocalLength=\"24\"", persp, fish},  // no crop: E = 0 keeps the fallback
             Case{"exif:FocalLength=\"12\" exif:FocalLengthIn35mmFilm=\"19\"", fish, persp},
             Case{"exif:FocalLengthIn35mmFilm=\"159/10\"", fish, fish},  // f = 0: fallback
             Case{"exif:FocalLength=\"16005/1000\"", fish, fish},        // within 0.01 of 16: kept
             Case{"tiff:Make=\"Canon\"", fish, fish},
         }) {
        host.xmpPacket = Packet(c.attributes);
        ProjectionModel fresh = ProjectionModel::None, reset = ProjectionModel::None;
        InEditor([&](PFilter& f) {
            fresh = f.settings().projectionModel;
            f.chooseProjection(ProjectionModel::Fisheye, ProjectionDecision::Reset, false);
            reset = f.settings().projectionModel;
        });
        EXPECT_EQ(fresh, c.fresh) << c.attributes;
        EXPECT_EQ(reset, c.reset) << c.attributes;
    }
}

// A silent run asked for the editor's opening settings starts from them; the
// descriptor's keys override, and a physical focal length without the one in
// pixels gives the latter for this image.
TEST_F(PFilterTest, ASilentRunCanStartWhereTheEditorWouldOpen) {
    host.width = 3600;
    host.height = 2400;
    host.xmpPacket = Packet("exif:FocalLength=\"24\" exif:FocalLengthIn35mmFilm=\"36\"");
    host.freshDefaults = 1;
    host.input = std::make_unique<ActionDescriptor>();
    host.input->Put(FourCC("regM"), ActionDescriptor::Enumerated{FourCC("regM"), FourCC("merR")});
    ASSERT_EQ(Invoke(false), cvNoErr);
    EXPECT_EQ(filter.settings().projectionModel, ProjectionModel::Perspective);
    EXPECT_EQ(filter.settings().regularizerModel, RegularizerModel::Mercator);
    EXPECT_FLOAT_EQ(filter.settings().cropFactor, 1.5f);
    EXPECT_FLOAT_EQ(filter.settings().focalLength, 1.5f * 24 * 3600 / 36);

    host.input->Put(FourCC("PhyF"), 12.0);
    host.input->Put(FourCC("prjM"), ActionDescriptor::Enumerated{FourCC("prjM"), FourCC("fisP")});
    ASSERT_EQ(Invoke(false), cvNoErr);
    EXPECT_EQ(filter.settings().projectionModel, ProjectionModel::Fisheye);
    EXPECT_FLOAT_EQ(filter.settings().focalLength, 1.5f * 12 * 3600 / 36);

    // Without the request the saved settings are the start, as they always were.
    host.freshDefaults.reset();
    host.input = std::make_unique<ActionDescriptor>();
    host.input->Put(FourCC("regM"), ActionDescriptor::Enumerated{FourCC("regM"), FourCC("steR")});
    ASSERT_EQ(Invoke(false), cvNoErr);
    EXPECT_EQ(filter.settings().projectionModel, ProjectionModel::Fisheye);
    EXPECT_TRUE(host.warnings.empty());
}

// The silent path shows no alert: what it has to say goes to the host as a
// warning; inside the editor it is an alert.
TEST_F(PFilterTest, SilentRunsWarnWhereTheEditorAlerts) {
    scenario.rect = ImageRect{0, 0, 300, 200};
    host.input = std::make_unique<ActionDescriptor>();
    host.input->Put(FourCC("prjM"), ActionDescriptor::Enumerated{FourCC("prjM"), FourCC("fusP")});
    ASSERT_EQ(Invoke(false), cvNoErr);
    EXPECT_EQ(filter.settings().projectionModel, ProjectionModel::Fisheye);
    EXPECT_TRUE(host.alerts.empty());
    ASSERT_EQ(host.warnings.size(), 1u);
    EXPECT_NE(host.warnings[0].find("1:2"), std::string::npos);
}

TEST_F(PFilterTest, PanoramaMetadataKeepsTheModel) {
    host.xmpPacket = Packet(
        "cvpano:Transformation=\"Cylindrical\" cvpano:VirtualFocalLength=\"0.15\" "
        "cvpano:VirtualImageXCenter=\"0.5\" cvpano:VirtualImageYCenter=\"0.5\"");
    InEditor([](PFilter& f) {
        ASSERT_TRUE(f.cameraMetadata().isPanorama);
        EXPECT_EQ(f.settings().projectionModel, ProjectionModel::Auto);  // "Panorama"
        f.settings().projectionModel = ProjectionModel::Perspective;
        f.chooseProjection(ProjectionModel::Fisheye, ProjectionDecision::Keep, true);
        EXPECT_EQ(f.settings().projectionModel, ProjectionModel::Perspective);
    });
    EXPECT_EQ(scenario.lookupsAcquired, 0);
}

TEST_F(PFilterTest, FocalFromAnEquivalentFocalLengthAlone) {
    host.width = 3600;
    host.height = 2400;
    host.xmpPacket = Packet("exif:FocalLengthIn35mmFilm=\"24\"");
    InEditor([&](PFilter& f) {
        f.settings().projectionModel = ProjectionModel::Fisheye;
        EXPECT_FLOAT_EQ(f.focalFromMetadata(true), 2400.0f);  // 1.0 x 24 mm x 3600 / 36
        EXPECT_FLOAT_EQ(f.settings().cropFactor, 1.0f);
        EXPECT_FLOAT_EQ(f.settings().physicalFocalLength, 24.0f);
        EXPECT_EQ(scenario.focalChanges, 0) << "keep on stores nothing";
        f.settings().focalLength = 100.0f;
        EXPECT_FLOAT_EQ(f.focalFromMetadata(false), 2400.0f);
        EXPECT_FLOAT_EQ(f.settings().focalLength, 2400.0f);
        EXPECT_EQ(scenario.focalChanges, 1);
    });
}

TEST_F(PFilterTest, FocalFromThePhysicalFocalLengthAndCrop) {
    host.width = 3000;
    host.height = 2000;
    host.xmpPacket = Packet("exif:FocalLength=\"10/1\" exif:FocalLengthIn35mmFilm=\"15\"");
    InEditor([](PFilter& f) {
        // A fresh invocation stored the focal from the metadata (keep on).
        EXPECT_FLOAT_EQ(f.settings().physicalFocalLength, 10.0f);
        EXPECT_FLOAT_EQ(f.settings().cropFactor, 1.5f);
        EXPECT_FLOAT_EQ(f.settings().focalLength, 1.5f * 10.0f * 3000.0f / 36.0f);
    });
}

TEST(CacheBudget, ClampsBothFiguresThenTakesTheSmaller) {
    constexpr uint64_t MiB = 1ull << 20;
    constexpr uint64_t GiB = 1ull << 30;
    EXPECT_EQ(PHostFilter::ComputeCacheBudget(0, 0), 32 * MiB);
    EXPECT_EQ(PHostFilter::ComputeCacheBudget(10 * MiB, 100 * GiB), 32 * MiB);
    EXPECT_EQ(PHostFilter::ComputeCacheBudget(100 * GiB, 40 * MiB), 40 * MiB);
    EXPECT_EQ(PHostFilter::ComputeCacheBudget(100 * MiB, 1 * GiB),
              50 * MiB);  // half the free memory
    EXPECT_EQ(PHostFilter::ComputeCacheBudget(100 * GiB, 100 * GiB), 3 * GiB);
    EXPECT_EQ(PHostFilter::ComputeCacheBudget(~0ull, ~0ull), 0xC0000000ull);
}

// A filter that reports a result per selector, to see the flags.
class FlagFilter : public PHostFilter {
public:
    bool startResult = true;
    bool throwInStart = false;

protected:
    bool OnStart() override {
        if (throwInStart)
            throw std::runtime_error("boom");
        return startResult;
    }
};

TEST(PHostFilter, SelectorFlagsFollowParametersStartAndFinish) {
    FakeHost host;
    FlagFilter f;
    CvFilterRecord* r = host.Record();
    EXPECT_EQ(f.HandleSelector(cvSelectorAbout, r), cvNoErr);
    EXPECT_EQ(f.HandleSelector(cvSelectorParameters, r), cvNoErr);
    EXPECT_TRUE(f.ParametersRequested());
    EXPECT_EQ(f.HandleSelector(cvSelectorStart, r), cvNoErr);
    EXPECT_TRUE(f.ParametersRequested());
    EXPECT_EQ(f.HandleSelector(cvSelectorContinue, r), cvNoErr);
    EXPECT_EQ(f.HandleSelector(cvSelectorFinish, r), cvNoErr);
    EXPECT_FALSE(f.ParametersRequested());

    f.HandleSelector(cvSelectorParameters, r);
    f.startResult = false;
    EXPECT_EQ(f.HandleSelector(cvSelectorStart, r), cvErrFilterFailed);
    EXPECT_FALSE(f.ParametersRequested());

    f.HandleSelector(cvSelectorParameters, r);
    f.throwInStart = true;
    EXPECT_THROW(f.HandleSelector(cvSelectorStart, r), std::runtime_error);
    EXPECT_FALSE(f.ParametersRequested());
    EXPECT_EQ(f.CurrentSelector(), cvSelectorStart);
    EXPECT_EQ(f.HandleSelector(42, r), cvErrParam);
}

// HandleEntry with fake components: the scenario of the running test.
Scenario* gScenario = nullptr;
std::unique_ptr<PFilterComponents> MakeFakes() {
    return std::make_unique<FakeComponents>(*gScenario);
}

TEST(HandleEntry, RefusesMissingArgumentsAndTurnsExceptionsIntoErrorResults) {
    Scenario scenario;
    gScenario = &scenario;
    FakeHost host;
    scenario.profileFound = true;
    intptr_t data = 0;
    int16_t result = 1;
    auto call = [&](int16_t selector) {
        HandleEntry(selector, host.Record(), &data, &result, &MakeFakes);
        return result;
    };
    // Missing arguments are refused without an instance.
    HandleEntry(cvSelectorStart, host.Record(), nullptr, &result, &MakeFakes);
    EXPECT_EQ(result, cvErrParam);
    HandleEntry(cvSelectorStart, host.Record(), &data, &result, nullptr);
    EXPECT_EQ(result, cvErrParam);
    EXPECT_EQ(data, 0);
    EXPECT_TRUE(scenario.calls.empty());

    host.input = std::make_unique<ActionDescriptor>();
    host.input->Put(FourCC("prjM"), ActionDescriptor::Enumerated{FourCC("prjM"), FourCC("autP")});

    scenario.inSolve = [] { throw std::runtime_error("solver broke"); };
    EXPECT_EQ(call(cvSelectorStart), cvErrFilterFailed);
    EXPECT_NE(data, 0);
    EXPECT_TRUE(scenario.lookup.expired()) << "the lookup was given back";
    EXPECT_EQ(host.resultDescriptors, 0);

    scenario.inSolve = [] { throw std::bad_alloc(); };
    EXPECT_EQ(call(cvSelectorStart), cvErrMemory);

    scenario.inSolve = nullptr;
    EXPECT_EQ(call(cvSelectorStart), cvNoErr);
    EXPECT_EQ(host.resultDescriptors, 1);

    EXPECT_EQ(call(cvSelectorUnload), cvNoErr);
    EXPECT_EQ(data, 0);
    EXPECT_EQ(host.suitesReleased[CV_BUFFER_SUITE_NAME], 1);
    gScenario = nullptr;
}

}  // namespace
}  // namespace Project
