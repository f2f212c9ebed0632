// The desktop app's own checks (tray host, notification server with actions, keyring,
// autostart) against stand-ins on a private bus, the "Check this computer…" window and
// its menu entry, and `orbweave --check` as a program.

#include "app/desktop_check.hpp"
#include "core/obs/child_process.hpp"
#include "tests/app/notification_server.hpp"
#include "tests/app/qt_support.hpp"
#include "tests/app/status_notifier_watcher.hpp"
#include "tests/support/processes.hpp"
#include "tests/support/temp_dir.hpp"
#include "ui/check_window.hpp"

#include <QApplication>
#include <QClipboard>
#include <QMenu>
#include <QPushButton>

#include <gtest/gtest.h>


#include <fstream>
#include <future>
#include <map>

namespace orbweave {
namespace {

using namespace std::chrono_literals;

auto* const qt = static_cast<test::qt_environment*>(::testing::AddGlobalTestEnvironment(new test::qt_environment));

/// The app's checks, run off this thread as the window runs them (their blocking calls
/// are answered by stand-ins served on this thread's loop), by name.
std::map<std::string, check::item> app_checks(const QString& autostart)
{
    auto bus = QDBusConnection::connectToBus(QString::fromStdString(qt->bus_address()), "checking");
    auto result = std::async(std::launch::async, [&] { return app::desktop_app_checks(bus, autostart); });
    EXPECT_TRUE(test::pump_until([&] { return result.wait_for(0s) == std::future_status::ready; }, 20s));
    std::map<std::string, check::item> items;
    for (auto& entry : result.get())
        items[entry.name] = entry;
    QDBusConnection::disconnectFromBus("checking");
    return items;
}

TEST(DesktopCheck, TrayNotificationsKeyringAndAutostart)
{
    test::temp_dir dir;
    QString autostart = QString::fromStdString(dir.file("autostart/org.orbweave.Client.desktop"));
    auto desktop = QDBusConnection::connectToBus(QString::fromStdString(qt->bus_address()), "desktop");
    {
        // Nothing of the desktop runs but the keyring: each says what is missing and what to do.
        auto items = app_checks(autostart);
        EXPECT_EQ(items["tray"].level, check::status::warn);
        EXPECT_NE(items["tray"].found.find("no StatusNotifierWatcher"), std::string::npos);
        // (a server this machine can start on demand is not started by the check)
        if (items["notify"].level == check::status::ok)
            EXPECT_NE(items["notify"].found.find("starts with the first prompt"), std::string::npos);
        else
            EXPECT_FALSE(items["notify"].fix.empty());
        EXPECT_EQ(items["keyring"].level, check::status::ok) << items["keyring"].found;
        EXPECT_EQ(items["autostart"].level, check::status::ok);
        EXPECT_NE(items["autostart"].found.find("off"), std::string::npos);
    }
    {
        app::status_notifier_watcher watcher(desktop);
        app::notification_server plain(desktop, {"body"});
        auto items = app_checks(autostart);
        EXPECT_EQ(items["tray"].level, check::status::ok) << items["tray"].found;
        // A server that cannot show Allow and Deny: consent falls back to the dialog.
        EXPECT_EQ(items["notify"].level, check::status::warn);
        EXPECT_NE(items["notify"].found.find("no \"actions\""), std::string::npos) << items["notify"].found;
    }
    {
        app::notification_server asking(desktop, {"body", "actions"});
        std::filesystem::create_directories(dir.file("autostart"));
        std::ofstream(autostart.toStdString()) << "[Desktop Entry]\nType=Application\nExec=" << dir.file("gone")
                                               << "\n";
        auto items = app_checks(autostart);
        EXPECT_EQ(items["notify"].level, check::status::ok) << items["notify"].found;
        EXPECT_NE(items["notify"].found.find("with actions"), std::string::npos);
        // An entry left by a program that moved starts nothing.
        EXPECT_EQ(items["autostart"].level, check::status::warn) << items["autostart"].found;
        EXPECT_TRUE(asking.notified.empty()) << "the check showed a notification";
    }
    QDBusConnection::disconnectFromBus("desktop");
}

TEST(DesktopCheck, TheWindowShowsTheLinesAndCopiesThem)
{
    QMenu menu;
    menu.addAction("Status");
    QAction* separator = menu.addSeparator();
    menu.addAction("Quit");
    bool opened = false;
    ui::check_window::add_to_menu(&menu, [&] { opened = true; });
    // Below the separator, so the state line and the stream lines above it stay together.
    int at = menu.actions().indexOf(separator);
    ASSERT_GT(at, 0);
    ASSERT_LT(at + 1, menu.actions().size());
    QAction* entry = menu.actions().at(at + 1);
    EXPECT_EQ(entry->text(), "Check this computer…");
    entry->trigger();
    EXPECT_TRUE(opened);

    sim::service_sim service;
    test::temp_dir dir;
    service.identity().write(dir.path());
    check::settings settings;
    settings.service_url = service.url();
    settings.ca_file = dir.file("ca.pem");
    settings.bitrate = 1500;
    ui::check_window window(settings);
    int finished = 0;
    QObject::connect(&window, &ui::check_window::finished, [&] { ++finished; });
    window.open_and_check();
    ASSERT_TRUE(test::pump_until([&] { return finished == 1; }, 30s));
    QString text = window.text();
    for (const char* name : {"service", "tray", "notify", "keyring", "autostart"})
        EXPECT_TRUE(text.contains(QString("  ") + name + " ") || text.contains(QString(" ") + name + "  "))
            << name << " missing from:\n" << text.toStdString();
    EXPECT_TRUE(text.contains("trusted by")) << text.toStdString();

    QPushButton* copy = nullptr;
    for (auto* button : window.findChildren<QPushButton*>())
        if (button->accessibleName() == "Copy")
            copy = button;
    ASSERT_TRUE(copy);
    copy->click();
    EXPECT_EQ(QApplication::clipboard()->text(), text);
}

TEST(DesktopCheck, TheProgramPrintsItsOwnChecksAndJson)
{
    test::temp_dir dir;
    auto options = test::command({ORBWEAVE_APP_PROGRAM, "--check", "--json", "--bitrate", "1500"});
    options.environment = {{"XDG_CONFIG_HOME", dir.file("config")}, {"XDG_CACHE_HOME", dir.file("cache")},
                           {"DBUS_SESSION_BUS_ADDRESS", qt->bus_address()}};
    options.unset_environment = {"DISPLAY", "WAYLAND_DISPLAY", "XDG_SESSION_TYPE"};
    auto started = std::chrono::steady_clock::now();
    int status = -1;
    std::string text = test::output_of(options, 30s, &status);
    std::printf("[ time     ] orbweave --check without a display: %.1f s\n",
                std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count());
    // No display: nothing can stream (what the common checks say then is the agent's
    // check test; here, that the app adds its own).
    EXPECT_EQ(status, 1);
    Json report = json::parse(text);
    ASSERT_TRUE(report.is_object()) << text;
    std::map<std::string, std::string> statuses;
    for (const Json& entry : json::at(report, {"checks"}))
        statuses[json::string_at(entry, {"name"})] = json::string_at(entry, {"status"});
    for (const char* name : {"tray", "notify", "keyring", "autostart"})
        EXPECT_EQ(statuses.count(name), 1u) << name;
    EXPECT_EQ(statuses["keyring"], "ok");
}

} // namespace
} // namespace orbweave
