// Faults the client must survive. The service link through a fault-injecting proxy:
// stalls, cuts at every stage and 1-byte writes; the client must notice, reconnect and
// end up paired and serving, whatever the network does. (Refused reconnections are the
// outages' tests, with a stream running.) And media
// workers that break while they start or carry a stream: the request is answered, what
// was started is killed and forgotten, and the client serves on.

#include "core/obs/entries.hpp"
#include "tests/support/client_harness.hpp"
#include "tests/support/eventually.hpp"
#include "tests/support/fault_proxy.hpp"
#include "tests/support/processes.hpp"
#include "tests/support/stderr_capture.hpp"
#include "tools/service-sim/service_sim.hpp"

#include <gtest/gtest.h>

#include <signal.h>

#include <algorithm>
#include <atomic>
#include <thread>

namespace orbweave {
namespace {

using namespace std::chrono_literals;
using callback::state_type;
constexpr auto deadline = 15s;

/// A client talking to the simulator through the proxy.
class Faults : public ::testing::Test {
protected:
    /// A list request answered through the proxy: the link serves.
    bool serves()
    {
        auto state = service.list("screen");
        return state && service.wait_for_reply(*state, deadline);
    }

    sim::service_sim service;
    test::fault_proxy proxy{service.port()};
    test::client_harness app{service, false, {}, proxy.port()};
};

TEST_F(Faults, AStallLongerThanTheKeepAliveTimeOutIsNoticedAndTheLinkComesBack)
{
    ASSERT_TRUE(app.start_paired(deadline));
    proxy.stall(true); // bytes go in, nothing comes out: pongs never arrive
    EXPECT_TRUE(app.wait_for_state(state_type::disconnected, deadline));
    proxy.stall(false);
    EXPECT_TRUE(app.wait_for_state(state_type::connected, deadline));
    EXPECT_GE(proxy.accepted(), 2);
    EXPECT_TRUE(serves());
}

TEST_F(Faults, CutsDuringTheHandshakeAndMidFrameAreRecovered)
{
    // The first connection dies inside the TLS handshake, the second inside the
    // identify exchange (its frames are a few hundred bytes past the handshake).
    proxy.cut_next_after(200);
    EXPECT_TRUE(app.start_paired(deadline));
    EXPECT_GE(proxy.accepted(), 2);
    EXPECT_TRUE(serves());

    std::uint64_t before = proxy.forwarded();
    proxy.cut_next_after(5000);
    proxy.cut();
    EXPECT_TRUE(app.wait_for_state(state_type::disconnected, deadline));
    EXPECT_TRUE(app.wait_for_state(state_type::connected, deadline));
    EXPECT_TRUE(serves());
    EXPECT_GT(proxy.forwarded(), before);
}

// Pairing over a path that writes every byte on its own, late: the link holds; cut
// once the code is shown, the client pairs on the next code.
TEST_F(Faults, OneByteWritesAndLatencyChangeNothingAndACutWhilePairingPairsOnTheNextCode)
{
    proxy.slice(true);
    proxy.delay(20ms);
    app.start(); // no secret yet: the service hands out a code
    auto first = service.wait_for_code(deadline);
    ASSERT_TRUE(first);
    EXPECT_EQ(proxy.accepted(), 1) << "the link was lost on the way";
    proxy.cut();
    EXPECT_TRUE(app.wait_for_state(state_type::disconnected, deadline));
    auto second = service.wait_for_code(deadline);
    ASSERT_TRUE(second) << "no new code after the cut";
    ASSERT_TRUE(service.claim(*second, {"Ann", ""}));
    EXPECT_TRUE(app.wait_for_state(state_type::connected, deadline));
    // The state comes first, the secret with the "ready" report just after it.
    auto ready = app.readies().pop(deadline);
    ASSERT_TRUE(ready);
    EXPECT_FALSE(ready->secret.empty());
    EXPECT_EQ(app.secret(), ready->secret);
    EXPECT_TRUE(serves());
    EXPECT_EQ(proxy.accepted(), 2);
}

/// A paired client whose media workers are the misbehaving stand-in: it lists one
/// screen, and the stream key of an activation says how it breaks.
class WorkerFaults : public ::testing::Test {
protected:
    WorkerFaults()
    {
        app.allow_all();
        EXPECT_TRUE(app.start_paired(deadline));
        EXPECT_TRUE(service.wait_for_connection(deadline));
    }

    /// The one screen's list entry.
    Json screen() { return service.reply_payload(service.list("screen"), deadline)["results"][0]; }

