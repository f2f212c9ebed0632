#include "agent/health_report.hpp"

#include <algorithm>
#include <cstdio>

namespace orbweave::agent {

std::string health_line(const std::string& name, const obs::health_summary& health)
{
    char numbers[160];
    std::snprintf(numbers, sizeof numbers, "%s, %d kbps of %d, %.1f fps, %lld dropped, %lld lagged",
                  obs::level_name(health.level), health.kbps, health.target_kbps, health.fps, health.dropped,
                  health.lagged);
    return "health \"" + name + "\": " + numbers;
}

std::optional<std::string> health_announcer::report(const callback::active_stream& stream,
                                                    const obs::health_summary& health, clock::time_point now)
{
    auto found = streams_.find(stream.id);
    if (found != streams_.end() && found->second.level == health.level && now - found->second.at < period)
        return std::nullopt;
    streams_[stream.id] = {health.level, now};
    return health_line(stream.name, health);
}

void health_announcer::keep_only(const std::vector<callback::active_stream>& running)
{
    for (auto it = streams_.begin(); it != streams_.end();) {
        bool runs = std::any_of(running.begin(), running.end(),
                                [&](const callback::active_stream& stream) { return stream.id == it->first; });
        it = runs ? std::next(it) : streams_.erase(it);
    }
}

} // namespace orbweave::agent
