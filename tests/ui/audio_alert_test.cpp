// The audio-output alert against a real PulseAudio with two outputs (a speaker and our
// virtual device from orbweave-audio-server): the menu item and the popup follow the
// default output, the ignore box silences only automatic checks, and the sound settings
// open with the tool on PATH (a recording stand-in) or a message naming what to install.

#include "app/autostart.hpp"
#include "app/default_output.hpp"
#include "app/event_bus.hpp"
#include "app/preferences.hpp"
#include "core/obs/child_process.hpp"
#include "tests/app/qt_support.hpp"
#include "tests/support/line_reader.hpp"
#include "tests/support/media_fixtures.hpp"
#include "tests/support/rtmp_ingest.hpp"
#include "tests/support/scoped_environment.hpp"
#include "tests/support/temp_dir.hpp"
#include "ui/popup.hpp"
#include "ui/status_menu.hpp"

#include <QApplication>
#include <QCheckBox>
#include <QPushButton>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

namespace orbweave::ui {
namespace {

using namespace std::chrono_literals;
using test::pump_until;

constexpr auto deadline = 10s;
const QString not_set = "Audio Output (Not set!)";

using test::pactl;

/// A menu, its alert and a watcher on whatever PULSE_SERVER names, with no sound
/// settings tool on PATH but the stand-in a test may write into `tools`.
class AudioAlert : public ::testing::Test {
protected:
    AudioAlert()
        : stored(QString::fromStdString(dir.file("orbweave.conf"))),
          launch_at_login(bus, "/usr/bin/orbweave", QString::fromStdString(dir.file("autostart/entry.desktop"))),
          menu(bus, stored, launch_at_login, [] {}, [] {}), path("PATH", dir.file("tools") + ":/usr/bin:/bin")
    {
        std::filesystem::create_directories(dir.path() / "tools");
    }

    void watch()
    {
        watcher = std::make_unique<app::default_output_watcher>(
            [this](const QString& description) { menu.audio().on_default_output(description); });
    }

    /// A pavucontrol that writes its arguments to a file.
    std::string install_pavucontrol()
    {
        std::string record = dir.file("pavucontrol.args");
        std::string program = dir.file("tools/pavucontrol");
        std::ofstream(program) << "#!/bin/sh\necho \"$@\" > " << record << ".part && mv " << record << ".part "
                               << record << "\n";
        std::filesystem::permissions(program, std::filesystem::perms::owner_all);
        return record;
    }

    QAbstractButton* popup_button(const char* name) { return menu.audio().popup()->findChild<QAbstractButton*>(name); }

