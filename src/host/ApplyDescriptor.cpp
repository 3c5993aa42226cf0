#include "ApplyDescriptor.h"

#include <algorithm>
#include <fstream>

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
    if (size == 0)
        throw HostError(kExitUsage, file.string() + ": the constraint file is empty");
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

std::unique_ptr<Descriptor> applyDescriptor(const CliOptions& options, const Descriptor* params,
                                            int32_t width, int32_t height,
                                            const PhotoMetadata& metadata) {
    auto d = params ? std::make_unique<Descriptor>(*params) : std::make_unique<Descriptor>();
    if (options.projection)
        d->putEnumerated(cvKeyProjectionModel, cvKeyProjectionModel,
                         projectionCode(*options.projection));
    if (options.regularizer)
        d->putEnumerated(cvKeyRegularizerModel, cvKeyRegularizerModel,
                         regularizerCode(*options.regularizer));
    if (options.cropToContent)
        d->putBoolean(cvKeyCropToContent, true);

    // The crop factor the photo implies: its 35 mm equivalent over its focal length.
    const double exifCrop = metadata.focalLengthMm > 0 && metadata.focalLength35mm > 0
                                ? metadata.focalLength35mm / metadata.focalLengthMm
                                : 0;
    const double longSide = std::max(width, height);
    auto put = [&](double focalMm, double crop) {
        d->putFloat(cvKeyPhysicalFocalLength, focalMm);
        d->putFloat(cvKeyCropFactor, crop);
        d->putFloat(cvKeyFocalLength, crop * focalMm * longSide / 36.0);
    };
    if (options.focalMm || options.crop) {
        const double crop =
            options.crop ? *options.crop
                         : d->getFloat(cvKeyCropFactor).value_or(exifCrop > 0 ? exifCrop : 1.0);
        double focal = options.focalMm
                           ? *options.focalMm
                           : d->getFloat(cvKeyPhysicalFocalLength).value_or(metadata.focalLengthMm);
        if (focal <= 0 && metadata.focalLength35mm > 0)
            focal = metadata.focalLength35mm / crop;
        if (focal > 0)
            put(focal, crop);
        else
            d->putFloat(cvKeyCropFactor, crop);
    } else if (!d->find(cvKeyFocalLength) && !d->find(cvKeyConstraintData)) {
        // (A constraint file carries the focal length it was drawn with.)
        if (metadata.focalLengthMm > 0)
            put(metadata.focalLengthMm, exifCrop > 0 ? exifCrop : 1.0);
        else if (metadata.focalLength35mm > 0)
            put(metadata.focalLength35mm, 1.0);
    }
    return d;
}

}  // namespace Curvana::Host
