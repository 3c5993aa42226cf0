// A stand-in filter module for the host's tests: it speaks the real C
// interface and mirrors the image left to right, tile by tile and plane by
// plane, so that the host's files, callbacks and selector order can be
// checked without the real filter. Behaviour is chosen by the environment:
//   CURVANA_FAKE=fail        Start reports failure after an alert
//   CURVANA_FAKE=nowrite     Start returns success without writing (a refused run)
//   CURVANA_FAKE=signal      raises CURVANA_FAKE_SIGNAL (default SIGINT) half way, then
//                            honours abortRequested
//   CURVANA_FAKE=half        writes only the left half of the result
//   CURVANA_FAKE=planes      writes plane 0 everywhere first, then plane 1, ...
//   CURVANA_FAKE=pixels      moves every plane at once, interleaved with a gap of one
//                            value between pixels
//   CURVANA_FAKE_TILE=N      tile size (default 96)
//   CURVANA_FAKE_REPORT=FILE appends what the module saw, one "key=value" per line
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "curvana/CurvanaPlugin.h"

namespace {

struct Instance {
    int invocations = 0;
    bool parameters = false;
    std::vector<int> selectors;
};

std::string env(const char* name) {
    const char* v = std::getenv(name);
    return v ? v : "";
}

void report(const std::string& line) {
    const std::string path = env("CURVANA_FAKE_REPORT");
    if (path.empty())
        return;
    if (FILE* f = std::fopen(path.c_str(), "a")) {
        std::fprintf(f, "%s\n", line.c_str());
        std::fclose(f);
    }
}

std::string fourcc(uint32_t c) {
    return {static_cast<char>(c >> 24), static_cast<char>(c >> 16), static_cast<char>(c >> 8),
            static_cast<char>(c)};
}

int16_t start(CvFilterRecord* r, Instance* inst) {
    const std::string mode = env("CURVANA_FAKE");
    int32_t vers = 0, gpu = 0;
    r->getProperty(r->host, CV_PROPERTY_SIGNATURE, CV_PROPERTY_VERSION, &vers);
    r->getProperty(r->host, CV_PROPERTY_SIGNATURE, CV_PROPERTY_GPU_FLAGS, &gpu);
    report("vers=" + std::to_string(vers));
    report("gpuf=" + std::to_string(gpu));
    report("image=" + std::to_string(r->imageWidth) + "x" + std::to_string(r->imageHeight) +
           " mode=" + std::to_string(r->mode) + " depth=" + std::to_string(r->depth) +
           " planes=" + std::to_string(r->planes));
    report("parameters=" + std::to_string(inst->parameters ? 1 : 0));
    report("freeMemory=" + std::to_string(r->freeMemory(r->host)) +
           " maxSpace=" + std::to_string(r->maxSpace(r->host)));
    report("modifiers=" + std::to_string(r->modifierKeys(r->host)));
    size_t length = 0;
    if (r->preferencesBase(r->host, nullptr, 0, &length) == cvNoErr) {
        std::string base(length + 1, '\0');
        r->preferencesBase(r->host, base.data(), base.size(), &length);
        report("prefs=" + std::string(base.c_str()));
    }
    r->getXmpPacket(r->host, nullptr, 0, &length);
    std::string xmp(length, '\0');
    if (length)
        r->getXmpPacket(r->host, xmp.data(), length, &length);
    report("xmpLength=" + std::to_string(length));
    report("xmpHasFocal=" +
           std::to_string(xmp.find("exif:FocalLength") != std::string::npos ? 1 : 0));

    const void* raw = nullptr;
    if (r->acquireSuite(r->host, CV_DESCRIPTOR_SUITE_NAME, CV_DESCRIPTOR_SUITE_VERSION, &raw) !=
        cvNoErr)
        return cvErrFilterFailed;
    const auto* ds = static_cast<const CvDescriptorSuite5*>(raw);
    const void* rawBuffers = nullptr;
    if (r->acquireSuite(r->host, CV_BUFFER_SUITE_NAME, CV_BUFFER_SUITE_VERSION, &rawBuffers) !=
        cvNoErr)
        return cvErrFilterFailed;
    const auto* buffers = static_cast<const CvBufferSuite1*>(rawBuffers);

    CvDescriptor result = nullptr;
    ds->make(&result);
    ds->putInteger(result, CV_FOURCC('a', 'c', 't', 'V'), 0);
    report(std::string("descriptor=") + (r->descriptor ? "yes" : "no"));
    if (r->descriptor) {
        uint32_t count = 0;
        ds->count(r->descriptor, &count);
        for (uint32_t i = 0; i < count; ++i) {
            uint32_t key = 0, type = 0;
            ds->keyAt(r->descriptor, i, &key, &type);
            std::string line = "in." + fourcc(key) + "=";
            if (type == cvTypeFloat) {
                double v = 0;
                ds->getFloat(r->descriptor, key, &v);
                ds->putFloat(result, key, v);
                char text[64];
                std::snprintf(text, sizeof text, "%.4f", v);
                line += text;
            } else if (type == cvTypeInteger) {
                int32_t v = 0;
                ds->getInteger(r->descriptor, key, &v);
                ds->putInteger(result, key, v);
                line += std::to_string(v);
            } else if (type == cvTypeEnumerated) {
                uint32_t t = 0, v = 0;
                ds->getEnumerated(r->descriptor, key, &t, &v);
                ds->putEnumerated(result, key, t, v);
                line += fourcc(t) + ":" + fourcc(v);
            } else if (type == cvTypeBoolean) {
                uint8_t v = 0;
                ds->getBoolean(r->descriptor, key, &v);
                ds->putBoolean(result, key, v);
                line += v ? "true" : "false";
            } else if (type == cvTypeRawData) {
                int32_t n = 0;
                ds->getDataLength(r->descriptor, key, &n);
                std::vector<char> data(static_cast<size_t>(n));
                ds->getData(r->descriptor, key, data.data(), n);
                ds->putData(result, key, data.data(), n);
                line += std::string(data.begin(), data.end());
            }
            report(line);
        }
    }
    ds->putInteger(result, CV_FOURCC('r', 'u', 'n', 'N'), ++inst->invocations);

    if (mode == "fail") {
        r->alert(r->host, "$$$/Curvana/Warning/Test=The fake filter failed.", "Fake", cvButtonsOK);
        ds->release(result);
        return cvErrFilterFailed;
    }
    if (mode == "nowrite") {
        r->alert(r->host, "$$$/Curvana/Warning/UnsupportedVersion=Refused.", "", cvButtonsOK);
        ds->release(result);
        return cvNoErr;
    }

    const int tile =
        env("CURVANA_FAKE_TILE").empty() ? 96 : std::atoi(env("CURVANA_FAKE_TILE").c_str());
    const bool pixels = mode == "pixels";
    // One request's values: one plane's, or a pixel's with a value's gap after it.
    const int bps = (r->depth == 16 ? 2 : 1) * (pixels ? r->planes + 1 : 1);
    const CvRect f = r->filterRect;
    const int32_t w = f.right - f.left;
    const int32_t writeRight = mode == "half" ? f.left + w / 2 : f.right;
    void* scratch =
        buffers->allocate(buffers->context, static_cast<uint64_t>(tile) * tile * bps * 2);
    if (!scratch)
        return cvErrMemory;
    auto* in = static_cast<uint8_t*>(scratch);
    uint8_t* out = in + static_cast<size_t>(tile) * tile * bps;
    r->setProgressText(r->host, "$$$/Curvana/Final/Progress/Title=Progress",
                       "$$$/Curvana/Final/Progress/Message=Applying Curvana.");
    const int64_t tilesAcross = (w + tile - 1) / tile,
                  tilesDown = (f.bottom - f.top + tile - 1) / tile;
    const int32_t planeCount = pixels ? 1 : r->planes;
    const int64_t total = tilesAcross * tilesDown * planeCount;
    if (pixels) {
        const CvRect first{f.left, f.top, f.left + 2, f.top + 1};
        report("narrowColumns=" +
               std::to_string(r->readSourcePixels(r->host, &first, in,
                                                  bps - (r->depth == 16 ? 4 : 2), 4 * bps)));
    }
    int64_t done = 0;
    int16_t status = cvNoErr;
    const bool planesFirst = mode == "planes";
    for (int32_t outer = 0; outer < (planesFirst ? planeCount : 1) && status == cvNoErr; ++outer) {
        for (int32_t top = f.top; top < f.bottom && status == cvNoErr; top += tile) {
            for (int32_t left = f.left; left < writeRight && status == cvNoErr; left += tile) {
                for (int32_t p = planesFirst ? outer : 0;
                     p < (planesFirst ? outer + 1 : planeCount); ++p) {
                    if (mode == "signal" && done == total / 2)
                        std::raise(env("CURVANA_FAKE_SIGNAL").empty()
                                       ? SIGINT
                                       : std::atoi(env("CURVANA_FAKE_SIGNAL").c_str()));
                    if (r->abortRequested(r->host)) {
                        status = cvErrAborted;
                        break;
                    }
                    const int32_t right = left + tile < writeRight ? left + tile : writeRight;
                    const int32_t bottom = top + tile < f.bottom ? top + tile : f.bottom;
                    const int32_t tw = right - left, th = bottom - top;
                    // The mirror image of [left, right) is [f.right - right + f.left, ...).
                    const CvRect src{f.right - right + f.left, top, f.right - left + f.left,
                                     bottom};
                    if ((pixels ? r->readSourcePixels(r->host, &src, in, bps, tw * bps)
                                : r->readSourcePlane(r->host, &src, p, in, tw * bps)) != cvNoErr) {
                        status = cvErrFilterFailed;
                        break;
                    }
                    for (int32_t y = 0; y < th; ++y)
                        for (int32_t x = 0; x < tw; ++x)
                            std::memcpy(out + (static_cast<size_t>(y) * tw + x) * bps,
                                        in + (static_cast<size_t>(y) * tw + (tw - 1 - x)) * bps,
                                        bps);
                    const CvRect dst{left, top, right, bottom};
                    if ((pixels
                             ? r->writeResultPixels(r->host, &dst, out, bps, tw * bps)
                             : r->writeResultPlane(r->host, &dst, p, out, tw * bps)) != cvNoErr) {
                        status = cvErrFilterFailed;
                        break;
                    }
                    r->progress(r->host, ++done, total);
                }
            }
        }
    }
    buffers->release(buffers->context, scratch);
    r->releaseSuite(r->host, CV_BUFFER_SUITE_NAME, CV_BUFFER_SUITE_VERSION);
    if (status != cvNoErr) {
        ds->release(result);
        r->releaseSuite(r->host, CV_DESCRIPTOR_SUITE_NAME, CV_DESCRIPTOR_SUITE_VERSION);
        return status;
    }
    r->setResultDescriptor(r->host, result);
    r->releaseSuite(r->host, CV_DESCRIPTOR_SUITE_NAME, CV_DESCRIPTOR_SUITE_VERSION);
    return cvNoErr;
}

}  // namespace

extern "C" CV_EXPORT void EntryFI(int16_t selector, CvFilterRecord* record, intptr_t* data,
                                  int16_t* result) {
    *result = cvNoErr;
    if (!record || record->abiVersion != CURVANA_ABI_VERSION ||
        record->structSize != sizeof(CvFilterRecord)) {
        *result = cvErrParam;
        return;
    }
    auto* inst = reinterpret_cast<Instance*>(*data);
    if (selector == cvSelectorUnload) {
        report("unload");
        delete inst;
        *data = 0;
        return;
    }
    if (!inst) {
        inst = new Instance();
        *data = reinterpret_cast<intptr_t>(inst);
    }
    inst->selectors.push_back(selector);
    report("selector=" + std::to_string(selector));
    switch (selector) {
        case cvSelectorParameters:
            inst->parameters = true;
            break;
        case cvSelectorStart:
            *result = start(record, inst);
            break;
        case cvSelectorFinish:
            inst->parameters = false;
            break;
        default:
            break;
    }
}
