#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "constraints/ConstraintSet.h"
#include "core/FourCC.h"
#include "core/Models.h"

namespace Project {

class GeodesicLines;

// ---------------------------------------------------------------------------
// Constraint files (".cvc") and the scripting "Constraint Data" value ("cnsD").
//
// Layout, all numbers little-endian; a four-character code is the 32-bit value
// whose big-endian bytes spell it, so it appears reversed on disk ("CVCF" is
// 46 43 56 43):
//   u32 magic "CVCF" | u32 "Vers" | u16 version 4 | u16 width | u16 height
//   (the filtered area's size truncated to 16 bits) | string make | string
//   model | string lens | f32 physical focal (mm) | f32 crop factor | f32 focal
//   length (pixels) | u32 projection popup index (model - 1) | u32 regulariser
//   popup index (model - 1) | i32 scale | f32 offset x | f32 offset y | u32 set
//   word | u32 count | count records.
// String: u32 byte count n; when n > 0, a u32 encoding word and n bytes of
// text (no terminator). The encoding word is opaque: the writer writes
// kUtf8Encoding, the reader skips it.
// Records: u32 tag, then the payload. "Line": f32 x1, y1, x2, y2 (source
// pixels from the top-left corner), u32 orientation (1 ... 4), f32 angle, i32
// identifier (28 bytes). "Plan": i32 identifier, i32 vertex count, then per
// vertex f32 x, f32 y, u32 edge code (8 + 12 x vertices bytes).
// ---------------------------------------------------------------------------

namespace constraint_file {

inline constexpr uint32_t kMagic = FourCC("CVCF");
inline constexpr uint32_t kVersionTag = FourCC("Vers");
inline constexpr uint16_t kVersion = 4;
inline constexpr uint32_t kLineTag = FourCC("Line");
inline constexpr uint32_t kPlaneTag = FourCC("Plan");
// The record tags as one table: the line tag first, the plane tag after it.
inline constexpr std::array<uint32_t, 2> kRecordTags = {kLineTag, kPlaneTag};
// The encoding word written with every non-empty string (the value Core
// Foundation uses for UTF-8).
inline constexpr uint32_t kUtf8Encoding = 0x08000100;
// Files larger than this are refused without being read.
inline constexpr uint64_t kMaxFileBytes = 256ull << 20;
// The most constraints a file (or the scripting data) may hold, and the most
// vertices of one polygon: the solver spends memory and time on each (about
// 1.5 MB for a line at the default mesh), so a file cannot make it take
// gigabytes.
inline constexpr uint32_t kMaxConstraints = 256;
inline constexpr uint32_t kMaxPolygonVertices = 256;

}  // namespace constraint_file

// The ranges that settings read from a file are clamped into; the editor's
// physical-focal and focal sliders use the same ranges.
inline constexpr float kMinPhysicalFocalMm = 1.0f;
inline constexpr float kMaxPhysicalFocalMm = 1000.0f;
inline constexpr float kMinFocalPixels = 1.0f;
inline constexpr float kMaxFocalPixels = 1.0e8f;

// Clamps into [lo, hi]; NaN becomes lo.
float clampSetting(float value, float lo, float hi);

// The messages a read leaves in ConstraintSet::Message (localisable keys).
namespace constraint_message {
inline constexpr std::string_view kInvalidFileContent =
    "$$$/Curvana/Warning/InvalidFileContent=Not a valid constraint file.";
inline constexpr std::string_view kUnmatchedImageWidth =
    "$$$/Curvana/Warning/UnmatchedImageWidth=Image size doesn't match.";
inline constexpr std::string_view kUnmatchedValueInFile =
    "$$$/Curvana/Warning/UnmatchedValueInFile=Value in the loaded file: ";
inline constexpr std::string_view kUnmatchedValueInDoc =
    "$$$/Curvana/Warning/UnmatchedValueInDoc=Value of the current image: ";
inline constexpr std::string_view kUnmatchedCameraMake =
    "$$$/Curvana/Warning/UnmatchedCameraMake=Camera make doesn't match.";
inline constexpr std::string_view kUnmatchedCameraModel =
    "$$$/Curvana/Warning/UnmatchedCameraModel=Camera model doesn't match.";
inline constexpr std::string_view kUnmatchedLensModel =
    "$$$/Curvana/Warning/UnmatchedLensModel=Lens model doesn't match.";
inline constexpr std::string_view kEmptyFile =
    "$$$/Curvana/Warning/EmptyFile=The file you selected is an empty file.";
inline constexpr std::string_view kBadLineConstraintFile =
    "$$$/Curvana/Warning/BadLineConstraintFile=The file you selected does not have a valid line "
    "constraint.";
inline constexpr std::string_view kBadPlaneConstraintFile =
    "$$$/Curvana/Warning/BadPlaneConstraintFile=The file you selected does not have a valid plane "
    "constraint.";
// Followed by the file's number.
inline constexpr std::string_view kTooManyConstraints =
    "$$$/Curvana/Warning/TooManyConstraints=The file holds more constraints than the solver takes "
    "(256; each costs it memory and time). Constraints in the file: ";
inline constexpr std::string_view kTooManyVertices =
    "$$$/Curvana/Warning/TooManyVertices=A polygon has more vertices than the solver takes (256). "
    "Vertices in the file: ";
}  // namespace constraint_message

// Turns a message text into display text: each line that starts with one of
// the keys above gets that key localised by `localize` (which receives the
// whole "$$$/...=English" key, as the session's Localize takes it) followed
// by the rest of the line (a value such as "4464x2000"); other lines pass
// unchanged. Lines stay joined with "\n".
std::string localizeConstraintMessage(
    std::string_view message, const std::function<std::string(std::string_view key)>& localize);

// The settings that a constraint file carries.
struct ConstraintFileSettings {
    float physicalFocal = 15.0f;  // mm
    float cropFactor = 1.0f;
    float focalLength = 0.0f;  // pixels
    ProjectionModel projectionModel = ProjectionModel::Fisheye;
    RegularizerModel regularizerModel = RegularizerModel::Auto;
    int32_t scale = 120;
    float offsetX = 0.5f;
    float offsetY = 0.5f;
};

// What the reader and writer need of the filter session, which implements it
// (the constraints layer sits below the session and cannot see its types).
class ConstraintFileContext {
public:
    virtual ~ConstraintFileContext() = default;

