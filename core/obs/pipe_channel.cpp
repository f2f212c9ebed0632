#include "core/obs/pipe_channel.hpp"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace orbweave::obs::pipe {

bool write_all(int fd, std::string_view data)
{
    bool socket = true;
    while (!data.empty()) {
        ssize_t written = socket ? ::send(fd, data.data(), data.size(), MSG_NOSIGNAL)
                                 : ::write(fd, data.data(), data.size());
        if (written < 0) {
            if (errno == EINTR)
                continue;
            if (errno == ENOTSOCK && socket) {
                socket = false;
                continue;
            }
            return false;
        }
        data.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

line_reader::line_reader(int fd, std::size_t limit) : fd_(fd), limit_(limit) {}

line_reader::status line_reader::next(std::string& line)
{
    for (;;) {
        // Only new bytes are searched, so a long line costs its length once.
        std::size_t end = buffer_.find('\n', searched_);
        if (end != std::string::npos) {
            line.assign(buffer_, start_, end - start_);
            start_ = searched_ = end + 1;
            return status::line;
        }
        searched_ = buffer_.size();
        // A runaway writer must not make the reader hold its output without end.
        if (buffer_.size() - start_ > limit_)
            return status::too_long;
        buffer_.erase(0, start_);
        searched_ -= start_;
        start_ = 0;
        char chunk[8192];
        ssize_t got = ::read(fd_, chunk, sizeof chunk);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return status::end;
        buffer_.append(chunk, static_cast<std::size_t>(got));
    }
}

} // namespace orbweave::obs::pipe
