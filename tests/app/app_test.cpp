#include "app/app_delegate.hpp"
#include "app/event_bus.hpp"
#include "app/preferences.hpp"
#include "app/secret_keeper.hpp"
#include "core/obs/child_process.hpp"
#include "core/obs/restore_tokens.hpp"
#include "core/orbweave_client.hpp"
#include "tests/support/client_harness.hpp"
#include "tests/support/eventually.hpp"
#include "tests/app/qt_support.hpp"
#include "tests/support/session_bus.hpp"
#include "tests/support/stderr_capture.hpp"
#include "tests/support/line_reader.hpp"
#include "tests/support/media_fixtures.hpp"
#include "tests/support/rtmp_ingest.hpp"
#include "tests/support/scoped_environment.hpp"
#include "tests/support/processes.hpp"
#include "tests/support/temp_dir.hpp"
#include "tools/service-sim/service_sim.hpp"

#include <QApplication>
#include <QFile>
#include <QThread>

#include <gtest/gtest.h>

#include <sys/wait.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <future>
#include <thread>

namespace orbweave::app {
namespace {

using namespace std::chrono_literals;
using callback::request_type;
using callback::source_type;
using callback::state_type;

constexpr auto deadline = 5s;

[[maybe_unused]] auto* const qt = ::testing::AddGlobalTestEnvironment(new test::qt_environment);
using test::pump_until;

/// Every event of the listed names, as this thread's observer receives them.
struct recorder : QObject {
    recorder(event_bus& bus, std::initializer_list<const char*> names)
    {
        for (const char* name : names)
            bus.observe(name, this, [this, name](const QVariant& payload) { seen.push_back({name, payload}); });
    }
    bool wait_for(const std::string& name, const QVariant& payload)
    {
        return pump_until([&] {
            for (std::size_t i = taken; i < seen.size(); ++i)
                if (seen[i].first == name && seen[i].second == payload) {
                    taken = i + 1;
                    return true;
                }
            return false;
        });
    }
    std::vector<std::pair<std::string, QVariant>> seen;
    std::size_t taken = 0;
};

TEST(Preferences, DefaultsCorruptValuesAndReset)
{
    test::temp_dir dir;
    preferences fresh(QString::fromStdString(dir.file("orbweave.conf")));
    for (auto kind : {source_type::screen, source_type::window, source_type::audio, source_type::video})
        EXPECT_EQ(fresh.permission_value(kind), 2u) << kind;
    EXPECT_EQ(fresh.profile(), 1u);
    EXPECT_EQ(fresh.secret(), "");
    EXPECT_EQ(fresh.username(), "");
    EXPECT_FALSE(fresh.has_set_permissions());
    EXPECT_FALSE(fresh.ignore_audio_device_events());
    EXPECT_EQ(fresh.max_streams(), 0u) << "as many as the machine carries";

    fresh.set_secret("s3cr3t");
    fresh.set_owner("Ann", "https://avatars.invalid/ann.png");
    fresh.set_permission(source_type::window, 0);
    fresh.set_profile(3);
    fresh.set_has_set_permissions(true);
    fresh.set_max_streams(2);
    EXPECT_EQ(test::mode_of(dir.file("orbweave.conf")), 0600u) << "the file holds the secret";

    // Another reader of the same file sees the values, under their own names.
    preferences again(QString::fromStdString(dir.file("orbweave.conf")));
    EXPECT_EQ(again.secret(), "s3cr3t");
    EXPECT_EQ(again.username(), "Ann");
    EXPECT_EQ(again.permission_value(source_type::window), 0u);
    EXPECT_EQ(again.profile(), 3u);
    QSettings raw(QString::fromStdString(dir.file("orbweave.conf")), QSettings::IniFormat);
    EXPECT_EQ(raw.value("clientPermissionWindow").toString(), "0");
    EXPECT_EQ(raw.value("clientHasSetPermissions").toString(), "true");
    EXPECT_EQ(raw.value("clientMaxStreams").toString(), "2");

    // Values that are not what their key holds read as the defaults.
    raw.setValue("clientPermissionAudio", "banana");
    raw.setValue("clientProfile", "-1");
    raw.setValue("clientHasSetPermissions", "maybe");
    raw.setValue("clientMaxStreams", "1001");
    raw.sync();
    preferences corrupt(QString::fromStdString(dir.file("orbweave.conf")));
    EXPECT_EQ(corrupt.permission_value(source_type::audio), 2u);
    EXPECT_EQ(corrupt.profile(), 1u);
    EXPECT_FALSE(corrupt.has_set_permissions());
    EXPECT_EQ(corrupt.max_streams(), 0u);

    corrupt.reset();
    EXPECT_FALSE(std::filesystem::exists(dir.file("orbweave.conf")));
    EXPECT_EQ(corrupt.secret(), "");
    EXPECT_EQ(corrupt.permission_value(source_type::window), 2u);
}

TEST(EventBus, ObserversRunInTheirOwnThreadAndGoWithTheirObject)
{
    event_bus bus;
    auto observer = std::make_unique<QObject>();
    std::vector<state_type::type> states;
    Qt::HANDLE ran_on = nullptr;
    bus.observe(events::state_changed, observer.get(), [&](const QVariant& payload) {
        states.push_back(payload.value<state_type::type>());
        ran_on = QThread::currentThreadId();
    });
    std::thread poster([&] { bus.post(events::state_changed, QVariant::fromValue(state_type::streaming)); });
    poster.join();
    EXPECT_TRUE(states.empty()) << "delivered on the posting thread";
    ASSERT_TRUE(pump_until([&] { return !states.empty(); }));
    EXPECT_EQ(states, std::vector<state_type::type>{state_type::streaming});
    EXPECT_EQ(ran_on, QThread::currentThreadId());

    bus.post(events::code_changed, QString("ABCD2345")); // nobody observes it
    observer.reset();
    bus.post(events::state_changed, QVariant::fromValue(state_type::connected));
    QCoreApplication::processEvents();
    EXPECT_EQ(states, std::vector<state_type::type>{state_type::streaming});
}

/// The app's non-visual half against the simulator, with preferences in a private folder.
class Wiring : public ::testing::Test, protected test::app_wiring {
protected:
    Wiring() : events(bus, {events::state_changed, events::code_changed, events::user_changed})
    {
        settings.client.media.restore_tokens = tokens;
    }

