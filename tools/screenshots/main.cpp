// orbweave-screenshots: renders the desktop app's interface into PNG files for the
// documentation. It runs the real app wiring (client, event bus, tray menu, main
// window) against the bundled service simulator on loopback: the views show a real
// pairing code, a real claim and the real state reactions. Only the streaming
// state of the menu is posted directly, since no ingest runs here.
//
//   orbweave-screenshots DIRECTORY     writes DIRECTORY/<name>.png and lists them
//
// scripts/screenshots runs it on a private X display and session bus.

#include "app/app_delegate.hpp"
#include "app/autostart.hpp"
#include "app/event_bus.hpp"
#include "app/history.hpp"
#include "app/preferences.hpp"
#include "app/secret_keeper.hpp"
#include "core/log.hpp"
#include "tools/service-sim/service_sim.hpp"
#include "ui/icons.hpp"
#include "ui/main_window.hpp"
#include "ui/permission_dialog.hpp"
#include "ui/status_menu.hpp"

#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QIcon>
#include <QMenu>
#include <QPainter>
#include <QPushButton>
#include <QScreen>
#include <QTemporaryDir>

#include <chrono>
#include <fstream>
#include <functional>
#include <iostream>
#include <optional>
#include <stdexcept>

namespace {

using namespace orbweave;
using namespace std::chrono_literals;

constexpr int deadline_ms = 15000;

/// Runs the event loop until condition holds; throws at the deadline.
void wait_until(const char* what, const std::function<bool()>& condition)
{
    QElapsedTimer clock;
    clock.start();
    while (!condition()) {
        if (clock.elapsed() > deadline_ms)
            throw std::runtime_error(std::string("timed out waiting for ") + what);
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    }
}

/// Lets layouts and pending paints settle before a grab.
void settle()
{
    for (int i = 0; i < 5; ++i)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
}

class writer {
public:
    explicit writer(QString directory) : directory_(std::move(directory)) { QDir().mkpath(directory_); }

