#pragma once

// Where C libraries (libobs, PipeWire, libportal and GLib, libwayland) call back into
// us. An exception unwinding into their frames ends the process, or leaves their locks
// held; every callback of ours whose body can throw runs it through guarded().

#include <exception>
#include <type_traits>
#include <utility>

namespace orbweave::obs {

namespace detail {
/// Logs one line: what escaped the callback named where, and that it was dropped.
void report_escaped(const char* where, const char* what) noexcept;
} // namespace detail

/// Calls body and returns what it returns. An exception it throws is logged as one line
/// naming where (a callback, in words) and the caller gets a value-initialised result
/// instead (nothing, false, 0, nullptr): what the C side reads as "no".
template <class F>
auto guarded(const char* where, F&& body) noexcept -> std::invoke_result_t<F&>
{
    using result = std::invoke_result_t<F&>;
    try {
        return body();
    } catch (const std::exception& error) {
        detail::report_escaped(where, error.what());
    } catch (...) {
        detail::report_escaped(where, "unknown exception");
    }
    if constexpr (!std::is_void_v<result>)
        return result{};
}

} // namespace orbweave::obs
