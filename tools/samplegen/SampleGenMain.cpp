// curvana-samplegen: writes the sample room photograph.
//   curvana-samplegen OUT.{jpg,png,tif} [--width W] [--height H] [--mode rgb|grey|cmyk|lab]
//                     [--depth 8|16] [--focal-mm F] [--crop C] [--lens equisolid|rectilinear]
//                     [--samples N] [--no-exif] [--bigtiff] [--constraints OUT.cvc]
// --constraints also writes the scene's straight edges as a constraint file
// for the photograph (upright edges Vertical, level ones Horizontal).
#include <cstdio>
#include <cstdlib>
#include <string>

#include "samplegen/SampleConstraints.h"
#include "samplegen/SampleFiles.h"

using namespace Curvana;

int main(int argc, char** argv) {
    SampleGen::SampleFileOptions o;
    std::string out;
    std::string constraints;
    try {
        for (int i = 1; i < argc; ++i) {
            const std::string a = argv[i];
            auto value = [&]() -> std::string {
                if (i + 1 >= argc)
                    throw Host::HostError(Host::kExitUsage, a + ": needs a value");
                return argv[++i];
            };
            if (a == "--width")
                o.scene.width = std::stoi(value());
            else if (a == "--height")
                o.scene.height = std::stoi(value());
            else if (a == "--depth")
                o.depth = std::stoi(value());
            else if (a == "--focal-mm")
                o.scene.focalMm = std::stod(value());
            else if (a == "--crop")
                o.scene.cropFactor = std::stod(value());
            else if (a == "--samples")
                o.scene.samples = std::stoi(value());
            else if (a == "--constraints")
                constraints = value();
            else if (a == "--no-exif")
                o.exif = false;
            else if (a == "--bigtiff")
                o.bigTiff = true;
            else if (a == "--lens") {
                const std::string l = value();
                if (l == "equisolid")
                    o.scene.lens = SampleGen::Lens::Equisolid;
                else if (l == "rectilinear")
                    o.scene.lens = SampleGen::Lens::Rectilinear;
                else
                    throw Host::HostError(Host::kExitUsage, "--lens: equisolid or rectilinear");
            } else if (a == "--mode") {
                const std::string m = value();
                if (m == "rgb")
                    o.mode = Host::Mode::RGB;
                else if (m == "grey" || m == "gray")
                    o.mode = Host::Mode::Gray;
                else if (m == "cmyk")
                    o.mode = Host::Mode::CMYK;
                else if (m == "lab")
                    o.mode = Host::Mode::Lab;
                else
                    throw Host::HostError(Host::kExitUsage, "--mode: rgb, grey, cmyk or lab");
            } else if (!a.empty() && a[0] != '-' && out.empty())
                out = a;
            else
                throw Host::HostError(Host::kExitUsage, "unknown argument '" + a + "'");
        }
        if (out.empty())
            throw Host::HostError(Host::kExitUsage,
                                  "usage: curvana-samplegen OUT.{jpg,png,tif} [options]");
        if (o.scene.width <= 0 || o.scene.height <= 0 || (o.depth != 8 && o.depth != 16))
            throw Host::HostError(Host::kExitUsage, "bad size or depth");
        SampleGen::writeSampleFile(out, o);
        if (!constraints.empty()) {
            SampleGen::SampleCameraStrings camera;
            if (o.exif)
                camera = {SampleGen::kSampleMake, SampleGen::kSampleModel,
                          SampleGen::sampleLensName(o.scene.lens)};
            SampleGen::writeSampleConstraints(constraints, o.scene, camera);
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "curvana-samplegen: %s\n", e.what());
        return 1;
    }
    return 0;
}