    test::temp_dir dir;
    app::event_bus bus;
    app::preferences stored;
    app::autostart launch_at_login;
    status_menu menu;
    test::scoped_environment path;
    std::unique_ptr<app::default_output_watcher> watcher;
};

TEST_F(AudioAlert, FollowsTheDefaultOutputAndSilencesOnlyAutomaticChecks)
{
    test::pulse_server pulse(dir.path() / "pulse");
    test::scoped_environment server("PULSE_SERVER", pulse.server());
    auto options = test::command({ORBWEAVE_AUDIO_SERVER_PROGRAM});
    options.pipe_stdout = true;
    obs::child_process audio_server(options);
    test::line_reader ready(audio_server.stdout_fd());
    ASSERT_EQ(ready.next(deadline), "ready orbweave_virtual");

    // The speakers are the default: the item is marked and the popup explains, once.
    watch();
    ASSERT_TRUE(pump_until([&] { return menu.audio_output_item->text() == not_set; }));
    EXPECT_TRUE(menu.audio().popup_shown());
    EXPECT_FALSE(menu.audio().popup()->findChild<QCheckBox*>("ignoreAlertCheckbox")->isChecked());

    // The user chooses our device: the mark and the popup go.
    pactl({"set-default-sink", "orbweave_virtual"});
    ASSERT_TRUE(pump_until([&] { return menu.audio_output_item->text() == "Audio Output"; }));
    EXPECT_FALSE(menu.audio().popup_shown());

    // Silenced, a change away marks the item but shows nothing...
    stored.set_ignore_audio_device_events(true);
    pactl({"set-default-sink", "orbweave_speakers"});
    ASSERT_TRUE(pump_until([&] { return menu.audio_output_item->text() == not_set; }));
    EXPECT_FALSE(menu.audio().popup_shown());
    // ...but picking the item still does, with the box ticked; Dismiss closes it.
    menu.audio_output_item->trigger();
    EXPECT_TRUE(menu.audio().popup_shown());
    auto* ignore = menu.audio().popup()->findChild<QCheckBox*>("ignoreAlertCheckbox");
    EXPECT_TRUE(ignore->isChecked());
    popup_button("dismissButton")->click();
    ASSERT_TRUE(pump_until([&] { return !menu.audio().popup_shown(); }));
    // Unticking the box stores at once and brings the automatic warning back.
    ignore->setChecked(false);
    EXPECT_FALSE(stored.ignore_audio_device_events());

    // Our device again, and a pick opens the sound settings at the output tab.
    std::string record = install_pavucontrol();
    pactl({"set-default-sink", "orbweave_virtual"});
    ASSERT_TRUE(pump_until([&] { return menu.audio_output_item->text() == "Audio Output"; }));
    menu.audio_output_item->trigger();
    EXPECT_FALSE(menu.audio().popup_shown());
    ASSERT_TRUE(pump_until([&] { return std::filesystem::exists(record); }, deadline));
    std::ifstream arguments(record);
    std::string line;
    std::getline(arguments, line);
    EXPECT_EQ(line, "--tab=3");

    // The device disappears with its server: the default falls back and the alert returns.
    audio_server.kill(SIGTERM);
    ASSERT_TRUE(audio_server.wait_for(deadline));
    ASSERT_TRUE(pump_until([&] { return menu.audio_output_item->text() == not_set; }));
    EXPECT_TRUE(menu.audio().popup_shown());
    // Its "Open sound settings" button goes through the same event to the same tool.
    std::filesystem::remove(record);
    popup_button("openAudioSettingsButton")->click();
    EXPECT_TRUE(pump_until([&] { return std::filesystem::exists(record); }, deadline));
}

TEST_F(AudioAlert, WithoutASoundServerTheItemIsMarkedAndNothingHangs)
{
    test::scoped_environment server("PULSE_SERVER", "unix:" + dir.file("nobody-listens"));
    watch();
    ASSERT_TRUE(pump_until([&] { return menu.audio_output_item->text() == not_set; }));
    EXPECT_TRUE(menu.audio().popup_shown());

    // No settings tool either: a message says what to install, once however often asked.
    menu.audio().open_sound_settings();
    menu.audio().open_sound_settings();
    std::vector<QWidget*> messages;
    for (QWidget* widget : QApplication::topLevelWidgets())
        if (widget->objectName() == "soundSettingsMissing" && widget->isVisible())
            messages.push_back(widget);
    ASSERT_EQ(messages.size(), 1u);
    messages.front()->close();

    // The watcher keeps trying in the background; tearing it down stops that.
    watcher.reset();
}

TEST(PopupPlacement, NextToTheIconElseAtThePanelsEdgeAndAlwaysWholeOnTheWorkArea)
{
    const QRect screen(0, 0, 1280, 800);
    const QSize size(400, 200);
    const QRect bottom_panel(0, 0, 1280, 768), top_panel(0, 32, 1280, 768), left_panel(48, 0, 1232, 800);
    auto at = [&](const QRect& anchor, const QRect& available) {
        return QRect(popup_position(anchor, size, screen, available), size);
    };
    // Clicked on an icon in a bottom panel: above it, centred on it.
    EXPECT_EQ(at(QRect(1000, 772, 24, 24), bottom_panel), QRect(811, 560, 400, 200));
    // In a top panel: below it; near the corner it stays a margin off the edge.
    EXPECT_EQ(at(QRect(1250, 4, 24, 24), top_panel), QRect(872, 40, 400, 200));
    // In a left panel: to its right. A single clicked point anchors it as well.
    EXPECT_EQ(at(QRect(QPoint(20, 700), QSize(1, 1)), left_panel), QRect(56, 592, 400, 200));

    // Unknown: the far end of the panel, wherever the panel is; top right with no panel.
    EXPECT_EQ(at(QRect(), bottom_panel), QRect(872, 560, 400, 200));
    EXPECT_EQ(at(QRect(), top_panel), QRect(872, 40, 400, 200));
    EXPECT_EQ(at(QRect(), left_panel), QRect(56, 592, 400, 200));
    EXPECT_EQ(at(QRect(), screen), QRect(872, 8, 400, 200));

    // Never off the work area: an anchor off screen, or a popup wider than the screen
    // (its top left corner stays visible).
    for (const QRect& anchor : {QRect(-500, -500, 10, 10), QRect(5000, 900, 10, 10), QRect(1279, 799, 1, 1)})
        EXPECT_TRUE(bottom_panel.contains(at(anchor, bottom_panel))) << anchor.x() << "," << anchor.y();
    EXPECT_EQ(popup_position(QRect(), QSize(2000, 100), screen, bottom_panel), QPoint(8, 660));
}

} // namespace
} // namespace orbweave::ui
