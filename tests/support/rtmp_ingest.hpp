#pragma once

// A real RTMP ingest for tests: nginx with the RTMP module, started by the test
// on free loopback ports with a generated configuration in a private directory.
// It accepts any stream key under rtmp://127.0.0.1:PORT/live, records each
// publish to KEY.flv, and reports who is publishing on an HTTP status page.
// What arrived is checked with ffprobe / ffmpeg. Stopped (SIGKILL, on the test's
// death too) when the object goes away.

#include "core/obs/child_process.hpp"
#include "tests/support/processes.hpp"
#include "tests/support/temp_dir.hpp"

#include <array>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace orbweave::test {

/// One stream as ffprobe reports it.
struct probed_stream {
    std::string codec_type; ///< "video" or "audio"
    std::string codec_name; ///< "h264", "aac", ...
    int width = 0;
    int height = 0;
    double frame_rate = 0; ///< r_frame_rate as a number (video)
    int sample_rate = 0;   ///< audio
    int channels = 0;      ///< audio
};

/// What ffprobe found; error holds its complaint (or a time-out) when it found nothing.
struct probe_result {
    std::vector<probed_stream> streams;
    double duration = 0; ///< seconds, for a recording
    std::string error;

    /// The first stream of that type; nullptr when there is none.
    const probed_stream* first(const std::string& codec_type) const;
    const probed_stream* video() const { return first("video"); }
    const probed_stream* audio() const { return first("audio"); }
    /// The first stream of that type's codec; empty when there is none.
    std::string codec(const std::string& codec_type) const { return first(codec_type) ? first(codec_type)->codec_name : ""; }
    /// The video's width and height; 0x0 when there is no video.
    std::pair<int, int> video_size() const
    {
        return video() ? std::make_pair(video()->width, video()->height) : std::make_pair(0, 0);
    }
};

/// Parses `ffprobe -show_streams -show_format -of json` output.
probe_result parse_probe(const std::string& ffprobe_json);

/// A pixel's red, green and blue, 0 to 255 each.
using colour = std::array<int, 3>;
/// The colour at (x, y) of a 64x36 RGB frame (as the frames below come in colour); -1s
/// when there is no such frame.
colour colour_at(const std::vector<std::uint8_t>& frame, int x, int y);
/// Whether every channel of seen is within tolerance of expected's.
bool near(const colour& seen, const colour& expected, int tolerance);
/// "r,g,b", for a failure message.
std::string describe(const colour& seen);
/// A 64x36 RGB frame's colours on a 9x5 grid, row by row, for a failure message.
std::string describe(const std::vector<std::uint8_t>& frame);

/// A free TCP port on 127.0.0.1 at the time of asking.
int free_loopback_port();
/// A socket listening on 127.0.0.1 at a free port, which it puts in port; connections it
/// accepts start with receive_buffer bytes of buffer when that is not 0. Throws when it cannot.
int listen_on_loopback(int& port, int backlog, int receive_buffer = 0);
/// A socket connected to 127.0.0.1:port; -1 when nothing answers there.
int connect_loopback(int port);

/// An "ingest" on 127.0.0.1 that accepts connections (the kernel completes them) and
/// never says a word: a stream start to it hangs until the client gives up.
class silent_server {
public:
    silent_server();
    ~silent_server();
    silent_server(const silent_server&) = delete;
    silent_server& operator=(const silent_server&) = delete;

    /// "rtmp://127.0.0.1:PORT/live".
    std::string url() const;
    /// Whether a client has connected (and is waiting for an answer) by the deadline.
    bool wait_for_client(std::chrono::milliseconds timeout);

private:
    int listener_ = -1;
    int port_ = 0;
    std::vector<int> accepted_;
};

class rtmp_ingest {
public:
    /// Starts nginx and returns once both its RTMP and its HTTP port accept connections;
    /// throws std::runtime_error (with nginx's error log) when it does not come up.
    /// rtmp_port 0 picks a free one; a given port lets a test restart an ingest in place.
    explicit rtmp_ingest(int rtmp_port = 0);
    ~rtmp_ingest();
    rtmp_ingest(const rtmp_ingest&) = delete;
    rtmp_ingest& operator=(const rtmp_ingest&) = delete;

