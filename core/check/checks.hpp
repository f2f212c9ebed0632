#pragma once

// The checks both front ends run for --check. The machine's media side is asked of
// two media workers (a listing worker: display, portal, PipeWire, sound server and the
// catalogue as the service would list it; a stream worker: renderer, capture paths,
// H.264 encoders tried on a few frames, AAC); the service side is a TLS handshake and
// the bandwidth measure. Every check is bounded; nothing is changed on the machine, no
// pairing is made and nothing is streamed.

#include "core/check/report.hpp"
#include "core/obs/capture_route.hpp"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace orbweave::check {

struct settings {
    std::string service_url;
    std::string ca_file;
    /// Given on the command line: reported instead of measured.
    std::optional<std::int32_t> bitrate;
    obs::capture_route capture = obs::capture_route::automatic;
    /// The media worker program; empty: the client's default.
    std::string worker_executable;
};

// The bounds of each part. Each part runs on a thread of its own, so the whole check
// takes about the longest of them (the stream worker's: start-up and the encoders).
inline constexpr std::chrono::milliseconds worker_start_limit{8000};
inline constexpr std::chrono::milliseconds desktop_call_limit{8000};
inline constexpr std::chrono::milliseconds list_call_limit{5000};
/// Three H.264 encoders and AAC, each at most 2.5 s for its packets.
inline constexpr std::chrono::milliseconds encoder_call_limit{12000};
inline constexpr std::chrono::milliseconds tls_limit{5000};
inline constexpr std::chrono::milliseconds bandwidth_limit{5000};

/// display, portal (Wayland), pipewire, sound, catalogue.
std::vector<item> desktop_checks(const settings& options);
/// renderer, capture, h264, aac.
std::vector<item> encoder_checks(const settings& options);
/// service (TLS to the endpoint: subject, expiry, trust).
item service_check(const settings& options);
/// bandwidth: the --bitrate given, or the measure and the quality it allows.
item bandwidth_check(const settings& options, bool service_reachable);

/// Every common check, the three parts at once, in a fixed order.
std::vector<item> run_common(const settings& options);

/// The agent's state folder (writable, private) and its secret file's mode.
item state_folder_check(const std::string& directory);

/// The quality levels a bitrate (kbps) carries at their full rate, for a person.
std::string quality_for(std::int32_t kbps);

} // namespace orbweave::check
