#include "core/obs/stream_health.hpp"

#include <algorithm>
#include <limits>

namespace orbweave::obs {

namespace {

// The shares of a stream's frames dropped or lagged at which it is degraded, then bad.
constexpr double degraded_share = 0.05;
constexpr double bad_share = 0.15;

// The longest interval a sample may cover: a worker that reports at all reports every second.
constexpr int longest_interval_ms = 60000;

const char* const connection_names[] = {"connected", "reconnecting", "stalled"};

} // namespace

const char* connection_name(connection_state state)
{
    return connection_names[static_cast<int>(state)];
}

const char* level_name(health_level level)
{
    switch (level) {
    case health_level::good: return "good";
    case health_level::degraded: return "degraded";
    case health_level::bad: return "bad";
    case health_level::reconnecting: return "reconnecting";
    }
    return "good";
}

Json health_sample::to_json() const
{
    return Json{{"event", health_event}, {"ms", milliseconds}, {"sent", sent},
                {"dropped", dropped},    {"lagged", lagged},   {"bytes", bytes},
                {"target", target_kbps}, {"backlog", backlog}, {"connection", connection_name(connection)},
                {"attempt", attempt}};
}

std::optional<health_sample> health_sample::from_json(const Json& line)
{
    if (json::string_at(line, {"event"}) != health_event)
        return std::nullopt;
    for (const char* count : {"ms", "sent", "dropped", "lagged", "bytes", "target", "attempt"})
        if (!json::is_number_at(line, {count}) || json::int_at(line, {count}) < 0)
            return std::nullopt;
    health_sample sample;
    sample.milliseconds = json::int_at(line, {"ms"});
    if (sample.milliseconds <= 0 || sample.milliseconds > longest_interval_ms)
        return std::nullopt;
    std::string connection = json::string_at(line, {"connection"});
    bool known = false;
    for (int state = 0; state < 3; ++state)
        if (connection == connection_names[state]) {
            sample.connection = static_cast<connection_state>(state);
            known = true;
        }
    if (!known)
        return std::nullopt;
    sample.sent = json::int_at(line, {"sent"});
    sample.dropped = json::int_at(line, {"dropped"});
    sample.lagged = json::int_at(line, {"lagged"});
    sample.bytes = json::int_at(line, {"bytes"});
    sample.target_kbps = json::int_at(line, {"target"});
    sample.backlog = json::bool_at(line, {"backlog"});
    sample.attempt = json::int_at(line, {"attempt"});
    return sample;
}

bool health_summary::operator==(const health_summary& other) const
{
    return level == other.level && kbps == other.kbps && target_kbps == other.target_kbps && fps == other.fps &&
           dropped == other.dropped && lagged == other.lagged && lost_share == other.lost_share &&
           slow == other.slow && connection == other.connection && attempt == other.attempt;
}

health_summary summarize(const std::deque<health_sample>& samples)
{
    health_summary summary;
    if (samples.empty())
        return summary;
    long long milliseconds = 0, sent = 0, bytes = 0;
    for (const health_sample& sample : samples) {
        milliseconds += sample.milliseconds;
        sent += sample.sent;
        bytes += sample.bytes;
        summary.dropped += sample.dropped;
        summary.lagged += sample.lagged;
    }
    const health_sample& newest = samples.back();
    summary.target_kbps = newest.target_kbps;
    summary.connection = newest.connection;
    summary.attempt = newest.connection == connection_state::reconnecting ? newest.attempt : 0;
    if (milliseconds > 0) {
        // Bits a millisecond are kbit/s.
        summary.kbps = static_cast<int>(std::min<long long>(bytes * 8 / milliseconds, std::numeric_limits<int>::max()));
        summary.fps = static_cast<double>(sent) * 1000.0 / static_cast<double>(milliseconds);
    }
    long long expected = sent + summary.dropped + summary.lagged;
    if (expected > 0)
        summary.lost_share = static_cast<double>(summary.dropped + summary.lagged) / static_cast<double>(expected);
    summary.slow = newest.backlog && summary.target_kbps > 0 && 2LL * summary.kbps < summary.target_kbps;

    if (newest.connection == connection_state::reconnecting)
        summary.level = health_level::reconnecting;
    else if (newest.connection == connection_state::stalled || summary.lost_share >= bad_share)
        summary.level = health_level::bad;
    else if (summary.lost_share >= degraded_share || summary.slow)
        summary.level = health_level::degraded;
    return summary;
}

void health_window::add(const health_sample& sample)
{
    samples_.push_back(sample);
    covered_ += sample.milliseconds;
    // The oldest goes while the rest still cover the whole window.
    while (samples_.size() > 1 && covered_ - samples_.front().milliseconds >= health_window_length.count()) {
        covered_ -= samples_.front().milliseconds;
        samples_.pop_front();
    }
}

} // namespace orbweave::obs