    // The filtered area's size in pixels.
    virtual int32_t ImageWidth() const = 0;
    virtual int32_t ImageHeight() const = 0;
    // The photo's metadata strings (camera make, camera model, lens).
    virtual std::string CameraMake() const = 0;
    virtual std::string CameraModel() const = 0;
    virtual std::string LensModel() const = 0;

    // The live settings, and a setter per field.
    virtual ConstraintFileSettings Settings() const = 0;
    virtual void SetPhysicalFocal(float mm) = 0;
    virtual void SetCropFactor(float crop) = 0;
    virtual void SetFocalLength(float pixels) = 0;
    virtual void SetProjectionModel(ProjectionModel model) = 0;
    virtual void SetRegularizerModel(RegularizerModel model) = 0;
    virtual void SetScale(int32_t scale) = 0;
    virtual void SetOffsets(float x, float y) = 0;

    // Runs the projection-model decision on the model just stored, with
    // `previousModel` as the fall-back, without resetting to defaults and
    // with warnings shown; leaves the decided model in the settings.
    virtual void ChooseProjection(ProjectionModel previousModel) = 0;
    // The projection, regulariser or focal length changed: reset the solver
    // (rebuild the projection and the warp) and ask for a new preview.
    virtual void SettingsChanged() = 0;

    // The solver's line list that loaded constraints are fitted into (after
    // SettingsChanged has run, so under the current projection); null to
    // skip fitting.
    virtual GeodesicLines* Lines() { return nullptr; }
    // The undo-stack position that a save records as the saved marker.
    virtual int32_t UndoPosition() const { return 0; }
    // The settings a file carries, as they would be applied (focal lengths
    // clamped), checked before anything changes: a message (shown as it is)
    // refuses the whole file; empty accepts it.
    virtual std::string CheckSettings(const ConstraintFileSettings&) const { return {}; }
};

// A context that keeps everything in plain fields: for tests, tools and the
// fuzz target. ChooseProjection keeps the stored model; SettingsChanged
// counts its calls.
class SimpleConstraintFileContext : public ConstraintFileContext {
public:
    // The photo's size and camera and the settings of another context, kept
    // here so that reading bytes into it changes nothing of the original.
    static SimpleConstraintFileContext SnapshotOf(const ConstraintFileContext& context);

    int32_t width = 0;
    int32_t height = 0;
    std::string make, model, lens;
    ConstraintFileSettings settings;
    GeodesicLines* lines = nullptr;
    int32_t undoPosition = 0;
    int32_t settingsChangedCalls = 0;
    std::vector<ProjectionModel> chooseProjectionCalls;  // the previous models passed

