#include "media/output.hpp"

#include "core/log.hpp"
#include "media/c_boundary.hpp"
#include "media/direct_video.hpp"
#include "media/x11_window.hpp"

#include <algorithm>
#include <optional>
#include <tuple>

namespace orbweave::obs {

namespace {

// The share of the output's drop threshold that may wait to be sent before the stream
// counts as backed up (libobs's RTMP output drops frames once a threshold's worth waits).
constexpr float backlog_congestion = 0.1f;
// Likewise the share of a second at the target bitrate that may wait in the socket: the
// kernel's send buffer grows to megabytes, so a slow path fills it long before libobs's
// own queue, and libobs counts what it wrote there as sent.
constexpr int backlog_socket_share = 4; // a quarter of a second

/// What an encoder aims at, in kbps; 0 for none.
int encoder_bitrate(obs_encoder_t* encoder)
{
    if (!encoder)
        return 0;
    obs_data_t* settings = obs_encoder_get_settings(encoder);
    int bitrate = settings ? static_cast<int>(obs_data_get_int(settings, "bitrate")) : 0;
    obs_data_release(settings);
    return bitrate;
}

/// The growth of a counter that starts again from zero when libobs restarts it.
long long growth(long long now, long long before)
{
    return now >= before ? now - before : now;
}

} // namespace

output::output(stream_limits limits, capture_route route) : limits_(limits), route_(route)
{
}

output::~output()
{
    release();
}

void output::end(const std::string& reason)
{
    ended_.end(reason);
}

void output::report_end(const std::string& reason)
{
    log::line("media: the stream ends: " + reason);
    stopped_handler handler;
    {
        std::lock_guard<std::mutex> lock(handler_mutex_);
        handler = stopped_handler_;
    }
    if (handler)
        guarded("the stopped handler", [&] { handler(reason); });
}

void output::set_stopped_handler(stopped_handler handler)
{
    std::lock_guard<std::mutex> lock(handler_mutex_);
    stopped_handler_ = std::move(handler);
}

bool output::stop()
{
    return connection_ ? connection_->stop() : true;
}

bool output::start(const pipe::stream_order& order)
{
    using callback::source_type;
    error_.clear();
    if (started_) {
        error_ = "stream already started";
        return false;
    }
    source_type::type kind = entry_kind(order.source);
    bool fed = feeds_directly(route_, kind);
    bool prepared = !fed                             ? prepare_capture(order, kind)
                    : route_ == capture_route::portal ? prepare_capture(order, kind, true)
                                                      : prepare_feed(order);
    if (!prepared)
        return false;
    // Audio devices and cameras go to the software encoder from the first attempt.
    bool software = kind == source_type::audio || kind == source_type::video;
    if (attempt(order, kind, software))
        return true;
    log::line(software_fallback_line);
    std::string first_error = error_;
    if (attempt(order, kind, true))
        return true;
    if (error_.empty())
        error_ = first_error;
    return false;
}

bool output::prepare_capture(const pipe::stream_order& order, callback::source_type::type kind, bool direct)
{
    capture_ = std::make_unique<capture_source>(
        route_, limits_, [this](const std::string& reason) { end(reason); }, direct);
    bool opened = capture_->open(order.source, order.restore_token);
    rejected_ = capture_->rejected();
    restore_token_ = capture_->restore_token();
    if (!opened) {
        error_ = capture_->error();
        return false;
    }
    frame_size_ = stream_frame_size(order, capture_->size(), kind != callback::source_type::audio);
    if (capture_->feed()) {
        try {
            capture_->feed()->start(frame_size_);
        } catch (const std::exception& failure) {
            error_ = failure.what();
            return false;
        }
        return true;
    }
    if (!ensure_canvas(frame_size_)) {
        error_ = "cannot set up video at " + std::to_string(frame_size_.first) + "x" +
                 std::to_string(frame_size_.second);
        return false;
    }
    if (!capture_->create_after_canvas()) {
        error_ = capture_->error();
        return false;
    }
    return true;
}

bool output::prepare_feed(const pipe::stream_order& order)
{
    auto ended = [this](const std::string& reason) { end(reason); };
    try {
        if (const auto* window = std::get_if<window_entry>(&order.source)) {
            std::pair<int, int> size = x11_window_size(window->pid);
            if (size.first == 0 || size.second == 0) {
                error_ = "window not found";
                return false;
            }
            frame_size_ = stream_frame_size(order, size, true);
            window_ = std::make_unique<window_feed>(*window, frame_size_, ended);
            return true;
        }
        const auto& screen = std::get<screen_entry>(order.source);
        frame_size_ = stream_frame_size(order, {static_cast<int>(screen.width), static_cast<int>(screen.height)}, true);
        feed_ = std::make_unique<screen_feed>(screen, frame_size_, ended);
    } catch (const std::exception& failure) {
        error_ = failure.what();
        return false;
    }
    return true;
}

bool output::attempt(const pipe::stream_order& order, callback::source_type::type kind, bool software)
{
    error_.clear();
    // Frames past the canvas, and where they come from for the log.
    video_t* fed = nullptr;
    const char* fed_from = nullptr;
    if (feed_) {
        fed = feed_->video();
        fed_from = "grabbed straight from the X server";
    } else if (window_) {
        fed = window_->video();
        fed_from = "grabbed straight from the window's picture on the X server";
    } else if (capture_ && capture_->feed()) {
        fed = capture_->feed()->video();
        fed_from = "taken straight from the screen cast's PipeWire buffers";
    }
    std::optional<stream_parts> parts = assemble_stream(order, capture_ ? capture_->get() : nullptr, kind,
                                                        frame_size_, software, error_, fed, fed_from);
    if (!parts)
        return false;
    // Every way a stream ends unasked is told through end(), once.
    auto connection = std::make_unique<connection_supervisor>(
        limits_, [this](const std::string& reason) { end(reason); });
    if (!connection->connect(parts->output.get(), error_)) {
        clear_channel(parts->scene.get());
        return false;
    }
    parts_ = std::move(*parts);
    connection_ = std::move(connection);
    started_ = true;
    // A captured audio device is the follower's to keep (and make again) from here.
    source_handle held = capture_ && kind == callback::source_type::audio ? capture_->hand_over() : source_handle{};
    audio_ = std::make_unique<audio_follower>(parts_.scene.get(), std::move(held));
    connection_->watch();
    // Running: an end from now on is told, and one that came while it started is told now.
    ended_.on_end([this](const std::string& reason) { report_end(reason); });
    return true;
}

void output::report_health(std::function<void(const health_sample&)> report, std::chrono::milliseconds interval)
{
    if (!started_ || health_thread_.joinable())
        return;
    int target_kbps = encoder_bitrate(parts_.video_encoder.get()) + encoder_bitrate(parts_.audio_encoder.get());
    health_thread_ = std::thread([this, report = std::move(report), interval, target_kbps] {
        counters last = read_counters();
        auto since = std::chrono::steady_clock::now();
        std::unique_lock<std::mutex> lock(health_mutex_);
        while (!health_closing_changed_.wait_for(lock, interval, [this] { return health_closing_; })) {
            lock.unlock();
            auto now = std::chrono::steady_clock::now();
            auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(now - since);
            since = now;
            health_sample sample = measure(last, elapsed, target_kbps);
            // A stream that has ended has nothing more to report.
            if (!ended_.ended())
                report(sample);
            lock.lock();
        }
    });
}

output::counters output::read_counters()
{
    counters now;
    obs_output_t* sending = parts_.output.get();
    now.frames = obs_output_get_total_frames(sending);
    now.dropped = obs_output_get_frames_dropped(sending);
    // Sent is what the ingest acknowledged, not what libobs handed to the socket.
    if (connection_) {
        tcp_progress transfer = connection_->transfer();
        now.bytes = static_cast<long long>(transfer.acknowledged);
        now.unsent = static_cast<long long>(transfer.unsent);
    } else {
        now.bytes = static_cast<long long>(obs_output_get_total_bytes(sending));
    }
    // Before the encoder: the frames the canvas rendered late, or that a feed past it
    // (an X11 screen or window, a screen cast) had no picture for in time, and those the
    // encoder's video output skipped.
    bool fed = feed_ || window_ || (capture_ && capture_->feed());
    video_t* video = obs_encoder_video(parts_.video_encoder.get());
    now.lagged = (fed ? direct_feed_late_frames() : static_cast<long long>(obs_get_lagged_frames())) +
                 (video ? video_output_get_skipped_frames(video) : 0);
    return now;
}

health_sample output::measure(counters& last, std::chrono::milliseconds elapsed, int target_kbps)
{
    counters now = read_counters();
    health_sample sample;
    sample.milliseconds = static_cast<int>(std::clamp<long long>(elapsed.count(), 1, 60000));
    long long frames = growth(now.frames, last.frames);
    sample.dropped = static_cast<int>(growth(now.dropped, last.dropped));
    sample.sent = static_cast<int>(std::max(0LL, frames - sample.dropped));
    sample.lagged = static_cast<int>(growth(now.lagged, last.lagged));
    sample.bytes = static_cast<int>(std::min<long long>(growth(now.bytes, last.bytes), 1LL << 30));
    sample.target_kbps = target_kbps;
    last = now;
    if (connection_)
        std::tie(sample.connection, sample.attempt) = connection_->state();
    sample.backlog = sample.connection == connection_state::stalled ||
                     obs_output_get_congestion(parts_.output.get()) >= backlog_congestion ||
                     now.unsent * 8 > static_cast<long long>(target_kbps) * 1000 / backlog_socket_share;
    return sample;
}

void output::stop_health_reports()
{
    {
        std::lock_guard<std::mutex> lock(health_mutex_);
        health_closing_ = true;
    }
    health_closing_changed_.notify_all();
    if (health_thread_.joinable())
        health_thread_.join();
}

void output::release()
{
    // It reads the objects released below.
    stop_health_reports();
    // Stopping on purpose: a capture ending now is no news.
    ended_.silence();
    // Before the scene it remakes sources in goes.
    audio_.reset();
    if (connection_)
        connection_->end_watch();
    stop();
    // Destroyed, it no longer follows the output's signals.
    connection_.reset();
    parts_.release();
    // After the encoder that took its frames.
    feed_.reset();
    window_.reset();
    // The desktop stops casting once the capture is gone.
    capture_.reset();
}

} // namespace orbweave::obs
