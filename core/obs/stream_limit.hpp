#pragma once

// How many streams this machine runs at once. Each stream is a media worker process of
// its own, and nothing is shared between them, so the cost grows with every stream: a
// service (or a bug in one) that activated source after source would exhaust the machine.

#include <cstdint>
#include <string>

namespace orbweave::obs {

/// The highest limit that may be set (--max-streams, the app's preference).
inline constexpr int highest_stream_limit = 1000;

struct machine_resources {
    std::uint64_t memory_bytes = 0;
    unsigned cores = 0;
};

/// The memory and the processor cores of this machine (0 where unknown).
machine_resources this_machine();

/// At most this many streams at once, from what one stream costs (`scripts/bench`, README
/// "Performance": 235 MB resident and 0.37 of a core for a 720p30 stream):
///
///   N = max(1, min(cores x 2, (memory / 2) / 235 MB))
///
/// Two streams a core leave each about half a core, the measured cost with room for the
/// desktop and the canvas route (4 streams on 2 cores lagged 1 frame in 10 s); half the
/// memory leaves the other half to the desktop and everything else. Unknown figures do
/// not limit.
int stream_limit_for(const machine_resources& machine);

/// The figures behind stream_limit_for(machine), for the log.
std::string describe_stream_limit(const machine_resources& machine);

} // namespace orbweave::obs
