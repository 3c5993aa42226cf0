#include "CliHelp.h"

#include <iostream>

#include "EditCommand.h"

namespace Curvana::Host {

const char* const kUsage =
    "usage: curvana apply IN... -o OUT [options]   correct photographs silently\n"
    "       curvana repeat IN... -o OUT            again, with the last recorded settings\n"
    "       curvana edit IN -o OUT                 correct in the editor\n"
    "       curvana suggest IN -o LINES.cvc        find the straight edges as constraints\n"
    "       curvana COMMAND --help                 help on one command\n"
    "       curvana --version [--module PATH]      versions, the Vulkan device and what the\n"
    "                                              filter registers\n";

namespace {

const char* const kExitCodes =
    "exit codes:\n"
    "  0    every image was written\n"
    "  1    the filter failed, was refused, or wrote no result (see its message)\n"
    "  2    bad command line or --params file\n"
    "  3    an input is missing, unsupported, larger than --memory-mb, or cannot be decoded\n"
    "  4    an output cannot be written (folder, format, disk full, would overwrite an input)\n"
    "  5    the filter module cannot be found or loaded, or there is no Vulkan driver\n"
    "  130  interrupted (Ctrl-C, SIGTERM or SIGHUP); no partial file is left\n"
    "In a batch, the code is that of the first input that failed; the others are still done.\n";

const char* const kCommonOptions =
    "  -o, --output PATH      output file, or folder (required for several inputs); the format\n"
    "                         follows the extension (.tif .tiff .png .jpg .jpeg); mode and depth\n"
    "                         stay those of the input. An input is replaced only when named as "
    "-o.\n"
    "  --module PATH          the filter module (default: libcurvana.so beside curvana, then\n"
    "                         $CURVANA_MODULE)\n"
    "  --cache-mb N           memory for decoded and pending tiles of TIFF files (default 256)\n"
    "  --memory-mb N          the most one image may take in memory: a decoded PNG or JPEG,\n"
    "                         one TIFF strip or tile (default: half of the machine's memory)\n"
    "  -q, --quiet            no progress display\n"
    "  --reset-preferences    the filter starts from its defaults instead of its stored\n"
    "                         preferences, and saves them over those\n"
    "  -h, --help             this help\n";

}  // namespace

void printHelp(const std::string& command) {
    if (command == "apply") {
        std::cout
            << "usage: curvana apply IN... -o OUT [options]\n\n"
               "Corrects each input with the filter, without a dialog, from scripting "
               "parameters.\n\n"
               "options:\n"
            << kCommonOptions
            << "  --projection P         fisheye | perspective | auto | full-spherical\n"
               "  --regularizer R        stereographic | mercator | panini | auto\n"
               "  --focal-mm F           physical focal length in millimetres (1 to 1000)\n"
               "  --crop C               sensor crop factor, 0.1 to 10\n"
               "  --crop-to-content      frame the picture on the largest rectangle without empty\n"
               "                         border (instead of the scale)\n"
               "  --params ACTION.json   replay a recorded action (the options above override its "
               "keys)\n"
               "  --constraints FILE.cvc constraints saved from the editor: lines and polygons to\n"
               "                         keep straight, with the settings they were drawn with\n"
               "                         (the options above override those settings)\n"
               "  --auto-lines           find the photo's straight scene edges and keep them "
               "straight\n"
               "                         too (with --max, --verticals-only, --horizontals as for\n"
               "                         curvana suggest)\n\n"
               "Whatever the options and --params leave open, the filter decides as its editor\n"
               "would open: the projection from the photo's lens profile or focal length, the\n"
               "focal length and crop factor from its metadata (camera, 35 mm equivalent, sensor\n"
               "size), else from the last settings. The focal length in pixels is\n"
               "crop x focal mm x max(width, height) / 36. Warnings about the input (constraints\n"
               "that could not be used, a projection that does not fit) are printed as such.\n"
               "The settings the filter reports back are recorded in\n"
               "$XDG_CONFIG_HOME/curvana/last-action.json (default ~/.config/curvana).\n\n"
            << kExitCodes;
    } else if (command == "repeat") {
        std::cout
            << "usage: curvana repeat IN... -o OUT [options]\n\n"
               "Corrects each input with the last recorded settings\n"
               "($XDG_CONFIG_HOME/curvana/last-action.json); without a recorded action the filter\n"
               "uses its own saved preferences.\n\noptions:\n"
            << kCommonOptions << "\n"
            << kExitCodes;
    } else if (command == "suggest") {
        std::cout
            << "usage: curvana suggest IN -o LINES.cvc [options]\n\n"
               "Finds the edges that are straight in the scene (a great circle on the view "
               "sphere,\n"
               "whatever the lens) and writes them as line constraints to a constraint file for\n"
               "curvana edit or curvana apply --constraints. Upright edges are marked Vertical.\n"
               "Prints how many lines of each kind it found; with none, nothing is written.\n\n"
               "options:\n"
               "  -o, --output FILE.cvc  the constraint file (required)\n"
               "  --max N                at most N lines, the best supported first (default 20)\n"
               "  --verticals-only       only the upright edges\n"
               "  --horizontals          mark level edges across the view Horizontal\n"
               "  --projection, --regularizer, --focal-mm, --crop, --params, --constraints\n"
               "                         as for curvana apply: the lens the photo is seen "
               "through,\n"
               "                         and constraints to keep (the new lines come after them)\n"
               "  --module PATH, -q, --reset-preferences, -h\n"
               "                         as for curvana apply\n\n"
            << kExitCodes;
    } else if (command == "edit") {
        std::cout << kEditHelp << kCommonOptions << "\n" << kExitCodes;
    } else {
        std::cout
            << "curvana: straightens the lines that wide-angle and fisheye lenses bend.\n\n"
            << kUsage << "\n"
            << "Several inputs with -o FOLDER make a batch, with a progress bar.\n"
               "Files: TIFF (grey, RGB, CMYK, Lab, 8-bit palettes; 8/16-bit; alpha; read tile by "
               "tile or\n"
               "strip by strip), PNG (grey, RGB, palettes; 8/16-bit; alpha) and JPEG (grey, RGB, "
               "CMYK;\n"
               "decoded whole in memory). Alpha is carried through the correction: the area the "
               "photo\n"
               "does not cover comes out transparent.\n"
               "ICC profile, EXIF and XMP are carried into the output.\n\n"
            << kExitCodes;
    }
}

}  // namespace Curvana::Host
