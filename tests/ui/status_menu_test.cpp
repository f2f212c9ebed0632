// The tray menu's logic on the offscreen platform: what shows in which state, the
// blink, the quality ticks, launch at login, and the actions' events.

#include "app/autostart.hpp"
#include "app/event_bus.hpp"
#include "app/preferences.hpp"
#include "tests/app/qt_support.hpp"
#include "tests/support/temp_dir.hpp"
#include "ui/status_menu.hpp"

#include <QAbstractButton>
#include <QActionGroup>
#include <QApplication>
#include <QIcon>
#include <QMessageBox>

#include <gtest/gtest.h>

#include <fstream>

namespace orbweave::ui {
namespace {

using callback::source_type;
using callback::state_type;
using test::pump_until;

[[maybe_unused]] auto* const qt = ::testing::AddGlobalTestEnvironment(new test::qt_environment);

class StatusMenu : public ::testing::Test {
protected:
    StatusMenu()
        : stored(QString::fromStdString(dir.file("orbweave.conf"))),
          launch_at_login(bus, "/usr/bin/orbweave", QString::fromStdString(dir.file("autostart/org.orbweave.Client.desktop"))),
          menu(bus, stored, launch_at_login, [this] { ++sign_outs; }, [this] { ++quits; })
    {
    }

    std::vector<QString> visible_titles()
    {
        std::vector<QString> titles;
        for (QAction* action : menu.menu()->actions())
            if (action->isVisible() && !action->isSeparator())
                titles.push_back(action->text());
        return titles;
    }

