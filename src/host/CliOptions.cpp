#include "CliOptions.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "CliHelp.h"
#include "HostError.h"
#include "curvana/CurvanaScripting.h"

namespace Curvana::Host {
namespace {

HostError usage(const std::string& message) {
    return HostError(kExitUsage, message);
}

double parseNumber(const std::string& option, const std::string& text, double low, double high) {
    try {
        size_t used = 0;
        const double v = std::stod(text, &used);
        if (used == text.size() && std::isfinite(v) && v >= low && v <= high)
            return v;
    } catch (const std::exception&) {
    }
    char range[64];
    std::snprintf(range, sizeof range, "%g and %g", low, high);
    throw usage(option + ": '" + text + "' is not a number between " + range);
}

}  // namespace

uint32_t projectionCode(const std::string& name) {
    if (name == "fisheye")
        return cvProjectionFisheye;
    if (name == "perspective")
        return cvProjectionPerspective;
    if (name == "auto")
        return cvProjectionAuto;
    if (name == "full-spherical")
        return cvProjectionFullSpherical;
    throw usage("--projection: '" + name +
                "' is not one of fisheye, perspective, auto, full-spherical");
}

uint32_t regularizerCode(const std::string& name) {
    if (name == "stereographic")
        return cvRegularizerStereographic;
    if (name == "mercator")
        return cvRegularizerMercator;
    if (name == "panini")
        return cvRegularizerPanini;
    if (name == "auto")
        return cvRegularizerAuto;
    throw usage("--regularizer: '" + name +
                "' is not one of stereographic, mercator, panini, auto");
}

std::optional<CliOptions> parseCommandLine(const std::vector<std::string>& args) {
    CliOptions o;
    if (args.empty())
        throw usage(std::string("no command given\n") + kUsage);
    const std::string& first = args[0];
    if (first == "-h" || first == "--help" || first == "help") {
        printHelp(args.size() > 1 ? args[1] : "");
        return std::nullopt;
    }
    if (first == "--version") {
        o.command = "version";
        for (size_t i = 1; i < args.size(); ++i) {
            if (args[i] != "--module" || i + 1 >= args.size())
                throw usage("--version takes only --module PATH");
            o.module = args[++i];
        }
        return o;
    }
    if (first != "apply" && first != "repeat" && first != "edit" && first != "suggest")
        throw usage("unknown command '" + first +
                    "' (apply, repeat, edit or suggest; see curvana --help)");
    o.command = first;
    for (size_t i = 1; i < args.size(); ++i) {
        const std::string& a = args[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= args.size())
                throw usage(a + ": needs a value");
            return args[++i];
        };
        const bool applyOnly = a == "--projection" || a == "--regularizer" || a == "--focal-mm" ||
                               a == "--crop" || a == "--params" || a == "--constraints";
        if (applyOnly && o.command != "apply" && o.command != "suggest")
            throw usage(a + ": only 'curvana apply' and 'curvana suggest' take this option");
        const bool linesOption = a == "--max" || a == "--verticals-only" || a == "--horizontals";
        if (linesOption && o.command != "apply" && o.command != "suggest")
            throw usage(a +
                        ": only 'curvana suggest' and 'curvana apply --auto-lines' take this "
                        "option");
        if ((a == "--auto-lines" || a == "--crop-to-content") && o.command != "apply")
            throw usage(a + ": only 'curvana apply' takes this option");
        if (a == "-h" || a == "--help") {
            printHelp(o.command);
            return std::nullopt;
        } else if (a == "-o" || a == "--output") {
            o.output = value();
        } else if (a == "--module") {
            o.module = value();
        } else if (a == "-q" || a == "--quiet") {
            o.quiet = true;
        } else if (a == "--reset-preferences") {
            o.resetPreferences = true;
        } else if (a == "--cache-mb") {
            o.cacheMiB = static_cast<uint64_t>(parseNumber(a, value(), 16, 1 << 20));
        } else if (a == "--memory-mb") {
            o.memoryMiB = static_cast<uint64_t>(parseNumber(a, value(), 1, 1 << 24));
        } else if (a == "--projection") {
            o.projection = value();
            projectionCode(*o.projection);
        } else if (a == "--regularizer") {
            o.regularizer = value();
            regularizerCode(*o.regularizer);
        } else if (a == "--focal-mm") {
            // The filter's own ranges (it refuses values outside them too).
            o.focalMm = parseNumber(a, value(), 1, 1000);
        } else if (a == "--crop") {
            o.crop = parseNumber(a, value(), 0.1, 10);
        } else if (a == "--crop-to-content") {
            o.cropToContent = true;
        } else if (a == "--params") {
            o.params = value();
        } else if (a == "--constraints") {
            o.constraints = value();
        } else if (a == "--auto-lines") {
            o.autoLines = true;
        } else if (a == "--max") {
            o.maxLines = static_cast<int32_t>(parseNumber(a, value(), 1, 1000));
        } else if (a == "--verticals-only") {
            o.verticalsOnly = true;
        } else if (a == "--horizontals") {
            o.horizontals = true;
        } else if (a == "--") {
            o.inputs.insert(o.inputs.end(), args.begin() + static_cast<ptrdiff_t>(i) + 1,
                            args.end());
            break;
        } else if (a.size() > 1 && a[0] == '-') {
            throw usage("unknown option '" + a + "' (see curvana " + o.command + " --help)");
        } else {
            o.inputs.push_back(a);
        }
    }
    if (o.inputs.empty())
        throw usage("no input image given (see curvana " + o.command + " --help)");
    if (o.output.empty())
        throw usage("no output given: use -o OUT (see curvana " + o.command + " --help)");
    if (o.command == "edit" && o.inputs.size() > 1)
        throw usage("edit takes one input");
    if (o.command == "suggest" && o.inputs.size() > 1)
        throw usage("suggest takes one input");
    if (o.command == "apply" && !o.autoLines &&
        std::find(args.begin(), args.end(), "--max") != args.end())
        throw usage("--max: only with --auto-lines");
    if (o.command == "suggest")
        o.autoLines = true;
    return o;
}

}  // namespace Curvana::Host
