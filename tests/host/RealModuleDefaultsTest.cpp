// The real curvana binary with the real filter module: what a plain apply
// decides from the photo's metadata, what the filter tells the user on the
// silent path, how the stored preferences are recovered, and what the
// filter registers.
#include <gtest/gtest.h>

#include <exiv2/exiv2.hpp>

#include <cmath>

#include "RealModuleTest.h"
#include "constraints/ConstraintFile.h"
#include "curvana/CurvanaScripting.h"
#include "host/Descriptor.h"
#include "samplegen/SampleFiles.h"
#include "samplegen/SampleScene.h"
#include "session/PreferencesFile.h"

namespace Curvana::Host::Test {
namespace {

using Exif = std::vector<std::pair<std::string, std::string>>;

class RealModuleDefaults : public RealModuleTest {
protected:
    // A generated room of the given size carrying exactly the EXIF given.
    fs::path photo(const std::string& name, int32_t width, int32_t height, const Exif& exif) {
        SampleGen::SampleFileOptions o;
        o.scene.width = width;
        o.scene.height = height;
        o.scene.samples = 1;
        o.exif = false;
        const fs::path p = dir / name;
        SampleGen::writeSampleFile(p, o);
        if (!exif.empty()) {
            auto image = Exiv2::ImageFactory::open(p.string());
            image->readMetadata();
            Exiv2::ExifData data;
            for (const auto& [key, value] : exif)
                data[key] = value;
            image->setExifData(data);
            image->writeMetadata();
        }
        return p;
    }

    fs::path prefsFile() const {
        return Project::PreferencesFolder(dir / "xdg") / Project::PreferencesFileName();
    }

