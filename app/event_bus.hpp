#pragma once

// The application's in-process events: the parts of the shell (client wiring,
// tray menu, window, views) talk to each other only by posting and observing these
// names, never by holding each other.

#include <QObject>
#include <QPointer>
#include <QString>
#include <QVariant>

#include <functional>
#include <mutex>
#include <vector>

namespace orbweave::app {

/// The event names and their payloads.
namespace events {
/// int: the client state (0 pairing, 1 connected, 2 disconnected, 3 streaming).
inline constexpr const char* state_changed = "app:state:changed";
/// bool: the window was shown (true) or closed while paired (false). Nothing on Linux acts on it.
inline constexpr const char* dock_change = "app:dock:change";
/// QString: the pairing code to show, or a null QVariant to clear it.
inline constexpr const char* code_changed = "app:code:changed";
/// none: the owner's name and avatar were stored.
inline constexpr const char* user_changed = "app:user:changed";
/// none: stop every stream.
inline constexpr const char* deactivate = "app:deactivate";
/// none: the service undid the pairing; sign out.
inline constexpr const char* reset = "app:reset";
/// none: show the main window.
inline constexpr const char* window_show = "app:window:show";
/// none: close the main window.
inline constexpr const char* window_hide = "app:window:hide";
/// QString: the identifier of the view to show ("setupViewController", ...).
inline constexpr const char* view_show = "app:view:show";
/// none: the user chose the permissions.
inline constexpr const char* permissions_changed = "app:permissions:changed";
/// none: the autostart entry changed, whoever changed it.
inline constexpr const char* launch_at_login_changed = "app:launchAtLogin:changed";
/// none: close the audio-output alert.
inline constexpr const char* audio_popover_hide = "app:audio:popover:hide";
/// none: open the system's sound output settings.
inline constexpr const char* audio_settings_show = "app:audio:settings:show";
/// QVariantList of QVariantMap {"id", "kind" (int, callback::source_type), "name",
/// "description"}: the streams running now, oldest first. The desktop's own addition.
inline constexpr const char* streams_changed = "app:streams:changed";
} // namespace events

/// Delivers posted events to their observers. post() may be called from any thread;
/// each observer runs in the thread of the object it registered with (directly when
/// that is the posting thread, queued otherwise), so views are only ever touched on the
/// GUI thread. An observer goes away with its object.
class event_bus : public QObject {
public:
    using handler = std::function<void(const QVariant& payload)>;

    event_bus() = default;
    event_bus(const event_bus&) = delete;
    event_bus& operator=(const event_bus&) = delete;

    void post(const char* name, const QVariant& payload = {});
    /// Calls handler for every later post of name, in context's thread, while context lives.
    void observe(const char* name, QObject* context, handler handler);

private:
    struct observer {
        QString name;
        QPointer<QObject> context;
        handler call;
    };
    void forget(QObject* context);

    std::mutex mutex_;
    std::vector<observer> observers_;
};

} // namespace orbweave::app
