// The tray under a real desktop panel (lxqt-panel) on Xvfb, on a private bus: the
// orbweave program, paired with the service simulator and streaming a screen to
// nginx-rtmp. The exported menu is read and clicked as the panel does it ("Stop
// streaming"), then opened with a right click and ended by its "Quit".

#include "app/preferences.hpp"
#include "core/obs/child_process.hpp"
#include "tests/app/qt_support.hpp"
#include "tests/app/status_notifier_watcher.hpp"
#include "tests/support/media_fixtures.hpp"
#include "tests/support/processes.hpp"
#include "tests/support/rtmp_ingest.hpp"
#include "tests/support/session_bus.hpp"
#include "tests/support/stderr_capture.hpp"
#include "tests/support/temp_dir.hpp"
#include "tools/service-sim/service_sim.hpp"

#include <QDBusConnectionInterface>
#include <QDBusInterface>
#include <QElapsedTimer>
#include <QStandardPaths>

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>

// Last: Xlib's macros (None, Status, ...) would trip the headers above.
#include <X11/Xlib.h>

namespace orbweave::app {
namespace {

using namespace std::chrono_literals;
using callback::source_type;
using test::pump_until;

constexpr auto deadline = 20s;

/// The item's ToolTip property, (sa(iiay)ss), as dbus-send prints it; a panel shows its
/// title (the second string).
std::string tooltip_of(const std::string& bus, const QString& service, const QString& path)
{
    return test::run_program({"dbus-send", "--bus=" + bus, "--print-reply", "--dest=" + service.toStdString(),
                              path.toStdString(), "org.freedesktop.DBus.Properties.Get",
                              "string:org.kde.StatusNotifierItem", "string:ToolTip"},
                             std::chrono::seconds(5));
}

/// The X server's top-level windows that are mapped and bypass the window manager (popup
/// menus, tooltips), by id, with their geometry.
std::map<Window, QRect> popups(Display* display)
{
    std::map<Window, QRect> found;
    Window root = DefaultRootWindow(display), parent = 0, *children = nullptr;
    unsigned count = 0;
    if (!XQueryTree(display, root, &root, &parent, &children, &count))
        return found;
    for (unsigned i = 0; i < count; ++i) {
        XWindowAttributes attributes{};
        if (XGetWindowAttributes(display, children[i], &attributes) && attributes.map_state == IsViewable &&
            attributes.override_redirect)
            found[children[i]] = QRect(attributes.x, attributes.y, attributes.width, attributes.height);
    }
    XFree(children);
    return found;
}

/// The first mapped window titled title at any depth (a window manager frames top-level
/// windows), with its geometry on the screen.
std::optional<std::pair<Window, QRect>> window_titled(Display* display, const std::string& title,
                                                      Window under = 0)
{
    Window root = DefaultRootWindow(display), parent = 0, *children = nullptr;
    unsigned count = 0;
    std::optional<std::pair<Window, QRect>> found;
    if (!XQueryTree(display, under ? under : root, &root, &parent, &children, &count))
        return found;
    for (unsigned i = 0; i < count && !found; ++i) {
        // Qt names its windows in UTF-8 (_NET_WM_NAME), which XFetchName does not read.
        XWindowAttributes attributes{};
        if (test::x_property(display, children[i], "_NET_WM_NAME") == title &&
            XGetWindowAttributes(display, children[i], &attributes) && attributes.map_state == IsViewable) {
            int x = 0, y = 0;
            Window child = 0;
            XTranslateCoordinates(display, children[i], root, 0, 0, &x, &y, &child);
            found = {children[i], QRect(x, y, attributes.width, attributes.height)};
        }
        if (!found)
            found = window_titled(display, title, children[i]);
    }
    XFree(children);
    return found;
}

/// Whether window's _NET_WM_STATE holds state.
bool has_state(Display* display, Window window, const char* state)
{
    std::string atoms = test::x_property(display, window, "_NET_WM_STATE");
    Atom wanted = XInternAtom(display, state, False);
    for (std::size_t at = 0; at + sizeof wanted <= atoms.size(); at += sizeof wanted)
        if (std::memcmp(atoms.data() + at, &wanted, sizeof wanted) == 0)
            return true;
    return false;
}

TEST(Tray, UnderARealLxqtPanelTheMenuShowsTheStreamsStopsThemAndItsQuitEndsTheApp)
{
    if (QStandardPaths::findExecutable("lxqt-panel").isEmpty())
        FAIL() << "lxqt-panel is not installed: the package lxqt-panel; scripts/setup installs it";
    // A display and a bus of its own, and a panel with a task bar and a StatusNotifier host
    // at the bottom of the screen.
    test::temp_dir home;
    test::xvfb_display screen({{1280, 800}});
    // The window manager keeps the panel's room out of the work area, as on a desktop.
    test::window_manager manager(screen.name(), home.path());
    test::session_bus bus;
    std::filesystem::create_directories(home.path() / "config/lxqt");
    std::ofstream(home.file("config/lxqt/panel.conf"))
        << "[panel1]\nplugins=taskbar,statusnotifier\nposition=Bottom\ndesktop=0\n\n"
           "[taskbar]\ntype=taskbar\n\n[statusnotifier]\ntype=statusnotifier\nalignment=Right\n";
    std::vector<std::pair<std::string, std::string>> desktop{{"DISPLAY", screen.name()},
                                                              {"QT_QPA_PLATFORM", "xcb"},
                                                              {"DBUS_SESSION_BUS_ADDRESS", bus.address()},
                                                              {"XDG_CONFIG_HOME", home.file("config")},
                                                              {"HOME", home.path().string()}};
    auto panel_options = test::command({"lxqt-panel"});
    panel_options.environment = desktop;
    panel_options.quiet = true;
    obs::child_process panel(panel_options);
    auto session = QDBusConnection::connectToBus(QString::fromStdString(bus.address()), "lxqt-session");
    ASSERT_TRUE(pump_until([&] {
        return session.interface()->isServiceRegistered("org.kde.StatusNotifierWatcher").value();
    }, deadline)) << "lxqt-panel offers no StatusNotifierWatcher";

    sim::service_sim service;
    test::rtmp_ingest ingest;
    {
        // Screens are always allowed, so no prompt stands between activation and stream.
        preferences stored(QString::fromStdString(home.file("config/orbweave/orbweave.conf")));
        stored.set_permission(source_type::screen, static_cast<unsigned>(permission::always_allow));
        stored.set_has_set_permissions(true);
    }
    desktop.push_back({"PULSE_SERVER", "unix:" + home.file("no-sound-server")});
    auto options = test::app_program(service, home, desktop);
    options.unset_environment.push_back("LANG");
    test::stderr_capture log;
    obs::child_process program(options);

    // The item appears in the panel.
    QDBusInterface watcher("org.kde.StatusNotifierWatcher", "/StatusNotifierWatcher", "org.kde.StatusNotifierWatcher",
                           session);
    QString item;
    ASSERT_TRUE(pump_until([&] {
        QStringList items = watcher.property("RegisteredStatusNotifierItems").toStringList();
        item = items.isEmpty() ? QString() : items.first();
        return !item.isEmpty();
    }, deadline)) << log.text();
    QString item_service = item.section('/', 0, 0);
    QString item_path = "/" + item.section('/', 1);
    QString menu_path =
        qvariant_cast<QDBusObjectPath>(QDBusInterface(item_service, item_path, "org.kde.StatusNotifierItem", session)
                                           .property("Menu"))
            .path();

    std::unique_ptr<Display, decltype(&XCloseDisplay)> x(XOpenDisplay(screen.name().c_str()), &XCloseDisplay);
    ASSERT_TRUE(x);
    std::optional<std::pair<Window, QRect>> bar;
    ASSERT_TRUE(pump_until([&] { return (bar = window_titled(x.get(), "LXQt Panel")).has_value(); }, deadline))
        << "the panel has no window:\n" << test::run_program({"xwininfo", "-root", "-tree", "-display", screen.name()}, 5s);
    QRect work_area(0, 0, 1280, bar->second.top());

    // No sound server: the audio alert comes up by itself, out of the task bar, whole on
    // the work area.
    std::optional<std::pair<Window, QRect>> alert;
    ASSERT_TRUE(pump_until([&] { return (alert = window_titled(x.get(), "Audio output")).has_value(); }, deadline));
    EXPECT_TRUE(has_state(x.get(), alert->first, "_NET_WM_STATE_SKIP_TASKBAR"));
    EXPECT_TRUE(work_area.contains(alert->second)) << alert->second.y() << "+" << alert->second.height();

    auto menu = [&] {
        std::optional<menu_entry> layout;
        EXPECT_TRUE(pump_until([&] { return (layout = read_menu(session, item_service, menu_path)).has_value(); },
                               deadline));
        return layout.value_or(menu_entry{});
    };
    // Unpaired: offline or already waiting for pairing, whichever the link has reached.
    QStringList labels = menu().visible_labels();
    labels.removeOne("Offline") || labels.removeOne("Waiting for pairing");
    EXPECT_EQ(labels, QStringList({"Connect your computer…", "Launch at login", "Audio Output (Not set!)",
                                   "Check this computer…", "Quit"}))
        << labels.join(", ").toStdString();

    // Paired, then a screen streams: the panel shows the stream with what its worker
    // reports it sends, and "Stop streaming" (which entries show in which state is the
    // menu's own test; here, what the export carries).
    std::optional<std::string> code;
    ASSERT_TRUE(pump_until([&] { return (code = service.wait_for_code(0ms)).has_value(); }, deadline)) << log.text();
    ASSERT_TRUE(service.claim(*code, {"Ann Example", ""}));
    Json screens = test::stream_screens(service, {"tray"}, ingest.url(), deadline);
    ASSERT_FALSE(screens.empty()) << log.text();
    ASSERT_TRUE(ingest.wait_for_publishing("tray", deadline));
    QString stream_title = "Screen: " + QString::fromStdString(screens[0]["name"].get<std::string>());
    // The stream's line: its title, then its health once the first report is in.
    auto stream_line = [&](const QStringList& visible) {
        for (const QString& label : visible)
            if (label.startsWith(stream_title + " · "))
                return label;
        return QString();
    };
    auto sending = [](const QString& line) { return line.endsWith(" kb/s") || line.endsWith(" Mb/s"); };
    ASSERT_TRUE(pump_until([&] { return sending(stream_line(menu().visible_labels())); }, deadline))
        << menu().visible_labels().join(", ").toStdString();
    menu_entry streaming = menu();
    labels = streaming.visible_labels();
    int state_line = labels.indexOf("Streaming");
    ASSERT_GE(state_line, 1) << labels.join(", ").toStdString();
    EXPECT_EQ(labels[state_line - 1], "Stop streaming");
    EXPECT_EQ(labels[state_line + 1], stream_line(labels));
    EXPECT_FALSE(streaming.find(stream_line(labels))->enabled());
    const menu_entry* quality = streaming.find("Quality");
    ASSERT_NE(quality, nullptr);
    EXPECT_EQ(quality->find("Medium")->properties.value("toggle-state").toInt(), 1);
    // One level at a time, and the panel draws them so.
    for (const auto& level : quality->children)
        EXPECT_EQ(level.properties.value("toggle-type").toString(), "radio") << level.label().toStdString();
    // "Forget screen choices" forgets the desktop's restore tokens: its picker asks again.
    std::string tokens = home.file("orbweave/restore-tokens.json");
    std::ofstream(tokens) << R"({"account":"Ann Example","tokens":{"abc":"token-1"}})";
    ASSERT_TRUE(click_menu_entry(session, item_service, menu_path, streaming.find("Forget screen choices")->id));
    EXPECT_TRUE(pump_until([&] { return !std::filesystem::exists(tokens); }, deadline)) << "the tokens are kept";
    EXPECT_TRUE(pump_until([&] { return log.text().find("Screen choices forgotten") != std::string::npos; }, deadline))
        << "the user was not told";
    // Panels that show tooltips read the state, and what is sent, from the item.
    auto tooltip = [&] { return tooltip_of(bus.address(), item_service, item_path); };
    EXPECT_NE(tooltip().find("string \"Orbweave — Streaming · "), std::string::npos) << tooltip();

    // The user clicks "Stop streaming": the stream ends, the link stays.
    ASSERT_TRUE(click_menu_entry(session, item_service, menu_path, streaming.find("Stop streaming")->id));
    EXPECT_TRUE(ingest.wait_until_not_publishing("tray", deadline));
    ASSERT_TRUE(pump_until([&] { return menu().visible_labels().contains("Connected"); }, deadline))
        << menu().visible_labels().join(", ").toStdString();
    labels = menu().visible_labels();
    EXPECT_FALSE(labels.contains("Stop streaming"));
    EXPECT_TRUE(stream_line(labels).isEmpty());
    EXPECT_TRUE(
        pump_until([&] { return tooltip().find("string \"Orbweave — Connected\"") != std::string::npos; }, deadline))
        << tooltip();
    EXPECT_EQ(service.connections().size(), 1u) << "stopping the streams cost the link";

    // A right click on the icon (at the panel's right end, where the host puts it) opens
    // the menu the app exports.
    auto before = popups(x.get());
    std::optional<QRect> opened;
    auto xdotool = [&](std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {"env", "DISPLAY=" + screen.name(), "xdotool"});
        int code = -1;
        test::run_program(arguments, 5s, &code);
        return code == 0;
    };
    // The host adds the icon's button once it has read the item: try again until it is there.
    QElapsedTimer trying;
    trying.start();
    for (int attempt = 0; !opened && trying.elapsed() < 15000; ++attempt) {
        int x_at = bar->second.right() - 12 - 16 * (attempt % 3), y_at = bar->second.center().y();
        ASSERT_TRUE(xdotool({"mousemove", "--sync", std::to_string(x_at), std::to_string(y_at), "click", "3"}));
        pump_until([&] {
            for (const auto& [window, place] : popups(x.get()))
                if (!before.count(window) && place.height() > 60)
                    opened = place;
            return opened.has_value();
        }, 500ms);
    }
    ASSERT_TRUE(opened) << "no menu opened from a right click on the panel's right end";
    // Laid out in the panel's menu, "Quit" is the last entry, at its bottom.
    QElapsedTimer since_quit;
    since_quit.start();
    ASSERT_TRUE(xdotool({"mousemove", "--sync", std::to_string(opened->center().x()),
                         std::to_string(opened->bottom() - 12), "click", "1"}));
    ASSERT_EQ(test::how_it_ended(program, deadline), "exited with code 0") << "Quit did not end the app\n" << log.text();
    EXPECT_LT(since_quit.elapsed(), 2000) << "with no stream to stop, quitting takes moments";
    QDBusConnection::disconnectFromBus("lxqt-session");
}

} // namespace
} // namespace orbweave::app
