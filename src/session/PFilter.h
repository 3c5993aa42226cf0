#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "geometry/CameraMetadata.h"
#include "geometry/LensProfile.h"
#include "session/LineSuggestions.h"
#include "session/PFilterComponents.h"
#include "session/PHostFilter.h"
#include "session/PSettings.h"

namespace Project {

// How chooseProjection decides.
enum class ProjectionDecision {
    // The model as it stands: Full Spherical needs a 2:1 picture, Auto a
    // usable lens profile (or panorama metadata); otherwise the fallback.
    Keep,
    // A fresh invocation: Auto when a lens profile fits, else the 16 mm rule
    // on the photo's own focal length f.
    Fresh,
    // Defaults restored in the editor: Auto when a lens profile fits, else
    // the 16 mm rule on the photo's 35 mm-equivalent focal length E.
    Reset,
};

// The filter plug-in object: one per plug-in instance, living across many
// invocations. The Start selector runs one invocation (runFilter): host
// checks, camera metadata, preferences, then a silent apply from scripting
// parameters, the editor, or a repeat with the last settings; at the end the
// live settings are saved into the preferences file (also after Cancel).
//
// Owns the live settings, the preferences, the image hub, the constraint set
// and the other components for the instance; the camera metadata only for
// the length of an invocation.
class PFilter : public PHostFilter {
public:
    static constexpr const char* kLayoutResource = "PDialog.zel";
    // Modifier-key bits that, all held while the preferences are first
    // needed, make the instance ignore the stored preferences.
    static constexpr uint32_t kIgnorePreferencesKeys =
        cvModifierShift | cvModifierOption | cvModifierControl;  // bits 1, 2 and 3

    explicit PFilter(std::unique_ptr<PFilterComponents> components);
    ~PFilter() override;

    // One invocation. Returns false only when the host cannot be served at
    // all; refused checks show an alert and still return true. Unrecoverable
    // errors are thrown.
    bool runFilter();

    // Decides the projection model of the live settings (the fallback when
    // neither the requested model nor the automatic choice holds). With warn
    // on, why a model was not taken is shown: as an alert while the editor
    // runs, else as a warning to the host.
    void chooseProjection(ProjectionModel fallback, ProjectionDecision decision, bool warn);
    // Physical focal length and crop factor from the camera metadata into the
    // live settings; returns the focal length in pixels, which is also stored
    // unless keep is on.
    float focalFromMetadata(bool keep);

    // Scripting parameters (see ScriptParameters.h): true when the host passed
    // a descriptor and it could be read. The settings take its values only
    // when they are all valid (CheckSettings); otherwise they stay as they
    // were and the invocation ends with the reason (scriptedInputAccepted).
    bool readScriptParameters(PSettings& settings);
    // Hands the settings back to the host as the filter's result descriptor
    // (with the counts of the lines suggested in this invocation, if any).
    void writeScriptParameters(const PSettings& settings);

    // Finds the straight scene edges of the source under the live settings'
    // projection and adds them to the constraint set as line constraints;
    // the warp is rebuilt with them. Nothing is added where the set is not
    // the live one (no constraint list to add to).
    SuggestionCounts suggestLines(const SuggestOptions& options);

    // The editor's OK: rebuilds the warp from the live settings and
    // constraints, solves it and renders it into the host image. False when
    // the render was cancelled or could not be made (the reason was shown):
    // then nothing was written and the dialog stays or ends like Cancel.
    bool renderFinal();

    static std::string processName();
    // The preferences folder, when the host names a preferences base.
    std::optional<std::filesystem::path> preferencesFolder() const;

    // What the components and the editor work on.
    PSettings& settings();
    PPreferences& preferences();
    PImageHub& imageHub();
    PConstraintData& constraints() { return *constraints_; }
    PWarpPipeline& warpPipeline() { return *pipeline_; }
    // The lens profile that the last lookup loaded for the Auto model, and
    // the ratio that scales its focal lengths for the photo's camera.
    const std::optional<LensProfile>& lensProfile() const { return lensProfile_; }
    float lensFocalScaleRatio() const { return lensFocalScaleRatio_; }
    // The invocation's camera metadata (an empty record outside runFilter).
    const CameraMetadata& cameraMetadata() const;
    // The filtered area of the image, from the image hub.
    ImageRect imageRect();
    // The editor while it runs, else null.
    PEditor* dialog() const { return dialog_; }
    // The result was rendered into the host image without a dialog in the
    // current (or last) invocation.
    bool applied() const { return applied_; }

    // A modal OK alert from localisation keys; the title defaults to the
    // process name.
    void alert(std::string_view messageKey, std::string_view titleKey = {}) const;
    // Something the user should know that needs no answer (text already
    // localised): an alert while the editor runs; otherwise the host's
    // warning (stderr when the host has no place for one).
    void warn(const std::string& message) const;

protected:
    bool OnStart() override { return runFilter(); }

private:
    struct InvocationScope;

    bool findLensProfile(bool warn);
    // What the editor would open with: the saved settings, the projection of
    // a fresh invocation and the focal length from the metadata. Leaves the
    // live settings as they were.
    PSettings freshSettings();
    // On a run that starts where the editor would open: unless the
    // descriptor carried the focal length in pixels (itself or in constraint
    // data), it follows from the physical focal length and crop factor for
    // this image's size, so that a physical focal length or crop factor given
    // without it takes effect. Other runs keep the focal length they were
    // given or last used, as a repeat must.
    void deriveFocalLength();
    // Tells the user about constraints the silent path could not use.
    void reportSkippedConstraints();
    void loadTranslationsOnce();
    bool hostChecksPass() const;
    void runEditor();
    void applyWithoutDialog();
    // Shows why scripting's settings or constraint data were refused; false then.
    bool scriptedInputAccepted();
    void savePreferences();

    std::unique_ptr<PFilterComponents> components_;
    std::unique_ptr<PImageHub> imageHub_;
    std::unique_ptr<PSettings> settings_;
    std::unique_ptr<PPreferences> preferences_;
    std::unique_ptr<CameraMetadata> cameraMetadata_;
    std::unique_ptr<PConstraintData> constraints_;
    std::unique_ptr<PWarpPipeline> pipeline_;
    // Held from the first lens-profile lookup of an invocation to its end.
    std::shared_ptr<const LensProfileLookup> lensProfileSuite_;
    std::optional<LensProfile> lensProfile_;
    float lensFocalScaleRatio_ = 1.0f;
    std::unique_ptr<PEditor> editor_;
    PEditor* dialog_ = nullptr;
    bool applied_ = false;
    bool toolkitStarted_ = false;
    bool translationsLoaded_ = false;
    std::string settingsFailure_;  // why the last descriptor's settings were refused
    ScriptKeysRead keysRead_;      // what the descriptor of this invocation carried
    uint32_t unreadRecords_ = 0;   // constraint records of that descriptor left unread
    // The preferences file exists but could not be used: it is kept beside
    // the new one before the first save overwrites it.
    bool preferencesUnread_ = false;
    SuggestRequest suggestRequest_;              // what the invocation's descriptor asked
    std::optional<SuggestionCounts> suggested_;  // what this invocation suggested
    // Counts invocations, so the hub is attached to each invocation's host once.
    uint64_t invocation_ = 0;
    uint64_t hubAttachedTo_ = ~uint64_t{0};
};

}  // namespace Project
