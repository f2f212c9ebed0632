#pragma once

// The agent's view of a stream's health: a line when a stream's level changes, and every
// 30 s while it streams.
//
//   health "Display 1": degraded, 640 kbps of 1628, 29.8 fps, 12 dropped, 0 lagged

#include "core/callback.hpp"
#include "core/obs/stream_health.hpp"

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace orbweave::agent {

/// The line for a stream named name (the counts are those of the last 10 s).
std::string health_line(const std::string& name, const obs::health_summary& health);

/// Decides which health reports the agent prints. Not thread-safe: the client's network
/// thread calls it.
class health_announcer {
public:
    using clock = std::chrono::steady_clock;
    /// How often a stream whose level stays the same is printed again.
    static constexpr std::chrono::seconds period{30};

    /// The line to print for this report of stream at now, if any: its first report, a
    /// change of level, or period since it was last printed.
    std::optional<std::string> report(const callback::active_stream& stream, const obs::health_summary& health,
                                      clock::time_point now);
    /// Forgets the streams that no longer run: one that runs again starts afresh.
    void keep_only(const std::vector<callback::active_stream>& running);

private:
    struct printed {
        obs::health_level level;
        clock::time_point at;
    };
    std::map<std::string, printed> streams_;
};

} // namespace orbweave::agent
