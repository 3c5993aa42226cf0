#include "constraints/ConstraintFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <fstream>

#include "constraints/GeodesicLines.h"
#include "core/ByteIO.h"

namespace Project {

namespace {

namespace msg = constraint_message;

uint64_t StringBytes(const std::string& s) {
    return s.empty() ? 4 : 8 + s.size();
}

std::string SizeText(int64_t w, int64_t h) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%dx%d", static_cast<int>(w), static_cast<int>(h));
    return buf;
}

void Fail(ConstraintSet& set, std::string message) {
    set.ClearMessage();
    set.SetMessage(std::move(message));
    set.SetSuccess(false);
}

void FailInvalid(ConstraintSet& set) {
    Fail(set, std::string(msg::kInvalidFileContent) + "\n");
}

// The mismatch message: what differs, then the file's value and the image's.
std::string Mismatch(std::string_view what, const std::string& inFile, const std::string& inDoc) {
    std::string m(what);
    m += "\n";
    m += msg::kUnmatchedValueInFile;
    m += inFile;
    m += "\n";
    m += msg::kUnmatchedValueInDoc;
    m += inDoc;
    return m;
}

// Magic, version and the photo the data was drawn on: false, with the
// message left in the set, when it is no constraint data or another photo's.
bool ReadHeader(ByteReader& r, ConstraintSet& set, const ConstraintFileContext& context) {
    const uint32_t magic = r.U32();
    const uint32_t tag = r.U32();
    if (!r.Ok() || magic != constraint_file::kMagic || tag != constraint_file::kVersionTag) {
        FailInvalid(set);
        return false;
    }

    (void)r.U16();  // version: not checked
    const uint16_t width = r.U16();
    const uint16_t height = r.U16();
    if (!r.Ok()) {
        FailInvalid(set);
        return false;
    }
    const int32_t docWidth = context.ImageWidth();
    const int32_t docHeight = context.ImageHeight();
    if (static_cast<int64_t>(width) != docWidth || static_cast<int64_t>(height) != docHeight) {
        Fail(set, Mismatch(msg::kUnmatchedImageWidth, SizeText(width, height),
                           SizeText(docWidth, docHeight)));
        return false;
    }

    const std::string make = r.String();
    const std::string model = r.String();
    const std::string lens = r.String();
    if (!r.Ok()) {
        FailInvalid(set);
        return false;
    }
    if (const std::string doc = context.CameraMake(); make != doc) {
        Fail(set, Mismatch(msg::kUnmatchedCameraMake, make, doc));
        return false;
    }
    if (const std::string doc = context.CameraModel(); model != doc) {
        Fail(set, Mismatch(msg::kUnmatchedCameraModel, model, doc));
        return false;
    }
    if (const std::string doc = context.LensModel(); lens != doc) {
        Fail(set, Mismatch(msg::kUnmatchedLensModel, lens, doc));
        return false;
    }
    return true;
}

struct ParsedSettings {
    float physicalFocal, cropFactor, focalLength;
    uint32_t projectionIndex, regularizerIndex;
    int32_t scale;
    float offsetX, offsetY;
    uint32_t setWord;
};

ParsedSettings ReadSettings(ByteReader& r) {
    ParsedSettings p{};
    p.physicalFocal = r.F32();
    p.cropFactor = r.F32();
    p.focalLength = r.F32();
    p.projectionIndex = r.U32();
    p.regularizerIndex = r.U32();
    p.scale = r.I32();
    p.offsetX = r.F32();
    p.offsetY = r.F32();
    p.setWord = r.U32();
    return p;
}

std::unique_ptr<LineConstraint> ReadLine(ByteReader& r) {
    const float x1 = r.F32(), y1 = r.F32(), x2 = r.F32(), y2 = r.F32();
    const uint32_t orientation = r.U32();
    const float angle = r.F32();
    const int32_t id = r.I32();
    auto line = std::make_unique<LineConstraint>(x1, y1, x2, y2,
                                                 IsLineOrientationCode(orientation)
                                                     ? static_cast<Orientation>(orientation)
                                                     : Orientation::Unfixed,
                                                 angle);
    line->SetId(id);
    return line;
}

// Null (and the reader failed) for a vertex count that cannot be right;
// `why` tells a count the data could hold but the solver does not take.
std::unique_ptr<PlaneConstraint> ReadPlane(ByteReader& r, std::string& why) {
    const int32_t id = r.I32();
    const int32_t vertices = r.I32();
    if (!r.Ok() || vertices < 0 || static_cast<uint64_t>(vertices) > r.Remaining() / 12) {
        r.Fail();
        return nullptr;
    }
    if (static_cast<uint32_t>(vertices) > constraint_file::kMaxPolygonVertices) {
        why = std::string(msg::kTooManyVertices) + std::to_string(vertices);
        r.Fail();
        return nullptr;
    }
    auto plane = std::make_unique<PlaneConstraint>();
    plane->SetId(id);
    std::vector<PlaneVertex> vs(static_cast<size_t>(vertices));
    for (PlaneVertex& v : vs) {
        v.x = r.F32();
        v.y = r.F32();
        const uint32_t code = r.U32();
        v.edgeCode = IsEdgeCode(code) ? static_cast<int32_t>(code) : 1;
        v.present = true;
    }
    plane->SetVertices(std::move(vs));
    return plane;
}

// The record count and the records. False when the data ends early or holds
// an impossible count (the reader's failure also covers the reads before), or
// more than the solver takes, which `why` then names.
bool ReadRecords(ByteReader& r, ConstraintSet::List& records, uint32_t& count, std::string& why) {
    count = r.U32();
    // Every record takes at least its four tag bytes.
    if (!r.Ok() || count > r.Remaining() / 4)
        return false;
    if (count > constraint_file::kMaxConstraints) {
        why = std::string(msg::kTooManyConstraints) + std::to_string(count);
        return false;
    }
    records.reserve(count);
    for (uint32_t k = 0; k < count && r.Ok(); ++k) {
        const uint32_t tag = r.U32();
        if (tag == constraint_file::kLineTag) {
            records.push_back(ReadLine(r));
        } else if (tag == constraint_file::kPlaneTag) {
            auto plane = ReadPlane(r, why);
            if (!plane)
                break;
            records.push_back(std::move(plane));
        }
        // Any other tag: nothing is created; only the tag was consumed.
    }
    return r.Ok();
}

// Applies the settings read, each only when it differs from the current one;
// a new projection goes through the session's decision, and a change of
// projection, regulariser or focal length resets the solver once.
void ApplySettings(const ParsedSettings& p, ConstraintSet& set, ConstraintFileContext& context) {
    const ConstraintFileSettings current = context.Settings();
    context.SetPhysicalFocal(
        clampSetting(p.physicalFocal, kMinPhysicalFocalMm, kMaxPhysicalFocalMm));
    context.SetCropFactor(p.cropFactor);
    set.SetStateWord(p.setWord);

    bool changed = false;
    const ProjectionModel projection = projectionModelFromIndex(p.projectionIndex);
    if (projection != current.projectionModel) {
        context.SetProjectionModel(projection);
        context.ChooseProjection(current.projectionModel);
        changed = context.Settings().projectionModel != current.projectionModel;
    }
    const RegularizerModel regularizer = regularizerModelFromIndex(p.regularizerIndex);
    if (regularizer != current.regularizerModel) {
        context.SetRegularizerModel(regularizer);
        changed = true;
    }
    const float focal = clampSetting(p.focalLength, kMinFocalPixels, kMaxFocalPixels);
    if (std::fabs(static_cast<double>(focal) - current.focalLength) > 0.01) {
        context.SetFocalLength(focal);
        changed = true;
    }
    if (p.scale != current.scale)
        context.SetScale(p.scale);
    if (std::fabs(static_cast<double>(p.offsetX) - current.offsetX) > 1e-06 ||
        std::fabs(static_cast<double>(p.offsetY) - current.offsetY) > 1e-06)
        context.SetOffsets(p.offsetX, p.offsetY);
    if (changed)
        context.SettingsChanged();
}

}  // namespace

