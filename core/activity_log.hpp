#pragma once

// A local history of what the service used: one JSON object per line, appended as the
// events happen (a list, an activation or its refusal, a stream's end, a reset, a
// sign-out), bounded by rotation, readable only by its owner. It names sources and the
// ingest's scheme and host, never a stream key, a secret or a token, and nothing of it
// is ever sent to the service.

#include "core/callback.hpp"
#include "core/json.hpp"

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace orbweave {

/// One event of the history; empty fields are left out of its line.
struct activity_event {
    /// "list", "activate", "deny", "deactivate", "ended", "reset" or "sign-out".
    std::string event;
    callback::source_type::type kind = callback::source_type::none;
    /// The source as this machine names it.
    std::string source;
    /// The ingest's scheme and host ("rtmp://ingest.example:1935"), never its path or key.
    std::string ingest;
    /// "rule" (the user's standing choice) or "user" (asked this time).
    std::string decided;
    std::string outcome;
    std::string reason;
    /// For an end: how long the stream ran, in seconds.
    std::optional<double> duration;

    /// The line's object, time first (ISO 8601 with the local offset).
    Json to_json(std::chrono::system_clock::time_point at) const;
};

/// The history file. Appends are whole lines, safe from any thread; past rotate_bytes
/// the file becomes path.1 (one old file kept) and a new one starts.
class activity_log {
public:
    static constexpr std::uintmax_t default_rotate_bytes = 1024 * 1024;

    explicit activity_log(std::string path, std::uintmax_t rotate_bytes = default_rotate_bytes);

    /// Appends the event with the time now. Failures are logged, not thrown.
    void record(const activity_event& event);
    /// The last count events of both files, newest first.
    std::vector<Json> recent(std::size_t count) const;
    /// Forgets the whole history (both files).
    void clear();

    const std::string& path() const { return path_; }

    /// "scheme://host[:port]" of a URL: no user, password, path, query or key.
    static std::string ingest_of(const std::string& url);
    /// A time as ISO 8601 in local time with its offset: "2024-05-01T14:03:07.250+02:00".
    static std::string iso8601(std::chrono::system_clock::time_point at);

private:
    void append_line_locked(const std::string& line);

    const std::string path_;
    const std::uintmax_t rotate_bytes_;
    mutable std::mutex mutex_;
};

/// What the client records, and of the streams it recorded as started, enough to tell
/// their end: a stream's history is its activation and one end, whatever ends it.
/// Without a log it only tells the listener. Safe from any thread.
class activity_recorder {
public:
    using listener = std::function<void(const activity_event&)>;
    /// The reason of the end of every stream that ran when the client stopped.
    static constexpr const char* app_stopped = "the app stopped";

    activity_recorder(std::shared_ptr<activity_log> log, listener tell);

    void record(const activity_event& event);
    /// An activation that started: recorded, and its stream remembered by source id.
    void started(const std::string& id, activity_event event);
    /// The stream of id has ended ("deactivate" or "ended"), with why; nothing when it
    /// was not recorded as started (or its end was recorded already).
    void stopped(const std::string& id, const std::string& event, const std::string& reason,
                 const std::string& decided = {});
    /// Every stream recorded as started has ended, for the same reason.
    void stopped_all(const std::string& event, const std::string& reason, const std::string& decided = {});

private:
    struct running {
        activity_event started;
        std::chrono::steady_clock::time_point since;
    };
    void end_locked(std::map<std::string, running>::iterator stream, const std::string& event,
                    const std::string& reason, const std::string& decided);

    std::shared_ptr<activity_log> log_;
    listener tell_;
    std::mutex mutex_;
    std::map<std::string, running> running_;
};

} // namespace orbweave
