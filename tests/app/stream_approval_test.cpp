// Consent end to end: the app's client wiring and notification prompts, the service
// simulator, real media workers under Xvfb and PulseAudio, and nginx-rtmp. With a
// kind set to "ask", an activation waits for the user's click on the notification.

#include "app/app_delegate.hpp"
#include "app/notification_prompter.hpp"
#include "tests/app/notification_server.hpp"
#include "tests/app/qt_support.hpp"
#include "core/obs/child_process.hpp"
#include "tests/support/eventually.hpp"
#include "tests/support/media_fixtures.hpp"
#include "tests/support/rtmp_ingest.hpp"
#include "tools/service-sim/service_sim.hpp"

#include <gtest/gtest.h>

#include <csignal>
#include <unistd.h>

namespace orbweave::app {
namespace {

using namespace std::chrono_literals;
using callback::source_type;
using test::pump_until;

constexpr auto deadline = 20s;

auto* const qt = static_cast<test::qt_environment*>(::testing::AddGlobalTestEnvironment(new test::qt_environment));
[[maybe_unused]] auto* const media = ::testing::AddGlobalTestEnvironment(new test::media_environment);

TEST(StreamApproval, AnAskedActivationWaitsForTheNotificationAllowStreamsDenyRejects)
{
    test::app_wiring app;
    sim::service_sim& service = app.service;
    test::rtmp_ingest ingest;
    app.stored.set_permission(source_type::screen, static_cast<unsigned>(permission::ask));
    app.settings.bitrate = 1500;
    app_delegate delegate(app.bus, app.stored, app.secrets, app.settings);

    auto desktop = QDBusConnection::connectToBus(QString::fromStdString(qt->bus_address()), "desktop");
    notification_server notifications(desktop, {"actions", "body"});
    delegate.set_prompter(std::make_shared<notification_prompter>());

    ASSERT_TRUE(app.load_secrets());
    delegate.start();
    auto code = service.wait_for_code(deadline);
    ASSERT_TRUE(code);
    ASSERT_TRUE(service.claim(*code, {"Ann", ""}));

    // Listing an "ask" kind needs no prompt.
    Json listed = test::pumped_reply(service, service.list("screen"), deadline);
    ASSERT_EQ(listed["status"], "Success");
    std::string screen = listed["results"][0]["id"];
    EXPECT_TRUE(notifications.notified.empty());

    auto activate = [&](const std::string& key) {
        return service.activate(sim::activation::of(screen, ingest.url(), key)).value_or("");
    };
    auto reply_to = [&](const std::string& state) { return test::pumped_reply(service, state, deadline); };

    // Allowed from the notification: the stream reaches the ingest.
    std::string allowed = activate("approved");
    ASSERT_TRUE(pump_until([&] { return notifications.notified.size() == 1; }, deadline));
    // (What the prompt says is the prompts' own test; here, the account it names.)
    EXPECT_TRUE(notifications.notified[0].body.startsWith("Ann asks to stream the screen “Display 1”"))
        << notifications.notified[0].body.toStdString();
    EXPECT_FALSE(service.wait_for_reply(allowed, 0ms)) << "answered before the user was";
    notifications.invoke(101, "allow");
    EXPECT_EQ(reply_to(allowed), Json({{"status", "Success"}}));
    ASSERT_TRUE(ingest.wait_for_publishing("approved", deadline));
    auto probe = ingest.probe_live("approved", deadline);
    EXPECT_EQ(probe.codec("video"), "h264") << probe.error;

    // Denied: rejected, and nothing more streams.
    std::string denied = activate("refused");
    ASSERT_TRUE(pump_until([&] { return notifications.notified.size() == 2; }, deadline));
    notifications.invoke(102, "deny");
    EXPECT_EQ(reply_to(denied), Json({{"status", "Rejected"}}));
    EXPECT_FALSE(ingest.publishing("refused"));

    // Allowed, but its ingest refuses the connection: the user, who waits to be live, is told why.
    std::string closed = "rtmp://127.0.0.1:" + std::to_string(test::free_loopback_port()) + "/live";
    std::string failing = service.activate(sim::activation::of(screen, closed, "sk_unreachable")).value_or("");
    ASSERT_TRUE(pump_until([&] { return notifications.notified.size() == 3; }, deadline));
    notifications.invoke(103, "allow");
    EXPECT_EQ(reply_to(failing).value("status", ""), "Failure");
    ASSERT_TRUE(pump_until([&] { return notifications.notified.size() == 4; }, deadline));
    const auto& told = notifications.notified[3];
    EXPECT_EQ(told.summary, "The stream did not start");
    EXPECT_TRUE(told.body.startsWith("Display 1 is not streamed: ")) << told.body.toStdString();
    EXPECT_GT(told.body.size(), QString("Display 1 is not streamed: ").size()) << "no reason";
    EXPECT_FALSE(told.body.contains("sk_unreachable"));
    EXPECT_TRUE(told.actions.isEmpty());

    // A stream that ends on its own (here its worker dies) is told too: which, and why.
    std::vector<int> workers;
    ASSERT_TRUE(test::eventually([&] {
        return (workers = test::stream_workers()).size() == 1;
    }, deadline)) << "the failed start's worker is left";
    ::kill(workers[0], SIGKILL);
    ASSERT_TRUE(pump_until([&] { return notifications.notified.size() == 5; }, deadline));
    EXPECT_EQ(notifications.notified[4].summary, "A stream ended");
    EXPECT_TRUE(notifications.notified[4].body.startsWith("Display 1 is no longer streamed: its media worker"))
        << notifications.notified[4].body.toStdString();

    // Quitting ends every stream and leaves no media worker behind.
    delegate.shutdown();
    EXPECT_TRUE(ingest.wait_until_not_publishing("approved", deadline));
    EXPECT_TRUE(test::children_running(::getpid(), {"orbweave-media-worker"}).empty());
    QDBusConnection::disconnectFromBus("desktop");
}

TEST(StreamApproval, ARealNotificationServerAsksToo)
{
    // dunst, as packaged, on this program's private bus and display.
    auto options = test::command({"dunst"});
    options.quiet = true;
    obs::child_process dunst(options);
    auto dunstctl = [](const std::string& command) {
        return test::run_program({"dunstctl", command}, std::chrono::seconds(5));
    };
    ASSERT_TRUE(test::eventually([&] { return dunstctl("is-paused") == "false\n"; }, deadline)) << "dunst is not up";

    // The app's dialog, as the test sees it: the request it was opened for.
    std::vector<std::function<void(bool)>> dialogs;
    notification_prompter prompter(QDBusConnection::sessionBus(),
                                   [&](const prompt_text&, std::function<void(bool)> answer) {
                                       dialogs.push_back(std::move(answer));
                                   });
    std::vector<bool> answers;
    auto ask = [&] {
        prompter.ask(source_type::screen, "Display 1", "1280x720", "Ann Example",
                     callback::request([&](bool a) { answers.push_back(a); }));
        return pump_until([&] { return dunstctl("count").find("Currently displayed: 1") != std::string::npos; },
                          deadline);
    };
    ASSERT_TRUE(ask()) << "the prompt was not shown";
    // The user clicks the notification (its default action): that grants nothing, but opens
    // the dialog for the same request, where Allow grants.
    dunstctl("action");
    ASSERT_TRUE(pump_until([&] { return dialogs.size() == 1; }, deadline));
    ASSERT_TRUE(pump_until([&] { return dunstctl("count").find("Currently displayed: 0") != std::string::npos; },
                           deadline));
    EXPECT_TRUE(answers.empty());
    dialogs[0](true);
    ASSERT_EQ(answers.size(), 1u);
    ASSERT_TRUE(ask());
    dunstctl("close"); // the user dismisses it
    ASSERT_TRUE(pump_until([&] { return answers.size() == 2; }, deadline));
    EXPECT_EQ(answers, std::vector<bool>({true, false}));
}

} // namespace
} // namespace orbweave::app
