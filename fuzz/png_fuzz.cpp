// The PNG decoder that openImage uses, over arbitrary bytes: a HostError is
// the only way it may fail (anything else escaping is a finding).
#include "FuzzFile.h"
#include "FuzzImage.h"
#include "host/ImageFiles.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Curvana::Fuzz::FuzzFile file;
    try {
        Curvana::Host::readPng(file.assign(data, size), Curvana::Fuzz::fuzzSourceOptions());
    } catch (const Curvana::Host::HostError&) {
    }
    return 0;
}
