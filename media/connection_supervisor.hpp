#pragma once

// The RTMP connection of one stream attempt, from the output's start to its stop: the
// connect wait, with the socket made quick while it connects (media/tcp_sockets.hpp),
// then a watchdog that shuts a connection the ingest stopped taking from down, and ends
// a stream whose ingest stays gone for longer than the outage limit.

#include "core/end_notice.hpp"
#include "core/obs/media_limits.hpp"
#include "core/obs/stream_health.hpp"
#include "media/tcp_sockets.hpp"

#include <obs.h>

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace orbweave::obs {

class connection_supervisor {
public:
    /// Called once, on whichever thread noticed it first (libobs's or the watchdog's), when
    /// a connected stream ends without being asked to.
    using ended_handler = std::function<void(const std::string& reason)>;

    /// Applies the output's start and stop bounds, the outage limit and the send stall limit of limits.
    connection_supervisor(const stream_limits& limits, ended_handler on_ended);
    /// Stops the watchdog and stops following the output's signals; does not stop it.
    ~connection_supervisor();

    connection_supervisor(const connection_supervisor&) = delete;
    connection_supervisor& operator=(const connection_supervisor&) = delete;

    /// Starts output and waits, at most the output start limit, until it is active (connected
    /// to the ingest and sending). False with error set otherwise; the output is then no
    /// longer followed.
    bool connect(obs_output_t* output, std::string& error);

    /// Starts the watchdog over the connected output.
    void watch();
    /// Ends the watchdog, waiting for its thread.
    void end_watch();

    /// Stops the output; false when it did not report stopping within the output stop limit
    /// and its connection was shut down.
    bool stop();

    /// Stops following the output's signals: after this no callback of it runs any more.
    void stop_following();

    /// How the connection stands: connected, reconnecting (with the attempt under way), or
    /// stalled (the watchdog's last look found data waiting and nothing taken since the one
    /// before). Any thread.
    std::pair<connection_state, int> state();
    /// What the ingest has taken of the stream's connection, and what still waits in it,
    /// as the kernel sees its socket. Any thread.
    tcp_progress transfer() const;

private:
    using clock = std::chrono::steady_clock;
    struct send_progress;

    /// What one of the output's signals other than "stop" says of the connection.
    enum class signal_change { activated, reconnecting, reconnected };

    /// The output's signal that brings change: records it and wakes the waits.
    template <signal_change change>
    static void on_change(void* data, calldata_t* params) noexcept;
    static void on_stop(void* data, calldata_t* params) noexcept;
    /// "the rtmp output's activate signal" and the like, for the log.
    static const char* signal_text(signal_change change);
    /// Records change under the lock.
    void note_change(signal_change change);
    /// Connects the output's signals to this object.
    void start_following();
    struct followed_signal {
        const char* name;
        signal_callback_t callback;
    };
    static const followed_signal followed_signals[4];
    /// Records a "stop"; why the stream ended when nobody asked it to, "" otherwise.
    std::string note_stop(calldata_t* params);

    /// Looks at the socket until the output activates or stops, at most until until.
    bool wait_until_decided(std::unique_lock<std::mutex>& lock, clock::time_point since, clock::time_point until);
    /// Shuts a connection still connecting down so the output can be released promptly.
    void abandon_connecting(std::unique_lock<std::mutex>& lock);

    /// The watchdog's thread.
    void watch_outage();
    /// Shuts the connection down when the ingest has taken nothing for the send stall limit.
    void check_progress(send_progress& progress, clock::time_point now);
    /// Ends the stream whose ingest did not come back.
    void give_up(std::unique_lock<std::mutex>& lock);

    const stream_limits limits_;
    // Both the "stop" signal and the watchdog giving up report an ingest gone for good.
    end_notice ended_;
    obs_output_t* output_ = nullptr;
    bool following_ = false;
    // The process's TCP sockets before the output started: any other is the stream's.
    std::vector<ino_t> sockets_before_;
    std::thread watchdog_;

    std::mutex mutex_;
    std::condition_variable changed_;
    bool activated_ = false;
    bool stopped_ = false;
    bool stop_requested_ = false;
    // Since when libobs has been reconnecting (none while connected).
    std::optional<clock::time_point> reconnecting_since_;
    // The reconnection attempts since the connection dropped (libobs signals each one).
    int reconnect_attempts_ = 0;
    // Written by the watchdog without the lock held.
    std::atomic<bool> stalled_{false};
    bool watchdog_closing_ = false;
    std::string gave_up_; // why the watchdog ended the stream
    long long code_ = 0;
    std::string last_error_;
};

} // namespace orbweave::obs