    void save(const QString& name, const QPixmap& picture)
    {
        QString path = directory_ + "/" + name + ".png";
        if (picture.isNull() || !picture.save(path, "PNG"))
            throw std::runtime_error("cannot write " + path.toStdString());
        std::cout << path.toStdString() << "\n";
    }
    void save(const QString& name, QWidget* widget)
    {
        settle();
        save(name, widget->grab());
    }
    /// A window as the screen shows it: whatever else lies over or in it shows too.
    void save_from_screen(const QString& name, QWidget* window)
    {
        settle();
        QRect frame = window->frameGeometry();
        save(name, window->screen()->grabWindow(0, frame.x(), frame.y(), frame.width(), frame.height()));
    }

private:
    QString directory_;
};

/// The tray icons at panel sizes on a light and a dark panel.
QPixmap tray_icon_sheet()
{
    const int sizes[] = {16, 22, 24, 32};
    const char* states[] = {"disconnected", "connected", "active", "warning"};
    const QColor panels[] = {QColor("#f6f5f4"), QColor("#2b2b2b")};
    const int cell = 40;
    QPixmap sheet(cell * 4 * 4, cell * 2);
    QPainter painter(&sheet);
    for (int row = 0; row < 2; ++row) {
        painter.fillRect(0, row * cell, sheet.width(), cell, panels[row]);
        int x = 0;
        for (const char* state : states)
            for (int size : sizes) {
                QIcon icon = ui::builtin_icon(state);
                painter.drawPixmap(x + (cell - size) / 2, row * cell + (cell - size) / 2, icon.pixmap(size, size));
                x += cell;
            }
    }
    return sheet;
}

/// An afternoon of what a service did, written to the history file at path as the client
/// writes it: lists, streams started by a rule and by the user, a refusal, and ends.
void write_history(const std::string& path)
{
    using callback::source_type;
    auto at = std::chrono::system_clock::now() - std::chrono::hours(3);
    std::ofstream file(path, std::ios::app);
    auto add = [&](std::chrono::minutes later, activity_event event) {
        at += later;
        file << json::dump(event.to_json(at)) << "\n";
    };
    activity_event listed{"list", source_type::screen, "", "", "rule", "listed", "", std::nullopt};
    add(std::chrono::minutes(0), listed);
    add(std::chrono::minutes(1), {"activate", source_type::screen, "Display 1", "rtmp://ingest.example", "rule",
                                  "started", "", std::nullopt});
    listed.kind = source_type::audio;
    add(std::chrono::minutes(2), listed);
    add(std::chrono::minutes(0), {"activate", source_type::audio, "Built-in Audio Analog Stereo",
                                  "rtmp://ingest.example", "user", "started", "", std::nullopt});
    add(std::chrono::minutes(4), {"deny", source_type::window, "Mail — Inbox", "rtmp://ingest.example", "user",
                                  "rejected", "", std::nullopt});
    add(std::chrono::minutes(38), {"ended", source_type::screen, "Display 1", "", "", "",
                                   "rtmp disconnected: the ingest did not come back within 60000 ms", 2580.0});
    add(std::chrono::minutes(1), {"deactivate", source_type::audio, "Built-in Audio Analog Stereo", "", "user", "",
                                  "stopped from this computer", 2580.0});
}

void run(const QString& directory)
{
    writer out(directory);
    QTemporaryDir home;
    sim::service_sim service;
    service.identity().write(home.path().toStdString());

    app::event_bus bus;
    app::preferences stored(home.filePath("orbweave/orbweave.conf"));
    app::secret_keeper secrets(stored);
    app::autostart launch_at_login(bus, QCoreApplication::applicationFilePath(),
                                   home.filePath("autostart/org.orbweave.Client.desktop"));
    app::app_delegate::settings settings;
    settings.service_url = service.url();
    settings.bitrate = 2500;
    settings.client.transport.ca_file = home.filePath("ca.pem").toStdString();
    app::history history(home.filePath("orbweave/activity.jsonl"));
    settings.client.activity = history.log();
    app::app_delegate delegate(bus, stored, secrets, settings);
    delegate.set_autostart(&launch_at_login);
    delegate.set_history(&history);
    ui::status_menu menu(bus, stored, launch_at_login, [&delegate] { delegate.sign_out(); }, [] {});
    ui::main_window window(bus, stored, [&delegate] { return delegate.code(); });
    window.set_history(&history);
    window.show_at_start();
    wait_until("the main window", [&] { return window.isVisible() && window.view(); });
    out.save_from_screen("view-connecting", &window);

    // The client pairs with the simulator: the code, then the account's claim.
    bool loaded = false;
    secrets.load([&] { loaded = true; });
    wait_until("the secret store", [&] { return loaded; });
    delegate.start();
    std::optional<std::string> code;
    wait_until("a pairing code", [&] { return (code = service.wait_for_code(0ms)).has_value(); });
    wait_until("the setup view", [&] { return window.view()->objectName() == "setupViewController"; });
    wait_until("the code on screen", [&] { return !delegate.code().isEmpty(); });
    out.save_from_screen("view-setup", &window);

    service.claim(*code, {"Ann Example", ""});
    wait_until("the permissions view", [&] { return window.view()->objectName() == "permissionsViewController"; });
    out.save_from_screen("view-permissions", &window);
    window.view()->findChild<QPushButton*>("buttonContinue")->click();
    wait_until("the ready view", [&] { return window.view()->objectName() == "readyViewController"; });
    out.save_from_screen("view-ready", &window);

    // The history the Activity view lists.
    write_history(history.log()->path());
    history.notify();
    bus.post(app::events::view_show, QStringLiteral("activityViewController"));
    wait_until("the activity view", [&] { return window.view()->objectName() == "activityViewController"; });
    out.save_from_screen("view-activity", &window);

    // The menu while two sources stream, one of them dropping frames on a slow network.
    bus.post(app::events::state_changed, QVariant::fromValue(callback::state_type::streaming));
    bus.post(app::events::streams_changed,
             QVariant::fromValue(app::stream_list{
                 {"display", callback::source_type::screen, "Display 1", "1920x1080"},
                 {"speakers", callback::source_type::audio, "Built-in Audio Analog Stereo", ""}}));
    wait_until("the streaming menu", [&] { return menu.stream_items.size() == 2; });
    obs::health_summary dropping;
    dropping.level = obs::health_level::degraded;
    dropping.kbps = 910;
    dropping.target_kbps = 2628;
    dropping.fps = 27.2;
    dropping.dropped = 28;
    dropping.lost_share = 28.0 / 300;
    obs::health_summary sound;
    sound.kbps = 131;
    sound.target_kbps = 160;
    sound.fps = 30;
    bus.post(app::events::stream_health_changed, QVariant::fromValue(app::stream_health{"display", dropping}));
    bus.post(app::events::stream_health_changed, QVariant::fromValue(app::stream_health{"speakers", sound}));
    wait_until("the streams' health", [&] { return menu.image() == "warning"; });
    menu.animator().stop();
    menu.audio().on_default_output(ui::virtual_output_description);
    menu.menu()->popup(QPoint(40, 40));
    wait_until("the menu", [&] { return menu.menu()->isVisible(); });
    out.save("tray-menu", menu.menu());
    menu.menu()->hide();

    // The audio alert, as a wrong default output brings it up.
    menu.audio().on_default_output("Built-in Audio Analog Stereo");
    wait_until("the audio alert", [&] { return menu.audio().popup_shown(); });
    out.save("audio-alert", menu.audio().popup());
    bus.post(app::events::audio_popover_hide);

    // The consent dialog used where notifications cannot ask.
    ui::ask_with_dialog({"Requesting Permission", "Display 1", "1920x1080", callback::source_type::screen, "Demo Producer"},
                        [](bool) {});
    QWidget* dialog = nullptr;
    wait_until("the permission dialog", [&] {
        for (QWidget* widget : QApplication::topLevelWidgets())
            if (widget->objectName() == "permissionDialog" && widget->isVisible())
                dialog = widget;
        return dialog != nullptr;
    });
    out.save("permission-dialog", dialog);
    dialog->close();

    out.save("tray-icons", tray_icon_sheet());
    delegate.shutdown();
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2 || std::string(argv[1]).rfind("-", 0) == 0) {
        std::cerr << "usage: orbweave-screenshots DIRECTORY\n";
        return 2;
    }
    QApplication application(argc, argv);
    QApplication::setApplicationName("orbweave");
    QApplication::setQuitOnLastWindowClosed(false);
    try {
        run(QString::fromLocal8Bit(argv[1]));
    } catch (const std::exception& error) {
        std::cerr << "orbweave-screenshots: " << error.what() << "\n";
        return 1;
    }
    return 0;
}
