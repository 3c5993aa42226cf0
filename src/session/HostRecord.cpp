#include "session/HostRecord.h"

#include <vector>

#include "geometry/CameraMetadata.h"

namespace Project {

namespace {

CvRect ToCv(const ImageRect& r) {
    return CvRect{r.left, r.top, r.right, r.bottom};
}

}  // namespace

bool HostRecord::IsCompatible(const CvFilterRecord* record) {
    return record && record->abiVersion == CURVANA_ABI_VERSION &&
           record->structSize == sizeof(CvFilterRecord);
}

std::optional<int32_t> HostRecord::Property(uint32_t key) const {
    if (!record_ || !record_->getProperty)
        return std::nullopt;
    int32_t value = 0;
    if (record_->getProperty(record_->host, CV_PROPERTY_SIGNATURE, key, &value) != cvNoErr)
        return std::nullopt;
    return value;
}

const void* HostRecord::AcquireSuite(const char* name, int32_t version) const {
    if (!record_ || !record_->acquireSuite)
        return nullptr;
    const void* suite = nullptr;
    if (record_->acquireSuite(record_->host, name, version, &suite) != cvNoErr)
        return nullptr;
    return suite;
}

void HostRecord::ReleaseSuite(const char* name, int32_t version) const {
    if (record_ && record_->releaseSuite)
        record_->releaseSuite(record_->host, name, version);
}

int32_t HostRecord::Alert(const std::string& message, const std::string& title,
                          int32_t buttons) const {
    if (!record_ || !record_->alert)
        return 0;
    return record_->alert(record_->host, message.c_str(), title.c_str(), buttons);
}

bool HostRecord::Warning(const std::string& message) const {
    if (!record_ || !record_->warning)
        return false;
    record_->warning(record_->host, message.c_str());
    return true;
}

uint64_t HostRecord::MaxSpace() const {
    return record_ && record_->maxSpace ? record_->maxSpace(record_->host) : 0;
}

uint64_t HostRecord::FreeMemory() const {
    return record_ && record_->freeMemory ? record_->freeMemory(record_->host) : 0;
}

std::optional<std::filesystem::path> HostRecord::PreferencesBase() const {
    if (!record_ || !record_->preferencesBase)
        return std::nullopt;
    size_t length = 0;
    if (record_->preferencesBase(record_->host, nullptr, 0, &length) != cvNoErr || length == 0 ||
        length > 65536)
        return std::nullopt;
    std::vector<char> buffer(length + 1, '\0');
    size_t again = 0;
    if (record_->preferencesBase(record_->host, buffer.data(), buffer.size(), &again) != cvNoErr)
        return std::nullopt;
    buffer.back() = '\0';
    return std::filesystem::path(std::string(buffer.data()));
}

std::string HostRecord::DocumentName() const {
    if (!record_ || !record_->documentName)
        return {};
    size_t length = 0;
    if (record_->documentName(record_->host, nullptr, 0, &length) != cvNoErr || length == 0 ||
        length > 4096)
        return {};
    std::vector<char> buffer(length + 1, '\0');
    size_t again = 0;
    if (record_->documentName(record_->host, buffer.data(), buffer.size(), &again) != cvNoErr)
        return {};
    buffer.back() = '\0';
    return std::string(buffer.data());
}

uint32_t HostRecord::ModifierKeys() const {
    return record_ && record_->modifierKeys ? record_->modifierKeys(record_->host) : 0;
}

std::string HostRecord::XmpPacket() const {
    if (!record_ || !record_->getXmpPacket)
        return {};
    size_t length = 0;
    if (record_->getXmpPacket(record_->host, nullptr, 0, &length) != cvNoErr || length == 0 ||
        length > kMaxXmpPacketBytes)
        return {};
    std::string packet(length, '\0');
    size_t copied = 0;
    if (record_->getXmpPacket(record_->host, packet.data(), packet.size(), &copied) != cvNoErr)
        return {};
    if (copied < packet.size())
        packet.resize(copied);
    return packet;
}

bool HostRecord::SetResultDescriptor(CvDescriptor result) const {
    return record_ && record_->setResultDescriptor &&
           record_->setResultDescriptor(record_->host, result) == cvNoErr;
}

ImageRect HostRecord::FilterRect() const {
    if (!record_)
        return {};
    const CvRect& r = record_->filterRect;
    return ImageRect{r.left, r.top, r.right, r.bottom};
}

int32_t HostRecord::Planes() const {
    if (!record_)
        return 0;
    if (record_->planes > 0)
        return record_->planes;
    switch (record_->mode) {
        case cvModeGray:
            return 1;
        case cvModeCMYK:
            return 4;
        default:
            return 3;
    }
}

void HostRecord::ReadSourcePlane(const ImageRect& rect, int32_t plane, void* buffer,
                                 int32_t rowBytes) const {
    if (!record_ || !record_->readSourcePlane)
        throw HostError("the host cannot read source pixels", cvErrUnsupported);
    const CvRect r = ToCv(rect);
    const CvError e = record_->readSourcePlane(record_->host, &r, plane, buffer, rowBytes);
    if (e != cvNoErr)
        throw HostError("reading source pixels failed", e);
}

void HostRecord::WriteResultPlane(const ImageRect& rect, int32_t plane, const void* buffer,
                                  int32_t rowBytes) const {
    if (!record_ || !record_->writeResultPlane)
        throw HostError("the host cannot take result pixels", cvErrUnsupported);
    const CvRect r = ToCv(rect);
    const CvError e = record_->writeResultPlane(record_->host, &r, plane, buffer, rowBytes);
    if (e != cvNoErr)
        throw HostError("writing result pixels failed", e);
}

bool HostRecord::OffersPixels() const {
    return record_ && record_->readSourcePixels && record_->writeResultPixels;
}

void HostRecord::ReadSourcePixels(const ImageRect& rect, void* buffer, int32_t columnBytes,
                                  int32_t rowBytes) const {
    if (!OffersPixels())
        throw HostError("the host cannot read source pixels", cvErrUnsupported);
    const CvRect r = ToCv(rect);
    const CvError e = record_->readSourcePixels(record_->host, &r, buffer, columnBytes, rowBytes);
    if (e != cvNoErr)
        throw HostError("reading source pixels failed", e);
}

void HostRecord::WriteResultPixels(const ImageRect& rect, const void* buffer, int32_t columnBytes,
                                   int32_t rowBytes) const {
    if (!OffersPixels())
        throw HostError("the host cannot take result pixels", cvErrUnsupported);
    const CvRect r = ToCv(rect);
    const CvError e = record_->writeResultPixels(record_->host, &r, buffer, columnBytes, rowBytes);
    if (e != cvNoErr)
        throw HostError("writing result pixels failed", e);
}

void HostRecord::SetProgressText(const std::string& title, const std::string& message) const {
    if (record_ && record_->setProgressText)
        record_->setProgressText(record_->host, title.c_str(), message.c_str());
}

void HostRecord::Progress(int64_t done, int64_t total) const {
    if (record_ && record_->progress)
        record_->progress(record_->host, done, total);
}

bool HostRecord::AbortRequested() const {
    return record_ && record_->abortRequested && record_->abortRequested(record_->host) != 0;
}

}  // namespace Project
