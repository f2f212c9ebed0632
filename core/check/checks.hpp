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
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace orbweave::obs {
class worker;
}

namespace orbweave::check {

struct settings {
    std::string service_url;
    std::string ca_file;
    /// Given on the command line: reported instead of measured.
    std::optional<std::int32_t> bitrate;
    obs::capture_route capture = obs::capture_route::automatic;
    /// The media worker program; empty: the client's default.
    std::string worker_executable;
    /// Polled while the check runs; true ends every part at once (the app quitting).
    std::function<bool()> cancelled;
};

// The bounds. The three parts (desktop, encoders, service) run at once, each call of
// each part is bounded, and the whole check is cut at whole_check_limit: a part still
// waiting then has its worker killed and says so. Normally it all takes 1-2 s.
inline constexpr std::chrono::milliseconds worker_start_limit{8000};
/// The portal (2 s a question), the sound server (2 s), PipeWire; a listing.
inline constexpr std::chrono::milliseconds desktop_call_limit{6000};
/// Three H.264 encoders and AAC, each at most 2.5 s for its packets.
inline constexpr std::chrono::milliseconds encoder_call_limit{11000};
/// The service part: the handshake, then the bandwidth measure.
inline constexpr std::chrono::milliseconds tls_limit{5000};
inline constexpr std::chrono::milliseconds bandwidth_limit{5000};
inline constexpr std::chrono::milliseconds whole_check_limit = tls_limit + bandwidth_limit + std::chrono::seconds(5);

/// Lets a check end on time: a part holds its media worker here while it uses it, and
/// expire() kills that worker, so whatever the part waits for fails at once.
class worker_watch {
public:
    /// worker while in use, nullptr after; a worker held after expire() is killed at once.
    void hold(obs::worker* worker);
    void expire();
    bool expired() const;

private:
    mutable std::mutex mutex_;
    obs::worker* worker_ = nullptr;
    bool expired_ = false;
};

/// display, portal (Wayland), pipewire, sound, catalogue.
std::vector<item> desktop_checks(const settings& options, worker_watch* watch = nullptr);
/// renderer, capture, h264, aac.
std::vector<item> encoder_checks(const settings& options, worker_watch* watch = nullptr);
/// service (TLS to the endpoint: subject, expiry, trust).
item service_check(const settings& options);
/// bandwidth: the --bitrate given, or the measure and the quality it allows.
item bandwidth_check(const settings& options, bool service_reachable);

/// Every common check, the three parts at once, in a fixed order.
std::vector<item> run_common(const settings& options);

/// The agent's state folder (writable, private) and its secret file's mode.
item state_folder_check(const std::string& directory);

/// Which H.264 encoder streams take: hardware is the registered hardware encoder ("" for
/// none), hardware_works whether it encoded; kbps the stream bitrate when known.
std::string stream_encoder_text(const std::string& hardware, bool hardware_works, std::optional<std::int32_t> kbps);

/// The quality levels a bitrate (kbps) carries at their full rate, for a person.
std::string quality_for(std::int32_t kbps);

} // namespace orbweave::check