    /// "rtmp://127.0.0.1:PORT/live": the server of an activate request.
    std::string url() const;
    /// url() + "/" + key: where a player finds the stream.
    std::string stream_url(const std::string& key) const;
    int rtmp_port() const { return rtmp_port_; }
    int http_port() const { return http_port_; }

    /// The status page (XML), fetched over loopback HTTP; nullopt when it cannot be read.
    std::optional<std::string> statistics() const;
    /// The ingest's id of the connection publishing under key right now (nullopt when none
    /// does): a stream that reconnected has a new one.
    std::optional<std::string> publisher(const std::string& key) const;
    /// Whether someone publishes under key right now.
    bool publishing(const std::string& key) const;
    /// Polls the status page until key is published (true) or timeout passes (false).
    bool wait_for_publishing(const std::string& key, std::chrono::milliseconds timeout) const;
    /// Polls the status page until key is no longer published (true) or timeout passes (false).
    bool wait_until_not_publishing(const std::string& key, std::chrono::milliseconds timeout) const;

    /// ffprobe against the live stream; ffprobe is killed after timeout.
    probe_result probe_live(const std::string& key, std::chrono::milliseconds timeout) const;
    /// Where the publish of key is recorded.
    std::filesystem::path recording(const std::string& key) const;
    /// ffprobe against the recording of key (complete once the publish has ended).
    probe_result probe_recording(const std::string& key, std::chrono::milliseconds timeout = std::chrono::seconds(20)) const;
    /// One frame of the recording, at about `at` seconds, scaled to width x height, as 8-bit grey
    /// pixels (or RGB triplets when colour); empty when it cannot be decoded.
    std::vector<std::uint8_t> recording_frame(const std::string& key, double at, int width, int height,
                                              std::chrono::milliseconds timeout = std::chrono::seconds(20),
                                              bool colour = false) const;

    /// The recording's frame half a second before its end, 64x36 in colour; empty when it has none.
    std::vector<std::uint8_t> last_frame(const std::string& key) const;
    /// The first frame a player of the live stream gets (from the newest key frame on),
    /// scaled to width x height as RGB triplets; empty when none comes within timeout.
    std::vector<std::uint8_t> live_frame(const std::string& key, int width, int height,
                                         std::chrono::milliseconds timeout = std::chrono::seconds(15)) const;

    /// nginx's error log so far (for failure messages).
    std::string error_log() const;

private:
    temp_dir directory_;
    int rtmp_port_ = 0;
    int http_port_ = 0;
    std::unique_ptr<obs::child_process> process_;
};

class line_reader;

/// The loudness of a live stream's sound as it arrives at the ingest: ffmpeg plays the
/// stream and reports the RMS level of its decoded sound about every 100 ms, in dBFS
/// (-inf for digital silence). Stopped when the object goes away.
class live_loudness {
public:
    live_loudness(const rtmp_ingest& ingest, const std::string& key);
    ~live_loudness();
    live_loudness(const live_loudness&) = delete;
    live_loudness& operator=(const live_loudness&) = delete;

    /// Reads the levels in the order they arrived until `run` of them in a row are ones that
    /// accept takes (the last one is returned) or the timeout passes (nullopt). A level
    /// comes with every AAC frame, 43 a second.
    std::optional<double> wait_for(const std::function<bool(double)>& accept, std::chrono::milliseconds timeout,
                                   int run = 1);
    /// The first level of at least decibels from now on: sound is heard.
    std::optional<double> wait_for_sound(double decibels, std::chrono::milliseconds timeout);
    /// A second of levels below decibels from now on: silence, and a stream that goes on.
    std::optional<double> wait_for_silence(double decibels, std::chrono::milliseconds timeout);

private:
    std::unique_ptr<obs::child_process> process_;
    std::unique_ptr<line_reader> lines_;
};

} // namespace orbweave::test