SimpleConstraintFileContext SimpleConstraintFileContext::SnapshotOf(
    const ConstraintFileContext& context) {
    SimpleConstraintFileContext snapshot;
    snapshot.width = context.ImageWidth();
    snapshot.height = context.ImageHeight();
    snapshot.make = context.CameraMake();
    snapshot.model = context.CameraModel();
    snapshot.lens = context.LensModel();
    snapshot.settings = context.Settings();
    return snapshot;
}

float clampSetting(float value, float lo, float hi) {
    if (!(value >= lo))
        return lo;  // NaN too
    if (value > hi)
        return hi;
    return value;
}

ProjectionModel projectionModelFromIndex(uint32_t index) {
    return index <= 3 ? ProjectionModel{index + 1} : ProjectionModel::Fisheye;
}
RegularizerModel regularizerModelFromIndex(uint32_t index) {
    return index <= 3 ? RegularizerModel{index + 1} : RegularizerModel::Auto;
}
uint32_t projectionIndexFromModel(ProjectionModel model) {
    const auto code = static_cast<uint32_t>(model);
    return code >= 1 && code <= 4 ? code - 1 : 0u;
}
uint32_t regularizerIndexFromModel(RegularizerModel model) {
    const auto code = static_cast<uint32_t>(model);
    return code >= 1 && code <= 4 ? code - 1 : 3u;
}

