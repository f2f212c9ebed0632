#pragma once

// The one owner of the service connection in the desktop app: creates the client
// with the handlers that tie it to the shell, connects (after measuring the uplink
// once) and disconnects it, turns its callbacks into application events, and
// decides permission requests from the user's preferences.

#include "app/autostart.hpp"
#include "app/event_bus.hpp"
#include "app/history.hpp"
#include "app/preferences.hpp"
#include "app/secret_keeper.hpp"
#include "core/orbweave_client.hpp"
#include "core/serial_executor.hpp"

#include <QObject>

#include <atomic>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace orbweave::app {

/// Asks the user about one request and answers it, exactly once, from any thread.
class prompter {
public:
    virtual ~prompter() = default;
    /// account: the display name of the account that asks ("" when unknown).
    virtual void ask(callback::source_type::type kind, const std::string& name, const std::string& description,
                     const std::string& account, const callback::request& request) = 0;
    /// Answers every open prompt with a refusal (sign-out, quit).
    virtual void refuse_all() = 0;
    /// Tells the user of something that happened (no answer expected). From any thread.
    virtual void tell(const QString& summary, const QString& body) = 0;
};

/// What the preferences decide for a request.
enum class decision { allow, deny, ask };

/// The permission rule: a kind outside screen..video is refused without reading any
/// key; always-allow grants; ask grants a list request and prompts for anything else;
/// deny and any other value refuse.
decision decide(const preferences& preferences, callback::source_type::type kind, callback::request_type::type request);

class app_delegate : public QObject {
public:
    struct settings {
        std::string service_url;
        /// Set: stream at this bitrate and skip the bandwidth probe.
        std::optional<std::int32_t> bitrate;
        client_options client;
    };

    app_delegate(event_bus& bus, preferences& preferences, secret_keeper& secrets, settings settings);
    /// Stops and joins the client.
    ~app_delegate() override;

    /// Launch: the interface starts disconnected, then the client connects. Call it once
    /// the secret is loaded.
    void start();
    /// Measures the uplink once per process (on the connector thread, never the caller's),
    /// then starts the client, unless a disconnect came first. The future tells whether
    /// this connect started it.
    std::future<bool> connect_service();
    /// Refuses open prompts, clears the code, reports disconnected, and has the client
    /// stopped and joined on the connector thread; a connect still measuring will not start
    /// it. Returns at once; the future is ready once the client has stopped.
    std::future<void> disconnect_service();
    /// Signing out (the user's, or the service's reset): every preference, the secret and
    /// the autostart entry go at once, the screen-cast restore tokens once the client has stopped; the client stops off the GUI thread (the interface
    /// shows activity::signing_out meanwhile), then the setup view shows and the client
    /// reconnects unpaired. The user's own is recorded in the history. On the GUI thread;
    /// returns at once.
    void sign_out(bool by_user = true);
    /// Quitting without blocking: open prompts refused, nothing connects again, the client
    /// stopped and joined off the GUI thread (every stream's worker stops at once, each
    /// bounded by its shut-down time) while the interface shows activity::stopping; then
    /// done runs on the GUI thread. A second call while one runs only adds nothing.
    void quit(std::function<void()> done);
    /// Quitting and waiting for it: the client stopped and joined on the caller's thread
    /// (streams end, no media worker left). Safe after quit() and more than once.
    void shutdown();
    void set_prompter(std::shared_ptr<prompter> prompter);
    /// Forgets the desktop's screen-cast choices (restore tokens), so its picker asks again
    /// for every screen or window, and tells the user. Returns at once.
    void forget_choices();
    /// The history the client's events go to (its file is settings.client.activity).
    void set_history(history* events) { history_ = events; }
    /// The launch-at-login entry, turned off by a sign-out.
    void set_autostart(autostart* entry) { autostart_ = entry; }
    orbweave_client& client() { return *client_; }
    /// The pairing code shown now; empty when there is none. From any thread.
    QString code() const;
    std::int32_t bitrate() const { return bitrate_; }

private:
    void set_state(callback::state_type::type state);
    void set_activity(activity now);
    /// Stops and joins the client under lock_ (seconds while streams run: never on the GUI thread
    /// but at the very end).
    void stop_client();
    std::shared_ptr<prompter> current_prompter();
    /// Answers every prompt still open with a refusal (a disconnect, sign-out or quit).
    void refuse_open_prompts();
    void init_client();
    void on_permission(callback::source_type::type kind, const std::string& name, const std::string& description,
                       callback::request_type::type request_kind, const callback::request& request);

    event_bus& bus_;
    preferences& preferences_;
    secret_keeper& secrets_;
    const settings settings_;
    std::unique_ptr<orbweave_client> client_;
    std::atomic<std::int32_t> bitrate_{0};
    std::atomic<bool> quitting_{false};
    bool quit_requested_ = false; // GUI thread only
    // Serialises start against stop and join (on the connector thread, and at the end).
    std::mutex lock_;
    // The connection generation: a disconnect makes every connect asked for earlier stale.
    std::atomic<std::uint32_t> current_connect_{0};
    mutable std::mutex code_mutex_;
    QString code_;
    std::mutex prompter_mutex_;
    std::shared_ptr<prompter> prompter_;
    std::unique_ptr<serial_executor> connector_;
    autostart* autostart_ = nullptr;
    history* history_ = nullptr;
};

} // namespace orbweave::app
