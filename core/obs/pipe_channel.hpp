#pragma once

// The byte level of the media worker pipe, the same at both ends: whole lines out,
// and lines in, each at most pipe::max_line_bytes long.

#include <cstddef>
#include <string>
#include <string_view>

namespace orbweave::obs::pipe {

/// Writes all of data to fd (a socket, or a pipe when the worker runs by hand), going on
/// after interruptions; false once the other end has gone. Never raises SIGPIPE on a socket.
bool write_all(int fd, std::string_view data);

/// Reads a descriptor line by line, with a bound on the length of a line.
class line_reader {
public:
    enum class status {
        line,     ///< next() has put a line (without its '\n') in its argument
        end,      ///< end of input, or an error reading it
        too_long, ///< a line went past the limit: the writer is broken
    };

    explicit line_reader(int fd, std::size_t limit);

    /// Reads until a whole line is there, or until the input ends.
    status next(std::string& line);

private:
    int fd_;
    std::size_t limit_;
    std::string buffer_;
    // Where the next line starts in buffer_, and how far it has been searched for '\n'.
    std::size_t start_ = 0;
    std::size_t searched_ = 0;
};

} // namespace orbweave::obs::pipe
