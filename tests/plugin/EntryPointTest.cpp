// Whole invocations through the built module's EntryFI, loaded with dlopen,
// against the fake host. The module runs with its real components (the mesh
// warp, the GPU renderer on whatever Vulkan device the machine has); there is
// no editor yet.
#include <gtest/gtest.h>

#include "FakeHost.h"
#include "LoadedModule.h"
#include "constraints/ConstraintFile.h"
#include "core/FileIO.h"
#include "core/FourCC.h"
#include "session/PreferencesFile.h"
#include "session/ScriptParameters.h"

namespace Project {
namespace {

using test::FakeHost;
using test::LoadedModule;
using Enumerated = ActionDescriptor::Enumerated;

// No editor object is built beside the module here: the dialog cannot open.
constexpr const char* kEditorMissing = "libcurvana_editor.so is missing.";

// Stored preferences that differ from the defaults in every scripted field.
PPreferences StoredPrefs() {
    PPreferences p;
    p.settings.focalLength = 777.0f;
    p.settings.physicalFocalLength = 24.0f;
    p.settings.cropFactor = 1.6f;
    p.settings.projectionModel = ProjectionModel::Perspective;
    p.settings.colors[3] = 0x44332211;
    p.settings.colors[4] = 0x88776655;
    p.settings.loupeSize = 200;
    return p;
}

struct Expected {
    uint32_t projection;
    uint32_t regularizer;
    float focal;
    float physical;
    float crop;
    int32_t scale = 120;
    float offsetX = 0.5f;
    float offsetY = 0.5f;
};

void ExpectDescriptor(const ActionDescriptor* d, const Expected& e) {
    ASSERT_NE(d, nullptr) << "no result descriptor";
    EXPECT_EQ(d->GetEnumerated(cvKeyProjectionModel)->value, e.projection)
        << FourCCText(d->GetEnumerated(cvKeyProjectionModel)->value);
    EXPECT_EQ(d->GetEnumerated(cvKeyRegularizerModel)->value, e.regularizer);
    EXPECT_FLOAT_EQ(static_cast<float>(*d->GetFloat(cvKeyFocalLength)), e.focal);
    EXPECT_FLOAT_EQ(static_cast<float>(*d->GetFloat(cvKeyPhysicalFocalLength)), e.physical);
    EXPECT_FLOAT_EQ(static_cast<float>(*d->GetFloat(cvKeyCropFactor)), e.crop);
    EXPECT_EQ(d->GetInteger(cvKeyScale), e.scale);
    EXPECT_FLOAT_EQ(static_cast<float>(*d->GetFloat(cvKeyOffsetX)), e.offsetX);
    EXPECT_FLOAT_EQ(static_cast<float>(*d->GetFloat(cvKeyOffsetY)), e.offsetY);
}

// What a run with only "regM" = "merR" returns when StoredPrefs were loaded,
// and when the defaults were in force (a 64-pixel-wide image). A named
// regulariser is the user's choice and comes back as named, however wide the
// field.
const Expected kFromStored{cvProjectionPerspective, cvRegularizerMercator, 777.0f, 24.0f, 1.6f};
const Expected kFromDefaults{cvProjectionFisheye, cvRegularizerMercator, 64.0f * 15.0f / 36.0f,
                             15.0f, 1.0f};

class EntryPoint : public ::testing::Test {
protected:
    EntryPoint() { host.preferencesBase = prefsBase.Path(); }

    std::filesystem::path PrefsFile() const { return test::PreferencesFileUnder(prefsBase.Path()); }

    void PlacePrefs(const std::vector<uint8_t>& bytes) {
        ASSERT_TRUE(WriteFileAtomically(PrefsFile(), bytes));
    }
    void PlacePrefs(const PPreferences& p) { PlacePrefs(SerializePreferences(p)); }
    std::optional<PPreferences> SavedPrefs() const {
        PPreferences p;
        if (!LoadPreferencesFile(PrefsFile(), p))
            return std::nullopt;
        return p;
    }

