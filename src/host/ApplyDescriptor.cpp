#include "ApplyDescriptor.h"

#include <fstream>

#include "HostError.h"
#include "SystemInfo.h"

namespace Curvana::Host {
namespace fs = std::filesystem;

fs::path lastActionPath() {
    const std::string base = preferencesBase();
    return base.empty() ? fs::path() : fs::path(base) / "curvana" / "last-action.json";
}

std::unique_ptr<Descriptor> withConstraintFile(const Descriptor* params, const fs::path& file) {
    // The filter checks the bytes (image size, camera, lens) itself; the host
    // only refuses what it cannot pass on.
    constexpr uintmax_t kMaxBytes = uintmax_t{256} << 20;
    std::error_code ec;
    const uintmax_t size = fs::file_size(file, ec);
    if (ec)
        throw HostError(kExitUsage,
                        file.string() + ": cannot read the constraint file (" + ec.message() + ")");
    if (size == 0)  // the filter's own words for it
        throw HostError(kExitUsage, file.string() + ": The file you selected is an empty file.");
    if (size > kMaxBytes)
        throw HostError(kExitUsage, file.string() + ": too large for a constraint file");
    std::ifstream in(file, std::ios::binary);
    DescriptorEntry entry;
    entry.key = cvKeyConstraintData;
    entry.type = cvTypeRawData;
    entry.data.resize(static_cast<size_t>(size));
    if (!in.read(reinterpret_cast<char*>(entry.data.data()), static_cast<std::streamsize>(size)))
        throw HostError(kExitUsage, file.string() + ": cannot read the constraint file");

    // The constraint data goes first: the filter reads keys in order, so the
    // settings of --params and of the options, put after it, win over the
    // file's.
    auto d = std::make_unique<Descriptor>();
    d->put(std::move(entry));
    if (params)
        for (const DescriptorEntry& e : params->entries())
            if (e.key != cvKeyConstraintData)
                d->put(e);
    return d;
}

std::unique_ptr<Descriptor> applyDescriptor(const CliOptions& options, const Descriptor* params) {
    auto d = params ? std::make_unique<Descriptor>(*params) : std::make_unique<Descriptor>();
    if (options.projection)
        d->putEnumerated(cvKeyProjectionModel, cvKeyProjectionModel,
                         projectionCode(*options.projection));
    if (options.regularizer)
        d->putEnumerated(cvKeyRegularizerModel, cvKeyRegularizerModel,
                         regularizerCode(*options.regularizer));
    if (options.cropToContent)
        d->putBoolean(cvKeyCropToContent, true);
    // The filter completes what the options leave open (the crop factor of
    // --focal-mm, the focal length of --crop) from the photo's metadata, and
    // works out the focal length in pixels, which a replayed one must not
    // override.
    if (options.focalMm)
        d->putFloat(cvKeyPhysicalFocalLength, *options.focalMm);
    if (options.crop)
        d->putFloat(cvKeyCropFactor, *options.crop);
    if (options.focalMm || options.crop)
        d->erase(cvKeyFocalLength);
    return d;
}

}  // namespace Curvana::Host