std::string localizeConstraintMessage(
    std::string_view message, const std::function<std::string(std::string_view key)>& localize) {
    static constexpr std::string_view kKeys[] = {
        msg::kInvalidFileContent,     msg::kUnmatchedImageWidth, msg::kUnmatchedValueInFile,
        msg::kUnmatchedValueInDoc,    msg::kUnmatchedCameraMake, msg::kUnmatchedCameraModel,
        msg::kUnmatchedLensModel,     msg::kEmptyFile,           msg::kBadLineConstraintFile,
        msg::kBadPlaneConstraintFile, msg::kTooManyConstraints,  msg::kTooManyVertices};
    std::string out;
    size_t start = 0;
    while (true) {
        const size_t end = message.find('\n', start);
        const std::string_view line =
            message.substr(start, end == std::string_view::npos ? end : end - start);
        bool done = false;
        for (std::string_view key : kKeys) {
            if (line.substr(0, key.size()) == key) {
                out += localize(key);
                out += line.substr(key.size());
                done = true;
                break;
            }
        }
        if (!done)
            out += line;
        if (end == std::string_view::npos)
            break;
        out += '\n';
        start = end + 1;
    }
    return out;
}

uint64_t constraintDataBytes(const ConstraintSet& set, const ConstraintFileContext& context) {
    uint64_t n = 4 + 4 + 2 + 2 + 2;
    n += StringBytes(context.CameraMake()) + StringBytes(context.CameraModel()) +
         StringBytes(context.LensModel());
    n += 3 * 4 + 2 * 4 + 4 + 2 * 4 + 4 + 4;
    for (const auto& c : set.Constraints()) {
        if (AsLine(*c) || AsPlane(*c))
            n += 4 + c->PayloadSize();
    }
    return n;
}

