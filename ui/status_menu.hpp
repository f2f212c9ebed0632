#pragma once

// The tray icon and its menu: the app's face while it runs. It follows the client's
// state (icons, a blink when streaming starts, the state line, the tooltip), the
// signed-in user, the quality level and launch at login, and offers the actions of
// the menu. Where the desktop has no tray, the same menu is handed to the main window.

#include "app/autostart.hpp"
#include "app/event_bus.hpp"
#include "app/preferences.hpp"
#include "ui/audio_alert.hpp"
#include "ui/interval_animator.hpp"

#include <QAction>
#include <QMenu>
#include <QObject>
#include <QString>
#include <QSystemTrayIcon>

#include <array>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <vector>

namespace orbweave::ui {

class status_menu : public QObject {
    Q_OBJECT

public:
    /// sign_out runs the app's reset (app_delegate::sign_out), quit ends the app
    /// (app_delegate::quit); both return at once.
    status_menu(app::event_bus& bus, app::preferences& preferences, app::autostart& launch_at_login,
                std::function<void()> sign_out, std::function<void()> quit);

    /// The menu, for the tray or for the main window's menu button.
    QMenu* menu() { return &menu_; }
    /// Shows the tray icon when the desktop has a tray; false when it has none.
    bool show_in_tray();

    /// Reads the user, the quality level and launch at login again.
    void update_from_preferences();
    /// The reaction to a client state report.
    void on_state(callback::state_type::type state);
    /// The running streams: one disabled line each under the state line while streaming.
    void on_streams(const app::stream_list& streams);
    /// A running stream's health: its line, the tooltip and the icon follow.
    void on_health(const app::stream_health& report);
    /// While signing out or stopping, the state line says so, and Sign out and Quit wait.
    void on_activity(app::activity now);
    /// Ticks the level's item (none for a level outside 0..3) and stores it.
    void set_profile(unsigned level);

    /// The tray image shown now: "connected", "disconnected", "active", "warning" (streaming,
    /// and a stream is degraded, bad or reconnecting) or "" (none).
    const QString& image() const { return image_; }
    interval_animator& animator() { return animator_; }
    /// The audio-output alert; feed it the default output's reports.
    audio_alert& audio() { return *audio_; }
    QSystemTrayIcon& tray() { return tray_; }

    // The items, in menu order.
    QAction* connect_item;
    QAction* username_item;
    QAction* permissions_item;
    QAction* activity_item;
    QAction* forget_choices_item;
    QMenu* quality_menu;
    std::array<QAction*, 4> profile_items;
    QAction* launch_at_login_item;
    QAction* audio_output_item;
    QAction* stop_streaming_item;
    QAction* state_item;
    std::vector<QAction*> stream_items;
    QAction* separator_item;
    QAction* sign_out_item;
    QAction* quit_item;

private:
    void show_image(const QString& name);
    void show_view(const char* identifier);
    void show_state_line();
    /// The stream lines' texts, the tooltip and the icon from the streams' health.
    void show_health();
    /// "active", or "warning" while any stream is in trouble.
    QString streaming_image() const;
    /// Signs out; while streams run, only once the user confirms that they stop.
    void confirm_sign_out();
    /// Remembers where the user clicked the tray icon, where that can be known.
    void note_click();
    /// The tray icon's place, or the point clicked on it; invalid when unknown.
    QRect anchor() const;

    app::event_bus& bus_;
    app::preferences& preferences_;
    app::autostart& launch_at_login_;
    std::function<void()> sign_out_;
    std::function<void()> quit_;
    QMenu menu_;
    QSystemTrayIcon tray_;
    interval_animator animator_;
    callback::state_type::type client_state_ = callback::state_type::disconnected;
    app::stream_list streams_;
    // The last health of each running stream, by source id.
    std::map<std::string, obs::health_summary> health_;
    app::activity activity_ = app::activity::none;
    std::optional<QPoint> clicked_;
    QString image_;
    std::unique_ptr<audio_alert> audio_;
};

} // namespace orbweave::ui