    void InputRegulariserOnly() {
        host.input = std::make_unique<ActionDescriptor>();
        host.input->Put(cvKeyRegularizerModel,
                        Enumerated{cvKeyRegularizerModel, cvRegularizerMercator});
    }

    // The final render wrote every sample of the filtered area once (the
    // image is small enough for one output tile) and changed the picture.
    void ExpectImageRendered() const {
        const int planes = host.mode == cvModeGray ? 1 : host.mode == cvModeCMYK ? 4 : 3;
        EXPECT_EQ(host.samplesWritten, int64_t{host.width} * host.height * planes);
        EXPECT_GT(host.samplesWrong, 0);
    }

    // Constraint data for the fake host's image: one vertical line.
    std::vector<uint8_t> OneLineConstraintData(int32_t width, int32_t height) const {
        SimpleConstraintFileContext context;
        context.width = width;
        context.height = height;
        ConstraintSet set;
        auto line = std::make_unique<LineConstraint>();
        line->SetEndpoints({20.0f, 8.0f}, {22.0f, 40.0f});
        line->SetOrientation(Orientation::Vertical);
        set.Add(std::move(line));
        return makeConstraintData(set, context);
    }

    void ExpectAllSucceeded(const std::vector<int16_t>& results) const {
        for (int16_t r : results)
            EXPECT_EQ(r, cvNoErr);
    }

