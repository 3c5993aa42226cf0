#include "geometry/CameraMetadata.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <string>

// Exiv2 0.27 still uses std::auto_ptr; its include directory comes in as a
// system directory through the imported target, which keeps its warnings out.
#include <exiv2/exiv2.hpp>

namespace Project {

namespace {

// One record of the built-in camera table; the table ends with a null make.
struct CameraCrop {
    const char* make;
    const char* model;
    float crop;
};

// Crop factors of cameras whose files carry neither a 35 mm focal length nor
// a focal-plane resolution. Searched in order, make and model compared exactly.
constexpr CameraCrop kCameraTable[] = {
    {"Canon", "Canon EOS 1000D", 1.6f},
    {"Canon", "Canon EOS 10D", 1.6f},
    {"Canon", "Canon EOS 20D", 1.6f},
    {"Canon", "Canon EOS 30D", 1.6f},
    {"Canon", "Canon EOS 40D", 1.6f},
    {"Canon", "Canon EOS 50D", 1.6f},
    {"Canon", "Canon EOS 5D", 1.0f},
    {"Canon", "Canon EOS 5D Mark II", 1.0f},
    {"Canon", "Canon EOS D30", 1.6f},
    {"Canon", "Canon EOS D60", 1.6f},
    {"Canon", "Canon EOS DIGITAL REBEL", 1.6f},
    {"Canon", "Canon EOS DIGITAL REBEL XSi", 1.6f},
    {"Canon", "Canon EOS DIGITAL REBEL XT", 1.6f},
    {"Canon", "Canon EOS DIGITAL REBEL XTi", 1.6f},
    {"Canon", "Canon EOS K215", 1.0f},
    {"Canon", "Canon EOS-1D", 1.3f},
    {"Canon", "Canon EOS-1D Mark II", 1.3f},
    {"Canon", "Canon EOS-1D Mark II N", 1.3f},
    {"Canon", "Canon EOS-1D Mark III", 1.3f},
    {"Canon", "Canon EOS-1DS", 1.0f},
    {"Canon", "Canon EOS-1Ds Mark II", 1.0f},
    {"Canon", "Canon PowerShot G10", 4.55f},
    {"Canon", "Canon PowerShot G2", 4.55f},
    {"Canon", "Canon PowerShot G3", 4.55f},
    {"Canon", "Canon PowerShot G5", 4.84f},
    {"Canon", "Canon PowerShot G6", 4.84f},
    {"Canon", "Canon PowerShot G7", 4.84f},
    {"Canon", "Canon PowerShot G9", 4.55f},
    {"Canon", "Canon PowerShot Pro1", 3.93f},
    {"Canon", "Canon PowerShot S30", 4.84f},
    {"Canon", "Canon PowerShot S40", 4.84f},
    {"Canon", "Canon PowerShot S45", 4.84f},
    {"Canon", "Canon PowerShot S50", 4.84f},
    {"Canon", "Canon PowerShot S60", 4.84f},
    {"Canon", "Canon PowerShot S70", 4.84f},
    {"NIKON", "COOLPIX P6000", 4.634f},
    {"NIKON", "E5400", 4.84f},
    {"NIKON", "E8400", 3.93f},
    {"NIKON", "E8700", 3.93f},
    {"NIKON", "E8800", 3.93f},
    {"NIKON CORPORATION", "NIKON D1", 1.5f},
    {"NIKON CORPORATION", "NIKON D100", 1.5f},
    {"NIKON CORPORATION", "NIKON D1H", 1.5f},
    {"NIKON CORPORATION", "NIKON D1X", 1.5f},
    {"NIKON CORPORATION", "NIKON D200", 1.5f},
    {"NIKON CORPORATION", "NIKON D2H", 1.5f},
    {"NIKON CORPORATION", "NIKON D2Hs", 1.5f},
    {"NIKON CORPORATION", "NIKON D2X", 1.5f},
    {"NIKON CORPORATION", "NIKON D2Xs", 1.5f},
    {"NIKON CORPORATION", "NIKON D3", 1.0f},
    {"NIKON CORPORATION", "NIKON D300", 1.5f},
    {"NIKON CORPORATION", "NIKON D3X", 1.0f},
    {"NIKON CORPORATION", "NIKON D40", 1.5f},
    {"NIKON CORPORATION", "NIKON D40X", 1.5f},
    {"NIKON CORPORATION", "NIKON D50", 1.5f},
    {"NIKON CORPORATION", "NIKON D60", 1.5f},
    {"NIKON CORPORATION", "NIKON D70", 1.5f},
    {"NIKON CORPORATION", "NIKON D700", 1.0f},
    {"NIKON CORPORATION", "NIKON D70s", 1.5f},
    {"NIKON CORPORATION", "NIKON D80", 1.5f},
    {"NIKON CORPORATION", "NIKON D90", 1.5f},
    {"SIGMA", "SIGMA DP1", 1.7f},
    {"SIGMA", "SIGMA DP2", 1.7f},
    {"SIGMA", "SIGMA SD10", 1.7f},
    {"SIGMA", "SIGMA SD14", 1.7f},
    {"SIGMA", "SIGMA SD9", 1.7f},
    {"SONY", "DSC-R1", 1.6f},
    {"SONY", "DSC-V3", 4.84f},
    {"SONY", "DSLR-A100", 1.5f},
    {"SONY", "DSLR-A200", 1.5f},
    {"SONY", "DSLR-A300", 1.5f},
    {"SONY", "DSLR-A350", 1.5f},
    {"SONY", "DSLR-A700", 1.5f},
    {"SONY", "DSLR-A900", 1.0f},
    {"OLYMPUS CORPORATION", "E-1", 2.0f},
    {"OLYMPUS IMAGING CORP.", "E-3", 2.0f},
    {"OLYMPUS IMAGING CORP.", "E-30", 2.0f},
    {"OLYMPUS IMAGING CORP.", "E-300", 2.0f},
    {"OLYMPUS IMAGING CORP.", "E-330", 2.0f},
    {"OLYMPUS IMAGING CORP.", "E-400", 2.0f},
    {"OLYMPUS IMAGING CORP.", "E-410", 2.0f},
    {"OLYMPUS IMAGING CORP.", "E-420", 2.0f},
    {"OLYMPUS IMAGING CORP.", "E-450", 2.0f},
    {"OLYMPUS IMAGING CORP.", "E-500", 2.0f},
    {"OLYMPUS IMAGING CORP.", "E-510", 2.0f},
    {"OLYMPUS IMAGING CORP.", "E-520", 2.0f},
    {"OLYMPUS IMAGING CORP.", "E-600", 2.0f},
    {"OLYMPUS IMAGING CORP.", "E-620", 2.0f},
    {"LEICA", "DIGILUX3", 2.0f},
    {nullptr, nullptr, 0.0f},
};
static_assert(sizeof(kCameraTable) / sizeof(kCameraTable[0]) == 89 + 1,
              "89 cameras and the end record");

float cropFromTable(const std::string& make, const std::string& model) {
    for (const CameraCrop* e = kCameraTable; e->make != nullptr; ++e)
        if (make == e->make && model == e->model)
            return e->crop;
    return 0.0f;
}

// The one brand whose 35 mm focal lengths are rounded coarsely enough that
// the ratio is snapped to its two sensor formats.
float snapNikonCrop(const std::string& make, float crop) {
    std::string upper = make;
    std::transform(upper.begin(), upper.end(), upper.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    if (upper.find("NIKON") == std::string::npos)
        return crop;
    const float toFull = std::fabs(crop - 1.0f);
    const float toDx = std::fabs(crop - 1.5f);
    if (toFull > 0.25f && toDx > 0.25f)
        return crop;
    return toFull < toDx ? 1.0f : 1.5f;  // a tie goes to 1.5
}

}  // namespace

namespace detail {

// A number as the camera metadata stores it: first a rational "n/d" of
// unsigned integers (with d != 0) divided as floats, else a whole number.
// False when neither matches.
bool parseXmpNumber(const std::string& text, float& value) {
    unsigned long num = 0;
    unsigned long den = 0;
    if (std::sscanf(text.c_str(), "%lu/%lu", &num, &den) == 2 && den != 0) {
        value = static_cast<float>(num) / static_cast<float>(den);
        return true;
    }
    if (std::sscanf(text.c_str(), "%lu", &num) == 1) {
        value = static_cast<float>(num);
        return true;
    }
    return false;
}

// A panorama-profile value: normalised fractions, so a rational as above or
// else a real number ("0.5").
bool parseXmpReal(const std::string& text, float& value) {
    unsigned long num = 0;
    unsigned long den = 0;
    if (std::sscanf(text.c_str(), "%lu/%lu", &num, &den) == 2 && den != 0) {
        value = static_cast<float>(num) / static_cast<float>(den);
        return true;
    }
    double real = 0.0;
    if (std::sscanf(text.c_str(), "%lf", &real) == 1 && std::isfinite(real)) {
        value = static_cast<float>(real);
        return true;
    }
    return false;
}

}  // namespace detail

float CameraMetadata::cropFactor() const {
    if (cachedCropFactor_ > 0.0f)
        return cachedCropFactor_;
    float crop = 0.0f;
    if (focalLength > 0.0f && focalLength35mm > 0.0f) {
        crop = snapNikonCrop(make, focalLength35mm / focalLength);
    } else if (sensorWidth > 0.0f && sensorHeight > 0.0f) {
        // 1872 = 36^2 + 24^2, the squared diagonal of the 36 x 24 mm frame.
        crop = std::sqrt(1872.0f / (sensorWidth * sensorWidth + sensorHeight * sensorHeight));
    } else {
        crop = cropFromTable(make, model);
    }
    cachedCropFactor_ = crop;
    return crop;
}

float CameraMetadata::equivalentFocalLength() const {
    if (focalLength35mm > 0.0f)
        return focalLength35mm;
    return cropFactor() * focalLength;
}

namespace {

// One property of the packet, found by namespace URI and property name (the
// packet's own prefixes do not matter).
class PacketReader {
public:
    explicit PacketReader(const Exiv2::XmpData& data) : data_(data) {}

