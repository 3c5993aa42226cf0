#pragma once

// A host for tests: a CvFilterRecord whose callbacks serve a synthetic image
// and record everything the module does with them (alerts, descriptors,
// suites, buffers, progress, result pixels). The descriptor suite it offers
// is the session's ActionDescriptor suite.

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "curvana/CurvanaPlugin.h"
#include "session/ActionDescriptor.h"
#include "support/TempFolder.h"

namespace Project::test {

struct AlertCall {
    std::string message;
    std::string title;
    int32_t buttons = 0;
};

class FakeHost {
public:
    FakeHost();
    ~FakeHost();
    FakeHost(const FakeHost&) = delete;
    FakeHost& operator=(const FakeHost&) = delete;

    // The record, refreshed from the settings below (descriptor, image).
    CvFilterRecord* Record();

    // The synthetic source value of a sample (the result must equal it when
    // the image passes through unchanged).
    static uint32_t SourceValue(int32_t x, int32_t y, int32_t plane, int32_t depth);

    // --- What the host offers.
    std::optional<int32_t> version = 27 << 16;  // empty: the query fails
    std::optional<int32_t> gpuFlags = 0x80;     // empty: the query fails
    std::optional<int32_t> freshDefaults;       // empty: the query fails
    bool refuseBuffers = false;                 // the buffer suite returns null
    bool failResultWrites = false;              // writeResultPlane reports an error
    uint64_t maxSpace = 1ull << 30;
    uint64_t freeMemory = 8ull << 30;
    std::filesystem::path preferencesBase;  // empty: the host names none
    uint32_t modifierKeys = 0;
    std::string xmpPacket;
    int32_t mode = cvModeRGB;
    int32_t depth = 8;
    int32_t width = 64;
    int32_t height = 48;
    // The user cancels once this many progress reports were made (-1: never).
    int abortAfterProgress = -1;
    // The descriptor passed in (owned by the host); null: none.
    std::unique_ptr<ActionDescriptor> input;

    // --- What the module did.
    std::vector<AlertCall> alerts;
    std::vector<std::string> warnings;
    std::unique_ptr<ActionDescriptor> result;  // the result descriptor taken over
    int resultDescriptors = 0;
    std::map<std::string, int> suitesAcquired;
    std::map<std::string, int> suitesReleased;
    int buffersOutstanding = 0;
    int maxSpaceCalls = 0;
    int freeMemoryCalls = 0;
    std::vector<std::pair<int64_t, int64_t>> progressReports;
    std::string progressTitle;
    std::string progressMessage;
    int32_t widestSourceRead = 0;  // the widest rectangle readSourcePlane was asked for
    int64_t samplesWritten = 0;
    int64_t samplesWrong = 0;  // result samples that differ from the source

private:
    struct Callbacks;
    CvFilterRecord record_{};
    CvBufferSuite1 bufferSuite_{};
};

// The preferences file under a base folder.
std::filesystem::path PreferencesFileUnder(const std::filesystem::path& base);

}  // namespace Project::test