    void savePrefs(const Project::PPreferences& prefs) {
        fs::create_directories(prefsFile().parent_path());
        writeBytes(prefsFile(), Project::SerializePreferences(prefs));
    }
};

// A plain apply opens the photo as the editor would: the camera table, the
// brand's crop rule, the sensor size and the 16 mm rule on the photo's own
// focal length all come from the filter.
struct MetadataCase {
    const char* name;
    double crop;  // 0: not checked
    double physical;
    uint32_t projection;
    Exif exif;
};

class PlainApply : public RealModuleDefaults, public ::testing::WithParamInterface<MetadataCase> {};

TEST_P(PlainApply, TakesTheEditorsOpeningSettings) {
    const MetadataCase& c = GetParam();
    const fs::path in = photo("in.jpg", 480, 320, c.exif);
    const RunResult r = curvana({"apply", in.string(), "-o", (dir / "out.jpg").string()});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    const auto action = lastAction();
    ASSERT_TRUE(action->find(cvKeyProjectionModel));
    EXPECT_EQ(fourccToString(action->find(cvKeyProjectionModel)->enumValue),
              fourccToString(c.projection));
    if (c.crop > 0) {
        EXPECT_NEAR(*action->getFloat(cvKeyCropFactor), c.crop, 1e-3);
        EXPECT_NEAR(*action->getFloat(cvKeyPhysicalFocalLength), c.physical, 1e-4);
        EXPECT_NEAR(*action->getFloat(cvKeyFocalLength),
                    *action->getFloat(cvKeyCropFactor) * c.physical * 480 / 36, 0.01);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Cameras, PlainApply,
    ::testing::Values(
        MetadataCase{"table",
                     1.6,
                     12,
                     cvProjectionFisheye,
                     {{"Exif.Image.Make", "Canon"},
                      {"Exif.Image.Model", "Canon EOS 40D"},
                      {"Exif.Photo.FocalLength", "12/1"}}},
        MetadataCase{"brand",
                     1.5,
                     10.5,
                     cvProjectionFisheye,
                     {{"Exif.Image.Make", "NIKON CORPORATION"},
                      {"Exif.Image.Model", "NIKON D200"},
                      {"Exif.Photo.FocalLength", "105/10"},
                      {"Exif.Photo.FocalLengthIn35mmFilm", "15"}}},
        MetadataCase{"sensor",
                     1.526,
                     10,
                     cvProjectionFisheye,  // 23.6 x 15.7 mm
                     {{"Exif.Photo.FocalLength", "10/1"},
                      {"Exif.Photo.FocalPlaneXResolution", "48000/236"},
                      {"Exif.Photo.FocalPlaneYResolution", "32000/157"},
                      {"Exif.Photo.FocalPlaneResolutionUnit", "3"}}},
        // No metadata: a 15 mm lens on a full frame, on the photo's own width.
        MetadataCase{"none", 1.0, 15, cvProjectionFisheye, {}},
        // No crop information: the 35 mm equivalent is unknown, the focal
        // length itself decides.
        MetadataCase{
            "perspective", 0, 0, cvProjectionPerspective, {{"Exif.Photo.FocalLength", "24/1"}}}),
    [](const auto& param) { return std::string(param.param.name); });

TEST_F(RealModuleDefaults, ResetPreferencesStartsFromTheDefaultsAndSavesThem) {
    const fs::path in = photo("in.jpg", 480, 320, {});
    Project::PPreferences prefs(480);
    prefs.settings.physicalFocalLength = 20;
    prefs.settings.cropFactor = 2;
    prefs.settings.loupeSize = 222;
    savePrefs(prefs);

    ASSERT_EQ(curvana({"apply", in.string(), "-o", (dir / "a.jpg").string()}).exitCode, 0);
    EXPECT_NEAR(*lastAction()->getFloat(cvKeyFocalLength), 2.0 * 20 * 480 / 36, 0.01);

    const RunResult r =
        curvana({"apply", in.string(), "-o", (dir / "b.jpg").string(), "--reset-preferences"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_NEAR(*lastAction()->getFloat(cvKeyFocalLength), 15.0 * 480 / 36, 0.01);
    Project::PPreferences saved;
    ASSERT_TRUE(Project::LoadPreferencesFile(prefsFile(), saved));
    EXPECT_EQ(saved.settings.loupeSize, 140);
    EXPECT_FLOAT_EQ(saved.settings.cropFactor, 1.0f);
}

TEST_F(RealModuleDefaults, AnUnreadablePreferencesFileIsKeptBesideTheNewOne) {
    const fs::path in = photo("in.jpg", 480, 320, {});
    fs::create_directories(prefsFile().parent_path());
    const std::string foreign = "Vlmo not a preferences file of this filter";
    std::ofstream(prefsFile(), std::ios::binary) << foreign;
    const RunResult r = curvana({"apply", in.string(), "-o", (dir / "a.jpg").string()});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    Project::PPreferences saved;
    EXPECT_TRUE(Project::LoadPreferencesFile(prefsFile(), saved));
    size_t backups = 0;
    for (const auto& e : fs::directory_iterator(prefsFile().parent_path())) {
        if (e.path() == prefsFile())
            continue;
        ++backups;
        std::ifstream b(e.path(), std::ios::binary);
        std::stringstream kept;
        kept << b.rdbuf();
        EXPECT_EQ(kept.str(), foreign) << e.path();
    }
    EXPECT_EQ(backups, 1u);
    EXPECT_NE(r.err.find("warning"), std::string::npos) << r.err;
}

// What the filter tells about a constraint file on the silent path reaches
// the user as a warning with its own text.
struct FileCase {
    const char* name;
    std::function<void(std::vector<uint8_t>&)> damage;
    int exitCode;
    std::vector<const char*> said;
};

class ConstraintFileWarnings : public RealModuleDefaults,
                               public ::testing::WithParamInterface<FileCase> {};

// Bytes of a constraint file for the sample camera at 480 x 320: four free
// lines (32 bytes each, last in the file), the second of no length.
std::vector<uint8_t> fourLines(Project::ProjectionModel projection) {
    Project::SimpleConstraintFileContext context;
    context.width = 480;
    context.height = 320;
    context.make = SampleGen::kSampleMake;
    context.model = SampleGen::kSampleModel;
    context.lens = "Sample Fisheye";
    context.settings.focalLength = 200;
    context.settings.projectionModel = projection;
    Project::ConstraintSet set;
    const float ends[4][4] = {
        {100, 60, 380, 70}, {240, 160, 240, 160}, {90, 250, 390, 260}, {60, 80, 70, 240}};
    for (const auto& e : ends) {
        auto line = std::make_unique<Project::LineConstraint>();
        line->SetEndpoints({e[0], e[1]}, {e[2], e[3]});
        set.Add(std::move(line));
    }
    return Project::writeConstraintData(set, context);
}

TEST_P(ConstraintFileWarnings, ReachTheUser) {
    const FileCase& c = GetParam();
    const fs::path in = photo("in.jpg", 480, 320,
                              {{"Exif.Image.Make", SampleGen::kSampleMake},
                               {"Exif.Image.Model", SampleGen::kSampleModel},
                               {"Exif.Photo.LensModel", "Sample Fisheye"},
                               {"Exif.Photo.FocalLength", "15/1"}});
    std::vector<uint8_t> bytes = fourLines(Project::ProjectionModel::Fisheye);
    c.damage(bytes);
    writeBytes(dir / "lines.cvc", bytes);
    const RunResult r = curvana({"apply", in.string(), "-o", (dir / "out.jpg").string(),
                                 "--constraints", (dir / "lines.cvc").string()});
    EXPECT_EQ(r.exitCode, c.exitCode) << r.err;
    for (const char* text : c.said)
        EXPECT_NE(r.err.find(text), std::string::npos) << text << "\n" << r.err;
    EXPECT_EQ(fs::exists(dir / "out.jpg"), c.exitCode == 0);
}

INSTANTIATE_TEST_SUITE_P(
    Files, ConstraintFileWarnings,
    ::testing::Values(
        FileCase{"unfittable",
                 [](std::vector<uint8_t>&) {},
                 0,
                 {"warning: The file you selected does not have a valid line constraint.",
                  "1 of 4 constraints"}},
        FileCase{"unknownTag",
                 [](std::vector<uint8_t>& b) {  // the third record's tag
                     std::memcpy(&b[b.size() - 2 * 32], "knuJ", 4);
                 },
                 0,
                 {"warning:", "3 of 4 constraints"}},
        FileCase{
            "fullSpherical",
            [](std::vector<uint8_t>& b) { b = fourLines(Project::ProjectionModel::FullSpherical); },
            0,
            {"warning: The aspect ratio is not 1:2, which is invalid for Full Spherical."}},
        FileCase{"empty",
                 [](std::vector<uint8_t>& b) { b.clear(); },
                 kExitUsage,
                 {"The file you selected is an empty file."}}),
    [](const auto& param) { return std::string(param.param.name); });

TEST_F(RealModuleDefaults, VersionNamesTheModuleTheHostTheDeviceAndTheRegistration) {
    const RunResult r = curvana({"--version"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    std::istringstream said(
        "module|host|27|Vulkan device|Grey|RGB|CMYK|Lab|8 and 16|2000000 x 2000000|cvnC|cnsD|"
        "Constraint Data|prjM|Projection Model|panP|Panorama|regM|panR|Panini|focL|PhyF|CrpF|"
        "Crop Factor");
    for (std::string text; std::getline(said, text, '|');)
        EXPECT_NE(r.out.find(text), std::string::npos) << text << "\n" << r.out;
}

}  // namespace
}  // namespace Curvana::Host::Test
