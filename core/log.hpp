#pragma once

#include <string_view>

namespace orbweave::log {

/// Writes text and a newline to standard error as one write, so lines from
/// different threads never interleave; standard error is unbuffered, so the
/// line is out when this returns.
void line(std::string_view text);

/// Writes prefix followed by text as one line.
void line(std::string_view prefix, std::string_view text);

} // namespace orbweave::log
