#pragma once

// Code whose exception must not leave where it runs: a C library's callback (an
// exception unwinding into its frames ends the process, or leaves its locks held), or
// the application's handler called on one of our threads, whose loop must go on.

#include <exception>
#include <type_traits>
#include <utility>

namespace orbweave {

namespace detail {
/// Logs one line, "<part>: <where> failed: <what>", also when memory has run out.
void report_escaped(const char* part, const char* where, const char* what) noexcept;
} // namespace detail

/// Calls body and returns what it returns. An exception it throws is logged as one line
/// naming the program's part and where (a callback, in words), and the caller gets a
/// value-initialised result instead (nothing, false, 0, nullptr): what a C caller reads
/// as "no".
template <class F>
auto guarded(const char* part, const char* where, F&& body) noexcept -> std::invoke_result_t<F&>
{
    using result = std::invoke_result_t<F&>;
    try {
        return body();
    } catch (const std::exception& error) {
        detail::report_escaped(part, where, error.what());
    } catch (...) {
        detail::report_escaped(part, where, "unknown exception");
    }
    if constexpr (!std::is_void_v<result>)
        return result{};
}

} // namespace orbweave
