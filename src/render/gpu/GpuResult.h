#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <variant>

namespace Project::Gpu {

// A failure of the GPU layer: the Vulkan result code that caused it (0 when
// the failure is not a Vulkan call's, e.g. a shader compile error or an
// unsuitable device) and a readable message that names the step that failed.
struct GpuError {
    int32_t vkResult = 0;  // a VkResult; 0 (VK_SUCCESS) when not from a Vulkan call
    std::string message;
};

// Either a value or a GpuError; the GPU layer's edges never throw for
// device-side failures. Check with ok() (or operator bool) before value().
template <typename T>
class [[nodiscard]] Result {
public:
    Result(T value)
        : state_(std::in_place_index<0>, std::move(value)) {
    }  // NOLINT(google-explicit-constructor)
    Result(GpuError error) : state_(std::in_place_index<1>, std::move(error)) {}  // NOLINT

    bool ok() const { return state_.index() == 0; }
    explicit operator bool() const { return ok(); }

    T& value() & { return std::get<0>(state_); }
    const T& value() const& { return std::get<0>(state_); }
    T&& value() && { return std::get<0>(std::move(state_)); }
    const GpuError& error() const { return std::get<1>(state_); }

private:
    std::variant<T, GpuError> state_;
};

// Result without a value: success or a GpuError.
template <>
class [[nodiscard]] Result<void> {
public:
    Result() = default;
    Result(GpuError error) : error_(std::move(error)), failed_(true) {}  // NOLINT

    bool ok() const { return !failed_; }
    explicit operator bool() const { return ok(); }
    const GpuError& error() const { return error_; }

private:
    GpuError error_;
    bool failed_ = false;
};

using Status = Result<void>;

}  // namespace Project::Gpu
