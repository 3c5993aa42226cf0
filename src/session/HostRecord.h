#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "curvana/CurvanaPlugin.h"

namespace Project {

// A host callback reported an error where the invocation cannot go on (a
// tile could not be read or written): ends the invocation with a failure.
class HostError : public std::runtime_error {
public:
    HostError(const std::string& what, CvError code) : std::runtime_error(what), code_(code) {}
    CvError Code() const { return code_; }

private:
    CvError code_;
};

// The image rectangle, half-open: [left, right) x [top, bottom).
struct ImageRect {
    int32_t left = 0, top = 0, right = 0, bottom = 0;
    int32_t Width() const { return right - left; }
    int32_t Height() const { return bottom - top; }
};

// The host's parameter block as the session uses it. Every call is safe with
// a callback the host left null: it then reports what an unsupported request
// reports (an empty value, a failure, no modifier keys). Does not own the
// record; valid for one selector call.
class HostRecord {
public:
    HostRecord() = default;
    explicit HostRecord(CvFilterRecord* record) : record_(record) {}

    // The record is one this module was built for (ABI version and size).
    static bool IsCompatible(const CvFilterRecord* record);

    CvFilterRecord* Raw() const { return record_; }
    explicit operator bool() const { return record_ != nullptr; }

    // A "KSTX" property; empty when the host has none or reports an error.
    std::optional<int32_t> Property(uint32_t key) const;

    // A suite's function table, or null when the host does not offer it.
    const void* AcquireSuite(const char* name, int32_t version) const;
    void ReleaseSuite(const char* name, int32_t version) const;

    // A modal alert with texts already localised; returns the cvAnswer (0
    // when the host shows none).
    int32_t Alert(const std::string& message, const std::string& title,
                  int32_t buttons = cvButtonsOK) const;

    // A message that needs no answer (texts already localised); false when
    // the host offers no place for one.
    bool Warning(const std::string& message) const;

    uint64_t MaxSpace() const;
    uint64_t FreeMemory() const;
    std::optional<std::filesystem::path> PreferencesBase() const;
    uint32_t ModifierKeys() const;
    // The document's name as the host shows it; empty when it names none.
    std::string DocumentName() const;
    // The photo's XMP packet (empty when the host has none or it is larger
    // than the metadata reader accepts).
    std::string XmpPacket() const;

    CvDescriptor Descriptor() const { return record_ ? record_->descriptor : nullptr; }
    // Hands a result descriptor to the host; true when the host took it over.
    bool SetResultDescriptor(CvDescriptor result) const;

    ImageRect FilterRect() const;
    int32_t Depth() const { return record_ ? record_->depth : 0; }
    // Planes of the image (from the mode when the record gives none).
    int32_t Planes() const;
    // The image mode (cvModeGray, cvModeRGB, cvModeCMYK, cvModeLab).
    int32_t Mode() const { return record_ ? record_->mode : 0; }
    int32_t ImageWidth() const { return record_ ? record_->imageWidth : 0; }
    int32_t ImageHeight() const { return record_ ? record_->imageHeight : 0; }

    // Tiles; throw HostError when the host reports an error.
    void ReadSourcePlane(const ImageRect& rect, int32_t plane, void* buffer,
                         int32_t rowBytes) const;
    void WriteResultPlane(const ImageRect& rect, int32_t plane, const void* buffer,
                          int32_t rowBytes) const;
    // Whether the host takes and gives every plane at once, interleaved;
    // then the two calls below work (they throw HostError otherwise).
    bool OffersPixels() const;
    void ReadSourcePixels(const ImageRect& rect, void* buffer, int32_t columnBytes,
                          int32_t rowBytes) const;
    void WriteResultPixels(const ImageRect& rect, const void* buffer, int32_t columnBytes,
                           int32_t rowBytes) const;

    void SetProgressText(const std::string& title, const std::string& message) const;
    void Progress(int64_t done, int64_t total) const;
    bool AbortRequested() const;

private:
    CvFilterRecord* record_ = nullptr;
};

// A suite held for a scope: acquired on construction, released on
// destruction when it was granted.
template <class Suite>
class SuiteLease {
public:
    SuiteLease(const HostRecord& host, const char* name, int32_t version)
        : host_(host),
          name_(name),
          version_(version),
          suite_(static_cast<const Suite*>(host.AcquireSuite(name, version))) {}
    ~SuiteLease() {
        if (suite_)
            host_.ReleaseSuite(name_, version_);
    }
    SuiteLease(const SuiteLease&) = delete;
    SuiteLease& operator=(const SuiteLease&) = delete;

    explicit operator bool() const { return suite_ != nullptr; }
    const Suite* get() const { return suite_; }
    const Suite& operator*() const { return *suite_; }
    const Suite* operator->() const { return suite_; }

private:
    HostRecord host_;
    const char* name_;
    int32_t version_;
    const Suite* suite_;
};

}  // namespace Project
