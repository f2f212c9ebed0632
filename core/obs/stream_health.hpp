#pragma once

// A running stream's health. Its media worker measures, every second, what the stream
// did in that second (frames sent, frames the output dropped because the network did not
// take them, frames lagged or skipped before the encoder, bytes sent against the
// encoders' target, and how the connection stands) and sends it up the pipe as a
// "health" event. The client keeps the last 10 s of these per stream and derives a level
// from them. None of it is ever sent to the service.
//
//   {"event":"health","ms":1000,"sent":30,"dropped":0,"lagged":0,"bytes":187500,
//    "target":1628,"backlog":false,"connection":"connected","attempt":0}

#include "core/json.hpp"

#include <chrono>
#include <deque>
#include <optional>
#include <string>

namespace orbweave::obs {

/// The event a stream worker sends once a second while its stream runs.
inline constexpr const char* health_event = "health";

/// How often a stream worker measures its stream, and how much of it the level covers.
inline constexpr std::chrono::milliseconds health_interval{1000};
inline constexpr std::chrono::milliseconds health_window_length{10000};

/// How the stream's connection to its ingest stands.
enum class connection_state {
    connected,    ///< sending
    reconnecting, ///< the connection dropped and libobs is connecting again
    stalled,      ///< connected, but the ingest took nothing of what waits for it
};
const char* connection_name(connection_state state);

/// One interval (about a second) of a stream, as its worker measured it.
struct health_sample {
    int milliseconds = 0; ///< the interval's length
    int sent = 0;         ///< video frames sent to the ingest
    int dropped = 0;      ///< video frames the output dropped: the network did not take them
    int lagged = 0;       ///< video frames lagged or skipped before the encoder
    int bytes = 0;        ///< bytes sent to the ingest
    int target_kbps = 0;  ///< what the encoders aim at, together
    /// Data waited to be sent at the interval's end: the network, not the picture, set
    /// the bitrate (a still screen sends few bits and has no backlog).
    bool backlog = false;
    connection_state connection = connection_state::connected;
    /// While reconnecting: the attempt under way (1 for the first).
    int attempt = 0;

    /// The event line.
    Json to_json() const;
    /// The sample an event line carries; none when it is not a well-formed health event.
    static std::optional<health_sample> from_json(const Json& line);
};

/// What a stream's health amounts to. OBS's own thresholds for a stream's frames: under
/// 5 % dropped or lagged is fine, 5 % a warning, 15 % critical.
enum class health_level {
    good,
    degraded,     ///< 5 % or more of the frames dropped or lagged, or under half the target with a backlog
    bad,          ///< 15 % or more dropped or lagged, or the connection stalled
    reconnecting, ///< the connection dropped and is being made again
};
const char* level_name(health_level level);

/// The last seconds of a stream, summed up.
struct health_summary {
    health_level level = health_level::good;
    int kbps = 0;        ///< sent
    int target_kbps = 0; ///< aimed at (the newest sample's)
    double fps = 0;      ///< frames sent a second
    long long dropped = 0;
    long long lagged = 0;
    /// Of the frames the stream should have sent, how many were dropped or lagged (0..1).
    double lost_share = 0;
    /// Under half the target with data waiting: the network is too slow for the stream.
    bool slow = false;
    connection_state connection = connection_state::connected;
    int attempt = 0;

    bool operator==(const health_summary& other) const;
    bool operator!=(const health_summary& other) const { return !(*this == other); }
};

/// The level of the samples, oldest first; the newest says how the connection stands.
/// Good for none.
health_summary summarize(const std::deque<health_sample>& samples);

/// The samples of the last health_window_length, in the order they arrive.
class health_window {
public:
    /// Adds the newest sample and forgets those that fall out of the window.
    void add(const health_sample& sample);
    health_summary summary() const { return summarize(samples_); }
    bool empty() const { return samples_.empty(); }

private:
    std::deque<health_sample> samples_;
    long long covered_ = 0; // milliseconds
};

} // namespace orbweave::obs
