#pragma once

#include <cstddef>
#include <memory>
#include <string>

namespace orbweave::agent {

/// Writes status lines to a file descriptor from a thread of its own, so that whoever
/// prints (the client's network thread among them) never waits for the reader: a pipe
/// nobody reads must not stop the agent serving. Lines beyond `capacity` waiting to be
/// written are dropped, and how many is written once there is room again.
class line_printer {
public:
    explicit line_printer(int fd, std::size_t capacity = 1024);
    /// Writes what is still queued, waiting at most about two seconds for the reader.
    ~line_printer();

    line_printer(const line_printer&) = delete;
    line_printer& operator=(const line_printer&) = delete;

    /// Queues line (a newline is added); never blocks.
    void print(const std::string& line);

private:
    struct state;
    std::shared_ptr<state> state_;
};

} // namespace orbweave::agent
