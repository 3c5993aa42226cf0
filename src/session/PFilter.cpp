#include "session/PFilter.h"

#include "constraints/ConstraintFile.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <stdexcept>
#include <utility>

#include "core/LocalizedString.h"
#include "geometry/ProjectionFactory.h"
#include "session/PreferencesFile.h"
#include "session/ScriptParameters.h"
#include "session/SettingsCheck.h"
#include "session/XmpToolkit.h"

namespace Project {

namespace {

constexpr uint32_t kSupportedMajorVersion = 27;
constexpr int32_t kGpuInUse = 0x80;

constexpr std::string_view kUnsupportedVersion =
    "$$$/Curvana/Warning/UnsupportedVersion=This feature is not supported by the current version "
    "of Pictora.";
constexpr std::string_view kGpuUnusedText =
    "$$$/Curvana/Warning/GPUUnusedText=This feature requires graphics processor acceleration. "
    "Please check the Performance Preferences and verify that 'Use Graphics Processor' is "
    "enabled.";
constexpr std::string_view kGpuUnusedTitle = "$$$/Curvana/Warning/GPUUnusedTitle=Curvana Error";

template <class T>
std::unique_ptr<T> Required(std::unique_ptr<T> component, const char* what) {
    if (!component)
        throw std::invalid_argument(std::string("no ") + what + " component");
    return component;
}

}  // namespace

// The end of every invocation that passed the host checks, also when it ends
// with an exception: the lens-profile back end is given back, the camera
// metadata destroyed, and the XMP toolkit stopped when this invocation
// started it.
struct PFilter::InvocationScope {
    PFilter& filter;
    bool stopToolkit = false;