    bool text(const std::string& ns, const char* name, std::string& out) const {
        for (const auto& datum : data_) {
            if (datum.tagName() != name || namespaceOf(datum) != ns)
                continue;
            if (datum.count() == 0)
                return false;
            // The first item of an array (ISOSpeedRatings is a sequence), or the text itself.
            out = datum.toString(0);
            return true;
        }
        return false;
    }

    bool number(const std::string& ns, const char* name, float& out) const {
        std::string s;
        return text(ns, name, s) && detail::parseXmpNumber(s, out);
    }

    bool real(const std::string& ns, const char* name, float& out) const {
        std::string s;
        return text(ns, name, s) && detail::parseXmpReal(s, out);
    }

private:
    static std::string namespaceOf(const Exiv2::Xmpdatum& datum) {
        try {
            return Exiv2::XmpProperties::ns(datum.groupName());
        } catch (...) {
            return {};
        }
    }

    const Exiv2::XmpData& data_;
};

// The URI Exiv2 registers for one of the standard prefixes.
std::string standardNamespace(const char* prefix) {
    try {
        return Exiv2::XmpProperties::ns(prefix);
    } catch (...) {
        return {};
    }
}

bool decodePacket(std::string_view packet, Exiv2::XmpData& data) {
    if (packet.empty() || packet.size() > kMaxXmpPacketBytes)
        return false;
    try {
        Exiv2::XmpParser::initialize();  // idempotent; the session normally started it
        return Exiv2::XmpParser::decode(data, std::string(packet)) == 0;
    } catch (...) {
        return false;
    }
}

}  // namespace

CameraMetadata readCameraMetadata(std::string_view xmpPacket, uint32_t width, uint32_t height) {
    CameraMetadata m;
    Exiv2::XmpData data;
    if (!decodePacket(xmpPacket, data))
        return m;

    try {
        const PacketReader in(data);
        const std::string tiff = standardNamespace("tiff");
        const std::string exif = standardNamespace("exif");
        const std::string aux = standardNamespace("aux");
        const std::string exifEx = standardNamespace("exifEX");
        const std::string pano = kXmpNsPanorama;
        in.text(tiff, "Make", m.make);
        in.text(tiff, "Model", m.model);
        if (!in.text(aux, "SerialNumber", m.serialNumber))
            in.text(exifEx, "BodySerialNumber", m.serialNumber);
        if (!in.text(aux, "Lens", m.lens))
            in.text(exifEx, "LensModel", m.lens);
        in.text(aux, "LensInfo", m.lensInfo);
        in.text(aux, "LensID", m.lensId);

        in.number(exif, "MaxApertureValue", m.maxApertureValue);
        in.number(exif, "ExposureProgram", m.exposureProgram);
        in.number(exif, "ExposureTime", m.exposureTime);
        in.number(exif, "ShutterSpeedValue", m.shutterSpeedValue);
        in.number(exif, "FNumber", m.fNumber);
        in.number(exif, "ApertureValue", m.apertureValue);
        in.number(exif, "ISOSpeedRatings", m.isoSpeedRatings);
        in.number(exif, "SubjectDistance", m.subjectDistance);
        in.number(aux, "ApproximateFocusDistance", m.approximateFocusDistance);
        in.number(exif, "FocalLength", m.focalLength);
        in.number(exif, "FocalLengthIn35mmFilm", m.focalLength35mm);

        m.imageWidth = width;
        m.imageHeight = height;

        float rx = 0.0f;
        float ry = 0.0f;
        float unit = 0.0f;
        in.number(exif, "FocalPlaneXResolution", rx);
        in.number(exif, "FocalPlaneYResolution", ry);
        in.number(exif, "FocalPlaneResolutionUnit", unit);
        const float mmPerUnit = unit == 3.0f ? 10.0f : 25.4f;  // centimetres, else inches
        if (rx > 0.0f && ry > 0.0f && width != 0 && height != 0) {
            m.sensorWidth = static_cast<float>(width) * mmPerUnit / rx;
            m.sensorHeight = static_cast<float>(height) * mmPerUnit / ry;
        }

        std::string transformation;
        in.text(pano, "Transformation", transformation);
        if (transformation == "Cylindrical")
            m.transformation = PanoramaTransformation::Cylindrical;
        else if (transformation == "Spherical")
            m.transformation = PanoramaTransformation::Spherical;
        else if (transformation == "Perspective")
            m.transformation = PanoramaTransformation::Perspective;
        else
            m.transformation = PanoramaTransformation::Other;

        const float scale = static_cast<float>(std::max(width, height));
        float focal = 0.0f;
        float cx = 0.0f;
        float cy = 0.0f;
        in.real(pano, "VirtualFocalLength", focal);
        const bool haveCx = in.real(pano, "VirtualImageXCenter", cx);
        const bool haveCy = in.real(pano, "VirtualImageYCenter", cy);
        m.virtualFocalLength = focal * scale;
        m.virtualCenterX = cx * scale;
        m.virtualCenterY = cy * scale;
        m.isPanorama = m.transformation != PanoramaTransformation::Other &&
                       m.virtualFocalLength > 1.1920929e-07f && haveCx && haveCy;
    } catch (...) {
        return CameraMetadata{};
    }
    return m;
}

}  // namespace Project
