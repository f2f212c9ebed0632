#pragma once

// The pipe between the client and a media worker process: one JSON object per
// line each way. The client sends requests and the worker answers each in order;
// the worker may also send unsolicited event lines between replies.
//
//   start-up          -> {"ok":true} | {"ok":false,"error":"..."}
//   {"op":"list_screens"|"list_windows"|"list_audios"|"list_videos"}
//                     -> {"ok":true,"result":[entry, ...]}
//   {"op":"find","source":{"type":"screen","id":"..."}}
//                     -> {"ok":true,"result":entry | null}
//   {"op":"stream","order":<stream_order>}
//                     -> {"ok":true,"result":{"started":true,"width":W,"height":H} | {"started":false,"error":"..."}}
//                        (once per worker: a stream worker carries one stream for its life)
//   {"op":"check_desktop"|"check_encoders"}
//                     -> {"ok":true,"result":{what the machine offers}} (media/system_check.hpp)
//   {"op":"stats"}    -> {"ok":true,"result":{frame counters}} (read-only, for benchmarks)
//   {"op":"shutdown"} or end of input
//                     -> {"ok":true,"result":{"leaks":<libobs allocations left>}}, exit 0
//   anything failing  -> {"ok":false,"error":"..."}; the worker carries on
//   event             <- {"event":"stopped","error":"..."}: the stream ended by itself
//
// Each side reads a line into one of the types below where it arrives.

#include "core/json.hpp"
#include "core/obs/entries.hpp"
#include "core/obs/requests.hpp"

#include <optional>
#include <string>
#include <string_view>

namespace orbweave::obs::pipe {

/// The longest line either side of the pipe reads (a listing of thousands of windows
/// is well under it). A side that meets a longer one treats the other as broken: the
/// client kills the worker, the worker ends.
inline constexpr std::size_t max_line_bytes = 8 << 20;

namespace op {
inline constexpr const char* list_screens = "list_screens";
inline constexpr const char* list_windows = "list_windows";
inline constexpr const char* list_audios = "list_audios";
inline constexpr const char* list_videos = "list_videos";
inline constexpr const char* find = "find";
inline constexpr const char* stream = "stream";
inline constexpr const char* stats = "stats";
inline constexpr const char* check_desktop = "check_desktop";
inline constexpr const char* check_encoders = "check_encoders";
inline constexpr const char* shutdown = "shutdown";
} // namespace op

/// The event a worker sends when its stream ends without being asked to.
inline constexpr const char* stopped_event = "stopped";

/// A stream worker's one job, in a schema of its own: the catalogue entry the client
/// looked up, where to stream it, at what level and size, and the measured uplink
/// bitrate (kbps).
///
///   {"source":<entry>,"server":"rtmp://...","key":"...","level":"medium",
///    "width":1280,"height":720,"bitrate":1500,"restoreToken":"..."}
///
/// "width" and "height" are left out when the service named none (the level's size
/// applies), "restoreToken" when there is none.
struct stream_order {
    source_entry source;
    std::string server;
    std::string key;
    profile_type::type level = profile_type::low;
    std::optional<int> width;
    std::optional<int> height;
    int bitrate = 0;
    /// The desktop portal's token for the screen chosen last time (portal route); "" for none.
    std::string restore_token;

    /// The order for what an activation asks of the source it names.
    static stream_order of(const activate_request& request, source_entry source, int bitrate,
                           std::string restore_token);

    Json to_json() const;
    /// none when the source entry is missing or names no kind.
    static std::optional<stream_order> from_json(const Json& value);
};

/// The list op for a kind of source; nullptr for none.
const char* list_op(callback::source_type::type kind);

/// A find request for one source, and the source it names as the worker reads it back.
Json find_request(const source_ref& source);
source_ref find_target(const Json& request);

/// What became of a stream order.
struct stream_result {
    bool started = false;
    /// Why it did not start: a short reason.
    std::string error;
    /// It did not start because the user declined in the desktop's own picker.
    bool rejected = false;
    /// The portal's token for this screen from now on (tokens are single-use); "" for none.
    std::string restore_token;
    /// The canvas the stream runs on (0 x 0 when it did not start).
    int width = 0;
    int height = 0;

    Json to_json() const;
    static stream_result from_json(const Json& value);
};

/// A request line as the worker reads it.
struct request_line {
    std::string op;
    Json body; ///< the whole object (null when the line is not a JSON object)

    static request_line parse(std::string_view text);
};

/// A line from a worker as the client reads it: a reply or an event.
struct worker_line {
    enum class kind { reply, event, invalid };
    kind type = kind::invalid;
    bool ok = false;      ///< reply: whether the request succeeded
    Json result;          ///< reply: the result when ok
    std::string error;    ///< reply: why not ok; event: its reason
    std::string event;    ///< event: its name

    static worker_line parse(std::string_view text);
};

/// {"ok":true,"result":result} and {"ok":false,"error":error}.
Json ok_reply(Json result);
Json error_reply(const std::string& error);
/// {"event":name,"error":error}.
Json event_line(const char* name, const std::string& error);

} // namespace orbweave::obs::pipe
