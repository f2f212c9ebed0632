#pragma once

// The audio-output alert. Captured audio reaches the service only when the desktop's
// default output is our virtual device, so every report of the default output (and
// the user picking the menu's audio item) is checked against it: a wrong output marks
// the menu item and shows a small popup near the tray that explains what to do, offers
// the sound settings, and lets the user silence the automatic warnings.

#include "app/event_bus.hpp"
#include "app/preferences.hpp"

#include <QAction>
#include <QCheckBox>
#include <QFrame>
#include <QPointer>
#include <QRect>
#include <QString>

#include <functional>

namespace orbweave::ui {

/// The description of the virtual output, as the default output reports it.
inline constexpr const char* virtual_output_description = "Orbweave Virtual Audio Driver (ORBVirtualAudio)";

class audio_alert : public QObject {
    Q_OBJECT

public:
    /// item is the menu's audio output item, titled by the checks. anchor gives the tray
    /// icon's place on screen (or the point the user clicked on it), or an invalid
    /// rectangle when the desktop does not tell it.
    audio_alert(app::event_bus& bus, app::preferences& preferences, QAction* item, std::function<QRect()> anchor);
    ~audio_alert() override;

    /// An automatic check: the default output is now this one (null: none, or no server).
    void on_default_output(const QString& description);
    /// The user picked the menu item: a wrong output shows the popup even when the
    /// warnings are silenced; the right one opens the sound settings.
    void picked();
    /// Opens the sound settings, or says what to install when there is no tool.
    void open_sound_settings();

    /// The popup ("audioAlertViewController").
    QFrame* popup() { return popup_; }
    bool popup_shown() const { return popup_->isVisible(); }

private:
    void check(bool picked);
    void show_popup(bool picked);

    app::event_bus& bus_;
    app::preferences& preferences_;
    QAction* item_;
    std::function<QRect()> anchor_;
    QString output_; // null until reported, and when there is none
    QFrame* popup_;
    QCheckBox* ignore_;
    QPointer<QWidget> missing_message_;
};

} // namespace orbweave::ui
