#include "core/bandwidth_probe.hpp"
#include "core/obs/restore_tokens.hpp"
#include "core/orbweave_client.hpp"
#include "core/system_info.hpp"
#include "tests/support/client_harness.hpp"
#include "tests/support/eventually.hpp"
#include "tests/support/stderr_capture.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <future>
#include <thread>

namespace orbweave {
namespace {

using namespace std::chrono_literals;
using callback::state_type;
using test::client_harness;

constexpr auto deadline = 5s;

const sim::owner ann{"Ann Example", "https://avatars.invalid/ann.png"};

// Runs the first pairing: code shown, claimed, ready; returns the code.
std::string pair(sim::service_sim& service, client_harness& app)
{
    auto code = app.codes().pop(deadline);
    EXPECT_TRUE(code);
    if (!code)
        return {};
    EXPECT_TRUE(service.claim(*code, ann));
    EXPECT_TRUE(app.wait_for_state(state_type::connected, deadline));
    return *code;
}

TEST(Pairing, FirstRunIdentifiesAsksForACodeAndKeepsTheSecretItIsGiven)
{
    sim::service_sim service;
    client_harness app(service);
    app.start();

    auto identify = service.wait_for_identify(deadline);
    ASSERT_TRUE(identify);
    Json reply = identify->message;
    EXPECT_EQ(reply["id"], "identify");
    EXPECT_TRUE(reply["state"].is_string());
    EXPECT_FALSE(reply["state"].get<std::string>().empty()); // echoed from the request
    EXPECT_EQ(reply["payload"], Json({{"name", system_info::machine_name()},
                                      {"fingerprint", system_info::fingerprint()},
                                      {"description", system_info::os_version()},
                                      {"operatingSystem", "Mac"},
                                      {"version", "0.9.4.0"}}));
    EXPECT_EQ(reply.size(), 3u);

    auto request = service.wait_for_code_request(deadline);
    ASSERT_TRUE(request);
    EXPECT_EQ(request->message, Json({{"id", "code"}, {"url", "/api/client/connect"}, {"method", "GET"}}));

    EXPECT_TRUE(app.wait_for_state(state_type::pairing, deadline));
    auto code = app.codes().pop(deadline);
    ASSERT_TRUE(code);
    EXPECT_EQ(code->size(), 8u);

    auto secret = service.claim(*code, ann);
    ASSERT_TRUE(secret);
    EXPECT_TRUE(app.wait_for_state(state_type::connected, deadline));
    auto ready = app.readies().pop(deadline);
    ASSERT_TRUE(ready);
    EXPECT_EQ(ready->secret, *secret);
    EXPECT_EQ(ready->displayName, ann.display_name);
    EXPECT_EQ(ready->avatar, ann.avatar);
    EXPECT_EQ(app.secret(), *secret);

    // An identify without "state" is answered with "state" "".
    ASSERT_TRUE(service.send_raw(R"({"id":"identify"})"));
    auto bare = service.wait_for_identify(deadline);
    ASSERT_TRUE(bare);
    EXPECT_EQ(bare->message["state"], "");

    // Empty or missing codes change nothing; a ready without an owner is still delivered,
    // with empty details.
    service.send_raw(R"({"id":"code","payload":{"code":""}})");
    service.send_raw(R"({"id":"code"})");
    service.send_raw(R"({"id":"ready","payload":{"secret":"abc"}})");
    ready = app.readies().pop(deadline);
    ASSERT_TRUE(ready);
    EXPECT_EQ(ready->secret, "abc");
    EXPECT_EQ(ready->displayName, "");
    EXPECT_EQ(ready->avatar, "");
    EXPECT_FALSE(app.codes().pop(0ms)); // the empty codes came before "ready", and showed nothing
}

// The desktop's screen-cast consent (its restore tokens) goes with the pairing: kept when
// the same account pairs again, forgotten by a reset and by a pairing with another account.
TEST(Pairing, TheDesktopsScreenCastConsentGoesWithThePairing)
{
    test::temp_dir dir;
    const std::string file = dir.file("state/restore-tokens.json");
    auto grant = [&](const std::string& account) { // the user picked a screen while paired with account
        obs::restore_tokens tokens(file);
        tokens.paired_with(account);
        tokens.put("screen-1", "token-1", tokens.consent());
    };
    auto kept = [&] { return obs::restore_tokens(file).get("screen-1"); };
    sim::service_sim service;
    client_harness app(service, false, [&](client_options& options) { options.media.restore_tokens = file; });

    grant(ann.display_name);
    app.set_secret(service.issue_secret(ann));
    app.start();
    ASSERT_TRUE(app.wait_for_state(state_type::connected, deadline));
    EXPECT_EQ(kept(), "token-1") << "the same account paired again";

    ASSERT_TRUE(service.reset());
    ASSERT_TRUE(app.wait_for_state(state_type::disconnected, deadline));
    EXPECT_EQ(app.resets(), 1);
    EXPECT_EQ(kept(), "");
    EXPECT_FALSE(std::filesystem::exists(file));

    grant(ann.display_name);
    auto code = app.codes().pop(deadline);
    ASSERT_TRUE(code);
    ASSERT_TRUE(service.claim(*code, {"Bob Other", ""}));
    ASSERT_TRUE(app.wait_for_state(state_type::connected, deadline));
    EXPECT_EQ(kept(), "") << "consent given under another account was kept";

    // A token granted while the pairing goes is not brought back by the start that got it.
    obs::restore_tokens tokens(file);
    tokens.paired_with("Bob Other");
    std::uint64_t consent = tokens.consent();
    tokens.forget();
    tokens.put("screen-1", "token-2", consent);
    EXPECT_EQ(kept(), "");
}

TEST(Reconnection, ARestartedServiceIsReachedAgainOneAttemptPerDelay)
{
    sim::service_sim service;
    client_harness app(service);
    app.start();
    pair(service, app);
    ASSERT_TRUE(service.wait_for_connection(deadline));

    test::stderr_capture log;
    service.stop();
    EXPECT_TRUE(app.wait_for_state(state_type::disconnected, deadline));
    // While the service is away, attempts keep failing, each reported and logged.
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(app.wait_for_state(state_type::disconnected, deadline));
    service.start();
    EXPECT_TRUE(app.wait_for_state(state_type::pairing, deadline));
    EXPECT_TRUE(app.wait_for_state(state_type::connected, deadline)); // the secret is presented again

    EXPECT_GE(log.count_lines_starting("Lost connection; Reconnecting in 50ms"), 3);
    EXPECT_EQ(log.count_lines_starting("Lost connection; Reconnecting in "),
              log.count_lines_starting("Lost connection; Reconnecting in 50ms"));
    EXPECT_EQ(log.count_lines_starting("Stopping all current streams"), 0); // no stream was running
}

TEST(Reconnection, TwoQuickFailuresLeaveOnePendingAttempt)
{
    sim::service_sim service;
    client_harness app(service, false, [](client_options& options) { options.reconnect_delay_ms = 200; });
    app.start();
    ASSERT_TRUE(service.wait_for_connection(deadline));
    ASSERT_TRUE(app.wait_for_state(state_type::pairing, deadline));

    test::stderr_capture log;
    service.send_raw(R"({"id":"fail"})");
    service.send_raw(R"({"id":"fail"})");
    EXPECT_TRUE(service.wait_for_connection(deadline));
    EXPECT_TRUE(app.wait_for_state(state_type::pairing, deadline));
    // A second pending attempt would have been armed with the first and fired with it,
    // well before the new link had completed its handshakes.
    EXPECT_FALSE(service.wait_for_connection(0ms));
    EXPECT_EQ(log.count_lines_starting("Lost connection; Reconnecting in 200ms"), 1);
}

TEST(KeepAlive, PingsGoToTheLatestLinkAtTheInterval)
{
    constexpr auto interval = 40ms;
    sim::service_sim peer;
    client_options options = test::fast_client_options(test::ca_file_of(peer));
    options.keepalive_interval_ms = interval.count();
    auto client = orbweave_client::create(peer.url(), options);
    client->start();

    auto first = peer.wait_for_connection(deadline);
    ASSERT_TRUE(first);
    ASSERT_TRUE(test::eventually([&] { return peer.pings().size() >= 3; }, deadline));

    auto reconnecting = std::chrono::steady_clock::now();
    peer.drop_connections();
    auto second = peer.wait_for_connection(deadline);
    ASSERT_TRUE(second);
    std::size_t before = peer.pings().size();
    ASSERT_TRUE(test::eventually([&] { return peer.pings().size() >= before + 5; }, deadline));
    auto elapsed = std::chrono::steady_clock::now() - reconnecting;
    client->stop();
    client->join();

    std::size_t on_second = 0;
    for (const auto& ping : peer.pings()) {
        EXPECT_EQ(ping.payload, "ping!");
        EXPECT_TRUE(ping.connection == *first || ping.connection == *second);
        on_second += ping.connection == *second;
    }
    // One chain sends at most one ping per interval; a second chain would double that.
    EXPECT_GE(on_second, 5u);
    EXPECT_LE(on_second, static_cast<std::size_t>(elapsed / interval) + 2);
}

TEST(Dispatch, AHandlerThatThrowsCostsOnlyItsLinkAndTheClientReconnects)
{
    sim::service_sim service;
    client_harness app(service);
    std::atomic<int> codes{0};
    // The application's code callback fails on the first code: the "code" handler throws.
    app.client().set_new_code_handler([&](std::string) {
        if (codes++ == 0)
            throw std::runtime_error("the interface fell over");
    });
    test::stderr_capture log;
    app.start();

    auto first = service.wait_for_connection(deadline);
    ASSERT_TRUE(first);
    EXPECT_EQ(service.wait_for_disconnect(deadline), first) << "the failed link was not closed";
    auto second = service.wait_for_connection(deadline);
    ASSERT_TRUE(second) << "the client did not reconnect";
    ASSERT_TRUE(service.wait_for_code(deadline));
    ASSERT_TRUE(service.wait_for_code(deadline));
    // The new link works: the second code reached the application (an identify is the barrier).
    auto barrier = service.identify();
    ASSERT_TRUE(barrier);
    ASSERT_TRUE(service.wait_for_reply(*barrier, deadline));
    EXPECT_EQ(codes.load(), 2);
    EXPECT_EQ(service.connections(), std::vector<wss::connection_id>{*second});
    EXPECT_EQ(log.count_lines_starting("The handler of \"code\" failed: the interface fell over"), 1);
}

TEST(Lifecycle, AnyOrderOfStartStopAndJoinIsSafe)
{
    sim::service_sim service;
    client_harness app(service);

    app.client().stop(); // never started: reports disconnected and nothing else
    EXPECT_TRUE(app.wait_for_state(state_type::disconnected, deadline));
    app.client().join();
    app.client().join();
    app.client().stop();

    app.start();
    app.start(); // already running: no second thread, no second link
    ASSERT_TRUE(service.wait_for_connection(deadline));
    ASSERT_TRUE(service.wait_for_code_request(deadline)); // without a secret: none is stored yet
    pair(service, app);
    EXPECT_FALSE(service.wait_for_connection(0ms)); // a second link would have opened with the first

    app.client().stop();
    app.client().stop();
    app.client().join();
    app.client().join();
    EXPECT_TRUE(service.wait_for_disconnect(deadline));

    // stop, join, start again reconnects and presents the stored secret: connected at once,
    // with no code to show (one would have come before "ready").
    app.start();
    ASSERT_TRUE(service.wait_for_connection(deadline));
    auto request = service.wait_for_code_request(deadline);
    ASSERT_TRUE(request);
    EXPECT_EQ(request->message,
              Json({{"id", "code"}, {"url", "/api/client/connect"}, {"payload", {{"secret", app.secret()}}}}));
    EXPECT_TRUE(app.wait_for_state(state_type::connected, deadline));
    EXPECT_FALSE(app.codes().pop(0ms));

    // stop then start without join also reconnects.
    app.client().stop();
    app.start();
    ASSERT_TRUE(service.wait_for_connection(deadline));
    EXPECT_TRUE(app.wait_for_state(state_type::connected, deadline));

    // join from another thread while stop comes from this one.
    std::thread joiner([&] { app.client().join(); });
    app.client().stop();
    joiner.join();
}

TEST(Lifecycle, AClientWithNoCallbacksAtAllRunsAndStops)
{
    sim::service_sim service;
    client_harness app(service, /*bare=*/true);
    app.start();
    ASSERT_TRUE(service.wait_for_identify(deadline));
    ASSERT_TRUE(service.wait_for_code_request(deadline));
    auto code = service.wait_for_code(deadline);
    ASSERT_TRUE(code);
    EXPECT_TRUE(service.claim(*code, ann));
    service.reset();
    ASSERT_TRUE(service.wait_for_code_request(deadline));
    // Without a permission handler every request is rejected at once.
    EXPECT_EQ(service.reply_payload(service.list("screen"), deadline), Json({{"status", "Rejected"}}));
    app.client().stop_streaming();
}

TEST(Lifecycle, DestroyingARunningClientStopsIt)
{
    sim::service_sim service;
    {
        client_harness app(service);
        app.start();
        ASSERT_TRUE(service.wait_for_connection(deadline));
        auto client = orbweave_client::create(service.url(), test::fast_client_options(app.ca_file()));
        client->start();
        ASSERT_TRUE(service.wait_for_connection(deadline));
    } // both destroyed while connected
    EXPECT_TRUE(service.wait_for_disconnect(deadline));
    EXPECT_TRUE(service.wait_for_disconnect(deadline));
}

class Probe : public ::testing::Test {
protected:
    Probe() : app(service) {}
    probe_options trusting() const
    {
        probe_options options;
        options.ca_file = app.ca_file();
        return options;
    }
    std::int32_t measure() { return recommended_bitrate(service.url(), trusting()); }