    /// Activates the screen with this stream key and returns the reply's payload.
    Json activate(const std::string& key)
    {
        // The server is never contacted: the stand-in streams nowhere.
        return service.reply_payload(service.activate(sim::activation::of(screen().value("id", ""), "rtmp://127.0.0.1/live", key)),
                                     deadline);
    }

    sim::service_sim service;
    test::client_harness app{service, false, test::use_fake_workers};
};

TEST_F(WorkerFaults, AWorkerThatBreaksStartingOrStreamingIsKilledAndForgottenAndTheNextStreamRuns)
{
    struct broken {
        const char* key;
        const char* error; // part of the reply's error
    } cases[] = {
        {"garbage", "not a JSON object"},
        {"huge-line", "a line longer than"},
        {"exit", "exited with code 3"},
    };
    for (const broken& worker_case : cases) {
        SCOPED_TRACE(worker_case.key);
        Json reply = activate(worker_case.key);
        EXPECT_EQ(reply.value("status", ""), "Failure") << reply;
        EXPECT_NE(reply.value("error", "").find(worker_case.error), std::string::npos) << reply;
        EXPECT_TRUE(test::eventually([] { return test::stream_workers().empty(); }, deadline)) << "its worker is left";
        EXPECT_EQ(screen().value("isActive", true), false);
    }
    // Or once it streams: it is killed for what it wrote, and the stream ends as if it had died.
    test::stderr_capture log;
    std::string id = screen().value("id", "");
    EXPECT_EQ(activate("started-garbage"), Json({{"status", "Success"}}));
    EXPECT_TRUE(app.wait_for_state(state_type::connected, deadline));
    EXPECT_TRUE(test::eventually([] { return test::stream_workers().empty(); }, deadline)) << "its worker is left";
    EXPECT_EQ(log.count_lines_starting("The stream of source " + id +
                                       " ended: its media worker wrote a line that is not a JSON object"),
              1)
        << log.text();
    EXPECT_EQ(screen().value("isActive", true), false);
    // The client serves on: the link never dropped, and a good stream starts.
    EXPECT_EQ(activate("ok"), Json({{"status", "Success"}}));
    EXPECT_TRUE(app.wait_for_state(state_type::streaming, deadline));
    EXPECT_EQ(test::stream_workers().size(), 1u);
    EXPECT_FALSE(service.wait_for_connection(0ms)) << "the link was lost on the way";
}

// Whether a source exists is no business of a service the user said no to; and an
// activation after a list looks its source up where the list left it.
TEST_F(WorkerFaults, SourcesAreLookedUpOnlyForKindsTheUserMayAllow)
{
    const std::string display = obs::screen_entry(0, "Display 1", "1280x720", 0, 0, 1280, 720).id;
    auto activate_id = [&](const std::string& id) {
        auto request = sim::activation::of(id);
        request.type = "Screen";
        request.key = "ok";
        return service.reply_payload(service.activate(request), deadline);
    };
    std::atomic<callback::permission_rule::type> screens{callback::permission_rule::never};
    app.client().set_rule_handler([&](callback::source_type::type) { return screens.load(); });
    test::stderr_capture log;

    // Never allowed: "Rejected" for a source that exists and for one that does not, with
    // no prompt and no request to any worker.
    EXPECT_EQ(activate_id(display), Json({{"status", "Rejected"}}));
    EXPECT_EQ(activate_id(std::string(64, 'f')), Json({{"status", "Rejected"}}));
    EXPECT_EQ(log.count_lines_starting("fake media worker: "), 0) << log.text();
    EXPECT_FALSE(app.permissions().pop(0ms));

    // Asked about: an unknown source is looked up (that one id) and fails unasked.
    screens = callback::permission_rule::ask;
    EXPECT_EQ(activate_id(std::string(64, 'f')), Json({{"status", "Failure"}, {"error", "source not found"}}));
    EXPECT_EQ(log.count_lines_starting("fake media worker: find"), 1) << log.text();
    EXPECT_FALSE(app.permissions().pop(0ms));

    // Once listed, a source is not looked up again.
    EXPECT_EQ(screen().value("id", ""), display);
    EXPECT_EQ(activate_id(display), Json({{"status", "Success"}}));
    EXPECT_EQ(log.count_lines_starting("fake media worker: find"), 1) << log.text();
    auto asked = app.permissions().pop_until(
        [](const test::client_harness::permission_asked& p) { return p.request == callback::request_type::activate; },
        0ms);
    ASSERT_TRUE(asked);
    EXPECT_EQ(asked->name, "Display 1");
}

// A stream that ends by itself while the link is down leaves the state at the link's
// ("disconnected"), not "connected": the tray and the agent would show a link there is not.
TEST_F(WorkerFaults, AStreamThatEndsWhileTheLinkIsDownLeavesTheStateDisconnected)
{
    test::stderr_capture log;
    std::string id = screen().value("id", "");
    EXPECT_EQ(activate("ok"), Json({{"status", "Success"}}));
    EXPECT_TRUE(app.wait_for_state(state_type::streaming, deadline));
    auto workers = test::stream_workers();
    ASSERT_EQ(workers.size(), 1u);

    test::blocking_queue<state_type::type> states;
    std::atomic<int> connected{0};
    app.client().set_state_change_handler([&](state_type::type state) {
        connected += state == state_type::connected;
        states.push(state);
    });
    service.stop();
    EXPECT_TRUE(states.pop_until([](state_type::type s) { return s == state_type::disconnected; }, deadline));

    ::kill(workers[0], SIGKILL);
    EXPECT_TRUE(test::eventually(
        [&] { return log.count_lines_starting("The stream of source " + id + " ended") == 1; }, deadline))
        << log.text();
    app.client().stop_streaming();
    // Everything the network thread was doing has finished once it is joined.
    app.client().stop();
    app.client().join();
    EXPECT_EQ(connected.load(), 0) << "reported connected with the service down";
}

// A service that activates source after source: as many streams as the limit start, the
// rest are answered "Failure" at once, naming the limit, and reach no worker; at no time
// do more workers live than the limit, the listing worker and the spare. A stream that
// stops makes room again.
TEST(StreamLimit, ABurstPastTheLimitStartsNoMoreWorkers)
{
    constexpr std::size_t limit = 3;
    test::stderr_capture log; // before the client: every worker it starts writes here
    sim::service_sim service;
    test::client_harness app{service, false, [](client_options& options) {
                                 test::use_fake_workers(options);
                                 options.media.max_streams = static_cast<int>(limit);
                                 options.media.warm = true;
                             }};
    app.allow_all();
    ASSERT_TRUE(app.start_paired(deadline));
    Json microphones = service.reply_payload(service.list("audio"), deadline)["results"];
    ASSERT_EQ(microphones.size(), 8u);
    auto activate = [&](const Json& source) {
        return service.activate(sim::activation::of(source.value("id", ""), "rtmp://127.0.0.1:9/live", "ok"));
    };

    // Every worker of this client, sampled until the burst has been answered.
    std::atomic<bool> answered{false};
    std::atomic<std::size_t> most{0};
    std::thread sampler([&] {
        test::eventually(
            [&] {
                std::size_t alive = test::children_running(::getpid(), {"orbweave_fake_media_worker"}).size();
                most = std::max(most.load(), alive);
                return answered.load();
            },
            60s, 1ms);
    });
    std::vector<std::optional<std::string>> burst;
    for (const Json& microphone : microphones)
        burst.push_back(activate(microphone));
    std::vector<Json> replies;
    for (const auto& sent : burst)
        replies.push_back(service.reply_payload(sent, deadline));
    answered = true;
    sampler.join();

    for (std::size_t i = 0; i < replies.size(); ++i) {
        SCOPED_TRACE(i);
        if (i < limit) {
            EXPECT_EQ(replies[i], Json({{"status", "Success"}}));
            continue;
        }
        EXPECT_EQ(replies[i].value("status", ""), "Failure") << replies[i];
        EXPECT_NE(replies[i].value("error", "").find("at most 3 run at once"), std::string::npos) << replies[i];
    }
    EXPECT_EQ(log.count_lines_starting("fake media worker: stream"), static_cast<int>(limit)) << log.text();
    EXPECT_EQ(log.count_lines_starting("The stream did not start: too many streams: at most 3"),
              static_cast<int>(microphones.size() - limit))
        << log.text();
    EXPECT_LE(most.load(), limit + 2) << "more workers than the limit, the listing worker and the spare";

    // Once a stream has stopped (its worker gone), another may start.
    EXPECT_EQ(service.reply_payload(service.deactivate(microphones[0].value("id", "")), deadline),
              Json({{"status", "Success"}}));
    EXPECT_TRUE(test::eventually(
        [&] { return service.reply_payload(activate(microphones[limit]), deadline).value("status", "") == "Success"; },
        deadline, 50ms));
    EXPECT_LE(test::children_running(::getpid(), {"orbweave_fake_media_worker"}).size(), limit + 2);
}

} // namespace
} // namespace orbweave
