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
#include "session/Registration.h"
#include "session/ScriptParameters.h"
#include "session/SettingsCheck.h"
#include "session/XmpToolkit.h"

namespace Project {

namespace {

constexpr int32_t kGpuInUse = 0x80;

constexpr std::string_view kUnsupportedVersion =
    "$$$/Curvana/Warning/UnsupportedVersion=This feature is not supported by the current version "
    "of Pictora.";
constexpr std::string_view kGpuUnusedText =
    "$$$/Curvana/Warning/GPUUnusedText=This feature requires graphics processor acceleration. "
    "Please check the Performance Preferences and verify that 'Use Graphics Processor' is "
    "enabled.";
constexpr std::string_view kGpuUnusedTitle = "$$$/Curvana/Warning/GPUUnusedTitle=Curvana Error";
constexpr std::string_view kUnknownConstraintRecord =
    "$$$/Curvana/Warning/UnknownConstraintRecord=The file you selected holds a record of an "
    "unknown kind; the constraints after it cannot be read.";
constexpr std::string_view kSkippedConstraints =
    "$$$/Curvana/Warning/SkippedConstraints=^0 of ^1 constraints were skipped.";
constexpr std::string_view kPreferencesUnread =
    "$$$/Curvana/Warning/PreferencesUnread=The preferences file could not be read; it is kept as "
    "^0 and the defaults are used.";

// A name beside `file` that no file has yet: the file's name with ".bak",
// then ".bak2", ".bak3" ...
std::filesystem::path FreeBackupName(const std::filesystem::path& file) {
    std::error_code ec;
    for (int n = 1;; ++n) {
        std::filesystem::path candidate = file;
        candidate += n == 1 ? ".bak" : ".bak" + std::to_string(n);
        if (!std::filesystem::exists(candidate, ec) || n >= 1000)
            return candidate;
    }
}

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

void PFilter::warn(const std::string& message) const {
    if (dialog_)
        Host().Alert(message, processName(), cvButtonsOK);
    else if (!Host().Warning(message))
        std::fprintf(stderr, "curvana: warning: %s\n", message.c_str());
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
        // set aside: the defaults are used, and saved at the end, with the
        // file that held them kept beside.
        if (folder) {
            const std::filesystem::path file = *folder / PreferencesFileName();
            std::error_code ec;
            if (LoadPreferencesFile(file, *prefs)) {
                if (const std::string why = CheckSettings(prefs->settings); !why.empty()) {
                    warn(why);
                    prefs->settings = PSettings(imageRect().Width());
                    preferencesUnread_ = true;
                }
            } else if (std::filesystem::exists(file, ec)) {
                *prefs = PPreferences(imageRect().Width());
                preferencesUnread_ = true;
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
    const auto supported = static_cast<uint32_t>(FilterRegistration().hostMajorVersion);
    if (!version || (static_cast<uint32_t>(*version) >> 16) != supported) {
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
    suggestRequest_ = {};
    suggested_.reset();
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
    imageHub();  // created on first need, attached to this invocation's host
    keysRead_ = {};
    unreadRecords_ = 0;

    const bool silent = !ParametersRequested();
    if (host.Descriptor()) {
        // A host may ask a silent run to start where the editor would open;
        // the descriptor's keys then apply over that.
        const bool fresh = silent && Host().Property(CV_PROPERTY_FRESH_DEFAULTS).value_or(0) != 0;
        PSettings working = fresh ? freshSettings() : prefs.settings;
        if (readScriptParameters(working)) {
            // Replayed from scripting parameters: silent unless the host asks
            // for the dialog. Settings or constraint data that do not fit
            // this image end the invocation with the reason, before anything
            // is applied.
            if (!scriptedInputAccepted()) {
                savePreferences();
                return true;
            }
            live = working;
            // A render will follow: the device starts beside the lens lookup
            // and the solve.
            if (silent && !suggestRequest_.only)
                imageHub().Prewarm(*this);
            chooseProjection(ProjectionModel::Fisheye, ProjectionDecision::Keep, silent);
            if (fresh)
                deriveFocalLength();
            pipeline_->RebuildSolver(*this);
            if (suggestRequest_.Requested())
                suggested_ = suggestLines(suggestRequest_.Options());
            if (ParametersRequested()) {
                runEditor();
            } else if (suggestRequest_.only) {
                reportSkippedConstraints();
                writeScriptParameters(settings());  // the lines only: nothing rendered
            } else {
                reportSkippedConstraints();
                applyWithoutDialog();
            }
            savePreferences();
            return true;
        }
    }
    if (ParametersRequested()) {
        // A fresh invocation from the menu.
        live = freshSettings();
        pipeline_->RebuildSolver(*this);
        runEditor();
    } else {
        // Repeat of the last filter.
        readScriptParameters(live);
        if (!scriptedInputAccepted()) {
            savePreferences();
            return true;
        }
        imageHub().Prewarm(*this);
        chooseProjection(ProjectionModel::Fisheye, ProjectionDecision::Keep, true);
        pipeline_->RebuildSolver(*this);
        reportSkippedConstraints();
        applyWithoutDialog();
    }

    savePreferences();
    return true;
}

PSettings PFilter::freshSettings() {
    PSettings& live = settings();
    PSettings kept = std::move(live);
    live = preferences().settings;
    chooseProjection(ProjectionModel::Fisheye, ProjectionDecision::Fresh, false);
    live.focalLength = focalFromMetadata(true);
    return std::exchange(live, std::move(kept));
}

void PFilter::deriveFocalLength() {
    if (keysRead_.focalLength || keysRead_.constraintData)
        return;
    PSettings& s = settings();
    const ImageRect rect = imageRect();
    const auto longSide = static_cast<float>(std::max(rect.Width(), rect.Height()));
    s.focalLength = s.cropFactor * s.physicalFocalLength * longSide / 36.0f;
}

void PFilter::reportSkippedConstraints() {
    const ConstraintFitReport fit = pipeline_->LastFit();
    const uint32_t skipped = unreadRecords_ + fit.badLines + fit.badPlanes;
    if (skipped == 0)
        return;
    std::string text;
    if (fit.badLines > 0)
        text += Localize(constraint_message::kBadLineConstraintFile) + "\n";
    if (fit.badPlanes > 0)
        text += Localize(constraint_message::kBadPlaneConstraintFile) + "\n";
    if (unreadRecords_ > 0)
        text += Localize(kUnknownConstraintRecord) + "\n";
    text += Localize(kSkippedConstraints,
                     {std::to_string(skipped), std::to_string(fit.constraints + unreadRecords_)});
    warn(text);
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
        warn(why);
    const auto folder = preferencesFolder();
    if (!folder)
        return;
    const std::filesystem::path file = *folder / PreferencesFileName();
    if (preferencesUnread_) {
        // Whatever the file held may matter to someone: it is moved aside,
        // never overwritten.
        const std::filesystem::path backup = FreeBackupName(file);
        std::error_code ec;
        std::filesystem::rename(file, backup, ec);
        if (ec && std::filesystem::exists(file, ec)) {
            std::fprintf(stderr, "curvana: the unreadable preferences file %s is left as it is\n",
                         file.c_str());
            return;
        }
        preferencesUnread_ = false;
        warn(Localize(kPreferencesUnread, {backup.filename().string()}));
    }
    if (!SavePreferencesFile(file, prefs))
        std::fprintf(stderr, "curvana: could not save the preferences to %s\n", file.c_str());
}

void PFilter::chooseProjection(ProjectionModel fallback, ProjectionDecision decision,
                               bool warnings) {
    PSettings& s = settings();
    const bool automatic = decision != ProjectionDecision::Keep;
    if (automatic)
        s.projectionModel = ProjectionModel::Auto;

    if (s.projectionModel == ProjectionModel::FullSpherical) {
        const ImageRect rect = imageRect();
        if (!isFullSphericalAspect(rect.Width(), rect.Height())) {
            s.projectionModel = fallback;
            if (warnings)
                warn(Localize(kInvalidFullSphericalRatioKey));
        }
        return;
    }

    // With panorama metadata, Auto stands for "Panorama" and every model is
    // kept as it is.
    if (cameraMetadata().isPanorama)
        return;

    if (s.projectionModel == ProjectionModel::Auto) {
        if (findLensProfile(warnings))
            return;
        s.projectionModel = fallback;
    }
    // The 16 mm rule between fisheye and perspective. A fresh invocation
    // reads the focal length the photo records; restoring the defaults reads
    // its 35 mm equivalent. The two differ for a photo without crop
    // information (no equivalent: the fallback stays) and for a small sensor
    // (12 mm at crop 1.6 is a fisheye by the first rule, a perspective lens
    // by the second).
    if (decision == ProjectionDecision::Fresh)
        s.projectionModel =
            modelForFocalLength(cameraMetadata().focalLength, s.projectionModel, fallback);
    else if (decision == ProjectionDecision::Reset)
        s.projectionModel = modelForFocalLength(cameraMetadata().equivalentFocalLength(),
                                                s.projectionModel, fallback);
    if (dialog_)
        dialog_->RefreshProjection();
}

bool PFilter::findLensProfile(bool warnings) {
    if (!lensProfileSuite_)
        lensProfileSuite_ = components_->AcquireLensProfileLookup();
    if (!lensProfileSuite_) {
        lensProfile_.reset();
        if (warnings)
            warn(Localize(kNoMatchedProfileKey));
        return false;
    }
    LensProfileLookupResult found = lensProfileSuite_->Find(
        cameraMetadata(), static_cast<uint32_t>(std::max(Host().ImageWidth(), 0)),
        static_cast<uint32_t>(std::max(Host().ImageHeight(), 0)));
    // A profile counts only when one of the two profile projections can be
    // built from its camera model; otherwise Auto would build nothing.
    if (found.profile && found.profile->found &&
        found.profile->cameraModel != LensCameraModel::None) {
        lensFocalScaleRatio_ = focalScaleRatio(cameraMetadata().cropFactor(), *found.profile);
        lensProfile_ = std::move(found.profile);
        return true;
    }
    lensProfile_.reset();
    lensFocalScaleRatio_ = 1.0f;
    if (warnings)
        warn(Localize(found.messageKey.empty() ? kNoMatchedProfileKey : found.messageKey));
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
    keysRead_ = ReadScriptDescriptor(*suite, descriptor, read, constraints_.get());
    unreadRecords_ = keysRead_.constraintData ? constraints_->TakeUnreadRecords() : 0;
    suggestRequest_ = ReadSuggestRequest(*suite, descriptor);
    settingsFailure_ = CheckSettings(read);
    if (settingsFailure_.empty())
        target = read;
    return true;
}

void PFilter::writeScriptParameters(const PSettings& source) {
    if (const std::string why = CheckSettings(source); !why.empty()) {
        warn(why);
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
        (suggested_ && !WriteSuggestionCounts(*suite, result, *suggested_)) ||
        !Host().SetResultDescriptor(result))
        suite->release(result);
}

SuggestionCounts PFilter::suggestLines(const SuggestOptions& options) {
    ConstraintSet* set = constraints_->LiveSet();
    if (!set)
        return {};
    if (!pipeline_->Photo())
        pipeline_->RebuildSolver(*this);
    const std::shared_ptr<const PhotoToSphere> photo = pipeline_->Photo();
    if (!photo)
        return {};
    SuggestionCounts counts = AddSuggestedLines(Host(), *photo, *set, options);
    pipeline_->RebuildSolver(*this);
    return counts;
}

}  // namespace Project
