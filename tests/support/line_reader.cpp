#include "tests/support/line_reader.hpp"

#include "tests/support/eventually.hpp"

#include <poll.h>
#include <unistd.h>

#include <cerrno>

namespace orbweave::test {

std::optional<std::string> line_reader::next(std::chrono::milliseconds timeout)
{
    auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        if (auto end = buffered_.find('\n'); end != std::string::npos) {
            std::string line = buffered_.substr(0, end);
            buffered_.erase(0, end + 1);
            lines_.push_back(line);
            return line;
        }
        // Past the deadline it still looks once, so a zero time-out reads what is there now.
        pollfd fd{fd_, POLLIN, 0};
        int ready = ::poll(&fd, 1, static_cast<int>(time_left(deadline).count()));
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready <= 0)
            return std::nullopt;
        char chunk[4096];
        ssize_t got = ::read(fd_, chunk, sizeof chunk);
        if (got <= 0)
            return std::nullopt;
        buffered_.append(chunk, static_cast<size_t>(got));
    }
}

std::optional<std::string> line_reader::wait_for(const std::function<bool(const std::string&)>& match,
                                                 std::chrono::milliseconds timeout)
{
    auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        auto line = next(time_left(deadline));
        if (!line || match(*line))
            return line;
    }
}

std::optional<std::string> line_reader::wait_for_prefix(const std::string& prefix, std::chrono::milliseconds timeout)
{
    return wait_for([&](const std::string& line) { return line.rfind(prefix, 0) == 0; }, timeout);
}

} // namespace orbweave::test
