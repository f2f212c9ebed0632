#include "core/guarded.hpp"

#include "core/log.hpp"

#include <unistd.h>

#include <cstdio>
#include <cstring>

namespace orbweave::detail {

void report_escaped(const char* part, const char* where, const char* what) noexcept
{
    char text[512];
    // One byte stays free for the newline of the fallback below.
    if (std::snprintf(text, sizeof text - 1, "%s: %s failed: %s", part, where, what) < 0)
        return;
    try {
        log::line(text);
    } catch (...) {
        // No memory for the log's own copy of the line: write it from here.
        std::size_t size = std::strlen(text);
        text[size] = '\n';
        ssize_t written = ::write(STDERR_FILENO, text, size + 1);
        (void)written;
    }
}

} // namespace orbweave::detail