    test::TempFolder prefsBase;
    FakeHost host;  // outlives the module, which unloads with its record
    LoadedModule module;
};

TEST_F(EntryPoint, RefusesAForeignRecordWithAnError) {
    CvFilterRecord* r = host.Record();
    r->abiVersion = CURVANA_ABI_VERSION + 1;
    EXPECT_EQ(module.Call(cvSelectorStart, r), cvErrParam);
    r = host.Record();
    r->structSize = 16;
    EXPECT_EQ(module.Call(cvSelectorParameters, r), cvErrParam);
    EXPECT_EQ(module.Call(cvSelectorStart, nullptr), cvErrParam);
    EXPECT_EQ(module.Data(), 0);
    EXPECT_TRUE(host.alerts.empty());
}

class HostVersion : public EntryPoint,
                    public ::testing::WithParamInterface<std::optional<int32_t>> {};

TEST_P(HostVersion, OtherThanMajor27IsRefusedWithAnAlertAndNothingElse) {
    host.version = GetParam();
    InputRegulariserOnly();
    ExpectAllSucceeded(module.RunWithoutDialog(host.Record()));
    ExpectAllSucceeded(module.RunWithDialog(host.Record()));
    ASSERT_EQ(host.alerts.size(), 2u);
    EXPECT_EQ(host.alerts[0].message,
              "This feature is not supported by the current version of Pictora.");
    EXPECT_EQ(host.alerts[0].title, "Curvana");
    EXPECT_EQ(host.resultDescriptors, 0);
    EXPECT_EQ(host.samplesWritten, 0);
    EXPECT_FALSE(std::filesystem::exists(PrefsFile()));
}

INSTANTIATE_TEST_SUITE_P(Refused, HostVersion,
                         ::testing::Values(26 << 16, 28 << 16, (26 << 16) | 0xFFFF, 27,
                                           std::nullopt));

TEST_F(EntryPoint, Major27PassesWhateverTheMinor) {
    host.version = (27 << 16) | 3;
    ExpectAllSucceeded(module.RunWithoutDialog(host.Record()));
    EXPECT_TRUE(host.alerts.empty());
    ExpectImageRendered();
}

TEST_F(EntryPoint, GraphicsProcessorNotInUseIsRefused) {
    for (std::optional<int32_t> flags : {std::optional<int32_t>(0x7F), std::optional<int32_t>()}) {
        host.gpuFlags = flags;
        host.alerts.clear();
        ExpectAllSucceeded(module.RunWithoutDialog(host.Record()));
        ASSERT_EQ(host.alerts.size(), 1u);
        EXPECT_EQ(host.alerts[0].title, "Curvana Error");
        EXPECT_EQ(host.alerts[0].message,
                  "This feature requires graphics processor acceleration. Please check the "
                  "Performance Preferences and verify that 'Use Graphics Processor' is enabled.");
    }
    EXPECT_EQ(host.samplesWritten, 0);
    EXPECT_FALSE(std::filesystem::exists(PrefsFile()));
}

TEST_F(EntryPoint, ScriptedApplyRendersAndHandsTheParametersBack) {
    host.input = std::make_unique<ActionDescriptor>();
    ActionDescriptor& in = *host.input;
    in.Put(cvKeyActionVersion, 0);
    const std::vector<uint8_t> constraintData = OneLineConstraintData(host.width, host.height);
    in.Put(cvKeyConstraintData,
           ActionDescriptor::Data(constraintData.begin(), constraintData.end()));
    in.Put(cvKeyProjectionModel, Enumerated{cvKeyProjectionModel, cvProjectionPerspective});
    in.Put(cvKeyRegularizerModel, Enumerated{cvKeyRegularizerModel, cvRegularizerPanini});
    in.Put(cvKeyFocalLength, 1234.5);
    in.Put(cvKeyPhysicalFocalLength, 20.0);
    in.Put(cvKeyCropFactor, 1.5);
    in.Put(cvKeyScale, 150);
    in.Put(cvKeyOffsetX, 0.25);
    in.Put(cvKeyOffsetY, 0.75);
    ExpectAllSucceeded(module.RunWithoutDialog(host.Record()));

    EXPECT_TRUE(host.alerts.empty());
    ExpectImageRendered();
    EXPECT_EQ(host.progressTitle, "Progress");
    EXPECT_EQ(host.progressMessage, "Applying Curvana.");
    ASSERT_FALSE(host.progressReports.empty());
    EXPECT_EQ(host.progressReports.back().first, host.progressReports.back().second);
    ASSERT_EQ(host.resultDescriptors, 1);
    // The named Panini form is kept over the perspective hemisphere.
    ExpectDescriptor(host.result.get(), {cvProjectionPerspective, cvRegularizerPanini, 1234.5f,
                                         20.0f, 1.5f, 150, 0.25f, 0.75f});
    // The constraints come back; the header carries the settings applied.
    const auto* data = host.result->GetData(cvKeyConstraintData);
    ASSERT_NE(data, nullptr);
    SimpleConstraintFileContext back;
    back.width = host.width;
    back.height = host.height;
    ConstraintSet set;
    ASSERT_TRUE(
        readConstraintData(set, back, std::span<const uint8_t>(data->data(), data->size())));
    ASSERT_EQ(set.Size(), 1u);
    const auto* line = dynamic_cast<const LineConstraint*>(set.At(0));
    ASSERT_NE(line, nullptr);
    EXPECT_EQ(line->GetOrientation(), Orientation::Vertical);
    EXPECT_FLOAT_EQ(back.settings.focalLength, 1234.5f);

    const auto saved = SavedPrefs();
    ASSERT_TRUE(saved);
    EXPECT_FLOAT_EQ(saved->settings.focalLength, 1234.5f);
    EXPECT_EQ(saved->settings.projectionModel, ProjectionModel::Perspective);
}

TEST_F(EntryPoint, ConstraintDataOfAnotherImageSizeIsRefusedWithItsMessage) {
    host.input = std::make_unique<ActionDescriptor>();
    const std::vector<uint8_t> data = OneLineConstraintData(host.width + 1, host.height);
    host.input->Put(cvKeyConstraintData, ActionDescriptor::Data(data.begin(), data.end()));
    ExpectAllSucceeded(module.RunWithoutDialog(host.Record()));

    ASSERT_EQ(host.alerts.size(), 1u);
    EXPECT_EQ(host.alerts[0].message,
              "Image size doesn't match.\nValue in the loaded file: 65x48\n"
              "Value of the current image: 64x48");
    EXPECT_EQ(host.samplesWritten, 0);
    EXPECT_EQ(host.resultDescriptors, 0);
}

TEST_F(EntryPoint, RepeatWithoutDescriptorUsesTheLastSettingsOfTheInstance) {
    host.input = std::make_unique<ActionDescriptor>();
    host.input->Put(cvKeyProjectionModel,
                    Enumerated{cvKeyProjectionModel, cvProjectionPerspective});
    host.input->Put(cvKeyFocalLength, 321.0);
    host.input->Put(cvKeyScale, 90);
    module.RunWithoutDialog(host.Record());

    host.input.reset();
    host.result.reset();
    host.samplesWritten = 0;
    ExpectAllSucceeded(module.RunWithoutDialog(host.Record()));
    EXPECT_EQ(host.resultDescriptors, 2);
    ExpectDescriptor(host.result.get(),
                     {cvProjectionPerspective, cvRegularizerAuto, 321.0f, 15.0f, 1.0f, 90});
    ExpectImageRendered();
    EXPECT_TRUE(host.alerts.empty());
}

TEST_F(EntryPoint, RepeatInAFreshInstanceUsesTheStoredPreferences) {
    PlacePrefs(StoredPrefs());
    ExpectAllSucceeded(module.RunWithoutDialog(host.Record()));
    Expected stored = kFromStored;
    stored.regularizer = cvRegularizerAuto;  // not stored: the default
    ExpectDescriptor(host.result.get(), stored);
    EXPECT_EQ(SavedPrefs()->settings.loupeSize, 200) << "the stored preferences survive";
}

// The live settings are still saved: the fresh invocation chose the model
// automatically (no metadata: Fisheye) and kept the stored focal length; a
// descriptor's focal length is the editor's start.
TEST_F(EntryPoint, DialogWithoutAnEditorEndsLikeCancelButSavesItsSettings) {
    PlacePrefs(StoredPrefs());
    for (const bool described : {false, true}) {
        if (described) {
            host.input = std::make_unique<ActionDescriptor>();
            host.input->Put(cvKeyFocalLength, 555.0);
        }
        host.alerts.clear();
        ExpectAllSucceeded(module.RunWithDialog(host.Record()));
        ASSERT_EQ(host.alerts.size(), 1u);
        EXPECT_NE(host.alerts[0].message.find(kEditorMissing), std::string::npos)
            << host.alerts[0].message;
        EXPECT_EQ(host.resultDescriptors, 0);
        EXPECT_EQ(host.samplesWritten, 0);
        const auto saved = SavedPrefs();
        ASSERT_TRUE(saved);
        EXPECT_EQ(saved->settings.projectionModel, ProjectionModel::Fisheye);
        EXPECT_FLOAT_EQ(saved->settings.focalLength,
                        described ? 555.0f : 1.6f * 24.0f * 64.0f / 36.0f);
        EXPECT_EQ(saved->settings.loupeSize, 200);
    }
}

TEST_F(EntryPoint, CancelledRenderWritesNoParametersButSavesPreferences) {
    host.abortAfterProgress = 0;
    InputRegulariserOnly();
    ExpectAllSucceeded(module.RunWithoutDialog(host.Record()));
    EXPECT_EQ(host.resultDescriptors, 0);
    EXPECT_EQ(host.samplesWritten, 0);
    EXPECT_TRUE(SavedPrefs());
}

// Which broken files are refused is PreferencesFileTest's; here, that one
// leaves the defaults in force without a word to the user.
TEST_F(EntryPoint, BrokenPreferencesKeepTheDefaultsSilently) {
    const std::vector<uint8_t> full = SerializePreferences(StoredPrefs());
    PlacePrefs(std::vector<uint8_t>(full.begin(), full.begin() + full.size() / 2));
    InputRegulariserOnly();
    module.RunWithoutDialog(host.Record());
    ExpectDescriptor(host.result.get(), kFromDefaults);
    EXPECT_TRUE(host.alerts.empty());
}

// A descriptor with only the regulariser takes the rest from the stored
// preferences, unless the first need of an instance comes with the three
// modifier keys held (two of them are not enough).
TEST_F(EntryPoint, HoldingTheThreeModifierKeysIgnoresTheStoredPreferences) {
    PlacePrefs(StoredPrefs());
    InputRegulariserOnly();
    for (const uint32_t keys :
         {0u, static_cast<uint32_t>(cvModifierCommand | cvModifierShift | cvModifierOption)}) {
        LoadedModule other;
        host.modifierKeys = keys;
        ExpectAllSucceeded(other.RunWithoutDialog(host.Record()));
        ExpectDescriptor(host.result.get(), kFromStored);
    }

    host.modifierKeys = cvModifierShift | cvModifierOption | cvModifierControl;
    module.RunWithoutDialog(host.Record());
    ExpectDescriptor(host.result.get(), kFromDefaults);
    // The defaults overwrite the file.
    EXPECT_EQ(SavedPrefs()->settings.projectionModel, ProjectionModel::Fisheye);

    // Only for that instance's first need: the keys no longer matter after.
    host.modifierKeys = 0;
    module.RunWithoutDialog(host.Record());
    ExpectDescriptor(host.result.get(), kFromDefaults);
}

TEST_F(EntryPoint, MemoryIsSetUpOncePerInstanceAndGivenBackOnUnload) {
    module.RunWithoutDialog(host.Record());
    module.RunWithDialog(host.Record());
    EXPECT_EQ(host.suitesAcquired[CV_BUFFER_SUITE_NAME], 1);
    EXPECT_EQ(host.maxSpaceCalls, 1);
    EXPECT_EQ(host.freeMemoryCalls, 1);
    EXPECT_EQ(host.buffersOutstanding, 0);
    EXPECT_EQ(module.Call(cvSelectorUnload, host.Record()), cvNoErr);
    EXPECT_EQ(module.Data(), 0);
    EXPECT_EQ(host.suitesReleased[CV_BUFFER_SUITE_NAME], 1);
}

// The pixel-cache budget bounds the source texture: a 6000 x 6000 grey image
// (36,000,000 bytes, 144 MB as a texture) is read in whole rows under a
// generous budget, and drawn through source windows narrower than the image
// under the 32 MiB floor.
TEST_F(EntryPoint, ASmallCacheBudgetDrawsThroughSourceWindows) {
    host.mode = cvModeGray;
    host.width = 6000;
    host.height = 6000;
    host.freeMemory = 100ull << 30;
    host.maxSpace = 100ull << 30;
    module.RunWithoutDialog(host.Record());
    ExpectImageRendered();
    EXPECT_EQ(host.widestSourceRead, 6000);

    LoadedModule second;  // the budget is set up once per instance
    host.freeMemory = 10ull << 20;
    host.maxSpace = 8ull << 20;
    host.widestSourceRead = 0;
    host.samplesWritten = 0;
    second.RunWithoutDialog(host.Record());
    ExpectImageRendered();
    EXPECT_GT(host.widestSourceRead, 0);
    EXPECT_LT(host.widestSourceRead, 3000);  // windows of at most sqrt(32 MiB / 4) texels
}

// Buffers the host refuses are taken from the heap.
TEST_F(EntryPoint, SixteenBitCmykIsRenderedThroughHeapBuffers) {
    host.refuseBuffers = true;
    host.mode = cvModeCMYK;
    host.depth = 16;
    ExpectAllSucceeded(module.RunWithoutDialog(host.Record()));
    ExpectImageRendered();
    EXPECT_EQ(host.resultDescriptors, 1);
}

TEST_F(EntryPoint, AHostErrorFailsTheSelectorWithoutEscaping) {
    host.failResultWrites = true;
    const auto results = module.RunWithoutDialog(host.Record());
    EXPECT_NE(results[1], cvNoErr);  // Start
    EXPECT_EQ(results[3], cvNoErr);  // Finish
    EXPECT_EQ(host.resultDescriptors, 0);

    // The instance still works for the next invocation.
    host.failResultWrites = false;
    ExpectAllSucceeded(module.RunWithoutDialog(host.Record()));
    EXPECT_EQ(host.resultDescriptors, 1);
}

TEST_F(EntryPoint, AboutAndUnknownSelectors) {
    EXPECT_EQ(module.Call(cvSelectorAbout, host.Record()), cvNoErr);
    EXPECT_NE(module.Call(77, host.Record()), cvNoErr);
    EXPECT_TRUE(host.alerts.empty());
}

}  // namespace
}  // namespace Project
