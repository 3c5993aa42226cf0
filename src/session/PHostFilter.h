#pragma once

#include <cstdint>

#include "curvana/CurvanaPlugin.h"
#include "session/HostRecord.h"

namespace Project {

// The host-filter base: dispatches the host's selectors to virtual
// operations, keeps the selector flags and sets up the pixel-cache memory
// once per plug-in instance.
//
//   0 About      nothing (no about box)
//   1 Parameters sets bit 0 of the selector flags; fails when OnParameters does
//   2 Prepare    memory setup, then OnPrepare; on failure bit 0 is cleared
//   3 Start      memory setup, then OnStart (the invocation); on failure or an
//                exception bit 0 is cleared
//   4 Continue   nothing (the whole image is done within Start)
//   5 Finish     clears bit 0; always succeeds
//
// Exceptions from the operations propagate to the caller (the entry point
// turns them into an error result).
class PHostFilter {
public:
    static constexpr uint32_t kParametersFlag = 1u << 0;
    static constexpr uint64_t kMinCacheBudget = 0x2000000ull;   // 32 MiB
    static constexpr uint64_t kMaxCacheBudget = 0xC0000000ull;  // 3 GiB

    PHostFilter() = default;
    virtual ~PHostFilter() = default;
    PHostFilter(const PHostFilter&) = delete;
    PHostFilter& operator=(const PHostFilter&) = delete;

    // Handles one selector of the host. The record must be compatible
    // (HostRecord::IsCompatible). Returns cvNoErr or an error.
    CvError HandleSelector(int16_t selector, CvFilterRecord* record);

    // Gives back what the instance holds from the host (the buffer suite);
    // called before the instance is destroyed, with the record of that call.
    void ReleaseHostResources(CvFilterRecord* record) noexcept;

    // The pixel-cache budget: half the free memory and the host's maximum
    // space, each clamped into 32 MiB ... 3 GiB, whichever is smaller.
    static uint64_t ComputeCacheBudget(uint64_t freeMemory, uint64_t maxSpace);

    uint32_t SelectorFlags() const { return selectorFlags_; }
    bool ParametersRequested() const { return (selectorFlags_ & kParametersFlag) != 0; }
    int16_t CurrentSelector() const { return currentSelector_; }
    // The record of the selector being handled.
    const HostRecord& Host() const { return host_; }
    // Valid once the memory setup ran (the first Prepare or Start).
    uint64_t CacheBudget() const { return cacheBudget_; }
    const CvBufferSuite1* BufferSuite() const { return bufferSuite_; }

protected:
    virtual bool OnParameters() { return true; }
    // The program's prepare hook.
    virtual bool OnPrepare() { return true; }
    // Runs one invocation; false makes Start report failure.
    virtual bool OnStart() = 0;

private:
    void SetUpMemory();

    HostRecord host_;
    int16_t currentSelector_ = -1;
    uint32_t selectorFlags_ = 0;
    bool memoryDone_ = false;
    uint64_t cacheBudget_ = 0;
    const CvBufferSuite1* bufferSuite_ = nullptr;
};

}  // namespace Project
