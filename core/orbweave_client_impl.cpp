#include "core/orbweave_client_impl.hpp"

#include "core/identify_handler.hpp"
#include "core/log.hpp"
#include "core/obs/stream_handlers.hpp"
#include "core/open_handler.hpp"
#include "core/pairing_handlers.hpp"

namespace orbweave {

using callback::state_type;
using lock_guard = std::lock_guard<std::recursive_mutex>;

std::unique_ptr<orbweave_client> orbweave_client::create(const std::string& url)
{
    return create(url, client_options{});
}

std::unique_ptr<orbweave_client> orbweave_client::create(const std::string& url, client_options options)
{
    return std::make_unique<orbweave_client_impl>(url, std::move(options));
}

orbweave_client_impl::orbweave_client_impl(std::string url, client_options options)
    : url_(std::move(url)), options_(std::move(options)),
      activity_(options_.activity, [this](const activity_event& event) { activity_recorded(event); })
{
}

orbweave_client_impl::~orbweave_client_impl()
{
    // A client dropped while running must not leave a thread behind (or end the process).
    std::unique_lock<std::mutex> lifecycle(lifecycle_mutex_);
    bool has_thread = thread_.joinable();
    lifecycle.unlock();
    if (has_thread) {
        stop();
        join();
    }
}

void orbweave_client_impl::initialize()
{
    io_service_ = std::make_unique<boost::asio::io_service>();
    keep_running_ = std::make_unique<boost::asio::io_service::work>(*io_service_);
    loop_ = std::make_shared<network_loop>(*io_service_);
    websocket_client_ = std::make_unique<websocket::websocket_client>(options_.transport);
    auto post = [loop = loop_](std::function<void()> task) { loop->post(std::move(task)); };
    restore_tokens_ = std::make_unique<obs::restore_tokens>(options_.media.restore_tokens);
    // Both start their workers now when warm, side by side: the service lists right
    // after connecting and activates soon after.
    catalogue_ = std::make_unique<obs::source_catalogue>(post, options_.media.listing, options_.media.warm);
    obs::worker_manager::options streams;
    streams.stream = options_.media.stream;
    streams.max_streams = options_.media.max_streams;
    streams.keep_spare = options_.media.warm;
    work_manager_ = std::make_unique<obs::worker_manager>(post, *restore_tokens_, streams);
    work_manager_->set_stream_ended_handler([this](const std::string& id, const std::string& reason, bool now_empty) {
        log::line("The stream of source " + id + " ended: " + reason);
        activity_.stopped(id, "ended", reason);
        if (now_empty)
            streams_gone();
    });
    work_manager_->set_streams_handler(
        [this](const std::vector<callback::active_stream>& streams) { streams_changed(streams); });
    work_manager_->set_health_handler([this](const callback::active_stream& stream, const obs::health_summary& health) {
        health_changed(stream, health);
    });
    disconnection_counter_ = 0;

    // Every message the client serves, in one place, each handler given what it uses.
    auto& transport = *websocket_client_;
    app_callbacks& app = *this;
    obs::source_catalogue& catalogue = *catalogue_;
    obs::worker_manager& media = *work_manager_;
    obs::restore_tokens& consent = *restore_tokens_;
    transport.register_message_handler(std::make_unique<obs::activate_handler>(catalogue, media, app));
    transport.register_message_handler(std::make_unique<code_handler>(app));
    transport.register_message_handler(std::make_unique<obs::deactivate_handler>(media, app));
    transport.register_message_handler(std::make_unique<identify_handler>());
    transport.register_message_handler(std::make_unique<obs::list_handler>(catalogue, media, app));
    transport.register_message_handler(std::make_unique<open_handler>(
        app, transport, options_.keepalive_interval_ms, [this] { reset_reconnection(); }));
    transport.register_message_handler(std::make_unique<ready_handler>(app, media, consent));
    transport.register_message_handler(std::make_unique<reset_handler>(app, media, consent));
    transport.register_message_handler(
        websocket::lambda_message_handler::create("fail", [this](const websocket::connection&, const Json&) {
            on_fail();
        }));
}

void orbweave_client_impl::start()
{
    std::unique_lock<std::mutex> lifecycle(lifecycle_mutex_);
    if (thread_.joinable()) {
        if (thread_.get_id() == std::this_thread::get_id()) {
            log::line("The client cannot be restarted from its own network thread");
            return;
        }
        if (!stopped_)
            return; // already running
        // The previous loop was stopped; let its thread end before its objects go.
        thread_finished_cv_.wait(lifecycle, [this] { return thread_finished_; });
        thread_.join();
    }
    release_run();
    initialize();
    websocket_client_->start(io_service_.get(), url_);
    thread_finished_ = false;
    stopped_ = false;
    try {
        thread_ = std::thread(&orbweave_client_impl::start_thread, this);
    } catch (...) {
        thread_finished_ = true;
        loop_->close();
        throw;
    }
    running_ = true;
}

void orbweave_client_impl::start_thread()
{
    for (;;) {
        try {
            io_service_->run();
            break;
        } catch (const websocketpp::exception& error) {
            auto code = error.code();
            bool expected = code == websocketpp::error::make_error_code(websocketpp::error::bad_connection) ||
                            code == websocketpp::error::make_error_code(websocketpp::error::invalid_state);
            if (!expected)
                log::line("Transport error on the network thread: ", error.what());
        } catch (const std::exception& error) {
            log::line("Unexpected error on the network thread: ", error.what());
        } catch (...) {
            log::line("Unexpected error on the network thread");
        }
        // A stop asked for meanwhile ends the run here: its last task may be the one that
        // threw, and the loop would otherwise wait for work that never comes.
        if (stop_requested()) {
            io_service_->stop();
            break;
        }
        // Whatever went wrong, the link is treated as lost and tried again.
        try {
            state_changed(state_type::disconnected);
            reconnect();
        } catch (...) {
            log::line("The network thread could not schedule a reconnection");
        }
    }

    std::lock_guard<std::mutex> lifecycle(lifecycle_mutex_);
    thread_finished_ = true;
    thread_finished_cv_.notify_all();
}

bool orbweave_client_impl::stop_requested()
{
    std::lock_guard<std::mutex> lifecycle(lifecycle_mutex_);
    return stopped_;
}

void orbweave_client_impl::stop()
{
    std::unique_lock<std::mutex> lifecycle(lifecycle_mutex_);
    if (!running_) {
        // Never started: there is no network thread to report on.
        lifecycle.unlock();
        state_changed(state_type::disconnected);
        return;
    }
    if (stopped_)
        return;
    stopped_ = true;
    // Answers and reports from other threads are dropped from here on.
    loop_->close();
    io_service_->post([this] { finish_run(); });
}

void orbweave_client_impl::finish_run()
{
    work_manager_->clear();
    activity_.stopped_all("ended", activity_recorder::app_stopped);
    state_changed(state_type::disconnected);
    websocket_client_->stop();
    keep_running_.reset();
    io_service_->stop();
}

void orbweave_client_impl::join()
{
    std::unique_lock<std::mutex> lifecycle(lifecycle_mutex_);
    if (!thread_.joinable() || thread_.get_id() == std::this_thread::get_id())
        return;
    // Wait without holding any lock the network thread or stop() may need.
    thread_finished_cv_.wait(lifecycle, [this] { return thread_finished_; });
    thread_.join();
    release_run();
}

void orbweave_client_impl::release_run()
{
    // The streams and the listing worker stop first (the workers shut down in parallel,
    // each bounded); then dropping the transport closes its sockets, so the service sees
    // this machine leave now rather than at the next start().
    if (catalogue_)
        catalogue_->close();
    work_manager_.reset();
    catalogue_.reset();
    reconnect_timer_.reset();
    websocket_client_.reset();
    restore_tokens_.reset(); // after the handlers that use it
    loop_.reset();
    keep_running_.reset();
    io_service_.reset();
}

std::shared_ptr<network_loop> orbweave_client_impl::current_loop()
{
    std::lock_guard<std::mutex> lifecycle(lifecycle_mutex_);
    return loop_;
}

void orbweave_client_impl::stop_streaming()
{
    std::shared_ptr<network_loop> loop = current_loop();
    bool posted = loop && loop->post([this] {
        work_manager_->clear();
        activity_.stopped_all("deactivate", "stopped from this computer", "user");
        streams_gone();
    });
    if (!posted) // not running: nothing streams, and there is no network thread to report on
        streams_gone();
}

bool orbweave_client_impl::deliver(std::string frame, websocket::connection from)
{
    std::shared_ptr<network_loop> loop = current_loop();
    return loop && loop->post([this, frame = std::move(frame), from = std::move(from)] {
        websocket_client_->receive(from, frame);
    });
}

void orbweave_client_impl::on_fail()
{
    state_changed(state_type::disconnected);
    reconnect();
}

void orbweave_client_impl::reconnect()
{
    if (!work_manager_->is_empty()) {
        std::int32_t attempts = disconnection_counter_++;
        if (attempts >= options_.stream_outage_attempts) {
            // The outage has lasted this long when the attempt limit is reached.
            long lasted_ms = static_cast<long>(options_.stream_outage_attempts - 1) * options_.reconnect_delay_ms;
            log::line("Stopping all current streams due to disconnection lasting " + std::to_string(lasted_ms) + "ms");
            disconnection_counter_ = 0;
            work_manager_->clear();
            activity_.stopped_all("ended", "the link to the service was lost");
        }
    }

    lock_guard lock(mutex_);
    if (reconnect_timer_) {
        reconnect_timer_->cancel();
        reconnect_timer_.reset();
    }
    reconnect_timer_ = websocket_client_->add_timer(options_.reconnect_delay_ms, [this](const std::error_code& ec) {
        if (ec)
            return;
        log::line("Lost connection; Reconnecting in " + std::to_string(options_.reconnect_delay_ms) + "ms");
        websocket_client_->restart(url_);
    });
}

void orbweave_client_impl::reset_reconnection()
{
    disconnection_counter_ = 0;
    lock_guard lock(mutex_);
    if (reconnect_timer_) {
        reconnect_timer_->cancel();
        reconnect_timer_.reset();
    }
}

template <class Callback>
void orbweave_client_impl::replace_callback(Callback& field, Callback handler)
{
    lock_guard lock(mutex_);
    field = std::move(handler);
}

void orbweave_client_impl::set_state_change_handler(state_callback handler)
{
    replace_callback(state_change_handler_, std::move(handler));
}

void orbweave_client_impl::set_streams_handler(streams_callback handler)
{
    replace_callback(streams_handler_, std::move(handler));
}

void orbweave_client_impl::set_secret_handler(secret_callback handler)
{
    replace_callback(secret_handler_, std::move(handler));
}

void orbweave_client_impl::set_new_code_handler(new_code_callback handler)
{
    replace_callback(new_code_handler_, std::move(handler));
}

void orbweave_client_impl::set_ready_handler(ready_callback handler)
{
    replace_callback(ready_handler_, std::move(handler));
}

void orbweave_client_impl::set_permission_handler(permission_callback handler)
{
    replace_callback(permission_handler_, std::move(handler));
}

void orbweave_client_impl::set_rule_handler(rule_callback handler)
{
    replace_callback(rule_handler_, std::move(handler));
}

void orbweave_client_impl::set_reset_handler(reset_callback handler)
{
    replace_callback(reset_handler_, std::move(handler));
}

void orbweave_client_impl::set_profile_handler(profile_callback handler)
{
    replace_callback(profile_handler_, std::move(handler));
}

void orbweave_client_impl::set_activity_handler(activity_callback handler)
{
    replace_callback(activity_handler_, std::move(handler));
}

void orbweave_client_impl::set_health_handler(health_callback handler)
{
    replace_callback(health_handler_, std::move(handler));
}

void orbweave_client_impl::health_changed(const callback::active_stream& stream, const obs::health_summary& health)
{
    lock_guard lock(mutex_);
    if (health_handler_)
        health_handler_(stream, health);
}

void orbweave_client_impl::forget_consent()
{
    // The file goes now, whether a run is under way or not; the run's restore tokens also
    // turn away the token of a start that is still under way.
    obs::restore_tokens(options_.media.restore_tokens).forget();
    if (std::shared_ptr<network_loop> loop = current_loop())
        loop->post([this] {
            if (restore_tokens_)
                restore_tokens_->forget();
        });
}

void orbweave_client_impl::activity_recorded(const activity_event& event)
{
    lock_guard lock(mutex_);
    if (activity_handler_)
        activity_handler_(event);
}

void orbweave_client_impl::streams_changed(const std::vector<callback::active_stream>& streams)
{
    lock_guard lock(mutex_);
    if (streams_handler_)
        streams_handler_(streams);
}

void orbweave_client_impl::state_changed(state_type::type state)
{
    lock_guard lock(mutex_);
    if (state != state_type::streaming)
        link_state_ = state;
    if (state_change_handler_)
        state_change_handler_(state);
}

void orbweave_client_impl::streams_gone()
{
    lock_guard lock(mutex_);
    state_changed(link_state_);
}

std::string orbweave_client_impl::secret()
{
    lock_guard lock(mutex_);
    return secret_handler_ ? secret_handler_() : std::string{};
}

void orbweave_client_impl::new_code(std::string& code)
{
    lock_guard lock(mutex_);
    if (new_code_handler_)
        new_code_handler_(code);
}

void orbweave_client_impl::ready(callback::msg::ready& ready)
{
    lock_guard lock(mutex_);
    if (ready_handler_)
        ready_handler_(ready);
}

void orbweave_client_impl::reset()
{
    lock_guard lock(mutex_);
    if (reset_handler_)
        reset_handler_();
}

encode_profile orbweave_client_impl::profile()
{
    lock_guard lock(mutex_);
    return profile_handler_ ? profile_handler_() : encode_profile{};
}

callback::permission_rule::type orbweave_client_impl::rule(callback::source_type::type kind)
{
    lock_guard lock(mutex_);
    return rule_handler_ ? rule_handler_(kind) : callback::permission_rule::ask;
}

void orbweave_client_impl::ask_permission(callback::source_type::type kind, const std::string& name,
                                          const std::string& description, callback::request_type::type request,
                                          std::function<void(bool, const char*)> on_answer)
{
    // An answer given by the handler itself (on this thread, before it returns) comes from a
    // standing choice; any other, from the user it asked.
    auto asking = std::make_shared<std::atomic<bool>>(false);
    // The request holds the run's loop, not the client: once the client stops, the loop
    // is closed (or gone) and an answer finds nothing to act on.
    callback::request pending(
        [loop = std::weak_ptr<network_loop>(loop_), on_answer = std::move(on_answer), asking,
         caller = std::this_thread::get_id()](bool allowed) {
            const char* decided = asking->load() || std::this_thread::get_id() != caller ? "user" : "rule";
            if (auto open = loop.lock())
                open->post([on_answer, allowed, decided] { on_answer(allowed, decided); });
        });
    lock_guard lock(mutex_);
    if (permission_handler_)
        permission_handler_(kind, name, description, request, pending);
    else
        pending.answer(false);
    *asking = true;
}

} // namespace orbweave
