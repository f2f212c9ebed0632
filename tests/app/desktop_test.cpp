// Desktop integration: the launch-at-login entry. (One app per session is the program's
// test in app_test.cpp.)

#include "app/autostart.hpp"
#include "app/event_bus.hpp"
#include "tests/support/rtmp_ingest.hpp"
#include "tests/support/temp_dir.hpp"

#include <QCoreApplication>
#include <QFile>

#include "tests/app/qt_support.hpp"

#include <gtest/gtest.h>

#include <fstream>

namespace orbweave::app {
namespace {

using test::pump_until;

using namespace std::chrono_literals;

TEST(LaunchAtLogin, TheEntryIsWrittenOnceRemovedAndWatched)
{
    test::temp_dir config;
    std::string path = config.file("autostart/org.orbweave.Client.desktop");
    event_bus bus;
    QObject observer;
    int changes = 0;
    bus.observe(events::launch_at_login_changed, &observer, [&](const QVariant&) { ++changes; });
    autostart entry(bus, "/opt/Orb Weave/orbweave", QString::fromStdString(path));

    EXPECT_FALSE(entry.enabled());
    entry.set_enabled(false); // off with no entry: nothing to do
    entry.set_enabled(true);
    entry.set_enabled(true);
    EXPECT_TRUE(entry.enabled());
    std::string text = test::file_text(path);
    EXPECT_EQ(text.find("[Desktop Entry]\n"), 0u);
    EXPECT_NE(text.find("\nExec=\"/opt/Orb Weave/orbweave\"\n"), std::string::npos) << text;
    EXPECT_NE(text.find("\nType=Application\n"), std::string::npos);
    EXPECT_NE(text.find("\nComment[de]=Lässt "), std::string::npos) << "the German comment is not UTF-8";
    int valid = -1;
    std::string problems = test::run_program({"desktop-file-validate", path}, 10s, &valid);
    EXPECT_EQ(valid, 0) << problems;
    ASSERT_TRUE(pump_until([&] { return changes > 0; })) << "our own change is announced too";

    // Someone else turns it off by editing the entry, then removes it: both are seen.
    int before = changes;
    std::ofstream(path, std::ios::app) << "Hidden=true\n";
    ASSERT_TRUE(pump_until([&] { return changes > before; }, 1s));
    EXPECT_FALSE(entry.enabled());
    before = changes;
    QFile::remove(QString::fromStdString(path));
    ASSERT_TRUE(pump_until([&] { return changes > before; }, 1s));
    EXPECT_FALSE(entry.enabled());

    // X-GNOME-Autostart-enabled=false counts as off as well.
    std::ofstream(path) << "[Desktop Entry]\nType=Application\nExec=orbweave\nX-GNOME-Autostart-enabled=false\n";
    EXPECT_FALSE(entry.enabled());
}

} // namespace
} // namespace orbweave::app
