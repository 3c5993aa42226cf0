#include "CurvanaProcedure.h"

#include <array>
#include <cstdio>
#include <cstring>
#include <memory>
#include <span>
#include <stdexcept>
#include <vector>

#include "ApplyParameters.h"
#include "DrawablePixels.h"
#include "GLibHandles.h"
#include "ImageMetadata.h"
#include "ModuleRun.h"
#include "ScriptDescriptor.h"
#include "TileCache.h"
#include "hostkit/ModuleLibrary.h"
#include "hostkit/SystemFacts.h"

namespace Curvana::Gimp {
namespace {

constexpr int kParameterCount = 8;

// The last action, as GIMP keeps it for "Repeat" and with-last-vals runs.
std::unique_ptr<Descriptor> lastAction() {
    const gint size = gimp_get_data_size(kProcedureName);
    if (size <= 0)
        return nullptr;
    std::vector<uint8_t> bytes(static_cast<size_t>(size));
    if (!gimp_get_data(kProcedureName, bytes.data()))
        return nullptr;
    return decodeDescriptor(bytes);
}

void rememberAction(const Descriptor& descriptor) {
    const std::vector<uint8_t> bytes = encodeDescriptor(descriptor);
    gimp_set_data(kProcedureName, bytes.data(), static_cast<guint32>(bytes.size()));
}

ApplyParameters scriptParameters(const GimpParam* params) {
    ApplyParameters p;
    auto text = [](const GimpParam& param) {
        return param.data.d_string ? std::string(param.data.d_string) : std::string();
    };
    p.projection = text(params[3]);
    p.regularizer = text(params[4]);
    p.focalMm = params[5].data.d_float;
    p.crop = params[6].data.d_float;
    p.constraintFile = text(params[7]);
    return p;
}

ProcedureResult failed(GimpPDBStatusType status, std::string message) {
    return ProcedureResult{status, "Curvana: " + std::move(message)};
}

std::string joined(const std::vector<std::string>& lines) {
    std::string all;
    for (const std::string& l : lines)
        all += (all.empty() ? "" : " ") + l;
    return all;
}

ProcedureResult run(gint nparams, const GimpParam* params) {
    if (nparams < 3)
        return failed(GIMP_PDB_CALLING_ERROR, "needs a run mode, an image and a drawable");
    const auto mode = static_cast<GimpRunMode>(params[0].data.d_int32);
    const gint32 image = params[1].data.d_image;
    const gint32 drawable = params[2].data.d_drawable;
    if (mode == GIMP_RUN_NONINTERACTIVE && nparams != kParameterCount)
        return failed(GIMP_PDB_CALLING_ERROR,
                      "a non-interactive run takes 8 parameters (run mode, image, drawable, "
                      "projection, regulariser, focal length in mm, crop factor, constraint "
                      "file)");
    if (!gimp_item_is_drawable(drawable))
        return failed(GIMP_PDB_CALLING_ERROR, "the drawable is not a layer or channel");
    if (gimp_item_is_group(drawable))
        return failed(GIMP_PDB_EXECUTION_ERROR,
                      "a layer group has no pixels of its own; choose one of its layers");

    // The probe runs while the layer and its metadata are read; it lives
    // until the run ends, so the module finds the drivers it loaded.
    HostKit::VulkanProbe gpu;
    gegl_init(nullptr, nullptr);
    DrawablePixels pixels(drawable);
    const DrawableLayout& layout = pixels.layout();
    if (!pixels.selectionReaches())
        return failed(GIMP_PDB_EXECUTION_ERROR, "the selection does not reach this layer");
    const ImageMetadata metadata = readImageMetadata(image);
    for (const std::string& w : metadata.warnings)
        std::fprintf(stderr, "curvana-gimp: %s\n", w.c_str());

    std::unique_ptr<Descriptor> descriptor;
    Invocation invocation;
    switch (mode) {
        case GIMP_RUN_NONINTERACTIVE:
            try {
                descriptor = applyDescriptor(scriptParameters(params));
            } catch (const std::invalid_argument& e) {
                return failed(GIMP_PDB_CALLING_ERROR, e.what());
            }
            invocation.freshDefaults = true;
            break;
        case GIMP_RUN_WITH_LAST_VALS:
            // Without a last action the module repeats its own last settings.
            descriptor = lastAction();
            break;
        default:
            invocation.parameters = true;
            break;
    }
    if (layout.narrowed)
        gimp_message(
            "Curvana works at 16 bits per channel: this layer's values are converted to 16-bit "
            "integers and back, so they are rounded to 1/65535 and clipped to 0…1.");

    HostFacts facts;
    facts.gpuAvailable = gpu.deviceName().has_value();
    facts.maxSpace = tileCacheBytes();
    facts.preferencesBase = gimp_directory();
    invocation.pixels = &pixels;
    invocation.documentName = takeString(gimp_image_get_name(image));
    invocation.xmpPacket = metadata.xmpPacket;
    invocation.descriptor = descriptor.get();

    const std::unique_ptr<HostKit::ModuleLibrary> module =
        HostKit::ModuleLibrary::open(HostKit::ModuleLibrary::locate(
            "install the plug-in again with scripts/install-gimp-plugin"));
    const InvocationOutcome outcome = runModule(*module, facts, invocation);
    if (!outcome.pixelError.empty())
        return failed(GIMP_PDB_EXECUTION_ERROR, outcome.pixelError + "; the layer is unchanged");
    if (outcome.error != 0)
        return failed(GIMP_PDB_EXECUTION_ERROR,
                      "the filter failed (error " + std::to_string(outcome.error) + ")" +
                          (outcome.alerts.empty() ? "" : ": " + joined(outcome.alerts)) +
                          "; the layer is unchanged");
    if (!outcome.result || !pixels.anyWritten()) {
        // Cancel in the editor, or a check that stopped the filter: the user
        // has seen its message already, a script gets it as the error.
        if (mode == GIMP_RUN_INTERACTIVE)
            return ProcedureResult{GIMP_PDB_CANCEL, {}};
        return failed(GIMP_PDB_EXECUTION_ERROR,
                      (outcome.alerts.empty() ? std::string("the filter wrote no result")
                                              : joined(outcome.alerts)) +
                          "; the layer is unchanged");
    }
    pixels.commit();
    rememberAction(*outcome.result);
    if (mode != GIMP_RUN_NONINTERACTIVE)
        gimp_displays_flush();
    return {};
}

}  // namespace

void installProcedure() {
    static std::array<GimpParamDef, kParameterCount> args = {{
        {GIMP_PDB_INT32, const_cast<gchar*>("run-mode"),
         const_cast<gchar*>("The run mode { RUN-INTERACTIVE (0), RUN-NONINTERACTIVE (1), "
                            "RUN-WITH-LAST-VALS (2) }")},
        {GIMP_PDB_IMAGE, const_cast<gchar*>("image"), const_cast<gchar*>("Input image")},
        {GIMP_PDB_DRAWABLE, const_cast<gchar*>("drawable"), const_cast<gchar*>("Input drawable")},
        {GIMP_PDB_STRING, const_cast<gchar*>("projection"),
         const_cast<gchar*>("How the photograph was taken: \"fisheye\", \"perspective\", "
                            "\"auto\" (from a lens profile), \"full-spherical\"; \"\" keeps the "
                            "last setting or the constraint file's")},
        {GIMP_PDB_STRING, const_cast<gchar*>("regularizer"),
         const_cast<gchar*>("The projection the rest of the picture follows: "
                            "\"stereographic\", \"mercator\", \"panini\", \"auto\"; \"\" keeps "
                            "the last setting or the constraint file's")},
        {GIMP_PDB_FLOAT, const_cast<gchar*>("focal-mm"),
         const_cast<gchar*>("Focal length in millimetres; 0 takes it from the photograph's EXIF")},
        {GIMP_PDB_FLOAT, const_cast<gchar*>("crop-factor"),
         const_cast<gchar*>("Crop factor of the camera; 0 takes it from the photograph's EXIF")},
        {GIMP_PDB_STRING, const_cast<gchar*>("constraints"),
         const_cast<gchar*>("A constraint file (.cvc) saved from the Curvana editor; \"\" for "
                            "none")},
    }};
    gimp_install_procedure(
        kProcedureName, "Straighten the lines that wide-angle and fisheye lenses bend",
        "Maps the photograph onto a view sphere through its lens projection and onto the "
        "picture plane again, keeping the lines drawn as constraints straight, upright or "
        "level. Interactively it opens the Curvana editor; from a script it applies the given "
        "projection, focal length and constraint file. Pixels outside the selection are left "
        "as they are; where the corrected picture leaves the frame empty, a layer with alpha "
        "becomes transparent.",
        "Curvana", "Curvana", "2024", "Curvana…", "RGB*, GRAY*", GIMP_PLUGIN,
        static_cast<gint>(args.size()), 0, args.data(), nullptr);
    gimp_plugin_menu_register(kProcedureName, "<Image>/Filters/Distorts");
}

ProcedureResult runProcedure(const gchar* name, gint nparams, const GimpParam* params) {
    if (!name || std::strcmp(name, kProcedureName) != 0)
        return failed(GIMP_PDB_CALLING_ERROR, "unknown procedure");
    try {
        return run(nparams, params);
    } catch (const std::bad_alloc&) {
        return failed(GIMP_PDB_EXECUTION_ERROR, "out of memory; the layer is unchanged");
    } catch (const std::exception& e) {
        return failed(GIMP_PDB_EXECUTION_ERROR, e.what());
    }
}

}  // namespace Curvana::Gimp
