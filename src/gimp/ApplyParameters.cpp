#include "ApplyParameters.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <utility>

#include "curvana/CurvanaScripting.h"

namespace Curvana::Gimp {
namespace fs = std::filesystem;

namespace {

template <size_t N>
std::optional<uint32_t> lookUp(const std::array<std::pair<const char*, uint32_t>, N>& names,
                               const std::string& name) {
    for (const auto& [text, code] : names)
        if (name == text)
            return code;
    return std::nullopt;
}

std::vector<uint8_t> readConstraintFile(const fs::path& file) {
    // The filter checks the bytes against the image itself; here only what
    // cannot be passed on is refused.
    constexpr uintmax_t kMaxBytes = uintmax_t{256} << 20;
    std::error_code ec;
    const uintmax_t size = fs::file_size(file, ec);
    if (ec)
        throw std::invalid_argument(file.string() + ": cannot read the constraint file (" +
                                    ec.message() + ")");
    if (size == 0)
        throw std::invalid_argument(file.string() + ": the constraint file is empty");
    if (size > kMaxBytes)
        throw std::invalid_argument(file.string() + ": too large for a constraint file");
    std::vector<uint8_t> bytes(static_cast<size_t>(size));
    std::ifstream in(file, std::ios::binary);
    if (!in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(size)))
        throw std::invalid_argument(file.string() + ": cannot read the constraint file");
    return bytes;
}

void checkLength(double value, const char* what) {
    if (!std::isfinite(value) || value < 0)
        throw std::invalid_argument(std::string(what) +
                                    " must be a positive number, or 0 to take it from the photo");
}

}  // namespace

std::optional<uint32_t> projectionCode(const std::string& name) {
    static constexpr std::array<std::pair<const char*, uint32_t>, 4> kNames = {{
        {"fisheye", cvProjectionFisheye},
        {"perspective", cvProjectionPerspective},
        {"auto", cvProjectionAuto},
        {"full-spherical", cvProjectionFullSpherical},
    }};
    return lookUp(kNames, name);
}

std::optional<uint32_t> regularizerCode(const std::string& name) {
    static constexpr std::array<std::pair<const char*, uint32_t>, 4> kNames = {{
        {"stereographic", cvRegularizerStereographic},
        {"mercator", cvRegularizerMercator},
        {"panini", cvRegularizerPanini},
        {"auto", cvRegularizerAuto},
    }};
    return lookUp(kNames, name);
}

std::unique_ptr<Descriptor> applyDescriptor(const ApplyParameters& p) {
    checkLength(p.focalMm, "the focal length");
    checkLength(p.crop, "the crop factor");
    auto d = std::make_unique<Descriptor>();
    if (!p.constraintFile.empty())
        d->putData(cvKeyConstraintData, readConstraintFile(p.constraintFile));
    if (!p.projection.empty()) {
        const auto code = projectionCode(p.projection);
        if (!code)
            throw std::invalid_argument("unknown projection '" + p.projection +
                                        "' (fisheye, perspective, auto or full-spherical)");
        d->putEnumerated(cvKeyProjectionModel, cvKeyProjectionModel, *code);
    }
    if (!p.regularizer.empty()) {
        const auto code = regularizerCode(p.regularizer);
        if (!code)
            throw std::invalid_argument("unknown regulariser '" + p.regularizer +
                                        "' (stereographic, mercator, panini or auto)");
        d->putEnumerated(cvKeyRegularizerModel, cvKeyRegularizerModel, *code);
    }

    if (p.focalMm > 0)
        d->putFloat(cvKeyPhysicalFocalLength, p.focalMm);
    if (p.crop > 0)
        d->putFloat(cvKeyCropFactor, p.crop);
    return d;
}

}  // namespace Curvana::Gimp
