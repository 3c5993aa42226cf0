#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <sstream>
#include <string>

#include <exiv2/exiv2.hpp>

#include "geometry/CameraMetadata.h"

namespace Project {
namespace {

// Replaces the {ns:PREFIX} tokens of a sample by the URIs Exiv2 registers
// for those standard prefixes.
std::string expandNamespaces(std::string text) {
    for (const char* prefix : {"tiff", "exif", "aux"}) {
        const std::string token = std::string("{ns:") + prefix + "}";
        const std::string uri = Exiv2::XmpProperties::ns(prefix);
        for (size_t at = text.find(token); at != std::string::npos;
             at = text.find(token, at + uri.size()))
            text.replace(at, token.size(), uri);
    }
    return text;
}

std::string readSample(const std::string& name) {
    std::ifstream in(std::string(CURVANA_TEST_DATA_DIR) + "/xmp/" + name, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return expandNamespaces(s.str());
}

// A packet with one rdf:Description holding the given attributes.
std::string packetWith(const std::string& attributes) {
    return expandNamespaces(
        "<rdf:RDF xmlns:rdf=\"http://www.w3.org/1999/02/22-rdf-syntax-ns#\"><rdf:Description "
        "rdf:about=\"\" "
        "xmlns:tiff=\"{ns:tiff}\" xmlns:exif=\"{ns:exif}\" "
        "xmlns:cvpano=\"http://ns.curvana.org/panorama/1.0/\" " +
        attributes + "/></rdf:RDF>");
}

// Each test runs in a process of its own: here the toolkit has not been started
// (expandNamespaces only reads Exiv2's static namespace table).
TEST(ReadCameraMetadata, SamplePacketWithoutStartingTheToolkit) {
    const CameraMetadata m = readCameraMetadata(readSample("canon_sensor.xmp"), 3888, 2592);
    EXPECT_EQ(m.make, "Canon");
    EXPECT_EQ(m.model, "Canon EOS 40D");
    EXPECT_EQ(m.lens, "EF-S10-22mm f/3.5-4.5 USM");
    EXPECT_EQ(m.lensInfo, "10/1 22/1 0/0 0/0");
    EXPECT_EQ(m.lensId, "234");
    EXPECT_FLOAT_EQ(m.focalLength, 10.0f);
    EXPECT_FLOAT_EQ(m.fNumber, 3.5f);
    EXPECT_FLOAT_EQ(m.exposureTime, 1.0f / 60.0f);
    EXPECT_FLOAT_EQ(m.exposureProgram, 2.0f);
    EXPECT_FLOAT_EQ(m.isoSpeedRatings, 400.0f) << "the first item of the sequence";
    EXPECT_FLOAT_EQ(m.approximateFocusDistance, 4294967295.0f);
    // Resolution unit 2 is inches: 3888 px * 25.4 / (3888000 / 876 px per inch).
    const float w = 3888.0f * 25.4f * 876.0f / 3888000.0f;
    const float h = 2592.0f * 25.4f * 583.0f / 2592000.0f;
    EXPECT_NEAR(m.sensorWidth, w, 1e-4f);
    EXPECT_NEAR(m.sensorHeight, h, 1e-4f);
    // The sensor rule comes before the camera table (which says 1.6 for this model).
    EXPECT_NEAR(m.cropFactor(), std::sqrt(1872.0f / (w * w + h * h)), 1e-4f);
    EXPECT_NEAR(m.equivalentFocalLength(), 10.0f * m.cropFactor(), 1e-4f);
    EXPECT_FALSE(m.isPanorama);
    EXPECT_EQ(m.transformation, PanoramaTransformation::Other);
}

// The packet the host program hands over: Exiv2's EXIF-to-XMP conversion,
// encoded by Exiv2, plus the lens and panorama properties it adds.
TEST(ReadCameraMetadata, PacketConvertedFromExifRoundTrips) {
    Exiv2::XmpParser::initialize();
    Exiv2::ExifData exif;
    exif["Exif.Image.Make"] = "NIKON CORPORATION";
    exif["Exif.Image.Model"] = "NIKON D90";
    exif["Exif.Photo.FocalLength"] = Exiv2::URational(105, 10);
    exif["Exif.Photo.FocalLengthIn35mmFilm"] = uint16_t(15);
    exif["Exif.Photo.FocalPlaneXResolution"] = Exiv2::URational(2000, 1);
    exif["Exif.Photo.FocalPlaneYResolution"] = Exiv2::URational(1000, 1);
    exif["Exif.Photo.FocalPlaneResolutionUnit"] = uint16_t(3);
    exif["Exif.Photo.FNumber"] = Exiv2::URational(28, 10);
    exif["Exif.Photo.ExposureTime"] = Exiv2::URational(1, 250);
    exif["Exif.Photo.ISOSpeedRatings"] = uint16_t(200);
    exif["Exif.Photo.SubjectDistance"] = Exiv2::URational(3, 0);
    exif["Exif.Photo.MaxApertureValue"] = Exiv2::URational(30, 10);
    Exiv2::XmpData xmp;
    Exiv2::copyExifToXmp(exif, xmp);
    xmp["Xmp.aux.Lens"] = "10.5 mm f/2.8";
    xmp["Xmp.aux.SerialNumber"] = "3001234";
    std::string packet;
    ASSERT_EQ(Exiv2::XmpParser::encode(packet, xmp), 0);

    const CameraMetadata m = readCameraMetadata(packet, 4288, 2848);
    EXPECT_EQ(m.make, "NIKON CORPORATION");
    EXPECT_EQ(m.model, "NIKON D90");
    EXPECT_EQ(m.lens, "10.5 mm f/2.8");
    EXPECT_EQ(m.serialNumber, "3001234");
    EXPECT_FLOAT_EQ(m.focalLength, 10.5f);
    EXPECT_FLOAT_EQ(m.focalLength35mm, 15.0f);
    EXPECT_FLOAT_EQ(m.fNumber, 2.8f);
    EXPECT_FLOAT_EQ(m.exposureTime, 0.004f);
    EXPECT_FLOAT_EQ(m.isoSpeedRatings, 200.0f);
    EXPECT_FLOAT_EQ(m.subjectDistance, 3.0f) << "3/0 reads as the whole number 3";
    EXPECT_FLOAT_EQ(m.maxApertureValue, 3.0f);
    EXPECT_EQ(m.imageWidth, 4288u);
    EXPECT_EQ(m.imageHeight, 2848u);
    // Centimetres: 4288 * 10 / 2000 and 2848 * 10 / 1000.
    EXPECT_FLOAT_EQ(m.sensorWidth, 21.44f);
    EXPECT_FLOAT_EQ(m.sensorHeight, 28.48f);
    // 15 / 10.5 = 1.4286 is within 0.25 of 1.5 on a Nikon: snapped.
    EXPECT_FLOAT_EQ(m.cropFactor(), 1.5f);
    EXPECT_FLOAT_EQ(m.equivalentFocalLength(), 15.0f);
    EXPECT_FALSE(m.isPanorama);
}

TEST(ReadCameraMetadata, PanoramaProfile) {
    const CameraMetadata m =
        readCameraMetadata(readSample("panorama_cylindrical.xmp"), 12000, 3000);
    EXPECT_TRUE(m.isPanorama);
    EXPECT_EQ(m.transformation, PanoramaTransformation::Cylindrical);
    EXPECT_FLOAT_EQ(m.virtualFocalLength, 1800.0f);  // 0.15 x max(12000, 3000)
    EXPECT_FLOAT_EQ(m.virtualCenterX, 6000.0f);
    EXPECT_FLOAT_EQ(m.virtualCenterY, 1500.0f);  // the rational 1/8
    EXPECT_EQ(m.serialNumber, "0820512345");
    EXPECT_FLOAT_EQ(m.cropFactor(), 1.0f) << "camera table";

    const std::string centres =
        "cvpano:VirtualImageXCenter=\"0.5\" cvpano:VirtualImageYCenter=\"0.4\" ";
    struct Case {
        std::string attributes;
        bool panorama;
        PanoramaTransformation t;
    };
    const Case cases[] = {
        {"cvpano:Transformation=\"Spherical\" cvpano:VirtualFocalLength=\"0.3\" " + centres, true,
         PanoramaTransformation::Spherical},
        {"cvpano:Transformation=\"Perspective\" cvpano:VirtualFocalLength=\"0.3\" " + centres, true,
         PanoramaTransformation::Perspective},
        {"cvpano:Transformation=\"spherical\" cvpano:VirtualFocalLength=\"0.3\" " + centres, false,
         PanoramaTransformation::Other},
        {"cvpano:Transformation=\"Mercator\" cvpano:VirtualFocalLength=\"0.3\" " + centres, false,
         PanoramaTransformation::Other},
        {"cvpano:Transformation=\"Spherical\" cvpano:VirtualFocalLength=\"0\" " + centres, false,
         PanoramaTransformation::Spherical},
        {"cvpano:Transformation=\"Spherical\" cvpano:VirtualFocalLength=\"0.3\" "
         "cvpano:VirtualImageXCenter=\"0.5\"",
         false, PanoramaTransformation::Spherical},
        {"cvpano:Transformation=\"Spherical\" cvpano:VirtualFocalLength=\"0.3\" "
         "cvpano:VirtualImageXCenter=\"0.5\" cvpano:VirtualImageYCenter=\"centre\"",
         false, PanoramaTransformation::Spherical},
        // Centres of 0 were read, so they count.
        {"cvpano:Transformation=\"Spherical\" cvpano:VirtualFocalLength=\"0.3\" "
         "cvpano:VirtualImageXCenter=\"0\" cvpano:VirtualImageYCenter=\"0\"",
         true, PanoramaTransformation::Spherical},
    };
    for (const Case& c : cases) {
        const CameraMetadata p = readCameraMetadata(packetWith(c.attributes), 4000, 2000);
        EXPECT_EQ(p.isPanorama, c.panorama) << c.attributes;
        EXPECT_EQ(p.transformation, c.t) << c.attributes;
    }
    // Another prefix for the same namespace reads the same.
    const std::string otherPrefix =
        "<rdf:RDF xmlns:rdf=\"http://www.w3.org/1999/02/22-rdf-syntax-ns#\"><rdf:Description "
        "rdf:about=\"\" "
        "xmlns:stitch=\"http://ns.curvana.org/panorama/1.0/\" "
        "stitch:Transformation=\"Perspective\" "
        "stitch:VirtualFocalLength=\"1/2\" stitch:VirtualImageXCenter=\"0.5\" "
        "stitch:VirtualImageYCenter=\"0.5\"/></rdf:RDF>";
    const CameraMetadata q = readCameraMetadata(otherPrefix, 3000, 2000);
    EXPECT_TRUE(q.isPanorama);
    EXPECT_FLOAT_EQ(q.virtualFocalLength, 1500.0f);
}

TEST(ReadCameraMetadata, UnusablePacketsGiveAnEmptyRecord) {
    const std::string valid = packetWith("tiff:Make=\"Canon\" exif:FocalLength=\"24/1\"");
    ASSERT_EQ(readCameraMetadata(valid, 10, 10).make, "Canon");

    std::string huge = valid;
    huge.resize(kMaxXmpPacketBytes + 1, ' ');
    const std::string inputs[] = {
        "",
        "not xml at all",
        valid.substr(0, valid.size() / 2),
        huge,
        std::string("<rdf:RDF\0 xmlns:rdf=\"http://www.w3.org/1999/02/22-rdf-syntax-ns#\"/>", 67),
    };
    for (const std::string& in : inputs) {
        const CameraMetadata m = readCameraMetadata(in, 6000, 4000);
        EXPECT_TRUE(m.make.empty());
        EXPECT_EQ(m.focalLength, 0.0f);
        EXPECT_EQ(m.imageWidth, 0u);
        EXPECT_EQ(m.cropFactor(), 0.0f);
        EXPECT_EQ(m.equivalentFocalLength(), 0.0f);
    }
}

TEST(XmpNumbers, RationalFirstThenWholeNumber) {
    struct Case {
        const char* text;
        bool parsed;
        float value;
    };
    const Case cases[] = {
        {"28/10", true, 2.8f}, {"5/0", true, 5.0f},        {"0/0", true, 0.0f},  {"7", true, 7.0f},
        {"2.8", true, 2.0f},   {" 12/4", true, 3.0f},      {"abc", false, 0.0f}, {"", false, 0.0f},
        {"/5", false, 0.0f},   {"1/3", true, 1.0f / 3.0f},
    };
    for (const Case& c : cases) {
        float v = -1.0f;
        EXPECT_EQ(detail::parseXmpNumber(c.text, v), c.parsed) << c.text;
        if (c.parsed) {
            EXPECT_FLOAT_EQ(v, c.value) << c.text;
        }
    }
    float v = 0.0f;
    EXPECT_TRUE(detail::parseXmpReal("0.625", v));
    EXPECT_FLOAT_EQ(v, 0.625f);
    EXPECT_TRUE(detail::parseXmpReal("3/4", v));
    EXPECT_FLOAT_EQ(v, 0.75f);
    EXPECT_FALSE(detail::parseXmpReal("nan", v));

    // A zero focal length from 0/0 counts as unknown.
    const CameraMetadata m = readCameraMetadata(
        packetWith("exif:FocalLength=\"0/0\" exif:FocalLengthIn35mmFilm=\"24\""), 10, 10);
    EXPECT_EQ(m.focalLength, 0.0f);
    EXPECT_EQ(m.cropFactor(), 0.0f);
    EXPECT_EQ(m.equivalentFocalLength(), 24.0f);
}

TEST(CropFactor, RulesInOrder) {
    struct Case {
        const char* make;
        const char* model;
        float f;
        float f35;
        float sensorW;
        float sensorH;
        float expected;
    };
    const Case cases[] = {
        // Focal lengths, with the Nikon snapping (a tie goes to 1.5).
        {"NIKON CORPORATION", "NIKON D90", 10.5f, 15.0f, 0, 0, 1.5f},
        {"Canon", "Canon EOS 40D", 10.5f, 15.0f, 0, 0, 15.0f / 10.5f},
        {"Nikon", "", 20.0f, 25.0f, 0, 0, 1.5f},
        {"NIKON", "", 20.0f, 21.0f, 0, 0, 1.0f},
        {"NIKON", "", 20.0f, 15.0f, 0, 0, 1.0f},   // 0.75 is still within 0.25 of 1
        {"NIKON", "", 10.0f, 17.4f, 0, 0, 1.5f},   // 1.74 within 0.25 of 1.5
        {"NIKON", "", 10.0f, 17.6f, 0, 0, 1.76f},  // 1.76 is not
        {"NIKON", "COOLPIX P6000", 6.0f, 28.0f, 0, 0, 28.0f / 6.0f},  // far from both: kept
        {"Sony", "", 20.0f, 25.0f, 0, 0, 1.25f},
        // Sensor size.
        {"", "", 0, 0, 23.6f, 15.7f, 1.5264f},
        {"Canon", "Canon EOS 5D", 0, 24.0f, 36.0f, 24.0f, 1.0f},  // focal rule needs both lengths
        // The camera table: exact, case-sensitive.
        {"Canon", "Canon EOS 5D", 0, 0, 0, 0, 1.0f},
        {"Canon", "canon eos 5d", 0, 0, 0, 0, 0.0f},
        {"Canon", "Canon PowerShot G9", 0, 0, 0, 0, 4.55f},
        {"NIKON", "COOLPIX P6000", 0, 0, 0, 0, 4.634f},
        {"OLYMPUS IMAGING CORP.", "E-620", 0, 0, 0, 0, 2.0f},
        {"LEICA", "DIGILUX3", 0, 0, 0, 0, 2.0f},
        {"SONY", "DSLR-A900", 0, 0, 23.0f, 0, 1.0f},
        {"Unknown", "Camera", 0, 0, 0, 0, 0.0f},
    };
    for (const Case& c : cases) {
        CameraMetadata m;
        m.make = c.make;
        m.model = c.model;
        m.focalLength = c.f;
        m.focalLength35mm = c.f35;
        m.sensorWidth = c.sensorW;
        m.sensorHeight = c.sensorH;
        EXPECT_NEAR(m.cropFactor(), c.expected, 1e-4f) << c.make << " / " << c.model;
    }
    // A cached value is returned even after the inputs change.
    CameraMetadata m;
    m.make = "Canon";
    m.model = "Canon EOS 40D";
    EXPECT_FLOAT_EQ(m.cropFactor(), 1.6f);
    m.model = "Canon EOS 5D";
    EXPECT_FLOAT_EQ(m.cropFactor(), 1.6f);
    m.focalLength = 20.0f;
    EXPECT_FLOAT_EQ(m.equivalentFocalLength(), 32.0f);
}

}  // namespace
}  // namespace Project