void writeConstraintData(const ConstraintSet& set, const ConstraintFileContext& context,
                         std::vector<uint8_t>& out) {
    ByteWriter w(out);
    const ConstraintFileSettings s = context.Settings();
    w.U32(constraint_file::kMagic);
    w.U32(constraint_file::kVersionTag);
    w.U16(constraint_file::kVersion);
    w.U16(static_cast<uint16_t>(context.ImageWidth()));
    w.U16(static_cast<uint16_t>(context.ImageHeight()));
    w.String(context.CameraMake(), constraint_file::kUtf8Encoding);
    w.String(context.CameraModel(), constraint_file::kUtf8Encoding);
    w.String(context.LensModel(), constraint_file::kUtf8Encoding);
    w.F32(s.physicalFocal);
    w.F32(s.cropFactor);
    w.F32(s.focalLength);
    w.U32(projectionIndexFromModel(s.projectionModel));
    w.U32(regularizerIndexFromModel(s.regularizerModel));
    w.I32(s.scale);
    w.F32(s.offsetX);
    w.F32(s.offsetY);
    w.U32(set.StateWord());
    w.U32(static_cast<uint32_t>(set.Size()));
    const uint32_t* tags = constraint_file::kRecordTags.data();
    for (const auto& c : set.Constraints()) {
        if (const LineConstraint* l = AsLine(*c)) {
            const LineConstraint& line = *l;
            w.U32(tags[0]);
            w.F32(line.First().x);
            w.F32(line.First().y);
            w.F32(line.Second().x);
            w.F32(line.Second().y);
            w.U32(static_cast<uint32_t>(line.OrientationCode()));
            w.F32(line.Angle());
            w.I32(line.GetId());
        } else if (const PlaneConstraint* p = AsPlane(*c)) {
            const PlaneConstraint& plane = *p;
            w.U32(tags[1]);
            w.I32(plane.GetId());
            w.I32(plane.VertexCount());
            for (const PlaneVertex& v : plane.Vertices()) {
                w.F32(v.x);
                w.F32(v.y);
                w.U32(static_cast<uint32_t>(v.edgeCode));
            }
        }
    }
}

std::vector<uint8_t> writeConstraintData(const ConstraintSet& set,
                                         const ConstraintFileContext& context) {
    std::vector<uint8_t> out;
    out.reserve(4096);
    writeConstraintData(set, context, out);
    return out;
}

bool readConstraintData(ConstraintSet& set, ConstraintFileContext& context,
                        std::span<const uint8_t> data) {
    set.SetSuccess(true);
    set.ClearMessage();
    ByteReader r(data);
    if (!ReadHeader(r, set, context))
        return false;
    // Everything else is parsed before anything is applied, so that data that
    // ends early changes nothing.
    const ParsedSettings settings = ReadSettings(r);
    ConstraintSet::List records;
    uint32_t count = 0;
    if (std::string why; !ReadRecords(r, records, count, why)) {
        if (why.empty())
            FailInvalid(set);
        else
            Fail(set, std::move(why));
        return false;
    }
    // Finite values are clamped into their ranges; one that is not a number
    // at all reaches the check as it is, to be refused with its name.
    auto clampedOrAsIs = [](float v, float lo, float hi) {
        return std::isfinite(v) ? clampSetting(v, lo, hi) : v;
    };
    ConstraintFileSettings candidate = context.Settings();
    candidate.physicalFocal =
        clampedOrAsIs(settings.physicalFocal, kMinPhysicalFocalMm, kMaxPhysicalFocalMm);
    candidate.cropFactor = settings.cropFactor;
    candidate.focalLength = clampedOrAsIs(settings.focalLength, kMinFocalPixels, kMaxFocalPixels);
    candidate.scale = settings.scale;
    candidate.offsetX = settings.offsetX;
    candidate.offsetY = settings.offsetY;
    if (std::string why = context.CheckSettings(candidate); !why.empty()) {
        Fail(set, std::move(why));
        return false;
    }
    // A context that checks nothing still gets no value that is not a number.
    for (const float v : {candidate.physicalFocal, candidate.cropFactor, candidate.focalLength,
                          candidate.offsetX, candidate.offsetY}) {
        if (!std::isfinite(v)) {
            FailInvalid(set);
            return false;
        }
    }
    ApplySettings(settings, set, context);
    set.Replace(std::move(records));
    set.SetUnreadRecords(count - static_cast<uint32_t>(set.Size()));
    return true;
}

