#include "TiffMetadata.h"

#include <fcntl.h>
#include <tiffio.h>

#include <exiv2/exiv2.hpp>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <fstream>
#include <limits>
#include <memory>
#include <optional>
#include <vector>

#include "HostError.h"
#include "Metadata.h"
#include "TiffFile.h"

namespace Curvana::Host {
namespace {

// libtiff's limit on one allocation while metadata is read: no EXIF entry
// or XMP packet comes near it, and a hostile count is refused before memory
// is spent on it.
constexpr tmsize_t kMaxTagBytes = tmsize_t{64} << 20;

constexpr uint32_t kInteroperabilityIfd = 0xa005;

const Exiv2::ByteOrder kHostOrder =
    std::endian::native == std::endian::little ? Exiv2::littleEndian : Exiv2::bigEndian;

// Entries that hold offsets into the file they came from: sub-directories,
// and the maker note (whose own offsets point back into it).
bool structural(uint32_t tag) {
    return tag == TIFFTAG_EXIFIFD || tag == TIFFTAG_GPSIFD || tag == kInteroperabilityIfd ||
           tag == EXIFTAG_MAKERNOTE;
}

// libtiff keeps the base directory's orientation, resolutions and unit in
// fields of their own, with their own value types; the other carried tags
// are text.
enum class BaseKind { Text, Short, Rational };
BaseKind baseKind(uint32_t tag) {
    switch (tag) {
        case TIFFTAG_ORIENTATION:
        case TIFFTAG_RESOLUTIONUNIT:
            return BaseKind::Short;
        case TIFFTAG_XRESOLUTION:
        case TIFFTAG_YRESOLUTION:
            return BaseKind::Rational;
        default:
            return BaseKind::Text;
    }
}

// Bytes per value of an EXIF entry of this type; 0 for the types EXIF does
// not use (64-bit integers, sub-directory offsets).
int exifWidth(TIFFDataType type) {
    switch (type) {
        case TIFF_BYTE:
        case TIFF_ASCII:
        case TIFF_SBYTE:
        case TIFF_UNDEFINED:
            return 1;
        case TIFF_SHORT:
        case TIFF_SSHORT:
            return 2;
        case TIFF_LONG:
        case TIFF_SLONG:
        case TIFF_FLOAT:
            return 4;
        case TIFF_RATIONAL:
        case TIFF_SRATIONAL:
        case TIFF_DOUBLE:
            return 8;
        default:
            return 0;
    }
}

bool isRational(TIFFDataType type) {
    return type == TIFF_RATIONAL || type == TIFF_SRATIONAL;
}

// Whether libtiff's storage of a field (its bytes per value) is one this
// code reads and writes: the TIFF width, but rationals as float or double.
bool knownStorage(TIFFDataType type, int storage) {
    if (isRational(type))
        return storage == 4 || storage == 8;
    return exifWidth(type) != 0 && storage == exifWidth(type);
}

// libtiff keeps rationals as floating point: the fraction is found again by
// continued fractions, so that the usual camera values (1/250, 1/60, 28/10
// as 14/5) come back exactly. tolerance: the storage's relative precision.
std::pair<int64_t, int64_t> fraction(double v, bool isSigned, double tolerance) {
    if (!std::isfinite(v) || (v < 0 && !isSigned))
        return {0, 1};
    const int64_t limit =
        isSigned ? std::numeric_limits<int32_t>::max() : std::numeric_limits<uint32_t>::max();
    const double a = std::fabs(v);
    const int64_t sign = v < 0 ? -1 : 1;
    if (a >= static_cast<double>(limit))
        return {sign * limit, 1};
    int64_t p0 = 0, q0 = 1, p1 = 1, q1 = 0;  // the last two convergents
    double x = a;
    for (int i = 0; i < 64; ++i) {
        const double whole = std::floor(x);
        const double p2 = whole * static_cast<double>(p1) + static_cast<double>(p0);
        const double q2 = whole * static_cast<double>(q1) + static_cast<double>(q0);
        if (p2 > static_cast<double>(limit) || q2 > static_cast<double>(limit))
            break;
        p0 = p1, q0 = q1;
        p1 = static_cast<int64_t>(p2), q1 = static_cast<int64_t>(q2);
        if (std::fabs(a - static_cast<double>(p1) / static_cast<double>(q1)) <= tolerance * a ||
            x == whole)
            break;
        x = 1 / (x - whole);
    }
    return {sign * p1, q1};
}

double tolerance(int storage) {
    return storage == 8 ? 1e-12 : 2e-7;
}

void appendHost(std::string& bytes, const void* value, size_t size) {
    bytes.append(static_cast<const char*>(value), size);
}

// One rational as Exiv2 reads it: two 32-bit integers in host order.
void appendRational(std::string& bytes, double v, bool isSigned, int storage) {
    const auto [num, den] = fraction(v, isSigned, tolerance(storage));
    const auto n = static_cast<uint32_t>(num), d = static_cast<uint32_t>(den);
    appendHost(bytes, &n, 4);
    appendHost(bytes, &d, 4);
}

// Adds one entry, its values in host order, as Exiv2's value of its type.
void addEntry(Exiv2::ExifData& exif, uint32_t tag, const char* group, TIFFDataType type,
              const std::string& bytes) {
    const Exiv2::ExifKey key(static_cast<uint16_t>(tag), group);
    const auto* data = reinterpret_cast<const Exiv2::byte*>(bytes.data());
    const auto size = static_cast<long>(bytes.size());
    auto add = [&](Exiv2::Value&& value) {
        if (value.read(data, size, kHostOrder) == 0)
            exif.add(key, &value);
    };
    switch (type) {
        case TIFF_ASCII:
            add(Exiv2::AsciiValue());
            break;
        case TIFF_SHORT:
            add(Exiv2::UShortValue());
            break;
        case TIFF_LONG:
            add(Exiv2::ULongValue());
            break;
        case TIFF_RATIONAL:
            add(Exiv2::URationalValue());
            break;
        case TIFF_SSHORT:
            add(Exiv2::ShortValue());
            break;
        case TIFF_SLONG:
            add(Exiv2::LongValue());
            break;
        case TIFF_SRATIONAL:
            add(Exiv2::RationalValue());
            break;
        case TIFF_FLOAT:
            add(Exiv2::FloatValue());
            break;
        case TIFF_DOUBLE:
            add(Exiv2::DoubleValue());
            break;
        default:  // bytes: BYTE, SBYTE, UNDEFINED, whose numbers Exiv2 shares
            add(Exiv2::DataValue(static_cast<Exiv2::TypeId>(type)));
            break;
    }
}

// The values of a custom field of the current directory in host order, as
// Exiv2 reads them; nothing when libtiff does not hold it in a known way.
// libtiff hands a value out as its field's definition says: a count and an
// array, a string, one value, or an array of a fixed length.
std::optional<std::string> fieldBytes(TIFF* tif, const TIFFField* field) {
    const uint32_t tag = TIFFFieldTag(field);
    const TIFFDataType type = TIFFFieldDataType(field);
    const int storage = TIFFFieldSetGetSize(field);
    if (!knownStorage(type, storage))
        return std::nullopt;
    const int readCount = TIFFFieldReadCount(field);
    uint64_t count = 0;
    void* array = nullptr;
    alignas(8) unsigned char one[8] = {};
    const void* data = nullptr;
    if (TIFFFieldPassCount(field)) {
        if (readCount == TIFF_VARIABLE2) {
            uint32_t n = 0;
            if (!TIFFGetField(tif, tag, &n, &array))
                return std::nullopt;
            count = n;
        } else {
            uint16_t n = 0;
            if (!TIFFGetField(tif, tag, &n, &array))
                return std::nullopt;
            count = n;
        }
        data = array;
    } else if (type == TIFF_ASCII) {
        char* text = nullptr;
        if (!TIFFGetField(tif, tag, &text) || !text)
            return std::nullopt;
        return std::string(text);
    } else if (readCount == 1) {
        if (!TIFFGetField(tif, tag, one))
            return std::nullopt;
        data = one;
        count = 1;
    } else {
        if (!TIFFGetField(tif, tag, &array))
            return std::nullopt;
        data = array;
        // libtiff stores what it was set with: never more than the write count.
        const int fixed = std::min(readCount, TIFFFieldWriteCount(field));
        count = fixed > 0 ? static_cast<uint64_t>(fixed) : 1;
    }
    if (!data || count == 0)
        return std::nullopt;
    const auto* p = static_cast<const unsigned char*>(data);
    if (type == TIFF_ASCII)
        return std::string(reinterpret_cast<const char*>(p),
                           strnlen(reinterpret_cast<const char*>(p), count));
    std::string bytes;
    bytes.reserve(count * static_cast<uint64_t>(exifWidth(type)));
    for (uint64_t i = 0; i < count; ++i, p += storage) {
        if (!isRational(type)) {
            appendHost(bytes, p, static_cast<size_t>(storage));
            continue;
        }
        double v = 0;
        if (storage == 8) {
            std::memcpy(&v, p, 8);
        } else {
            float f = 0;
            std::memcpy(&f, p, 4);
            v = f;
        }
        appendRational(bytes, v, type == TIFF_SRATIONAL, storage);
    }
    return bytes;
}

// Every entry of the current EXIF or GPS directory, as group.
void readDirectory(TIFF* tif, const char* group, Exiv2::ExifData& exif) {
    const int n = TIFFGetTagListCount(tif);
    for (int i = 0; i < n; ++i) {
        const uint32_t tag = TIFFGetTagListEntry(tif, i);
        if (tag > 0xffff || structural(tag))
            continue;
        const TIFFField* field = TIFFFindField(tif, tag, TIFF_ANY);
        if (!field)
            continue;
        if (const auto bytes = fieldBytes(tif, field))
            addEntry(exif, tag, group, TIFFFieldDataType(field), *bytes);
    }
}

void readBaseTags(TIFF* tif, Exiv2::ExifData& exif) {
    for (const uint16_t tag : kCarriedImageTags) {
        switch (baseKind(tag)) {
            case BaseKind::Short: {
                uint16_t v = 0;
                if (TIFFGetField(tif, tag, &v))
                    addEntry(exif, tag, "Image", TIFF_SHORT,
                             std::string(reinterpret_cast<const char*>(&v), 2));
                break;
            }
            case BaseKind::Rational: {
                float v = 0;
                if (!TIFFGetField(tif, tag, &v))
                    break;
                std::string bytes;
                appendRational(bytes, v, false, 4);
                addEntry(exif, tag, "Image", TIFF_RATIONAL, bytes);
                break;
            }
            case BaseKind::Text: {
                const TIFFField* field = TIFFFindField(tif, tag, TIFF_ANY);
                if (field && TIFFFieldDataType(field) == TIFF_ASCII && !TIFFFieldPassCount(field))
                    if (const auto text = fieldBytes(tif, field))
                        addEntry(exif, tag, "Image", TIFF_ASCII, *text);
                break;
            }
        }
    }
}

// The value of entry i of a rational (or any numeric) Exiv2 entry; 0 for x/0.
double rationalAt(const Exiv2::Exifdatum& datum, long i) {
    if (const auto* u = dynamic_cast<const Exiv2::URationalValue*>(&datum.value())) {
        const Exiv2::URational r = u->value_.at(static_cast<size_t>(i));
        return r.second ? static_cast<double>(r.first) / r.second : 0;
    }
    const Exiv2::Rational r = datum.toRational(i);
    return r.second ? static_cast<double>(r.first) / r.second : 0;
}

// Stores value i of datum in libtiff's storage of a field of type.
void storeValue(const Exiv2::Exifdatum& datum, long i, TIFFDataType type, int storage,
                unsigned char* at) {
    if (isRational(type) || type == TIFF_FLOAT || type == TIFF_DOUBLE) {
        const double v = isRational(type) ? rationalAt(datum, i) : datum.toFloat(i);
        if (storage == 8) {
            std::memcpy(at, &v, 8);
        } else {
            const auto f = static_cast<float>(v);
            std::memcpy(at, &f, 4);
        }
        return;
    }
    const auto v = static_cast<uint32_t>(datum.toLong(i));  // two's complement for signed
    if (storage == 1) {
        *at = static_cast<uint8_t>(v);
    } else if (storage == 2) {
        const auto s = static_cast<uint16_t>(v);
        std::memcpy(at, &s, 2);
    } else {
        std::memcpy(at, &v, 4);
    }
}

template <class T>
T load(const unsigned char* p) {
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

// One value passed as libtiff reads a single value of a field of type.
bool setOne(TIFF* tif, uint32_t tag, TIFFDataType type, int storage, const unsigned char* p) {
    switch (type) {
        case TIFF_BYTE:
        case TIFF_UNDEFINED:
            return TIFFSetField(tif, tag, static_cast<int>(load<uint8_t>(p))) != 0;
        case TIFF_SBYTE:
            return TIFFSetField(tif, tag, static_cast<int>(load<int8_t>(p))) != 0;
        case TIFF_SHORT:
            return TIFFSetField(tif, tag, static_cast<int>(load<uint16_t>(p))) != 0;
        case TIFF_SSHORT:
            return TIFFSetField(tif, tag, static_cast<int>(load<int16_t>(p))) != 0;
        case TIFF_LONG:
            return TIFFSetField(tif, tag, load<uint32_t>(p)) != 0;
        case TIFF_SLONG:
            return TIFFSetField(tif, tag, load<int32_t>(p)) != 0;
        default:  // rationals and floating point are passed as double
            return TIFFSetField(
                       tif, tag,
                       storage == 8 ? load<double>(p) : static_cast<double>(load<float>(p))) != 0;
    }
}

// A definition for a tag libtiff does not know, as it makes one for such a
// tag when it reads it: any count, of the entry's type (Exiv2's type numbers
// are TIFF's).
const TIFFField* defineField(TIFF* tif, uint32_t tag, Exiv2::TypeId type) {
    if (type < Exiv2::unsignedByte || type > Exiv2::tiffDouble)
        return nullptr;
    static char name[] = "CarriedExifTag";  // libtiff keeps the pointer
    const TIFFFieldInfo info{
        tag, TIFF_VARIABLE2, TIFF_VARIABLE2, static_cast<TIFFDataType>(type), FIELD_CUSTOM, 1, 1,
        name};
    if (TIFFMergeFieldInfo(tif, &info, 1) != 0)
        return nullptr;
    return TIFFFindField(tif, tag, TIFF_ANY);
}

// Sets one entry on the current custom directory, converted to the type
// libtiff defines for its tag; false when it cannot be (text against
// numbers, a count libtiff cannot hold).
bool setField(TIFF* tif, const Exiv2::Exifdatum& datum) {
    const uint32_t tag = datum.tag();
    const long count = datum.count();
    if (count <= 0)
        return false;
    const TIFFField* field = TIFFFindField(tif, tag, TIFF_ANY);
    if (!field)
        field = defineField(tif, tag, datum.typeId());
    if (!field)
        return false;
    const TIFFDataType type = TIFFFieldDataType(field);
    if ((type == TIFF_ASCII) != (datum.typeId() == Exiv2::asciiString))
        return false;
    const bool passCount = TIFFFieldPassCount(field) != 0;
    const int writeCount = TIFFFieldWriteCount(field);
    const bool wideCount = writeCount == TIFF_VARIABLE2;
    auto setCounted = [&](uint64_t n, const void* values) {
        if (wideCount)
            return TIFFSetField(tif, tag, static_cast<uint32_t>(n), values) != 0;
        return n <= 0xffff && TIFFSetField(tif, tag, static_cast<int>(n), values) != 0;
    };
    if (type == TIFF_ASCII) {
        const std::string text = datum.toString();
        return passCount ? setCounted(text.size() + 1, text.c_str())
                         : TIFFSetField(tif, tag, text.c_str()) != 0;
    }
    const int storage = TIFFFieldSetGetSize(field);
    if (!knownStorage(type, storage))
        return false;
    // A field of a fixed count is copied at exactly that count.
    const auto n = static_cast<size_t>(!passCount && writeCount > 0 ? writeCount : count);
    std::vector<unsigned char> values(n * static_cast<size_t>(storage), 0);
    for (size_t i = 0; i < n && i < static_cast<size_t>(count); ++i)
        storeValue(datum, static_cast<long>(i), type, storage,
                   values.data() + i * static_cast<size_t>(storage));
    if (passCount)
        return setCounted(n, values.data());
    if (writeCount == 1)
        return setOne(tif, tag, type, storage, values.data());
    return TIFFSetField(tif, tag, values.data()) != 0;
}

void setBaseTag(TIFF* tif, const Exiv2::Exifdatum& datum) {
    const uint32_t tag = datum.tag();
    if (datum.count() <= 0 || std::find(kCarriedImageTags.begin(), kCarriedImageTags.end(), tag) ==
                                  kCarriedImageTags.end())
        return;
    switch (baseKind(tag)) {
        case BaseKind::Short:
            TIFFSetField(tif, tag, static_cast<int>(datum.toLong(0)));
            break;
        case BaseKind::Rational:
            if (const double v = rationalAt(datum, 0); v > 0)
                TIFFSetField(tif, tag, v);
            break;
        case BaseKind::Text:
            if (datum.typeId() == Exiv2::asciiString)
                TIFFSetField(tif, tag, datum.toString().c_str());
            break;
    }
}

// Writes entries as a new EXIF or GPS directory (made by create) at the end
// of the file; offset: where it went. Values libtiff refuses are left out.
bool writeDirectory(TIFF* tif, int (*create)(TIFF*),
                    const std::vector<const Exiv2::Exifdatum*>& entries, uint64_t& offset) {
    if (entries.empty())
        return true;
    // libtiff 4.5 frees the image's directory for the new one without
    // releasing the codec it set up (nor what the directory held once its
    // fields are swapped): both go first, the file is not touched.
    TIFFSetField(tif, TIFFTAG_COMPRESSION, COMPRESSION_NONE);
    TIFFFreeDirectory(tif);
    (void)create(tif);  // only frees and sets up the directory in memory (and returns 0)
    for (const Exiv2::Exifdatum* datum : entries)
        setField(tif, *datum);
    return TIFFWriteCustomDirectory(tif, &offset) != 0;
}

}  // namespace

bool isBigTiff(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    unsigned char h[4] = {};
    if (!in.read(reinterpret_cast<char*>(h), sizeof h))
        return false;
    return (h[0] == 'I' && h[1] == 'I' && h[2] == 43 && h[3] == 0) ||
           (h[0] == 'M' && h[1] == 'M' && h[2] == 0 && h[3] == 43);
}

void readTiffMetadata(const std::filesystem::path& path, Exiv2::ExifData& exif,
                      std::string& xmpPacket, std::vector<std::string>& warnings) {
    installTiffHandlers();
    const std::string name = path.string();
    std::unique_ptr<TIFFOpenOptions, decltype(&TIFFOpenOptionsFree)> options(TIFFOpenOptionsAlloc(),
                                                                             TIFFOpenOptionsFree);
    if (!options)
        throw HostError(kExitFailed, "out of memory");
    TIFFOpenOptionsSetMaxSingleMemAlloc(options.get(), kMaxTagBytes);
    // "O": the strip and tile tables, large in a gigapixel file, are never loaded.
    const TiffHandle handle(TIFFOpenExt(path.c_str(), "rmO", options.get()));
    if (!handle)
        throw HostError(kExitInput, "not a readable TIFF (" + takeTiffError() + ")");
    TIFF* tif = handle.get();

    uint32_t size = 0;
    void* packet = nullptr;
    if (TIFFGetField(tif, TIFFTAG_XMLPACKET, &size, &packet) && packet)
        xmpPacket.assign(static_cast<const char*>(packet), size);
    readBaseTags(tif, exif);
    uint64_t exifOffset = 0, gpsOffset = 0;
    TIFFGetField(tif, TIFFTAG_EXIFIFD, &exifOffset);
    TIFFGetField(tif, TIFFTAG_GPSIFD, &gpsOffset);
    auto readSub = [&](uint64_t offset, int (*read)(TIFF*, toff_t), const char* group,
                       const char* what) {
        if (offset == 0)
            return;
        if (read(tif, offset))
            readDirectory(tif, group, exif);
        else
            warnings.push_back(name + ": its " + what + " directory is damaged and was not read (" +
                               takeTiffError() + ")");
    };
    readSub(exifOffset, TIFFReadEXIFDirectory, "Photo", "EXIF");
    readSub(gpsOffset, TIFFReadGPSDirectory, "GPSInfo", "GPS");
}

std::string addTiffExif(const std::filesystem::path& path, const Exiv2::ExifData& exif,
                        const std::string& name) {
    installTiffHandlers();
    std::vector<const Exiv2::Exifdatum*> base, photo, gps;
    for (const Exiv2::Exifdatum& datum : exif) {
        if (structural(datum.tag()))
            continue;
        const std::string group = datum.groupName();
        if (group == "Image")
            base.push_back(&datum);
        else if (group == "Photo")
            photo.push_back(&datum);
        else if (group == "GPSInfo")
            gps.push_back(&datum);
        // libtiff writes no interoperability directory: its index stays behind.
    }
    if (base.empty() && photo.empty() && gps.empty())
        return {};

    (void)takeTiffError();
    errno = 0;
    TiffHandle handle(TIFFOpen(path.c_str(), "r+m"));
    // Until the image's directory is written again the file is whole: a
    // failure is a warning, unless the disk is full.
    auto notWritten = [&] {
        const int error = errno;
        const std::string reason = takeTiffError();
        if (handle) {
            TIFFSetMode(handle.get(), O_RDONLY);  // closing must not write a half-made directory
            handle.reset();
        }
        if (error == ENOSPC || error == EDQUOT)
            throw writeError(name, error);
        return name + ": metadata not written (" + reason + ")";
    };
    if (!handle)
        return notWritten();
    TIFF* tif = handle.get();
    uint64_t exifOffset = 0, gpsOffset = 0;
    if (!writeDirectory(tif, TIFFCreateEXIFDirectory, photo, exifOffset) ||
        !writeDirectory(tif, TIFFCreateGPSDirectory, gps, gpsOffset) || !TIFFSetDirectory(tif, 0))
        return notWritten();
    for (const Exiv2::Exifdatum* datum : base)
        setBaseTag(tif, *datum);
    if (exifOffset)
        TIFFSetField(tif, TIFFTAG_EXIFIFD, exifOffset);
    if (gpsOffset)
        TIFFSetField(tif, TIFFTAG_GPSIFD, gpsOffset);
    (void)takeTiffError();  // a value refused above (an orientation out of range) is only left out

    errno = 0;
    const bool rewritten = TIFFRewriteDirectory(tif) != 0;
    int error = errno;
    handle.reset();  // TIFFClose flushes; its failure shows only in the error handler
    if (rewritten && !tiffErrorReported())
        return {};
    error = rewritten ? errno : error;
    if (error == ENOSPC || error == EDQUOT)
        throw writeError(name, error);
    throw HostError(kExitOutput, name + ": cannot add the EXIF (" + takeTiffError() + ")");
}

}  // namespace Curvana::Host
