#pragma once

// The application's in-process events: the parts of the shell (client wiring,
// tray menu, window, views) talk to each other only by posting and observing these
// names, never by holding each other.

#include "core/callback.hpp"
#include "core/obs/stream_health.hpp"

#include <QMetaType>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QVariant>

#include <functional>
#include <mutex>
#include <vector>

namespace orbweave::app {

/// The streams running now, oldest first, as the client reports them.
using stream_list = std::vector<callback::active_stream>;

/// A running stream's health as the client last derived it (from its last 10 s).
struct stream_health {
    std::string id;
    obs::health_summary health;
};

/// What the app is busy with while its client stops off the GUI thread: the interface
/// says so, and stays usable, until the work is done.
enum class activity { none, signing_out, stopping };

/// Registers the payload types below with Qt's meta-type system (once, at start).
void register_event_types();

/// The event names and their payloads.
namespace events {
/// callback::state_type::type: the client state.
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
/// stream_list: the streams running now, oldest first. The desktop's own addition.
inline constexpr const char* streams_changed = "app:streams:changed";
/// activity: a sign-out or quitting began, or ended (none). The desktop's own addition.
inline constexpr const char* activity_changed = "app:activity:changed";
/// stream_health: a running stream's health, about once a second. The desktop's own addition.
inline constexpr const char* stream_health_changed = "app:streams:health";
/// none: forget the desktop's screen-cast choices (restore tokens). The desktop's own addition.
inline constexpr const char* forget_choices = "app:choices:forget";
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

Q_DECLARE_METATYPE(orbweave::callback::state_type::type)
Q_DECLARE_METATYPE(orbweave::app::stream_list)
Q_DECLARE_METATYPE(orbweave::app::activity)
Q_DECLARE_METATYPE(orbweave::app::stream_health)
