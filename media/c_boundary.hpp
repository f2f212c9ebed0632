#pragma once

// Where C libraries (libobs, PipeWire, libportal and GLib, libwayland) call back into
// us. An exception unwinding into their frames ends the process, or leaves their locks
// held; every callback of ours whose body can throw runs it through guarded().

#include "core/guarded.hpp"

#include <utility>

namespace orbweave::obs {

/// Calls body and returns what it returns; an exception it throws is logged as
/// "media: <where> failed: <what>" and the C side gets a value-initialised "no".
template <class F>
auto guarded(const char* where, F&& body) noexcept -> std::invoke_result_t<F&>
{
    return orbweave::guarded("media", where, std::forward<F>(body));
}

} // namespace orbweave::obs
