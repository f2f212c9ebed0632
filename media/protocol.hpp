#pragma once

// The worker's end of the pipe (core/obs/pipe_protocol.hpp): requests are read
// one line at a time and dispatched by op; replies and events are written as
// whole lines. Standard output belongs to the protocol alone: the worker moves
// fd 1 to standard error at start-up and writes to a duplicate of the original.

#include "core/json.hpp"

#include <functional>
#include <map>
#include <mutex>
#include <string>

namespace orbweave::obs {

/// Writes whole lines to the protocol descriptor; safe from any thread.
class protocol_writer {
public:
    explicit protocol_writer(int fd) : fd_(fd) {}
    /// Writes the value as one line; false when the reader has gone.
    bool send(const Json& value);

private:
    int fd_;
    std::mutex mutex_;
};

/// Reads requests and dispatches them by "op" to registered handlers.
class request_loop {
public:
    /// A handler gets the whole request and returns the result; an exception becomes
    /// an error reply with its what().
    using handler = std::function<Json(const Json& request)>;

    request_loop(int in_fd, protocol_writer& writer) : in_fd_(in_fd), writer_(writer) {}

    void on(const std::string& op, handler handler) { handlers_[op] = std::move(handler); }
    /// The result of a registered op, as if requested with no other members.
    Json call(const std::string& op) { return handlers_.at(op)(Json{{"op", op}}); }

    /// Serves requests until a shutdown request (returns true, not yet answered) or
    /// end of input (returns false).
    bool run();

private:
    int in_fd_;
    protocol_writer& writer_;
    std::map<std::string, handler> handlers_;
};

} // namespace orbweave::obs