    sim::service_sim service;
    client_harness app;
};

TEST_F(Probe, ArithmeticOfTheServicesAnswer)
{
    struct {
        Json answer;
        std::int32_t expected;
    } cases[] = {
        {{{"bytes", 1048576}, {"duration", 1000}}, 4194},
        {{{"bytes", 1048576}, {"duration", 0}}, 1250},
        {{{"bytes", 1048576}, {"duration", 1000.9}}, 4194},
        {{{"bytes", "1048576"}, {"duration", 1000}}, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.answer.dump());
        service.answer_probe_json(c.answer);
        EXPECT_EQ(measure(), c.expected);
    }
    auto uploads = service.probes();
    ASSERT_FALSE(uploads.empty());
    EXPECT_EQ(uploads.back().method, "POST");
    EXPECT_EQ(uploads.back().resource, "/api/client/test");
    EXPECT_EQ(uploads.back().bytes, 1048576u);
}

TEST_F(Probe, FailuresGiveTheFallback)
{
    service.answer_probe_text("this is not json");
    EXPECT_EQ(measure(), 1250);
    service.answer_probe_status(500, R"({"bytes":1048576,"duration":1000})");
    EXPECT_EQ(measure(), 1250);
    service.answer_probe_json(Json{{"bytes", 1048576}, {"duration", 1000}});
    EXPECT_EQ(recommended_bitrate(service.url(), {}), 1250); // service not trusted
    EXPECT_EQ(recommended_bitrate("https://127.0.0.1/api/client", trusting()), 1250);
    service.stop();
    EXPECT_EQ(measure(), 1250); // unreachable
}

TEST_F(Probe, ACancelledProbeEndsPromptlyWithTheFallback)
{
    // A service that accepts the connection but never answers: only cancelling ends the wait.
    sim::service_sim silent;
    std::promise<void> release;
    silent.hold_probe(release.get_future().share()); // stalls until the test is done with it
    std::atomic<bool> cancel{false};
    probe_options options;
    options.ca_file = test::ca_file_of(silent);
    options.cancelled = [&] { return cancel.load(); };
    auto started = std::chrono::steady_clock::now();
    std::thread canceller([&] {
        silent.wait_for_probe(deadline); // the upload is in: cancel while the answer is awaited
        cancel = true;
    });
    EXPECT_EQ(recommended_bitrate(silent.url(), options), 1250);
    EXPECT_LT(std::chrono::steady_clock::now() - started, 2s);
    canceller.join();
    release.set_value();
}

} // namespace
} // namespace orbweave
