#pragma once

#include "core/activity_log.hpp"
#include "core/callback.hpp"
#include "core/encode_profile.hpp"
#include "core/obs/worker_manager.hpp"
#include "core/websocket/websocket_client.hpp"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace orbweave {

/// The service's client endpoint when none is given: the build setting
/// ORBWEAVE_SERVICE_URL, whose default names a host under the reserved .invalid
/// domain, so an unconfigured build contacts no one.
inline constexpr const char* default_service_url = ORBWEAVE_SERVICE_URL;

/// The media worker processes: the source catalogue's listing worker, and the stream
/// workers of the work manager.
struct media_options {
    /// For the listing worker.
    obs::worker::options listing;
    /// For each stream's worker; its canvas is set once, at the stream's size.
    obs::worker::options stream = obs::worker_manager::stream_worker_options();
    /// Where the portal's restore tokens are kept (per source id); "" keeps none.
    std::string restore_tokens;
    /// At most this many streams at once; 0 derives it from the machine (stream_limit_for).
    int max_streams = 0;
    /// Start the listing worker at once, and keep one stream worker started ahead of the
    /// next activation (the spare), so neither a first list nor an activation waits for a
    /// worker to start. The front ends turn it on.
    bool warm = false;
};

/// Timing of the link to the service. The defaults are the production values;
/// tests run the same code with delays of a few milliseconds.
struct client_options {
    websocket::client_options transport;
    /// Delay between a lost link and the next attempt.
    long reconnect_delay_ms = 5000;
    /// Interval of keep-alive pings on an open link.
    long keepalive_interval_ms = 5000;
    /// Reconnection attempts with streams active after which the streams are stopped.
    int stream_outage_attempts = 5;
    /// The media worker processes.
    media_options media;
    /// Where the history of what the service used is appended; null keeps none.
    std::shared_ptr<activity_log> activity;
};

/// The service connection as the front ends see it. start(), stop() and join()
/// may be called in any order and any number of times; stop(), join() and
/// start() again reconnects. Callbacks run on the client's network thread only,
/// with the client's recursive mutex held; the one exception is stop() (and
/// stop_streaming()) on a client that is not running, which reports on the caller's
/// thread since there is no network thread. A permission request may be answered
/// from any thread and returns at once; answers after stop() do nothing.
class orbweave_client {
public:
    using state_callback = std::function<void(callback::state_type::type)>;
    using secret_callback = std::function<std::string()>;
    using new_code_callback = std::function<void(std::string)>;
    using ready_callback = std::function<void(callback::msg::ready&)>;
    using permission_callback = std::function<void(callback::source_type::type, const std::string&,
                                                  const std::string&, callback::request_type::type,
                                                  const callback::request&)>;
    /// How the user treats a kind of source, asked for each activation before its source
    /// is looked up: a kind that is never allowed is answered "Rejected" whatever id the
    /// request names, so the answer tells the service nothing about what exists here.
    using rule_callback = std::function<callback::permission_rule::type(callback::source_type::type)>;
    using reset_callback = std::function<void()>;
    using profile_callback = std::function<encode_profile()>;
    using streams_callback = std::function<void(const std::vector<callback::active_stream>&)>;
    using activity_callback = std::function<void(const activity_event&)>;
    using health_callback = std::function<void(const callback::active_stream&, const obs::health_summary&)>;

    /// A client for the service at url; nothing connects until start().
    static std::unique_ptr<orbweave_client> create(const std::string& url);
    static std::unique_ptr<orbweave_client> create(const std::string& url, client_options options);

    virtual ~orbweave_client() = default;
    /// Registers the handlers and connects on a new network thread.
    virtual void start() = 0;
    /// Stops every stream and the network loop, and reports `disconnected`; returns
    /// without waiting (join() waits).
    virtual void stop() = 0;
    /// Stops every stream and reports `connected`; the link stays up. Returns at once.
    virtual void stop_streaming() = 0;
    /// Waits for the network thread to end and for every media worker to be gone (after stop()).
    virtual void join() = 0;

    virtual void set_state_change_handler(state_callback handler) = 0;
    virtual void set_secret_handler(secret_callback handler) = 0;
    virtual void set_new_code_handler(new_code_callback handler) = 0;
    virtual void set_ready_handler(ready_callback handler) = 0;
    virtual void set_permission_handler(permission_callback handler) = 0;
    /// Without one, every kind goes to the permission handler.
    virtual void set_rule_handler(rule_callback handler) = 0;
    virtual void set_reset_handler(reset_callback handler) = 0;
    virtual void set_profile_handler(profile_callback handler) = 0;
    /// Told the running streams, oldest first, whenever they change.
    virtual void set_streams_handler(streams_callback handler) = 0;
    /// Told each event of the history as it is recorded (in the file too, when
    /// client_options::activity names one).
    virtual void set_activity_handler(activity_callback handler) = 0;
    /// Told a running stream's health each time its worker measures it (about once a
    /// second): its level from the last 10 s and what that is made of. Never sent anywhere.
    virtual void set_health_handler(health_callback handler) = 0;

    /// Forgets the desktop's screen-cast consent (every restore token), so the desktop's
    /// picker asks again for each screen or window; a start under way does not bring its
    /// token back. Any thread, running or not; returns at once.
    virtual void forget_consent() = 0;
};

} // namespace orbweave
