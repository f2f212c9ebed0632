#pragma once

// Measures the upload path to the service once, to pick the stream bitrate:
// 1 MiB of random bytes is posted to the service's test endpoint, which answers
// how many bytes arrived and how long they took; streams get half that rate.

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace orbweave {

/// The bitrate (kbps) used when the probe cannot measure anything.
inline constexpr std::int32_t fallback_bitrate = 1250;

struct probe_options {
    /// A CA file trusted in addition to the system store ("" for none).
    std::string ca_file;
    std::chrono::milliseconds timeout{60000};
    std::size_t body_bytes = 1048576;
    /// Polled while the probe runs; true abandons it (the fallback is answered).
    std::function<bool()> cancelled;
};

/// "https://host:port/api/client/test" for the service at websocket_url; "" when it is not a wss URL.
std::string probe_url_for(const std::string& websocket_url);

/// Posts the probe and answers the recommended bitrate; fallback_bitrate on any failure.
std::int32_t recommended_bitrate(const std::string& websocket_url, const probe_options& options = {});

/// The bitrate for the service's answer: bytes x 8 / duration / 2 in 32-bit
/// signed arithmetic, truncating each division; fallback_bitrate when the
/// answer is not JSON or the duration is 0.
std::int32_t bitrate_from_answer(std::string_view body);

} // namespace orbweave
