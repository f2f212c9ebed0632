#include "core/log.hpp"

#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <string>

namespace orbweave::log {

namespace {

void write_all(const std::string& text)
{
    // One lock so that concurrent lines never interleave even when a write is split.
    static std::mutex mutex;
    std::lock_guard<std::mutex> lock(mutex);
    const char* data = text.data();
    size_t left = text.size();
    while (left > 0) {
        ssize_t written = ::write(STDERR_FILENO, data, left);
        if (written < 0) {
            if (errno == EINTR)
                continue;
            return;
        }
        data += written;
        left -= static_cast<size_t>(written);
    }
}

} // namespace

void line(std::string_view text)
{
    line({}, text);
}

void line(std::string_view prefix, std::string_view text)
{
    std::string whole;
    whole.reserve(prefix.size() + text.size() + 1);
    whole.append(prefix).append(text).push_back('\n');
    write_all(whole);
}

} // namespace orbweave::log