    test::temp_dir dir;
    app::event_bus bus;
    app::preferences stored;
    app::autostart launch_at_login;
    int sign_outs = 0;
    int quits = 0;
    status_menu menu;
};

TEST_F(StatusMenu, ShowsWhatTheUserAndTheStateAllow)
{
    // Signed out and offline: connect, and nothing that needs an account.
    EXPECT_EQ(visible_titles(), std::vector<QString>({"Connect your computer…", "Launch at login", "Audio Output",
                                                      "Offline", "Quit"}));
    EXPECT_FALSE(menu.state_item->isEnabled());
    EXPECT_EQ(menu.image(), "disconnected");
    EXPECT_EQ(menu.tray().toolTip(), "Orbweave — Offline");
    for (const char* name : {"app", "connected", "disconnected", "active", "warning"})
        EXPECT_FALSE(QIcon(QString(":/icons/") + name + ".svg").pixmap(22).isNull()) << name << " icon missing";

    stored.set_owner("Ann Example", "");
    menu.update_from_preferences();
    for (auto state : {state_type::pairing, state_type::connected, state_type::disconnected, state_type::streaming}) {
        SCOPED_TRACE(state);
        menu.on_state(state);
        menu.animator().stop();
        std::vector<QString> expected{"Ann Example", "Permissions…", "Activity…", "Forget screen choices",
                                      "Quality", "Launch at login", "Audio Output"};
        if (state == state_type::streaming)
            expected.push_back("Stop streaming");
        const char* line[] = {"Waiting for pairing", "Connected", "Offline", "Streaming"};
        expected.push_back(line[state]);
        expected.insert(expected.end(), {"Sign out", "Quit"});
        EXPECT_EQ(visible_titles(), expected);
        EXPECT_EQ(menu.tray().toolTip(), QString("Orbweave — ") + line[state]);
    }
    for (QAction* action : menu.menu()->actions())
        EXPECT_FALSE(action->text().contains('&')) << action->text().toStdString();
}

TEST_F(StatusMenu, EnteringStreamingBlinksNineFramesAndEndsActive)
{
    menu.on_state(state_type::connected);
    EXPECT_EQ(menu.image(), "connected");
    menu.on_state(state_type::streaming);
    EXPECT_TRUE(menu.animator().running());
    std::vector<QString> frames;
    while (menu.animator().running()) {
        menu.animator().tick();
        frames.push_back(menu.image());
    }
    EXPECT_EQ(frames, std::vector<QString>({"active", "connected", "active", "connected", "active", "connected",
                                            "active", "connected", "active"}));
    // A repeated report settles without blinking; leaving streaming stops any blink.
    menu.on_state(state_type::streaming);
    EXPECT_FALSE(menu.animator().running());
    EXPECT_EQ(menu.image(), "active");
    menu.on_state(state_type::connected);
    menu.on_state(state_type::streaming);
    menu.on_state(state_type::disconnected);
    EXPECT_FALSE(menu.animator().running());
    EXPECT_EQ(menu.image(), "disconnected");
}

TEST_F(StatusMenu, WhileStreamingEachStreamHasADisabledLineNamingItsSource)
{
    auto stream = [](source_type::type kind, const std::string& name, const std::string& description) {
        return callback::active_stream{"x", kind, name, description};
    };
    std::string long_title(80, 'w');
    menu.on_state(state_type::streaming);
    bus.post(app::events::streams_changed,
             QVariant::fromValue(app::stream_list{stream(source_type::screen, "Screen 1", "1280x720"),
                                                  stream(source_type::window, "xterm", "Build & test"),
                                                  stream(source_type::window, "firefox", long_title),
                                                  stream(source_type::audio, "Speakers", ""),
                                                  stream(source_type::video, "Webcam", "")}));
    ASSERT_TRUE(pump_until([&] { return menu.stream_items.size() == 5; }));
    std::vector<QString> titles = visible_titles();
    auto state_line = std::find(titles.begin(), titles.end(), "Streaming");
    ASSERT_NE(state_line, titles.end());
    // A window by its title, and a title's "&" shown as itself rather than as a mnemonic.
    EXPECT_EQ(std::vector<QString>(state_line + 1, state_line + 6),
              std::vector<QString>({"Screen: Screen 1", "Window: Build && test",
                                    "Window: " + QString(59, 'w') + "…", "Audio: Speakers", "Camera: Webcam"}));
    EXPECT_EQ(*(state_line + 6), QString("Quit")); // signed out: no "Sign out"
    for (QAction* item : menu.stream_items)
        EXPECT_FALSE(item->isEnabled());

    // Lines follow the streams, and show only while streaming.
    menu.on_streams({stream(source_type::video, "Webcam", "")});
    EXPECT_EQ(menu.stream_items.size(), 1u);
    menu.on_state(state_type::connected);
    EXPECT_FALSE(menu.stream_items.front()->isVisible());
    menu.on_state(state_type::streaming);
    EXPECT_TRUE(menu.stream_items.front()->isVisible());
    menu.on_streams({});
    EXPECT_TRUE(menu.stream_items.empty());
}

// Each stream's line tells its health from its worker's reports; the tooltip sums them up,
// and the icon warns while any stream is in trouble.
TEST_F(StatusMenu, EachStreamLineTellsItsHealthAndTheIconWarnsOfTrouble)
{
    menu.on_state(state_type::streaming);
    menu.animator().stop();
    menu.on_streams({{"d1", source_type::screen, "Display 1", "1280x720"}, {"m1", source_type::audio, "Microphone", ""}});
    auto lines = [&] {
        std::vector<QString> texts;
        for (QAction* item : menu.stream_items)
            texts.push_back(item->text());
        return texts;
    };
    // Before the first report, the sources alone.
    EXPECT_EQ(lines(), std::vector<QString>({"Screen: Display 1", "Audio: Microphone"}));
    EXPECT_EQ(menu.tray().toolTip(), "Orbweave — Streaming");

    auto report = [&](const std::string& id, obs::health_summary health) {
        bus.post(app::events::stream_health_changed, QVariant::fromValue(app::stream_health{id, health}));
    };
    obs::health_summary good;
    good.kbps = 1480;
    good.target_kbps = 1628;
    good.fps = 30;
    report("d1", good);
    obs::health_summary quiet = good;
    quiet.kbps = 128;
    report("m1", quiet);
    ASSERT_TRUE(pump_until([&] { return lines().back() == "Audio: Microphone · 128 kb/s"; }));
    EXPECT_EQ(lines().front(), "Screen: Display 1 · 1.5 Mb/s");
    EXPECT_EQ(menu.image(), "active");
    EXPECT_EQ(menu.tray().toolTip(), "Orbweave — Streaming · 1.6 Mb/s sent");

    struct trouble {
        obs::health_summary health;
        QString line;
    };
    auto with = [&](obs::health_level level, long long dropped, long long lagged, bool slow,
                    obs::connection_state connection) {
        obs::health_summary health = good;
        health.level = level;
        health.dropped = dropped;
        health.lagged = lagged;
        health.lost_share = (dropped + lagged) / 300.0;
        health.slow = slow;
        health.connection = connection;
        return health;
    };
    using obs::connection_state;
    using obs::health_level;
    const trouble troubles[] = {
        {with(health_level::degraded, 20, 0, false, connection_state::connected), "dropping frames"},
        {with(health_level::bad, 50, 10, true, connection_state::connected), "dropping frames"},
        {with(health_level::degraded, 2, 20, false, connection_state::connected), "skipping frames"},
        {with(health_level::degraded, 0, 0, true, connection_state::connected), "slow connection"},
        {with(health_level::bad, 0, 0, true, connection_state::stalled), "not sending"},
        {with(health_level::reconnecting, 0, 0, false, connection_state::reconnecting), "reconnecting…"},
    };
    for (const trouble& now : troubles) {
        SCOPED_TRACE(now.line.toStdString());
        report("d1", now.health);
        ASSERT_TRUE(pump_until([&] { return lines().front() == "Screen: Display 1 · " + now.line; }))
            << lines().front().toStdString();
        EXPECT_EQ(menu.image(), "warning");
        EXPECT_EQ(menu.tray().toolTip(), "Orbweave — Streaming · Display 1: " + now.line);
    }
    // A report of a stream that is not running changes nothing; a good one clears the warning.
    report("gone", with(health_level::bad, 60, 0, false, connection_state::connected));
    report("d1", good);
    ASSERT_TRUE(pump_until([&] { return menu.image() == "active"; }));
    EXPECT_EQ(lines(), std::vector<QString>({"Screen: Display 1 · 1.5 Mb/s", "Audio: Microphone · 128 kb/s"}));
    // A stream in trouble that stops takes its warning with it.
    report("m1", with(health_level::reconnecting, 0, 0, false, connection_state::reconnecting));
    ASSERT_TRUE(pump_until([&] { return menu.image() == "warning"; }));
    menu.on_streams({{"d1", source_type::screen, "Display 1", "1280x720"}});
    EXPECT_EQ(menu.image(), "active");
    EXPECT_EQ(lines(), std::vector<QString>({"Screen: Display 1 · 1.5 Mb/s"}));
    // A blink that starts while a stream is in trouble ends on the warning.
    report("d1", with(health_level::degraded, 20, 0, false, connection_state::connected));
    menu.on_state(state_type::connected);
    menu.on_state(state_type::streaming);
    while (menu.animator().running())
        menu.animator().tick();
    EXPECT_EQ(menu.image(), "warning");
}

TEST_F(StatusMenu, QualityTicksTheStoredLevelAndLaunchAtLoginTheRealEntry)
{
    auto ticked = [&] {
        std::vector<bool> ticks;
        for (QAction* item : menu.profile_items)
            ticks.push_back(item->isChecked());
        return ticks;
    };
    EXPECT_EQ(ticked(), std::vector<bool>({false, true, false, false})); // medium by default
    menu.profile_items[3]->trigger();
    EXPECT_EQ(stored.profile(), 3u);
    EXPECT_EQ(ticked(), std::vector<bool>({false, false, false, true}));
    stored.set_profile(7);
    menu.update_from_preferences();
    EXPECT_EQ(ticked(), std::vector<bool>({false, false, false, false}));
    EXPECT_EQ(stored.profile(), 7u) << "an unknown level is kept as stored";
    // Radio items: one level at a time, drawn so.
    for (QAction* item : menu.profile_items)
        EXPECT_TRUE(item->actionGroup() && item->actionGroup()->isExclusive());
    menu.profile_items[1]->trigger();
    menu.profile_items[1]->trigger(); // clicking the ticked level again keeps it
    EXPECT_EQ(ticked(), std::vector<bool>({false, true, false, false}));

    EXPECT_FALSE(menu.launch_at_login_item->isChecked());
    menu.launch_at_login_item->trigger();
    EXPECT_TRUE(launch_at_login.enabled());
    EXPECT_TRUE(menu.launch_at_login_item->isChecked());
    // Someone else turns it off: the tick follows.
    std::ofstream(launch_at_login.path().toStdString(), std::ios::app) << "Hidden=true\n";
    EXPECT_TRUE(pump_until([&] { return !menu.launch_at_login_item->isChecked(); }));
    // Choosing the permissions turns it on.
    bus.post(app::events::permissions_changed);
    EXPECT_TRUE(pump_until([&] { return launch_at_login.enabled(); }));
}

TEST_F(StatusMenu, ActionsPostTheirEventsAndSignOutResets)
{
    std::vector<std::pair<std::string, QVariant>> seen;
    QObject observer;
    for (const char* name : {app::events::window_show, app::events::view_show, app::events::deactivate})
        bus.observe(name, &observer, [&seen, name](const QVariant& payload) { seen.push_back({name, payload}); });
    menu.permissions_item->trigger();
    menu.stop_streaming_item->trigger();
    menu.connect_item->trigger();
    EXPECT_TRUE(pump_until([&] { return seen.size() == 4; }));
    EXPECT_EQ(seen[0], std::make_pair(std::string(app::events::view_show), QVariant("permissionsViewController")));
    EXPECT_EQ(seen[1].first, app::events::window_show);
    EXPECT_EQ(seen[2].first, app::events::deactivate);
    EXPECT_EQ(seen[3].first, app::events::window_show);
    menu.sign_out_item->trigger();
    EXPECT_EQ(sign_outs, 1);
    menu.quit_item->trigger();
    EXPECT_EQ(quits, 1);

    seen.clear();
    menu.activity_item->trigger();
    EXPECT_TRUE(pump_until([&] { return seen.size() == 2; }));
    EXPECT_EQ(seen[0], std::make_pair(std::string(app::events::view_show), QVariant("activityViewController")));

    int forgets = 0;
    bus.observe(app::events::forget_choices, &observer, [&forgets](const QVariant&) { ++forgets; });
    menu.forget_choices_item->trigger();
    EXPECT_TRUE(pump_until([&] { return forgets == 1; }));
}

// Signing out stops every stream: while one runs, it waits for the user to confirm.
TEST_F(StatusMenu, SignOutWhileStreamingAsksFirst)
{
    auto question = [] {
        for (QWidget* widget : QApplication::topLevelWidgets())
            if (widget->objectName() == "signOutConfirmation" && widget->isVisible())
                return qobject_cast<QMessageBox*>(widget);
        return static_cast<QMessageBox*>(nullptr);
    };
    auto click = [&](const QString& text) {
        QMessageBox* open = question();
        ASSERT_TRUE(open);
        for (QAbstractButton* button : open->buttons())
            if (button->text() == text)
                return button->click();
        FAIL() << "no button " << text.toStdString();
    };
    menu.on_state(state_type::streaming);
    menu.sign_out_item->trigger();
    EXPECT_EQ(sign_outs, 0);
    ASSERT_TRUE(pump_until([&] { return question() != nullptr; }));
    EXPECT_TRUE(question()->text().contains("stops every stream"));
    click("Cancel");
    EXPECT_TRUE(pump_until([&] { return question() == nullptr; }));
    EXPECT_EQ(sign_outs, 0);

    menu.sign_out_item->trigger();
    ASSERT_TRUE(pump_until([&] { return question() != nullptr; }));
    click("Sign out");
    EXPECT_EQ(sign_outs, 1);
}

TEST_F(StatusMenu, WhileSigningOutOrStoppingTheStateLineSaysSoAndTheActionsWait)
{
    stored.set_owner("Ann Example", "");
    menu.update_from_preferences();
    menu.on_state(state_type::connected);
    bus.post(app::events::activity_changed, QVariant::fromValue(app::activity::signing_out));
    ASSERT_TRUE(pump_until([&] { return menu.state_item->text() == "Signing out…"; }));
    EXPECT_FALSE(menu.sign_out_item->isEnabled());
    EXPECT_TRUE(menu.quit_item->isEnabled()) << "quitting is always possible";
    menu.on_state(state_type::disconnected); // the client stopping says nothing new
    EXPECT_EQ(menu.state_item->text(), "Signing out…");
    menu.on_activity(app::activity::stopping);
    EXPECT_EQ(menu.state_item->text(), "Stopping…");
    EXPECT_EQ(menu.tray().toolTip(), "Orbweave — Stopping…");
    EXPECT_FALSE(menu.quit_item->isEnabled());
    menu.on_activity(app::activity::none);
    EXPECT_EQ(menu.state_item->text(), "Offline");
    EXPECT_TRUE(menu.sign_out_item->isEnabled());
}

} // namespace
} // namespace orbweave::ui
