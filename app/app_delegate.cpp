#include "app/app_delegate.hpp"

#include "core/bandwidth_probe.hpp"
#include "core/log.hpp"
#include "core/obs/restore_tokens.hpp"

#include <QCoreApplication>
#include <QMetaObject>

#include <utility>

namespace orbweave::app {

using callback::request_type;
using callback::source_type;
using callback::state_type;

decision decide(const preferences& preferences, source_type::type kind, request_type::type request)
{
    if (!preferences::permission_key(kind))
        return decision::deny;
    switch (preferences.permission_value(kind)) {
    case static_cast<unsigned>(permission::always_allow): return decision::allow;
    case static_cast<unsigned>(permission::ask):
        return request == request_type::list ? decision::allow : decision::ask;
    default: return decision::deny;
    }
}

app_delegate::app_delegate(event_bus& bus, preferences& preferences, secret_keeper& secrets, settings settings)
    : bus_(bus), preferences_(preferences), secrets_(secrets), settings_(std::move(settings)),
      connector_(std::make_unique<serial_executor>())
{
    if (settings_.bitrate)
        bitrate_ = *settings_.bitrate;
    init_client();
    // The client's callbacks post these; the work runs here, on the GUI thread, never
    // inside a callback (it stops and joins the client).
    bus_.observe(events::reset, this, [this](const QVariant&) { sign_out(false); });
    bus_.observe(events::deactivate, this, [this](const QVariant&) { client_->stop_streaming(); });
    bus_.observe(events::forget_choices, this, [this](const QVariant&) { forget_choices(); });
}

app_delegate::~app_delegate()
{
    shutdown();
}

void app_delegate::set_state(state_type::type state)
{
    bus_.post(events::state_changed, QVariant::fromValue(state));
}

void app_delegate::set_activity(activity now)
{
    bus_.post(events::activity_changed, QVariant::fromValue(now));
}

void app_delegate::init_client()
{
    client_ = orbweave_client::create(settings_.service_url, settings_.client);
    client_->set_state_change_handler([this](state_type::type state) { set_state(state); });
    client_->set_secret_handler([this] { return secrets_.secret(); });
    client_->set_new_code_handler([this](std::string code) {
        {
            std::lock_guard<std::mutex> lock(code_mutex_);
            code_ = QString::fromStdString(code);
        }
        bus_.post(events::code_changed, QString::fromStdString(code));
    });
    client_->set_reset_handler([this] { bus_.post(events::reset); });
    client_->set_ready_handler([this](callback::msg::ready& ready) {
        secrets_.store(ready.secret);
        preferences_.set_owner(QString::fromStdString(ready.displayName), QString::fromStdString(ready.avatar));
        bus_.post(events::user_changed);
    });
    client_->set_permission_handler([this](source_type::type kind, const std::string& name,
                                           const std::string& description, request_type::type request_kind,
                                           const callback::request& request) {
        on_permission(kind, name, description, request_kind, request);
    });
    // "Deny" refuses an activation before its source is looked up.
    client_->set_rule_handler([this](source_type::type kind) {
        switch (decide(preferences_, kind, request_type::activate)) {
        case decision::allow: return callback::permission_rule::allow;
        case decision::deny: return callback::permission_rule::never;
        case decision::ask: break;
        }
        return callback::permission_rule::ask;
    });
    client_->set_profile_handler([this] {
        return encode_profile{static_cast<profile_type::type>(preferences_.profile()), bitrate_.load()};
    });
    client_->set_streams_handler([this](const std::vector<callback::active_stream>& streams) {
        bus_.post(events::streams_changed, QVariant::fromValue(stream_list(streams)));
    });
    client_->set_health_handler([this](const callback::active_stream& stream, const obs::health_summary& health) {
        bus_.post(events::stream_health_changed, QVariant::fromValue(stream_health{stream.id, health}));
    });
    client_->set_activity_handler([this](const activity_event& event) {
        if (history_)
            history_->notify();
        std::shared_ptr<prompter> telling = current_prompter();
        if (!telling)
            return;
        // The user allowed it and waits to be live: a start that failed is said, with why.
        if (event.event == "activate" && event.outcome == "failed" && event.decided == "user")
            telling->tell(QCoreApplication::translate("orbweave::app::app_delegate", "The stream did not start"),
                          QCoreApplication::translate("orbweave::app::app_delegate", "%1 is not streamed: %2")
                              .arg(QString::fromStdString(event.source), QString::fromStdString(event.reason)));
        // A stream that ended on its own (its source gone, its ingest gone for good, its
        // worker dead, the service's link lost): the user may not be looking at the tray.
        if (event.event == "ended" && event.reason != activity_recorder::app_stopped)
            telling->tell(QCoreApplication::translate("orbweave::app::app_delegate", "A stream ended"),
                          QCoreApplication::translate("orbweave::app::app_delegate", "%1 is no longer streamed: %2")
                              .arg(QString::fromStdString(event.source), QString::fromStdString(event.reason)));
    });
}

void app_delegate::forget_choices()
{
    client_->forget_consent();
    if (std::shared_ptr<prompter> telling = current_prompter())
        telling->tell(QCoreApplication::translate("orbweave::app::app_delegate", "Screen choices forgotten"),
                      QCoreApplication::translate("orbweave::app::app_delegate",
                                                  "The desktop will ask again which screen or window to share."));
}

void app_delegate::on_permission(source_type::type kind, const std::string& name, const std::string& description,
                                 request_type::type request_kind, const callback::request& request)
{
    switch (decide(preferences_, kind, request_kind)) {
    case decision::allow: request.answer(true); return;
    case decision::deny: request.answer(false); return;
    case decision::ask: break;
    }
    std::shared_ptr<prompter> asking = current_prompter();
    if (!asking) {
        log::line("No way to ask the user; the request is refused");
        request.answer(false);
        return;
    }
    asking->ask(kind, name, description, preferences_.username().toStdString(), request);
}

QString app_delegate::code() const
{
    std::lock_guard<std::mutex> lock(code_mutex_);
    return code_;
}

std::shared_ptr<prompter> app_delegate::current_prompter()
{
    std::lock_guard<std::mutex> lock(prompter_mutex_);
    return prompter_;
}

void app_delegate::refuse_open_prompts()
{
    if (std::shared_ptr<prompter> asking = current_prompter())
        asking->refuse_all();
}

void app_delegate::set_prompter(std::shared_ptr<prompter> prompter)
{
    std::lock_guard<std::mutex> lock(prompter_mutex_);
    prompter_ = std::move(prompter);
}

void app_delegate::start()
{
    set_state(state_type::disconnected);
    connect_service();
}

std::future<bool> app_delegate::connect_service()
{
    // Read without lock_: the connector may hold it for seconds, stopping the client.
    std::uint32_t generation = current_connect_;
    auto started = std::make_shared<std::promise<bool>>();
    std::future<bool> result = started->get_future();
    bool queued = connector_ && connector_->post([this, generation, started] {
        if (bitrate_ == 0) {
            probe_options probe;
            probe.ca_file = settings_.client.transport.ca_file;
            probe.cancelled = [this] { return quitting_.load(); };
            bitrate_ = recommended_bitrate(settings_.service_url, probe);
        }
        std::lock_guard<std::mutex> lock(lock_);
        // A disconnect since this connect was asked for: it is stale.
        bool current = generation == current_connect_ && !quitting_;
        if (current)
            client_->start();
        started->set_value(current);
    });
    if (!queued)
        started->set_value(false);
    return result;
}

std::future<void> app_delegate::disconnect_service()
{
    refuse_open_prompts();
    {
        std::lock_guard<std::mutex> lock(code_mutex_);
        code_.clear();
    }
    bus_.post(events::code_changed, QVariant());
    set_state(state_type::disconnected);
    // At once, so a connect still measuring sees it is stale.
    ++current_connect_;
    // Stopping waits for every stream's worker (bounded, but seconds): never on the caller's
    // thread, which is the GUI thread. The connector runs it in order with the connects.
    auto stopped = std::make_shared<std::promise<void>>();
    std::future<void> result = stopped->get_future();
    bool queued = connector_ && connector_->post([this, stopped] {
        stop_client();
        stopped->set_value();
    });
    if (!queued) { // shut down already: the client is stopped
        stop_client();
        stopped->set_value();
    }
    return result;
}

void app_delegate::stop_client()
{
    std::lock_guard<std::mutex> lock(lock_);
    client_->stop();
    client_->join();
}

void app_delegate::sign_out(bool by_user)
{
    if (quit_requested_)
        return;
    if (by_user && history_) {
        activity_event line;
        line.event = "sign-out";
        line.decided = "user";
        history_->record(line);
    }
    // In the reset's order: everything stored goes, launch at login goes off, the interface
    // reads the defaults, the client disconnects, the setup view shows, and it reconnects.
    secrets_.erase();
    preferences_.reset();
    if (autostart_)
        autostart_->set_enabled(false);
    bus_.post(events::user_changed);
    set_activity(activity::signing_out);
    disconnect_service();
    // The connector runs these once the client has stopped, and the connect after them.
    if (connector_)
        connector_->post([this] {
            // The desktop's screen-cast consent goes with the pairing; the client has
            // stopped, so no start in flight can bring a token back.
            obs::restore_tokens(settings_.client.media.restore_tokens).forget();
            set_activity(activity::none);
            bus_.post(events::view_show, QStringLiteral("setupViewController"));
            bus_.post(events::window_show);
        });
    connect_service();
}

void app_delegate::quit(std::function<void()> done)
{
    if (std::exchange(quit_requested_, true))
        return;
    // A connect still measuring gives up at once, and nothing starts the client again.
    quitting_ = true;
    refuse_open_prompts();
    set_activity(activity::stopping);
    auto finished = std::make_shared<std::function<void()>>(std::move(done));
    bool queued = connector_ && connector_->post([this, finished] {
        stop_client();
        QMetaObject::invokeMethod(this, [finished] { (*finished)(); }, Qt::QueuedConnection);
    });
    if (!queued) {
        shutdown();
        (*finished)();
    }
}

void app_delegate::shutdown()
{
    quitting_ = true;
    refuse_open_prompts();
    // Finishes what the connector runs (a probe gives up at once, a stop ends within its
    // bound) and drops the rest; the client is then stopped here, a no-op when it is already.
    connector_.reset();
    stop_client();
}

} // namespace orbweave::app