void fitLoadedConstraints(ConstraintSet& set, GeodesicLines& lines) {
    lines.Clear();
    for (const auto& c : set.Constraints()) {
        if (const LineConstraint* line = AsLine(*c)) {
            if (!lines.FitLine(*line)) {
                set.ClearMessage();
                set.SetMessage(std::string(msg::kBadLineConstraintFile) + "\n");
            }
        } else if (const PlaneConstraint* plane = AsPlane(*c)) {
            if (!lines.SetUpPlane(*plane)) {
                set.ClearMessage();
                set.SetMessage(std::string(msg::kBadPlaneConstraintFile) + "\n");
            }
        }
        c->Refresh(lines);
    }
}

bool saveConstraintFile(ConstraintSet& set, const ConstraintFileContext& context,
                        const std::filesystem::path& directory, const std::string& fileName) {
    const std::vector<uint8_t> bytes = writeConstraintData(set, context);
    const std::filesystem::path target = directory / fileName;

    // A temporary beside the target, created exclusively (so the umask
    // applies as for any new file), then renamed over it: a failed write never
    // leaves a half-written constraint file.
    static std::atomic<uint32_t> counter{0};
    std::filesystem::path temp;
    int fd = -1;
    for (int attempt = 0; attempt < 100 && fd < 0; ++attempt) {
        temp = directory / ("." + fileName + ".tmp" + std::to_string(::getpid()) + "-" +
                            std::to_string(counter++));
        fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (fd < 0 && errno != EEXIST)
            return false;
    }
    if (fd < 0)
        return false;

    bool ok = true;
    size_t done = 0;
    while (ok && done < bytes.size()) {
        const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            ok = false;
        else
            done += static_cast<size_t>(n);
    }
    ok = ::fsync(fd) == 0 && ok;
    ok = ::close(fd) == 0 && ok;
    if (ok)
        ok = ::rename(temp.c_str(), target.c_str()) == 0;
    if (!ok) {
        ::unlink(temp.c_str());
        return false;
    }
    set.SetSavedMarker(context.UndoPosition());
    return true;
}

void loadConstraintFile(ConstraintSet& set, ConstraintFileContext& context,
                        const std::filesystem::path& file) {
    std::error_code ec;
    const uintmax_t size = std::filesystem::file_size(file, ec);
    if (!ec && size == 0) {
        Fail(set, std::string(msg::kEmptyFile) + "\n");
        return;
    }
    if (ec || size > constraint_file::kMaxFileBytes) {
        FailInvalid(set);
        return;
    }
    std::vector<uint8_t> bytes;
    bytes.reserve(std::max<size_t>(4096, static_cast<size_t>(size)));
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        FailInvalid(set);
        return;
    }
    // Read in chunks up to the end (the size may change while we read).
    char chunk[4096];
    while (in) {
        in.read(chunk, sizeof chunk);
        bytes.insert(bytes.end(), chunk, chunk + in.gcount());
        if (bytes.size() > constraint_file::kMaxFileBytes)
            break;
    }
    if (in.bad() || bytes.size() > constraint_file::kMaxFileBytes) {
        FailInvalid(set);
        return;
    }
    if (bytes.empty()) {
        Fail(set, std::string(msg::kEmptyFile) + "\n");
        return;
    }
    if (!readConstraintData(set, context, bytes))
        return;
    if (GeodesicLines* lines = context.Lines())
        fitLoadedConstraints(set, *lines);
    set.SetSavedMarker(0);
}

uint64_t constraintDataSize(const ConstraintSet& set, const ConstraintFileContext& context) {
    return set.Empty() ? 0 : constraintDataBytes(set, context);
}

std::vector<uint8_t> makeConstraintData(const ConstraintSet& set,
                                        const ConstraintFileContext& context) {
    if (set.Empty())
        return {};
    return writeConstraintData(set, context);
}

bool applyConstraintData(ConstraintSet& set, ConstraintFileContext& context,
                         std::span<const uint8_t> data) {
    if (!readConstraintData(set, context, data))
        return false;
    if (GeodesicLines* lines = context.Lines())
        fitLoadedConstraints(set, *lines);
    return set.Success();
}

}  // namespace Project
