#pragma once

#include "core/app_callbacks.hpp"
#include "core/network_loop.hpp"
#include "core/obs/restore_tokens.hpp"
#include "core/obs/source_catalogue.hpp"
#include "core/obs/worker_manager.hpp"
#include "core/orbweave_client.hpp"
#include "core/websocket/connection.hpp"
#include "core/websocket/websocket_client.hpp"

#include <boost/asio/io_service.hpp>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace orbweave {

/// The one implementation of orbweave_client. The protocol handlers reach the
/// application through it as app_callbacks, and the source catalogue, the work manager
/// and the restore tokens directly.
///
/// Threads: every handler, timer and application callback runs on the network
/// thread. Other threads (the application's, the work manager's, the worker pipe
/// readers) reach it only by posting to the run's network_loop, which stop()
/// closes, so nothing they send arrives after stop(). The client's mutex guards the
/// callbacks and is held while each one runs; start(), stop() and join() never take it.
class orbweave_client_impl final : public orbweave_client, private app_callbacks {
public:
    orbweave_client_impl(std::string url, client_options options);
    ~orbweave_client_impl() override;

    void start() override;
    void stop() override;
    void stop_streaming() override;
    void join() override;

    void set_state_change_handler(state_callback handler) override;
    void set_secret_handler(secret_callback handler) override;
    void set_new_code_handler(new_code_callback handler) override;
    void set_ready_handler(ready_callback handler) override;
    void set_permission_handler(permission_callback handler) override;
    void set_rule_handler(rule_callback handler) override;
    void set_reset_handler(reset_callback handler) override;
    void set_profile_handler(profile_callback handler) override;
    void set_streams_handler(streams_callback handler) override;
    void set_activity_handler(activity_callback handler) override;
    void set_health_handler(health_callback handler) override;
    void forget_consent() override;

    /// Hands frame to the handlers on the network thread as if it had come over from,
    /// after everything posted before it; false when the client is not running. With an
    /// in-memory connection this drives the whole client without a service (fuzzing).
    bool deliver(std::string frame, websocket::connection from);

private:
    // app_callbacks: each takes the client's mutex.
    void state_changed(callback::state_type::type state) override;
    void streams_gone() override;
    std::string secret() override;
    void new_code(std::string& code) override;
    void ready(callback::msg::ready& ready) override;
    void reset() override;
    encode_profile profile() override;
    callback::permission_rule::type rule(callback::source_type::type kind) override;
    void ask_permission(callback::source_type::type kind, const std::string& name, const std::string& description,
                        callback::request_type::type request,
                        std::function<void(bool allowed, const char* decided)> on_answer) override;
    activity_recorder& activity() override { return activity_; }
    void activity_recorded(const activity_event& event);
    void streams_changed(const std::vector<callback::active_stream>& streams);
    void health_changed(const callback::active_stream& stream, const obs::health_summary& health);

    /// Schedules the next connection attempt after a lost link.
    void reconnect();
    /// What an opened link does to the reconnection state: counter to 0, timer cancelled.
    void reset_reconnection();
    void initialize();
    void start_thread();
    /// Whether stop() has been called for this run.
    bool stop_requested();
    /// Runs on the network thread as the last task of a run.
    void finish_run();
    /// Drops what a run used, once its thread has ended: streams stop, sockets close.
    void release_run();
    template <class Callback>
    void replace_callback(Callback& field, Callback handler);
    void on_fail();
    /// The loop of the current run (null before the first start()).
    std::shared_ptr<network_loop> current_loop();

    const std::string url_;
    const client_options options_;
    std::recursive_mutex mutex_;
    /// The last state reported other than streaming (guarded by mutex_).
    callback::state_type::type link_state_ = callback::state_type::disconnected;
    bool running_ = false;
    std::atomic<std::int32_t> disconnection_counter_{0};
    std::unique_ptr<boost::asio::io_service> io_service_;
    // Keeps the loop running between events until finish_run().
    std::unique_ptr<boost::asio::io_service::work> keep_running_;
    std::shared_ptr<network_loop> loop_;
    std::thread thread_;

    state_callback state_change_handler_;
    secret_callback secret_handler_;
    new_code_callback new_code_handler_;
    ready_callback ready_handler_;
    reset_callback reset_handler_;
    permission_callback permission_handler_;
    rule_callback rule_handler_;
    profile_callback profile_handler_;
    streams_callback streams_handler_;
    activity_callback activity_handler_;
    health_callback health_handler_;
    // After the handlers: it calls activity_recorded().
    activity_recorder activity_;

    std::unique_ptr<websocket::websocket_client> websocket_client_;
    websocket::timer_ptr reconnect_timer_;
    // One each per run, made in initialize(). The tokens outlive the work manager, whose
    // stream threads use them.
    std::unique_ptr<obs::restore_tokens> restore_tokens_;
    std::unique_ptr<obs::source_catalogue> catalogue_;
    std::unique_ptr<obs::worker_manager> work_manager_;

    // Serialises start(), stop() and join(); they take no other lock of the client.
    std::mutex lifecycle_mutex_;
    std::condition_variable thread_finished_cv_;
    bool thread_finished_ = true;
    bool stopped_ = false;
};

} // namespace orbweave