    int32_t ImageWidth() const override { return width; }
    int32_t ImageHeight() const override { return height; }
    std::string CameraMake() const override { return make; }
    std::string CameraModel() const override { return model; }
    std::string LensModel() const override { return lens; }
    ConstraintFileSettings Settings() const override { return settings; }
    void SetPhysicalFocal(float mm) override { settings.physicalFocal = mm; }
    void SetCropFactor(float crop) override { settings.cropFactor = crop; }
    void SetFocalLength(float pixels) override { settings.focalLength = pixels; }
    void SetProjectionModel(ProjectionModel m) override { settings.projectionModel = m; }
    void SetRegularizerModel(RegularizerModel m) override { settings.regularizerModel = m; }
    void SetScale(int32_t s) override { settings.scale = s; }
    void SetOffsets(float x, float y) override { settings.offsetX = x, settings.offsetY = y; }
    void ChooseProjection(ProjectionModel previousModel) override {
        chooseProjectionCalls.push_back(previousModel);
    }
    void SettingsChanged() override { ++settingsChangedCalls; }
    GeodesicLines* Lines() override { return lines; }
    int32_t UndoPosition() const override { return undoPosition; }
};

// Popup index <-> model: index n is the model whose code is n + 1 (Fisheye
// ... Full Spherical, Stereographic ... Auto). An index outside 0 ... 3 reads
// as Fisheye or Auto; the writer stores a model outside those four as index 0
// (projection) or 3 (regulariser).
ProjectionModel projectionModelFromIndex(uint32_t index);
RegularizerModel regularizerModelFromIndex(uint32_t index);
uint32_t projectionIndexFromModel(ProjectionModel model);
uint32_t regularizerIndexFromModel(RegularizerModel model);

// Serialises the header (from the context) and the set's records. A
// constraint whose run-time class is neither LineConstraint nor
// PlaneConstraint exactly writes nothing, though the count includes it.
void writeConstraintData(const ConstraintSet& set, const ConstraintFileContext& context,
                         std::vector<uint8_t>& out);
std::vector<uint8_t> writeConstraintData(const ConstraintSet& set,
                                         const ConstraintFileContext& context);
// The exact number of bytes writeConstraintData produces.
uint64_t constraintDataBytes(const ConstraintSet& set, const ConstraintFileContext& context);

// Parses constraint data and applies it. In order: magic and version tag;
// image size against the context's; make, model and lens (stopping at the
// first difference); then the settings (physical focal clamped into its range,
// crop factor as read, projection re-decided through the context when it
// differs, regulariser, focal length clamped and applied only when it differs
// by more than 0.01, scale, offsets when either differs by more than 1e-06,
// SettingsChanged when projection, regulariser or focal changed), the set word,
// and finally the list, replaced by the records (orientation outside 1 ... 4
// reads as 1, edge code outside 1 ... 3 as 1, an unknown tag is skipped as
// four bytes; identifiers are kept unless -1 or repeated, see
// ConstraintSet::Add).
//
// Failure leaves the set's list, its set word and the settings untouched,
// clears the success flag and leaves exactly one message: a bad magic or tag,
// data that ends early or holds an impossible count (more records or vertices
// than bytes left, a negative vertex count) give kInvalidFileContent; the
// header checks give their own messages. Success sets the flag and clears the
// message. Never reads past `data`. Does not fit the constraints (see
// fitLoadedConstraints). Returns the success flag.
bool readConstraintData(ConstraintSet& set, ConstraintFileContext& context,
                        std::span<const uint8_t> data);

// The pass after a successful load: clears `lines` and fits every constraint
// of the set into it in list order; a line that cannot be fitted leaves
// kBadLineConstraintFile, a polygon that cannot be set up
// kBadPlaneConstraintFile (each replacing the previous message; the success
// flag stays set), and the loop goes on. Each constraint's Refresh is run.
void fitLoadedConstraints(ConstraintSet& set, GeodesicLines& lines);

// Writes the constraint file `directory / fileName` (through a temporary file
// in the same folder, renamed over the target) and records the context's undo
// position as the saved marker. False when the file cannot be written (the
// set is then unchanged).
bool saveConstraintFile(ConstraintSet& set, const ConstraintFileContext& context,
                        const std::filesystem::path& directory, const std::string& fileName);
// Reads a constraint file and applies it (readConstraintData); an empty file
// gives kEmptyFile and a missing, unreadable or oversized one
// kInvalidFileContent, with the success flag cleared. After a successful read
// the constraints are fitted into context.Lines() (when not null, see
// fitLoadedConstraints) and the saved marker is reset to 0.
void loadConstraintFile(ConstraintSet& set, ConstraintFileContext& context,
                        const std::filesystem::path& file);

// The scripting "Constraint Data" value: the very bytes of a constraint
// file, so one parser validates both. An empty set gives an empty value (and
// size 0), so the key is left out of the descriptor.
uint64_t constraintDataSize(const ConstraintSet& set, const ConstraintFileContext& context);
std::vector<uint8_t> makeConstraintData(const ConstraintSet& set,
                                        const ConstraintFileContext& context);
// Reads a "Constraint Data" value like a loaded file (without the saved-
// marker reset): readConstraintData, then the fitting pass into
// context.Lines() when it succeeded. Returns the success flag.
bool applyConstraintData(ConstraintSet& set, ConstraintFileContext& context,
                         std::span<const uint8_t> data);

}  // namespace Project