    /// The desktop's consent to cast a screen, as a start would have kept it.
    void grant_screen_cast()
    {
        obs::restore_tokens kept(tokens);
        kept.put("screen-1", "token-1", kept.consent());
        ASSERT_EQ(obs::restore_tokens(tokens).get("screen-1"), "token-1");
    }

    const std::string tokens = dir.file("state/restore-tokens.json");
    recorder events;
};

/// What a keeper starting now reads back.
std::string loaded_secret(preferences& stored)
{
    secret_keeper reader(stored);
    bool ready = false;
    reader.load([&] { ready = true; });
    EXPECT_TRUE(pump_until([&] { return ready; }));
    EXPECT_TRUE(reader.in_keyring());
    return reader.secret();
}

TEST_F(Wiring, PairsStoresTheOwnerAndSignsOutWhenTheServiceResets)
{
    settings.bitrate = 2500;
    app_delegate delegate(bus, stored, secrets, settings);
    ASSERT_TRUE(load_secrets());
    delegate.start();
    EXPECT_TRUE(events.wait_for(events::state_changed, QVariant::fromValue(state_type::disconnected))); // the disconnected look first

    auto code = service.wait_for_code(deadline);
    ASSERT_TRUE(code);
    EXPECT_TRUE(events.wait_for(events::code_changed, QString::fromStdString(*code)));
    auto secret = service.claim(*code, {"Ann Example", "https://avatars.invalid/ann.png"});
    ASSERT_TRUE(secret);
    EXPECT_TRUE(events.wait_for(events::state_changed, QVariant::fromValue(state_type::connected))); // reported before the owner's details
    EXPECT_TRUE(events.wait_for(events::user_changed, QVariant()));
    // The secret is in the keyring, and nowhere in the preferences file.
    EXPECT_TRUE(pump_until([&] { return loaded_secret(stored) == *secret; }));
    EXPECT_EQ(stored.secret(), "");
    EXPECT_EQ(test::file_text(stored.path().toStdString()).find(*secret), std::string::npos);
    EXPECT_EQ(stored.username(), "Ann Example");
    EXPECT_EQ(stored.avatar(), "https://avatars.invalid/ann.png");
    EXPECT_EQ(delegate.bitrate(), 2500) << "--bitrate skips the probe";

    // The service undoes the pairing: everything stored goes, and the client asks anew.
    stored.set_profile(3);
    ASSERT_TRUE(service.reset());
    EXPECT_TRUE(events.wait_for(events::code_changed, QVariant()));
    auto request = service.wait_for([](const sim::received& r) {
        return r.message == Json({{"id", "code"}, {"url", "/api/client/connect"}, {"method", "GET"}});
    }, deadline);
    EXPECT_TRUE(request);
    EXPECT_EQ(secrets.secret(), "");
    EXPECT_TRUE(pump_until([&] { return loaded_secret(stored).empty(); })) << "the keyring kept it";
    EXPECT_EQ(stored.profile(), 1u);
    EXPECT_TRUE(service.wait_for_code(deadline));
}

TEST_F(Wiring, SignOutAndQuitLeaveTheInterfaceAnsweringWhileAWorkerHangsOnStop)
{
    // Two screens stream, one of them in a worker that never answers its shutdown: stopping
    // takes its whole bound (2 s here), and none of it may fall on the GUI thread. A GUI
    // that waited would stall for those 2 s; 1 s leaves room for a busy machine.
    settings.bitrate = 1500;
    test::use_fake_workers(settings.client);
    settings.client.media.stream.shutdown_timeout = 2s;
    app_delegate delegate(bus, stored, secrets, settings);
    std::vector<activity> activities;
    QObject observer;
    bus.observe(events::activity_changed, &observer,
                [&](const QVariant& now) { activities.push_back(now.value<activity>()); });
    ASSERT_TRUE(load_secrets());
    delegate.start();

    auto pair_and_stream = [&] {
        std::optional<std::string> code;
        ASSERT_TRUE(pump_until([&] { return (code = service.wait_for_code(0ms)).has_value(); }, deadline));
        ASSERT_TRUE(service.claim(*code, {"Ann", ""}));
        ASSERT_FALSE(
            test::stream_screens(service, {"ok", "hang-on-shutdown"}, "rtmp://127.0.0.1:9/live", deadline).empty());
        ASSERT_EQ(test::children_running(::getpid(), {"orbweave_fake_media_worker"}).size(), 3u)
            << "the listing worker and two stream workers";
    };
    ASSERT_NO_FATAL_FAILURE(pair_and_stream());

    ASSERT_NO_FATAL_FAILURE(grant_screen_cast());
    test::loop_watchdog watchdog;
    delegate.sign_out();
    EXPECT_EQ(secrets.secret(), "") << "what is stored goes at once";
    // The client stops in the background, then asks for a new code.
    ASSERT_TRUE(events.wait_for(events::code_changed, QVariant()));
    ASSERT_TRUE(pump_until([&] { return activities.size() == 2; }, deadline));
    EXPECT_EQ(activities, std::vector<activity>({activity::signing_out, activity::none}));
    EXPECT_LT(watchdog.longest(), 1000) << "the GUI thread waited for the sign-out";
    EXPECT_TRUE(test::children_running(::getpid(), {"orbweave_fake_media_worker"}).empty());
    EXPECT_EQ(obs::restore_tokens(tokens).get("screen-1"), "") << "the screen-cast consent outlived the sign-out";

    ASSERT_NO_FATAL_FAILURE(pair_and_stream());
    watchdog.restart();
    bool quit = false;
    delegate.quit([&] { quit = true; });
    ASSERT_TRUE(pump_until([&] { return quit; }, deadline));
    EXPECT_LT(watchdog.longest(), 1000) << "the GUI thread waited for the quit";
    EXPECT_EQ(activities.back(), activity::stopping);
    EXPECT_TRUE(test::children_running(::getpid(), {"orbweave_fake_media_worker"}).empty());
    EXPECT_TRUE(service.wait_for_disconnect(deadline));
}

TEST_F(Wiring, AConnectOvertakenByADisconnectDoesNotStartTheClient)
{
    std::promise<void> release;
    service.hold_probe(release.get_future().share()); // a slow uplink measurement
    service.answer_probe_json({{"bytes", 1048576}, {"duration", 1000}});
    app_delegate delegate(bus, stored, secrets, settings);

    std::future<bool> first = delegate.connect_service();
    delegate.disconnect_service(); // while the first is still measuring
    release.set_value();
    EXPECT_FALSE(first.get()) << "a stale connect started the client";
    EXPECT_EQ(delegate.bitrate(), 4194) << "its measurement is kept";

    EXPECT_TRUE(delegate.connect_service().get());
    EXPECT_TRUE(service.wait_for_connection(deadline));
}

TEST(Program, OptionsOneInstanceAndAnOrderlyEndThatTakesItsAudioServerAlong)
{
    auto run = [](std::vector<std::string> args, std::string* out = nullptr) {
        auto options = test::command({ORBWEAVE_APP_PROGRAM});
        options.argv.insert(options.argv.end(), args.begin(), args.end());
        options.pipe_stdout = true;
        obs::child_process program(options);
        test::line_reader lines(program.stdout_fd());
        while (auto line = lines.next(deadline))
            if (out)
                *out += *line + "\n";
        auto status = program.wait_for(deadline);
        return status && WIFEXITED(*status) ? WEXITSTATUS(*status) : -1;
    };
    std::string version, help;
    EXPECT_EQ(run({"--version"}, &version), 0);
    EXPECT_EQ(version, "orbweave 0.9.4.0\n");
    EXPECT_EQ(run({"--help"}, &help), 0);
    EXPECT_NE(help.find("--service URL"), std::string::npos);
    EXPECT_EQ(run({"--frobnicate"}), 2);
    EXPECT_EQ(run({"--service", "http://127.0.0.1/"}), 2);

    // Against the simulator, on a session bus where no keyring answers, beside a sound
    // server whose default output the user chose: it pairs, keeps the secret in its
    // preferences file (this user's alone) and says so, a second launch hands over to it,
    // and SIGTERM (the path of the menu's Quit) ends it in order.
    using test::pactl;
    test::temp_dir home;
    test::session_bus no_keyring;
    test::pulse_server pulse(home.path() / "pulse");
    test::scoped_environment sound("PULSE_SERVER", pulse.server());
    sim::service_sim service;
    // A second output, chosen as the default: the sound server would fall back to the first.
    pactl({"load-module", "module-null-sink", "sink_name=headphones"});
    pactl({"set-default-sink", "headphones"});
    const std::string modules = pactl({"list", "modules", "short"});
    auto has_virtual_output = [] { return pactl({"list", "sinks"}).find("Orbweave Virtual Audio Driver") != std::string::npos; };
    auto options = test::app_program(service, home, {{"DBUS_SESSION_BUS_ADDRESS", no_keyring.address()}});
    test::stderr_capture log;
    obs::child_process program(options);
    auto code = service.wait_for_code(deadline);
    ASSERT_TRUE(code) << "the app did not connect";
    auto secret = service.claim(*code, {"Ann", ""});
    ASSERT_TRUE(secret);
    std::string conf = home.file("orbweave/orbweave.conf");
    ASSERT_TRUE(test::eventually([&] { return test::file_text(conf).find(*secret) != std::string::npos; }, deadline));
    EXPECT_EQ(test::mode_of(conf), 0600u);

    // A second launch shows the first and ends, without a link of its own.
    obs::child_process second(options);
    EXPECT_EQ(test::how_it_ended(second, deadline), "exited with code 0");
    EXPECT_EQ(service.connections().size(), 1u) << "the second launch connected";
    EXPECT_EQ(log.count_lines_starting("Activated by another launch"), 1) << log.text();

    // Quit leaves nothing of the app running: the audio server it started ends with it, its
    // device unloaded and the output that was the default before the default again (though
    // the user had chosen the virtual one, as the audio alert asks).
    ASSERT_TRUE(test::eventually(has_virtual_output, deadline)) << "the app started no audio server";
    auto servers = test::children_running(program.pid(), {"orbweave-audio-server"});
    ASSERT_EQ(servers.size(), 1u);
    pactl({"set-default-sink", "orbweave_virtual"});
    ASSERT_EQ(pactl({"get-default-sink"}), "orbweave_virtual");
    program.kill(SIGTERM);
    EXPECT_EQ(test::how_it_ended(program, deadline), "exited with code 0");
    EXPECT_TRUE(service.wait_for_disconnect(deadline));
    EXPECT_EQ(log.count_lines_starting("No keyring answers"), 1) << log.text();
    EXPECT_EQ(log.text().find(*secret), std::string::npos) << "the secret reached the log";
    EXPECT_TRUE(test::process_gone(servers[0])) << "its audio server is left running";
    EXPECT_FALSE(has_virtual_output());
    EXPECT_EQ(pactl({"get-default-sink"}), "headphones");
    EXPECT_EQ(pactl({"list", "modules", "short"}), modules) << "something it loaded is left";

    // An audio server that ran before the app is left alone.
    auto earlier_options = test::command({ORBWEAVE_AUDIO_SERVER_PROGRAM});
    earlier_options.pipe_stdout = true;
    obs::child_process earlier(earlier_options);
    ASSERT_EQ(test::line_reader(earlier.stdout_fd()).next(deadline), "ready orbweave_virtual");
    {
        test::stderr_capture again_log;
        obs::child_process again(options);
        ASSERT_TRUE(test::eventually(
            [&] { return again_log.count_lines_starting("orbweave-audio-server: the virtual output exists already") == 1; },
            deadline))
            << again_log.text();
        // Up (its link open), ready to quit in order.
        EXPECT_TRUE(test::eventually([&] { return service.connections().size() == 1; }, deadline));
        again.kill(SIGTERM);
        ASSERT_EQ(test::how_it_ended(again, deadline), "exited with code 0");
    }
    EXPECT_FALSE(earlier.wait_for(0ms)) << "the audio server that ran before the app ended with it";
    EXPECT_TRUE(has_virtual_output());
    earlier.kill(SIGTERM);
    EXPECT_TRUE(earlier.wait_for(deadline));
    EXPECT_EQ(pactl({"list", "modules", "short"}), modules);
}

} // namespace
} // namespace orbweave::app
