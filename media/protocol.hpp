#pragma once

// The worker's side of the pipe protocol: one JSON object per line in, one
// reply per line out, in order; unsolicited {"event": ...} lines may be sent
// between replies from any thread.
//
//   start-up         -> {"ready":true} | {"ready":false,"error":"..."}
//   {"op":"list_screens"|"list_windows"|"list_audios"|"list_videos"}
//                    -> {"ok":true,"result":[entry, ...]}
//   {"op":"get_source_info","request":<activate request>}
//                    -> {"ok":true,"result":<entry> or {}}
//   {"op":"activate","request":<activate request>,"bitrate":<kbps>}
//                    -> {"ok":true,"result":{"started":true} or {"started":false,"error":"..."}}
//                       (media/output.hpp; a second activate replaces the running stream)
//   {"op":"deactivate"} -> {"ok":true,"result":null}, the stream stopped
//   {"event":"stopped","error":"..."}: a running stream stopped by itself
//   {"op":"shutdown"} (or end of input)
//                    -> {"ok":true,"result":{"leaks":<libobs allocations left>}}, exit 0
//   anything failing -> {"ok":false,"error":"..."}; the worker carries on
//
// Standard output belongs to the protocol alone: the worker moves fd 1 to
// standard error at start-up and writes replies to a duplicate of the original.

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
    /// A handler returns the result; an exception becomes {"ok":false,"error":what()}.
    using handler = std::function<Json(const Json& request)>;

    request_loop(int in_fd, protocol_writer& writer) : in_fd_(in_fd), writer_(writer) {}

    void on(const std::string& op, handler handler) { handlers_[op] = std::move(handler); }

    /// Serves requests until {"op":"shutdown"} (returns true, not yet answered) or
    /// end of input (returns false).
    bool run();

private:
    bool next_line(std::string& line);

    int in_fd_;
    protocol_writer& writer_;
    std::map<std::string, handler> handlers_;
    std::string buffer_;
};

} // namespace orbweave::obs