    ~InvocationScope() {
        filter.dialog_ = nullptr;
        filter.lensProfileSuite_.reset();
        filter.cameraMetadata_.reset();
        if (stopToolkit) {
            XmpToolkit::Stop();
            filter.toolkitStarted_ = false;
        }
    }
};

PFilter::PFilter(std::unique_ptr<PFilterComponents> components)
    : components_(Required(std::move(components), "factory")),
      constraints_(Required(components_->CreateConstraintData(*this), "constraint set")),
      pipeline_(Required(components_->CreateWarpPipeline(), "warp pipeline")) {}

PFilter::~PFilter() = default;

std::string PFilter::processName() {
    return Localize("$$$/Curvana/Process/Name=Curvana");
}

std::optional<std::filesystem::path> PFilter::preferencesFolder() const {
    const auto base = Host().PreferencesBase();
    if (!base)
        return std::nullopt;
    return PreferencesFolder(*base);
}

void PFilter::alert(std::string_view messageKey, std::string_view titleKey) const {
    Host().Alert(Localize(messageKey), titleKey.empty() ? processName() : Localize(titleKey),
                 cvButtonsOK);
}

PImageHub& PFilter::imageHub() {
    if (!imageHub_)
        imageHub_ = Required(components_->CreateImageHub(), "image hub");
    if (hubAttachedTo_ != invocation_) {
        imageHub_->AttachHost(HostImageContext{Host(), CacheBudget(), BufferSuite()});
        hubAttachedTo_ = invocation_;
    }
    return *imageHub_;
}

ImageRect PFilter::imageRect() {
    return imageHub().GetImageRect();
}

PSettings& PFilter::settings() {
    // A new instance starts its live settings from the saved ones rather
    // than from the defaults. Where it matters (a repeat as the first
    // invocation of an instance, as every run of a command-line host is) the
    // last settings are what the user asked for, and saving the defaults at
    // the end would wipe the stored preferences.
    if (!settings_)
        settings_ = std::make_unique<PSettings>(preferences().settings);
    return *settings_;
}

PPreferences& PFilter::preferences() {
    if (!preferences_) {
        auto prefs = std::make_unique<PPreferences>(imageRect().Width());
        const bool ignoreStored =
            (Host().ModifierKeys() & kIgnorePreferencesKeys) == kIgnorePreferencesKeys;
        const auto folder = ignoreStored ? std::nullopt : preferencesFolder();
        // Stored settings outside their ranges (an old or damaged file) are
        // set aside: the defaults are used, and saved over them at the end.
        if (folder && LoadPreferencesFile(*folder / PreferencesFileName(), *prefs)) {
            if (const std::string why = CheckSettings(prefs->settings); !why.empty()) {
                std::fprintf(stderr, "curvana: the saved settings are not used: %s\n", why.c_str());
                prefs->settings = PSettings(imageRect().Width());
            }
        }
        preferences_ = std::move(prefs);
    }
    return *preferences_;
}

const CameraMetadata& PFilter::cameraMetadata() const {
    static const CameraMetadata kNone;
    return cameraMetadata_ ? *cameraMetadata_ : kNone;
}

void PFilter::loadTranslationsOnce() {
    if (translationsLoaded_)
        return;
    translationsLoaded_ = true;
    if (const auto folder = preferencesFolder()) {
        TranslationTable table = TranslationTable::LoadFile(*folder / kTranslationFileName);
        if (!table.empty())
            SetTranslationTable(std::move(table));
    }
}

bool PFilter::hostChecksPass() const {
    // The major version must be exactly the one this filter was made for:
    // older and newer hosts are both refused.
    const auto version = Host().Property(CV_PROPERTY_VERSION);
    if (!version || (static_cast<uint32_t>(*version) >> 16) != kSupportedMajorVersion) {
        alert(kUnsupportedVersion);
        return false;
    }
    const auto gpu = Host().Property(CV_PROPERTY_GPU_FLAGS);
    if (!gpu || (*gpu & kGpuInUse) == 0) {
        alert(kGpuUnusedText, kGpuUnusedTitle);
        return false;
    }
    return true;
}

bool PFilter::runFilter() {
    applied_ = false;
    ++invocation_;
    loadTranslationsOnce();
    if (!hostChecksPass())
        return true;

    InvocationScope scope{*this};
    if (!toolkitStarted_) {
        if (!XmpToolkit::Start())
            throw std::runtime_error("the XMP toolkit did not start");
        toolkitStarted_ = true;
        scope.stopToolkit = true;
    }

    const HostRecord& host = Host();
    cameraMetadata_ = std::make_unique<CameraMetadata>(
        readCameraMetadata(host.XmpPacket(), static_cast<uint32_t>(std::max(host.ImageWidth(), 0)),
                           static_cast<uint32_t>(std::max(host.ImageHeight(), 0))));

    PPreferences& prefs = preferences();
    PSettings& live = settings();
    PSettings working = prefs.settings;
    imageHub();  // created on first need, attached to this invocation's host

    if (host.Descriptor() && readScriptParameters(working)) {
        // Replayed from scripting parameters: silent unless the host asks for
        // the dialog. Constraint data that does not fit this image ends the
        // invocation with its message, before anything is applied.
        if (!scriptedInputAccepted()) {
            savePreferences();
            return true;
        }
        live = working;
        chooseProjection(ProjectionModel::Fisheye, false, false);
        pipeline_->RebuildSolver(*this);
        if (ParametersRequested())
            runEditor();
        else
            applyWithoutDialog();
    } else if (ParametersRequested()) {
        // A fresh invocation from the menu.
        live = prefs.settings;
        chooseProjection(ProjectionModel::Fisheye, true, false);
        live.focalLength = focalFromMetadata(true);
        pipeline_->RebuildSolver(*this);
        runEditor();
    } else {
        // Repeat of the last filter.
        readScriptParameters(live);
        if (!scriptedInputAccepted()) {
            savePreferences();
            return true;
        }
        chooseProjection(ProjectionModel::Fisheye, false, false);
        pipeline_->RebuildSolver(*this);
        applyWithoutDialog();
    }

    savePreferences();
    return true;
}

bool PFilter::scriptedInputAccepted() {
    std::string message = std::exchange(settingsFailure_, {});
    const std::string constraintFailure = constraints_->TakeFailureMessage();
    if (message.empty() && !constraintFailure.empty())
        message = localizeConstraintMessage(constraintFailure,
                                            [](std::string_view key) { return Localize(key); });
    if (message.empty())
        return true;
    Host().Alert(message, processName(), cvButtonsOK);
    return false;
}

void PFilter::applyWithoutDialog() {
    pipeline_->Solve(*this);
    if (imageHub().RenderFinal(*this)) {
        applied_ = true;
        writeScriptParameters(settings());
    }
}

bool PFilter::renderFinal() {
    pipeline_->RebuildSolver(*this);
    pipeline_->Solve(*this);
    return imageHub().RenderFinal(*this);
}

void PFilter::runEditor() {
    if (!editor_)
        editor_ = Required(components_->CreateEditor(), "editor");
    PEditor::Result result;
    {
        struct ClearDialog {
            PEditor*& dialog;
            ~ClearDialog() { dialog = nullptr; }
        } clear{dialog_};
        dialog_ = editor_.get();
        result = editor_->Run(*this, kLayoutResource, preferences().dialogPlacement);
    }
    if (result == PEditor::Result::Ok)
        writeScriptParameters(settings());
}

void PFilter::savePreferences() {
    PPreferences& prefs = preferences();
    // Nothing invalid is ever saved: the last valid settings stay.
    if (const std::string why = CheckSettings(settings()); why.empty())
        prefs.settings = settings();
    else
        std::fprintf(stderr, "curvana: the settings are not saved: %s\n", why.c_str());
    const auto folder = preferencesFolder();
    if (!folder)
        return;
    const std::filesystem::path file = *folder / PreferencesFileName();
    if (!SavePreferencesFile(file, prefs))
        std::fprintf(stderr, "curvana: could not save the preferences to %s\n", file.c_str());
}

void PFilter::chooseProjection(ProjectionModel fallback, bool autoMode, bool warn) {
    PSettings& s = settings();
    if (autoMode)
        s.projectionModel = ProjectionModel::Auto;

    if (s.projectionModel == ProjectionModel::FullSpherical) {
        const ImageRect rect = imageRect();
        if (!isFullSphericalAspect(rect.Width(), rect.Height())) {
            s.projectionModel = fallback;
            if (warn)
                alert(kInvalidFullSphericalRatioKey);
        }
        return;
    }

    // With panorama metadata, Auto stands for "Panorama" and every model is
    // kept as it is.
    if (cameraMetadata().isPanorama)
        return;

    if (s.projectionModel == ProjectionModel::Auto) {
        if (findLensProfile(warn))
            return;
        s.projectionModel = fallback;
    }
    if (autoMode) {
        // The 35 mm-equivalent focal length decides between fisheye and
        // perspective (16 mm rule).
        s.projectionModel = modelForFocalLength(cameraMetadata().equivalentFocalLength(),
                                                s.projectionModel, fallback);
    }
    if (dialog_)
        dialog_->RefreshProjection();
}

bool PFilter::findLensProfile(bool warn) {
    if (!lensProfileSuite_)
        lensProfileSuite_ = components_->AcquireLensProfileLookup();
    if (!lensProfileSuite_) {
        lensProfile_.reset();
        if (warn)
            alert(kNoMatchedProfileKey);
        return false;
    }
    LensProfileLookupResult found = lensProfileSuite_->Find(
        cameraMetadata(), static_cast<uint32_t>(std::max(Host().ImageWidth(), 0)),
        static_cast<uint32_t>(std::max(Host().ImageHeight(), 0)));
    if (found.profile && found.profile->found) {
        lensFocalScaleRatio_ = focalScaleRatio(cameraMetadata().cropFactor(), *found.profile);
        lensProfile_ = std::move(found.profile);
        return true;
    }
    lensProfile_.reset();
    lensFocalScaleRatio_ = 1.0f;
    if (warn)
        alert(found.messageKey.empty() ? kNoMatchedProfileKey : found.messageKey);
    return false;
}

float PFilter::focalFromMetadata(bool keep) {
    const CameraMetadata& metadata = cameraMetadata();
    PSettings& s = settings();
    const float physical = metadata.focalLength;
    float crop = metadata.cropFactor();
    const float equivalent = metadata.equivalentFocalLength();

    if (physical <= 0.0f || crop < 0.1f) {
        if (equivalent > 0.0f) {
            if (crop < 0.1f)
                crop = 1.0f;
            s.cropFactor = crop;
            s.physicalFocalLength = equivalent / crop;
        }
    } else {
        s.cropFactor = crop;
        s.physicalFocalLength = physical;
    }

    const ImageRect rect = imageRect();
    const auto longSide = static_cast<float>(std::max(rect.Width(), rect.Height()));
    const float focal = s.cropFactor * s.physicalFocalLength * longSide / 36.0f;
    if (!keep && std::fabs(focal - s.focalLength) > 0.01f) {
        s.focalLength = focal;
        if (s.projectionModel == ProjectionModel::Fisheye ||
            s.projectionModel == ProjectionModel::Perspective)
            constraints_->FocalLengthChanged();
    }
    return focal;
}

bool PFilter::readScriptParameters(PSettings& target) {
    const CvDescriptor descriptor = Host().Descriptor();
    if (!descriptor)
        return false;
    const SuiteLease<CvDescriptorSuite5> suite(Host(), CV_DESCRIPTOR_SUITE_NAME,
                                               CV_DESCRIPTOR_SUITE_VERSION);
    if (!suite || !IsCompleteSuite(*suite))
        return false;
    PSettings read = target;
    ReadScriptDescriptor(*suite, descriptor, read, constraints_.get());
    settingsFailure_ = CheckSettings(read);
    if (settingsFailure_.empty())
        target = read;
    return true;
}

void PFilter::writeScriptParameters(const PSettings& source) {
    if (const std::string why = CheckSettings(source); !why.empty()) {
        std::fprintf(stderr, "curvana: the settings are not recorded: %s\n", why.c_str());
        return;
    }
    const SuiteLease<CvDescriptorSuite5> suite(Host(), CV_DESCRIPTOR_SUITE_NAME,
                                               CV_DESCRIPTOR_SUITE_VERSION);
    if (!suite || !IsCompleteSuite(*suite))
        return;
    CvDescriptor result = nullptr;
    if (suite->make(&result) != cvNoErr || !result)
        return;
    if (!WriteScriptDescriptor(*suite, result, source, constraints_.get()) ||
        !Host().SetResultDescriptor(result))
        suite->release(result);
}

}  // namespace Project
