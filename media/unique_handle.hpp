#pragma once

// Owning handle over one libobs object, in the manner of OBS's own obs.hpp:
// the release function is part of the type, so a handle costs one pointer.

#include <obs.h>

#include <utility>

namespace orbweave::obs {

/// Owns one T*; calls release(pointer) once when destroyed or reset while non-null.
template <class T, void (*release_function)(T*)>
class unique_handle {
public:
    unique_handle() noexcept = default;
    explicit unique_handle(T* pointer) noexcept : pointer_(pointer) {}
    ~unique_handle() { reset(); }

    unique_handle(const unique_handle&) = delete;
    unique_handle& operator=(const unique_handle&) = delete;

    unique_handle(unique_handle&& other) noexcept : pointer_(other.release()) {}
    unique_handle& operator=(unique_handle&& other) noexcept
    {
        if (this != &other)
            reset(other.release());
        return *this;
    }

    /// The pointer, still owned by this handle.
    T* get() const noexcept { return pointer_; }
    explicit operator bool() const noexcept { return pointer_ != nullptr; }

    /// Releases the held object (if any) and takes pointer instead.
    void reset(T* pointer = nullptr) noexcept
    {
        T* old = std::exchange(pointer_, pointer);
        if (old)
            release_function(old);
    }

    /// Gives up ownership without releasing.
    [[nodiscard]] T* release() noexcept { return std::exchange(pointer_, nullptr); }

private:
    T* pointer_ = nullptr;
};

using source_handle = unique_handle<obs_source_t, obs_source_release>;
using scene_handle = unique_handle<obs_scene_t, obs_scene_release>;
using encoder_handle = unique_handle<obs_encoder_t, obs_encoder_release>;
using service_handle = unique_handle<obs_service_t, obs_service_release>;
using output_handle = unique_handle<obs_output_t, obs_output_release>;
using data_handle = unique_handle<obs_data_t, obs_data_release>;
using properties_handle = unique_handle<obs_properties_t, obs_properties_destroy>;

} // namespace orbweave::obs
