#pragma once

// The main window: a small window on top that walks the user through pairing. It
// shows one view at a time, chosen by the client's state (connecting, the pairing
// code, the permission choices, the signed-in user) or by request ("app:view:show").

#include "app/event_bus.hpp"
#include "app/history.hpp"
#include "app/preferences.hpp"

#include <QLabel>
#include <QMenu>
#include <QPointer>
#include <QStackedLayout>
#include <QString>
#include <QWidget>

#include <functional>

namespace orbweave::ui {

/// The view the state rule picks; empty when the view stays as it is (streaming).
QString view_for_state(callback::state_type::type state, bool has_set_permissions);

class main_window : public QWidget {
    Q_OBJECT

public:
    /// current_code gives the pairing code shown now. tray_menu, when the desktop has no
    /// tray, is offered behind a menu button in the window.
    main_window(app::event_bus& bus, app::preferences& preferences, std::function<QString()> current_code,
                QMenu* tray_menu = nullptr);

    /// Replaces the view by a fresh one of that identifier ("setupViewController", ...).
    void show_view(const QString& identifier);
    /// The view shown now (its objectName is its identifier).
    QWidget* view() const { return view_; }
    /// Brings the window up, on top and focused.
    void bring_up();
    /// At launch the window opens by itself only when nobody is signed in.
    void show_at_start();
    /// What the Activity view ("activityViewController") lists.
    void set_history(app::history* events) { history_ = events; }

protected:
    void keyPressEvent(QKeyEvent* event) override;

private:
    QWidget* make_view(const QString& identifier);
    QWidget* make_disconnected_view();
    QWidget* make_setup_view();
    QWidget* make_permissions_view();
    QWidget* make_ready_view();

    app::event_bus& bus_;
    app::preferences& preferences_;
    std::function<QString()> current_code_;
    // While signing out or stopping, the connecting view says that instead.
    app::activity activity_ = app::activity::none;
    QStackedLayout* stack_;
    QPointer<QWidget> view_;
    app::history* history_ = nullptr;
};

} // namespace orbweave::ui
