#include "media/connection_supervisor.hpp"

#include "core/log.hpp"
#include "media/c_boundary.hpp"
#include "media/tcp_sockets.hpp"

#include <algorithm>
#include <utility>

namespace orbweave::obs {

namespace {

using namespace std::chrono_literals;

// How often the socket of a stream that is connecting is looked at: every millisecond
// for the first connecting_quick_looks, then every connecting_slow_look_interval.
constexpr auto connecting_look_interval = 1ms;
constexpr auto connecting_quick_looks = 200ms;
constexpr auto connecting_slow_look_interval = 10ms;

const char* output_code_text(long long code)
{
    switch (code) {
    case OBS_OUTPUT_SUCCESS: return "stopped";
    case OBS_OUTPUT_BAD_PATH: return "bad server address";
    case OBS_OUTPUT_CONNECT_FAILED: return "connect failed";
    case OBS_OUTPUT_INVALID_STREAM: return "stream rejected";
    case OBS_OUTPUT_DISCONNECTED: return "disconnected";
    case OBS_OUTPUT_UNSUPPORTED: return "unsupported";
    case OBS_OUTPUT_NO_SPACE: return "no space";
    case OBS_OUTPUT_ENCODE_ERROR: return "encoder failed";
    default: return "failed";
    }
}

/// "rtmp connect failed: <what libobs said>" and the like.
std::string describe_stop(long long code, const std::string& last_error)
{
    std::string text = std::string("rtmp ") + output_code_text(code);
    if (!last_error.empty())
        text += ": " + last_error;
    return text;
}

} // namespace

struct connection_supervisor::send_progress {
    // What the ingest had acknowledged when last looked at, and when it last took more.
    tcp_progress taken;
    clock::time_point progressed = clock::now();
};

connection_supervisor::connection_supervisor(const stream_limits& limits, ended_handler on_ended)
    : limits_(limits), ended_(std::move(on_ended))
{
}

connection_supervisor::~connection_supervisor()
{
    end_watch();
    stop_following();
}

template <connection_supervisor::signal_change change>
void connection_supervisor::on_change(void* data, calldata_t*) noexcept
{
    auto* self = static_cast<connection_supervisor*>(data);
    guarded(signal_text(change), [self] { self->note_change(change); });
    self->changed_.notify_all();
}

const connection_supervisor::followed_signal connection_supervisor::followed_signals[] = {
    {"activate", &on_change<signal_change::activated>},
    {"stop", &on_stop},
    {"reconnect", &on_change<signal_change::reconnecting>},
    {"reconnect_success", &on_change<signal_change::reconnected>},
};

void connection_supervisor::start_following()
{
    signal_handler_t* handler = obs_output_get_signal_handler(output_);
    for (const auto& [name, callback] : followed_signals)
        signal_handler_connect(handler, name, callback, this);
    following_ = true;
}

void connection_supervisor::stop_following()
{
    if (!following_)
        return;
    // libobs holds the signal handler's lock while calling, so no callback outlasts this.
    signal_handler_t* handler = obs_output_get_signal_handler(output_);
    for (const auto& [name, callback] : followed_signals)
        signal_handler_disconnect(handler, name, callback, this);
    following_ = false;
}

const char* connection_supervisor::signal_text(signal_change change)
{
    switch (change) {
    case signal_change::activated: return "the rtmp output's activate signal";
    case signal_change::reconnecting: return "the rtmp output's reconnect signal";
    case signal_change::reconnected: return "the rtmp output's reconnect_success signal";
    }
    return "the rtmp output's signal";
}

void connection_supervisor::note_change(signal_change change)
{
    std::lock_guard<std::mutex> lock(mutex_);
    switch (change) {
    case signal_change::activated:
        activated_ = true;
        break;
    case signal_change::reconnecting:
        if (!reconnecting_since_)
            reconnecting_since_ = clock::now();
        ++reconnect_attempts_;
        stalled_ = false;
        break;
    case signal_change::reconnected:
        reconnecting_since_.reset();
        reconnect_attempts_ = 0;
        break;
    }
}

void connection_supervisor::on_stop(void* data, calldata_t* params) noexcept
{
    auto* self = static_cast<connection_supervisor*>(data);
    std::string ended = guarded("the rtmp output's stop signal", [&] { return self->note_stop(params); });
    self->changed_.notify_all();
    if (!ended.empty())
        guarded("the stopped handler", [&] { self->ended_.end(ended); });
}

std::string connection_supervisor::note_stop(calldata_t* params)
{
    std::lock_guard<std::mutex> lock(mutex_);
    stopped_ = true;
    code_ = calldata_int(params, "code");
    const char* error = calldata_string(params, "last_error");
    last_error_ = error ? error : "";
    // A stream that was sending and stops without being asked to.
    if (!activated_ || stop_requested_)
        return {};
    return gave_up_.empty() ? describe_stop(code_, last_error_) : gave_up_;
}

bool connection_supervisor::connect(obs_output_t* output, std::string& error)
{
    output_ = output;
    start_following();
    sockets_before_ = tcp_socket_inodes();
    bool active = false;
    if (!obs_output_start(output)) {
        const char* last = obs_output_get_last_error(output);
        error = std::string("rtmp output did not start") + (last && *last ? std::string(": ") + last : "");
    } else {
        // Started only means connecting: the stream runs once the output activates
        // (connected and sending); a refused connection arrives as "stop".
        auto since = clock::now();
        std::unique_lock<std::mutex> lock(mutex_);
        bool decided = wait_until_decided(lock, since, since + limits_.output_start);
        active = decided && !stopped_;
        if (stopped_)
            error = describe_stop(code_, last_error_);
        else if (!decided)
            error = "rtmp connect timed out";
        if (!decided)
            abandon_connecting(lock);
    }
    if (!active)
        stop_following();
    return active;
}

bool connection_supervisor::wait_until_decided(std::unique_lock<std::mutex>& lock, clock::time_point since,
                                               clock::time_point until)
{
    auto decided_now = [this] { return activated_ || stopped_; };
    // While the output connects, its socket sends each write at once and acknowledges
    // each read at once: the handshake and the publish commands are short messages in
    // a row, and coalescing on either side holds each for the other side's delayed
    // acknowledgement (40 ms on Linux, several times over with nginx-rtmp). The socket
    // appears only once libobs's RTMP library has loaded the system's certificates, so
    // it is looked for; and the kernel drops quick acknowledgement by itself, so it is
    // asked for again on every look.
    std::vector<int> connection;
    while (!decided_now() && clock::now() < until) {
        lock.unlock();
        if (connection.empty()) {
            connection = tcp_descriptors_since(sockets_before_);
            send_without_delay(connection);
        }
        acknowledge_at_once(connection);
        lock.lock();
        // A connection that takes longer is slow on the network's side, where looking
        // less often costs no more than the path's own round trips.
        bool early = clock::now() - since < connecting_quick_looks;
        changed_.wait_for(lock, early ? connecting_look_interval : connecting_slow_look_interval, decided_now);
    }
    return changed_.wait_until(lock, until, decided_now);
}

void connection_supervisor::abandon_connecting(std::unique_lock<std::mutex>& lock)
{
    lock.unlock();
    interrupt_connections_since(sockets_before_);
    lock.lock();
    if (!changed_.wait_for(lock, limits::connection_release, [this] { return stopped_; }))
        log::line("media: the rtmp output is still connecting; releasing it may take a while");
}

bool connection_supervisor::stop()
{
    if (!output_)
        return true;
    bool stopped = true;
    if (obs_output_active(output_) || obs_output_reconnecting(output_)) {
        std::unique_lock<std::mutex> lock(mutex_);
        stop_requested_ = true;
        stopped_ = false;
        lock.unlock();
        obs_output_stop(output_);
        lock.lock();
        stopped = changed_.wait_for(lock, limits_.output_stop, [this] { return stopped_; });
        lock.unlock();
        if (!stopped) {
            // A server that stopped reading holds the send thread in a full socket.
            log::line("media: the stream did not stop in time; closing its connection");
            interrupt_connections_since(sockets_before_);
            lock.lock();
            changed_.wait_for(lock, limits::connection_release, [this] { return stopped_; });
        }
    }
    return stopped;
}

std::pair<connection_state, int> connection_supervisor::state()
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (reconnecting_since_)
        return {connection_state::reconnecting, std::max(reconnect_attempts_, 1)};
    return {stalled_ ? connection_state::stalled : connection_state::connected, 0};
}

