#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace Project {

// Panorama-profile transformation codes.
enum class PanoramaTransformation : uint32_t {
    Cylindrical = 0,
    Spherical = 1,
    Perspective = 2,
    Other = 3
};

// What the photograph's XMP packet says about the camera, read once per
// invocation. Every number uses 0 for "unknown".
class CameraMetadata {
public:
    std::string make;   // tiff:Make
    std::string model;  // tiff:Model
    std::string serialNumber;
    std::string lens;  // aux:Lens
    std::string lensInfo;
    std::string lensId;

    float maxApertureValue = 0.0f;
    float exposureProgram = 0.0f;
    float exposureTime = 0.0f;
    float shutterSpeedValue = 0.0f;
    float fNumber = 0.0f;
    float apertureValue = 0.0f;
    float isoSpeedRatings = 0.0f;
    float subjectDistance = 0.0f;
    float approximateFocusDistance = 0.0f;

    float focalLength = 0.0f;      // mm
    float focalLength35mm = 0.0f;  // mm
    float sensorWidth = 0.0f;      // mm, from the focal-plane resolution
    float sensorHeight = 0.0f;     // mm
    uint32_t imageWidth = 0;
    uint32_t imageHeight = 0;

    bool isPanorama = false;
    PanoramaTransformation transformation = PanoramaTransformation::Other;
    float virtualFocalLength = 0.0f;  // pixels (profile value x max(width, height))
    float virtualCenterX = 0.0f;      // pixels
    float virtualCenterY = 0.0f;      // pixels

    // The crop factor, computed on the first call and cached: from the focal
    // lengths (with the one brand's snapping), else from the sensor size, else
    // from the built-in camera table; 0 when nothing applies.
    float cropFactor() const;
    // The 35 mm focal length when known, else cropFactor() x focal length.
    float equivalentFocalLength() const;

private:
    mutable float cachedCropFactor_ = 0.0f;
};

// Fills a record from an XMP packet and the photo's pixel size. An empty,
// malformed or oversized packet yields a record with every field unknown.
//
// The packet is parsed with Exiv2's XMP parser (the XMP toolkit is started
// here if the caller has not started it; starting it twice is harmless).
// Properties are found by namespace URI, whatever prefix the packet uses. The
// standard namespaces are taken from Exiv2's registry under their usual
// prefixes:
//   tiff            Make, Model
//   exif            MaxApertureValue, ExposureProgram, ExposureTime,
//                   ShutterSpeedValue, FNumber, ApertureValue, ISOSpeedRatings
//                   (first item), SubjectDistance, FocalLength,
//                   FocalLengthIn35mmFilm, FocalPlaneXResolution,
//                   FocalPlaneYResolution, FocalPlaneResolutionUnit
//   aux             SerialNumber, Lens, LensInfo, LensID, ApproximateFocusDistance
//   exifEX          BodySerialNumber and LensModel, read only when the aux
//                   SerialNumber or Lens is missing (the EXIF 2.3 names)
//   kXmpNsPanorama  Transformation ("Cylindrical", "Spherical", "Perspective"),
//                   VirtualFocalLength, VirtualImageXCenter, VirtualImageYCenter:
//                   real numbers normalised by max(width, height), e.g. "0.5"
//                   (a rational "1/2" is read too).
// Every other number is read as a rational "%lu/%lu" with a non-zero
// denominator, else as a whole number "%lu" (so "5/0" reads 5 and "2.8" reads
// 2); anything else leaves the field 0.
CameraMetadata readCameraMetadata(std::string_view xmpPacket, uint32_t width, uint32_t height);

// Packets larger than this are refused (an empty record) rather than parsed.
inline constexpr size_t kMaxXmpPacketBytes = 16u * 1024u * 1024u;

// The panorama profile is our own namespace (no camera or host writes it
// under this URI; a stitcher or a test does), conventionally with the prefix
// "cvpano".
inline constexpr const char* kXmpNsPanorama = "http://ns.curvana.org/panorama/1.0/";

namespace detail {
// The two number readers above, exposed for tests: true when the text parsed.
bool parseXmpNumber(const std::string& text, float& value);
bool parseXmpReal(const std::string& text, float& value);
}  // namespace detail

}  // namespace Project
