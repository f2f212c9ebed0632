// The tray as a desktop panel sees it: the orbweave program on Xvfb, on a private bus
// with a StatusNotifierWatcher stand-in, paired with the service simulator and
// streaming a screen to nginx-rtmp. The panel reads the exported menu and clicks
// "Stop streaming".

#include "app/preferences.hpp"
#include "core/obs/child_process.hpp"
#include "tests/app/qt_support.hpp"
#include "tests/app/status_notifier_watcher.hpp"
#include "tests/support/media_fixtures.hpp"
#include "tests/support/rtmp_ingest.hpp"
#include "tests/support/stderr_capture.hpp"
#include "tests/support/temp_dir.hpp"
#include "tools/service-sim/service_sim.hpp"

#include <QDBusInterface>

#include <gtest/gtest.h>

#include <csignal>

namespace orbweave::app {
namespace {

using namespace std::chrono_literals;
using callback::source_type;
using test::pump_until;

constexpr auto deadline = 20s;

/// The test program's private bus (its qt_environment exports it).
std::string bus_address()
{
    return qgetenv("DBUS_SESSION_BUS_ADDRESS").toStdString();
}

TEST(Tray, APanelReadsTheMenuAndItsStopStreamingEndsTheStreams)
{
    test::temp_dir home;
    sim::service_sim service;
    test::rtmp_ingest ingest;
    service.identity().write(home.path());
    {
        // Screens are always allowed, so no prompt stands between activation and stream.
        preferences stored(QString::fromStdString(home.file("orbweave/orbweave.conf")));
        stored.set_permission(source_type::screen, static_cast<unsigned>(permission::always_allow));
        stored.set_has_set_permissions(true);
    }

    auto panel = QDBusConnection::connectToBus(QString::fromStdString(bus_address()), "panel");
    status_notifier_watcher watcher(panel);
    obs::child_process::options options;
    options.argv = {ORBWEAVE_APP_PROGRAM, "--service", service.url(), "--ca-file", home.file("ca.pem"),
                    "--bitrate", "1500"};
    options.environment = {{"QT_QPA_PLATFORM", "xcb"},
                           {"XDG_CONFIG_HOME", home.path().string()},
                           {"DBUS_SESSION_BUS_ADDRESS", bus_address()}};
    options.unset_environment = {"XDG_CURRENT_DESKTOP", "DESKTOP_SESSION"};
    test::stderr_capture log; // the program inherits our standard error
    obs::child_process program(options);

    // The tray icon registers with the panel, and exports its menu.
    ASSERT_TRUE(pump_until([&] { return !watcher.registered.empty(); }, deadline)) << log.text();
    auto [item, item_path] = watcher.registered.front();
    QDBusInterface status_item(item, item_path, "org.kde.StatusNotifierItem", panel);
    QString menu_path = qvariant_cast<QDBusObjectPath>(status_item.property("Menu")).path();
    ASSERT_FALSE(menu_path.isEmpty());

    // Not paired yet: the panel shows how to connect and nothing that needs an account.
    auto menu = [&] {
        std::optional<menu_entry> layout;
        EXPECT_TRUE(pump_until([&] { return (layout = read_menu(panel, item, menu_path)).has_value(); }, deadline));
        return layout.value_or(menu_entry{});
    };
    std::optional<std::string> code;
    ASSERT_TRUE(pump_until([&] { return (code = service.wait_for_code(0ms)).has_value(); }, deadline)) << log.text();
    QStringList labels = menu().visible_labels();
    EXPECT_TRUE(labels.contains("Connect your computer…")) << labels.join(", ").toStdString();
    EXPECT_FALSE(labels.contains("Sign out"));

    // Paired, then a screen streams: the panel shows the stream and "Stop streaming".
    ASSERT_TRUE(service.claim(*code, {"Ann Example", ""}));
    std::optional<sim::received> listed;
    auto list_state = service.list("screen");
    ASSERT_TRUE(pump_until([&] { return (listed = service.wait_for_reply(list_state.value_or(""), 0ms)).has_value(); },
                           deadline));
    Json first = listed->message["payload"]["results"][0];
    sim::activation request;
    request.source_id = first["id"];
    request.server = ingest.url();
    request.key = "tray";
    auto activated = service.activate(request);
    std::optional<sim::received> reply;
    ASSERT_TRUE(pump_until([&] { return (reply = service.wait_for_reply(activated.value_or(""), 0ms)).has_value(); },
                           deadline));
    ASSERT_EQ(reply->message["payload"]["status"], "Success");
    ASSERT_TRUE(ingest.wait_for_publishing("tray", deadline));

    QString stream_line = "Screen: " + QString::fromStdString(first["name"].get<std::string>());
    ASSERT_TRUE(pump_until([&] { return menu().visible_labels().contains(stream_line); }, deadline))
        << menu().visible_labels().join(", ").toStdString();
    menu_entry streaming = menu();
    labels = streaming.visible_labels();
    int state_line = labels.indexOf("Streaming");
    ASSERT_GE(state_line, 1) << labels.join(", ").toStdString();
    EXPECT_EQ(labels[state_line - 1], "Stop streaming");
    EXPECT_EQ(labels[state_line + 1], stream_line);
    EXPECT_FALSE(streaming.find(stream_line)->enabled());
    EXPECT_EQ(labels.first(), "Ann Example");
    EXPECT_FALSE(labels.contains("Connect your computer…"));
    EXPECT_EQ(labels.last(), "Quit");
    const menu_entry* quality = streaming.find("Quality");
    ASSERT_NE(quality, nullptr);
    EXPECT_EQ(quality->visible_labels(), QStringList({"Low", "Medium", "High", "Extreme"}));
    EXPECT_EQ(quality->find("Medium")->properties.value("toggle-state").toInt(), 1);

    // The user clicks "Stop streaming" in the panel: the stream ends, the link stays.
    ASSERT_TRUE(click_menu_entry(panel, item, menu_path, streaming.find("Stop streaming")->id));
    EXPECT_TRUE(ingest.wait_until_not_publishing("tray", deadline));
    ASSERT_TRUE(pump_until([&] { return menu().visible_labels().contains("Connected"); }, deadline))
        << menu().visible_labels().join(", ").toStdString();
    labels = menu().visible_labels();
    EXPECT_FALSE(labels.contains("Stop streaming"));
    EXPECT_FALSE(labels.contains(stream_line));
    EXPECT_EQ(service.connections().size(), 1u) << "stopping the streams cost the link";

    program.kill(SIGTERM);
    auto status = program.wait_for(deadline);
    ASSERT_TRUE(status);
    EXPECT_EQ(obs::child_process::describe(*status), "exited with code 0");
    QDBusConnection::disconnectFromBus("panel");
}

} // namespace
} // namespace orbweave::app