tcp_progress connection_supervisor::transfer() const
{
    return tcp_progress_since(sockets_before_);
}

void connection_supervisor::watch()
{
    watchdog_ = std::thread([this] { watch_outage(); });
}

void connection_supervisor::end_watch()
{
    if (!watchdog_.joinable())
        return;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        watchdog_closing_ = true;
    }
    changed_.notify_all();
    watchdog_.join();
}

void connection_supervisor::watch_outage()
{
    send_progress progress;
    auto check_interval = std::clamp<std::chrono::milliseconds>(limits_.send_stall / 4, 10ms, 1000ms);
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        if (watchdog_closing_ || stopped_)
            return;
        auto now = clock::now();
        if (!reconnecting_since_) {
            lock.unlock();
            check_progress(progress, now);
            lock.lock();
            changed_.wait_for(lock, check_interval);
            continue;
        }
        progress.progressed = now; // a new connection starts its own count
        auto until = *reconnecting_since_ + limits_.ingest_outage;
        if (now >= until)
            break;
        changed_.wait_until(lock, until);
    }
    give_up(lock);
}

void connection_supervisor::check_progress(send_progress& progress, clock::time_point now)
{
    // Connected. A path that takes nothing while data waits has stalled: libobs
    // would block in its send for as long as the socket stays open.
    tcp_progress seen = tcp_progress_since(sockets_before_);
    tcp_progress& taken = progress.taken;
    if (!seen.waiting || seen.sockets != taken.sockets || seen.acknowledged != taken.acknowledged) {
        if (seen.sockets != taken.sockets) // connected again on a new socket, or the first look
            send_without_delay(tcp_descriptors_since(sockets_before_));
        taken = std::move(seen);
        progress.progressed = now;
        stalled_ = false;
        return;
    }
    stalled_ = true;
    if (now - progress.progressed >= limits_.send_stall) {
        log::line("media: the ingest took nothing for " + std::to_string(limits_.send_stall.count()) +
                  " ms; closing the connection to reconnect");
        interrupt_connections_since(sockets_before_);
        progress.progressed = now;
    }
}

void connection_supervisor::give_up(std::unique_lock<std::mutex>& lock)
{
    gave_up_ = "rtmp disconnected: the ingest did not come back within " + std::to_string(limits_.ingest_outage.count()) +
               " ms";
    lock.unlock();
    log::line("media: ", gave_up_);
    // A reconnection attempt may hang in a connection that takes bytes and never answers;
    // it is of no use any more, and stopping the output would wait for it.
    interrupt_connections_since(sockets_before_);
    // Not a stop we were asked for: the "stop" signal reports it as the stream's end, and
    // so do we, since libobs sends none for an output between attempts; the first counts.
    obs_output_force_stop(output_);
    lock.lock();
    bool asked = stop_requested_;
    lock.unlock();
    if (!asked)
        ended_.end(gave_up_);
}

} // namespace orbweave::obs
