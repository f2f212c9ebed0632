// The service's list, activate and deactivate requests end to end: the
// simulator over loopback TLS, the client, and real media workers under Xvfb
// and PulseAudio.

#include "core/orbweave_client.hpp"
#include "tests/support/client_harness.hpp"
#include "tests/support/eventually.hpp"
#include "tests/support/fault_proxy.hpp"
#include "tests/support/media_fixtures.hpp"
#include "tests/support/rtmp_ingest.hpp"
#include "tests/support/stderr_capture.hpp"

#include <unistd.h>

#include <algorithm>
#include <csignal>

#include <gtest/gtest.h>

#include <optional>

namespace orbweave {
namespace {

using namespace std::chrono_literals;
using callback::request_type;
using callback::source_type;
using callback::state_type;
using test::stream_workers;

[[maybe_unused]] auto* const environment = ::testing::AddGlobalTestEnvironment(new test::media_environment);

constexpr auto deadline = 20s;
// How long a stream may reconnect to a vanished ingest in these tests.
constexpr auto outage_limit = 1s;

bool eventually(const std::function<bool()>& condition)
{
    return test::eventually(condition, deadline);
}

/// The client's options in these tests: fast timings, and streams that give a vanished ingest a second.
void test_timings(client_options& options)
{
    options.media.stream.ingest_outage_limit = outage_limit;
}

class Requests : public ::testing::Test {
protected:
    /// Returns once the client has handled everything sent before: an identify round trip.
    void barrier()
    {
        auto state = service.identify();
        ASSERT_TRUE(state);
        ASSERT_TRUE(service.wait_for_reply(*state, deadline));
    }

    /// through_proxy: the link to the service runs through a fault proxy (proxy).
    explicit Requests(std::function<void(client_options&)> timings = test_timings, bool through_proxy = false)
        : proxy(through_proxy ? std::make_unique<test::fault_proxy>(service.port()) : nullptr),
          app(service, false, std::move(timings), proxy ? proxy->port() : 0)
    {
        EXPECT_TRUE(app.start_paired(deadline));
        EXPECT_TRUE(service.wait_for_connection(deadline));
    }

    /// Sends a list request and returns the reply's payload.
    Json list(const std::string& kind) { return service.reply_payload(service.list(kind), deadline); }

    sim::service_sim service;
    std::unique_ptr<test::fault_proxy> proxy;
    test::client_harness app;
};

TEST_F(Requests, ListsEachKindOfSourceWhenAllowed)
{
    app.allow_all();

    Json screens = list("Screen");
    EXPECT_EQ(screens["status"], "Success");
    ASSERT_EQ(screens["results"].size(), 2u);
    EXPECT_EQ(screens["results"][0]["description"], "1280x720");
    EXPECT_EQ(screens["results"][1]["description"], "1024x768");
    EXPECT_EQ(screens["results"][0]["isActive"], false);
    auto asked = app.permissions().pop(deadline);
    ASSERT_TRUE(asked);
    EXPECT_EQ(asked->kind, source_type::screen);
    EXPECT_EQ(asked->request, request_type::list);
    EXPECT_EQ(asked->name, "");

    // What each entry says is the catalogue's business (the worker tests); here, that
    // every kind is served.
    EXPECT_EQ(list("window")["results"].size(), test::media_environment::current().windows().size());
    Json audio = list("audio");
    EXPECT_EQ(audio["status"], "Success");
    EXPECT_FALSE(audio["results"].empty());

    Json cameras = list("video");
    EXPECT_EQ(cameras, Json({{"status", "Success"}, {"results", Json::array()}}));

    Json unknown = list("printer");
    EXPECT_EQ(unknown, Json({{"status", "Failure"}, {"results", nullptr}}));
}

TEST_F(Requests, ListRepliesEchoIdAndStateAndAreRejectedWhenDenied)
{
    // No answer installed: the harness denies.
    ASSERT_TRUE(service.send_raw(R"({"id":"list","state":7,"payload":{"type":"screen"}})"));
    auto denied = service.wait_for([](const sim::received& r) { return r.message.value("state", Json()) == 7; },
                                   deadline);
    ASSERT_TRUE(denied);
    EXPECT_EQ(denied->message, Json({{"id", "list"}, {"state", 7}, {"payload", {{"status", "Rejected"}}}}));

    app.allow_all();
    ASSERT_TRUE(service.send_raw(R"({"id":"list","state":8,"payload":{"type":"SCREEN"}})"));
    auto allowed = service.wait_for([](const sim::received& r) { return r.message.value("state", Json()) == 8; },
                                    deadline);
    ASSERT_TRUE(allowed);
    EXPECT_EQ(allowed->message["payload"]["status"], "Success");
}

/// Streams through the client to a real ingest.
class Streams : public Requests {
protected:
    explicit Streams(std::function<void(client_options&)> timings = test_timings, bool through_proxy = false)
        : Requests(std::move(timings), through_proxy)
    {
        app.allow_all();
    }

    /// The id of the listed source of kind at position index (outputs come first for audio).
    std::string source_id(const std::string& kind, std::size_t index = 0)
    {
        Json entries = list(kind)["results"];
        return entries.size() > index ? entries[index]["id"].get<std::string>() : std::string{};
    }

    /// Sends an activate request and returns the reply's payload.
    Json activate(const std::string& id, const std::string& key, const std::string& server = "")
    {
        return service.reply_payload(service.activate(sim::activation::of(id, server.empty() ? ingest.url() : server, key)),
                                     deadline);
    }

    /// Sends a deactivate for id and returns the reply's payload, or null when none came.
    Json deactivate(const std::string& id) { return service.reply_payload(service.deactivate(id), deadline); }

    bool listed_active(const std::string& kind, const std::string& id)
    {
        Json entries = list(kind)["results"];
        for (const auto& entry : entries)
            if (entry["id"] == id)
                return entry["isActive"].get<bool>();
        return false;
    }

    test::rtmp_ingest ingest;
};

TEST_F(Streams, TwoSourcesStreamAtOnceAndReactivatingKeepsOnlyTheNewStream)
{
    test::stderr_capture log; // the workers inherit this process's standard error
    std::string screen = source_id("screen");
    std::string speakers = source_id("audio");
    ASSERT_EQ(activate(screen, "first"), Json({{"status", "Success"}}));
    ASSERT_EQ(activate(speakers, "sound"), Json({{"status", "Success"}}));
    EXPECT_TRUE(ingest.wait_for_publishing("first", deadline));
    EXPECT_TRUE(ingest.wait_for_publishing("sound", deadline));
    // The application is told what runs, each source by the name it was asked about.
    auto told = app.streams().pop(deadline);
    ASSERT_TRUE(told);
    ASSERT_EQ(told->size(), 1u);
    EXPECT_EQ(told->front().id, screen);
    EXPECT_EQ(told->front().kind, callback::source_type::screen);
    auto asked = app.permissions().pop_until(
        [](const test::client_harness::permission_asked& p) { return p.request == request_type::activate; }, 0ms);
    ASSERT_TRUE(asked);
    EXPECT_EQ(told->front().name, asked->name);
    EXPECT_TRUE(app.wait_for_streams({screen, speakers}, deadline));

    // The same screen again, to another key: the new stream replaces the old one.
    ASSERT_EQ(activate(screen, "second"), Json({{"status", "Success"}}));
    EXPECT_TRUE(app.wait_for_streams({speakers, screen}, deadline)) << "the old stream of the screen is still told";
    EXPECT_TRUE(ingest.wait_for_publishing("second", deadline));
    EXPECT_TRUE(ingest.wait_until_not_publishing("first", deadline));
    EXPECT_TRUE(ingest.publishing("sound"));
    EXPECT_TRUE(listed_active("screen", screen));
    EXPECT_TRUE(listed_active("audio", speakers));

    // A deactivate without a payload stops everything.
    EXPECT_EQ(service.reply_payload(service.deactivate_all(), deadline), Json({{"status", "Success"}}));
    EXPECT_TRUE(app.wait_for_state(state_type::connected, deadline));
    EXPECT_TRUE(app.wait_for_streams({}, deadline));
    EXPECT_TRUE(ingest.wait_until_not_publishing("second", deadline));
    EXPECT_TRUE(ingest.wait_until_not_publishing("sound", deadline));
    EXPECT_EQ(log.text().find("\"key\":\"first\""), std::string::npos) << "the stream key was logged";
}

TEST_F(Streams, DeniedUnknownAndInactiveRequestsStartAndStopNothing)
{
    std::string screen = source_id("screen");
    app.on_permission(nullptr); // denied
    EXPECT_EQ(activate(screen, "denied"), Json({{"status", "Rejected"}}));
    EXPECT_FALSE(ingest.publishing("denied"));

    app.allow_all();
    Json unknown = activate(std::string(64, 'f'), "unknown");
    EXPECT_EQ(unknown["status"], "Failure");

    // Deactivating what does not stream gets no answer at all, and stops nothing.
    ASSERT_EQ(activate(screen, "kept"), Json({{"status", "Success"}}));
    auto unknown_state = service.deactivate(std::string(64, 'e'));
    ASSERT_TRUE(unknown_state);
    barrier();
    EXPECT_FALSE(service.wait_for_reply(*unknown_state, 0ms));
    EXPECT_TRUE(ingest.publishing("kept"));
}

TEST_F(Streams, AWorkerKilledMidStreamEndsOnlyItsOwnStream)
{
    std::string screen = source_id("screen");
    std::string speakers = source_id("audio");
    ASSERT_EQ(activate(screen, "screen"), Json({{"status", "Success"}}));
    ASSERT_EQ(activate(speakers, "sound"), Json({{"status", "Success"}}));
    ASSERT_TRUE(ingest.wait_for_publishing("screen", deadline));
    ASSERT_TRUE(ingest.wait_for_publishing("sound", deadline));

    // Kill the first stream worker started.
    std::vector<int> workers = stream_workers();
    ASSERT_EQ(workers.size(), 2u);
    std::sort(workers.begin(), workers.end());
    test::stderr_capture log;
    ASSERT_EQ(::kill(workers.front(), SIGKILL), 0);

    EXPECT_TRUE(ingest.wait_until_not_publishing("screen", deadline));
    EXPECT_TRUE(eventually([&] { return !listed_active("screen", screen); }));
    EXPECT_TRUE(listed_active("audio", speakers));
    EXPECT_TRUE(ingest.publishing("sound"));
    EXPECT_NE(log.text().find("ended: its media worker killed by signal"), std::string::npos) << log.text();
    EXPECT_TRUE(app.wait_for_streams({speakers}, deadline));

    // The last stream's worker dying leaves the client connected, not streaming.
    for (int pid : stream_workers())
        ::kill(pid, SIGKILL);
    EXPECT_TRUE(app.wait_for_state(state_type::connected, deadline));
    EXPECT_TRUE(ingest.wait_until_not_publishing("sound", deadline));
}

TEST_F(Streams, AHangingStartNeitherStallsTheLinkNorOutlivesADeactivate)
{
    std::string screen = source_id("screen");
    std::string speakers = source_id("audio");
    ASSERT_EQ(activate(speakers, "sound"), Json({{"status", "Success"}}));
    ASSERT_TRUE(app.wait_for_state(state_type::streaming, deadline));

    // The screen's start hangs on an ingest that accepts the connection and never answers.
    test::silent_server silent;
    auto hanging_state = service.activate(sim::activation::of(screen, silent.url(), "hangs"));
    ASSERT_TRUE(hanging_state);
    ASSERT_TRUE(silent.wait_for_client(deadline));
    std::size_t pings_before = service.pings().size();

    // Meanwhile the link serves as ever: the other stream is stopped and answered at once...
    EXPECT_EQ(deactivate(speakers), Json({{"status", "Success"}}));
    EXPECT_FALSE(service.wait_for_reply(*hanging_state, 0ms)) << "the hanging start was answered first";
    EXPECT_TRUE(app.wait_for_state(state_type::connected, deadline));
    EXPECT_TRUE(ingest.wait_until_not_publishing("sound", deadline));
    // ...and keep-alive pings keep coming at their interval, each answered in time.
    ASSERT_TRUE(eventually([&] { return service.pings().size() >= pings_before + 20; }));
    auto pings = service.pings();
    for (std::size_t i = pings_before + 1; i < pings.size(); ++i)
        EXPECT_LT(pings[i].at - pings[i - 1].at, 1000ms) << "the network thread stalled before ping " << i;

    // Deactivating the source while it still starts cancels the start; both are answered.
    EXPECT_EQ(deactivate(screen), Json({{"status", "Success"}}));
    auto cancelled = service.wait_for_reply(*hanging_state, deadline);
    ASSERT_TRUE(cancelled);
    EXPECT_EQ(cancelled->message["payload"],
              Json({{"status", "Failure"}, {"error", "deactivated while starting"}}));
    // Nothing streams afterwards.
    EXPECT_TRUE(eventually([] { return stream_workers().empty(); })) << "a stream worker is left";
    EXPECT_FALSE(listed_active("screen", screen));

    // The link never dropped: no reconnection, no disconnected report.
    EXPECT_FALSE(service.wait_for_connection(0ms));
    while (auto state = app.states().pop(0ms))
        EXPECT_NE(*state, state_type::disconnected);
}

// Workers whose calls time out quickly, for a worker that stops answering.
// The front ends keep the listing worker and one spare stream worker started ahead of
// the requests, so neither a first list nor an activation waits for a worker to start.
class WarmWorkers : public Streams {
protected:
    WarmWorkers()
        : Streams([](client_options& options) {
              test_timings(options);
              options.media.warm = true;
          })
    {
    }

    /// The one stream worker running besides those in busy, once there is exactly one.
    std::optional<int> spare_besides(const std::vector<int>& busy)
    {
        std::optional<int> found;
        eventually([&] {
            std::vector<int> others;
            for (int pid : stream_workers())
                if (std::find(busy.begin(), busy.end(), pid) == busy.end())
                    others.push_back(pid);
            found = others.size() == 1 ? std::optional<int>(others.front()) : std::nullopt;
            return found.has_value();
        });
        return found;
    }
};

TEST_F(WarmWorkers, AnActivationTakesTheSpareAndASpareThatDiesIsReplaced)
{
    // Both start with the client, before any request: the listing worker and the spare.
    auto spare = spare_besides({});
    ASSERT_TRUE(spare);
    EXPECT_TRUE(eventually([] { return test::children_running(::getpid(), {"orbweave-media-worker"}).size() == 2; }));

    // The spare is not a stream: nothing is listed active, nothing is reported.
    std::string screen = source_id("screen");
    EXPECT_FALSE(listed_active("screen", screen));
    EXPECT_FALSE(app.streams().pop(0ms));

    ASSERT_EQ(activate(screen, "warm"), Json({{"status", "Success"}}));
    ASSERT_TRUE(ingest.wait_for_publishing("warm", deadline));
    EXPECT_TRUE(app.wait_for_state(state_type::streaming, deadline));
    // A new spare starts once the stream runs.
    auto next = spare_besides({*spare});
    ASSERT_TRUE(next);

    // A spare that dies is replaced, and the stream runs on.
    ASSERT_EQ(::kill(*next, SIGKILL), 0);
    EXPECT_TRUE(spare_besides({*spare, *next}));
    EXPECT_TRUE(ingest.publishing("warm"));
    EXPECT_TRUE(listed_active("screen", screen));

    // The stream runs in the worker that was the spare: ending it ends the stream.
    ASSERT_EQ(::kill(*spare, SIGKILL), 0);
    EXPECT_TRUE(app.wait_for_state(state_type::connected, deadline));
    EXPECT_TRUE(ingest.wait_until_not_publishing("warm", deadline));

    // Later activations take the replacement; nothing is left once the client has stopped.
    ASSERT_EQ(activate(screen, "again"), Json({{"status", "Success"}}));
    EXPECT_TRUE(ingest.wait_for_publishing("again", deadline));
    app.client().stop();
    app.client().join();
    EXPECT_TRUE(test::children_running(::getpid(), {"orbweave-media-worker"}).empty());
}

TEST_F(WarmWorkers, AKeyDeactivatedAMomentAgoCanBeStreamedToAgain)
{
    // "Success" for a deactivate comes while the old worker still leaves the ingest, and
    // the spare makes the next start quicker than that; the ingest turns a second
    // publisher of a key away.
    std::string speakers = source_id("audio");
    ASSERT_EQ(activate(speakers, "same-key"), Json({{"status", "Success"}}));
    for (int round = 0; round < 3; ++round) {
        ASSERT_TRUE(eventually([] { return stream_workers().size() == 2; })) << "no spare in round " << round;
        ASSERT_EQ(deactivate(speakers), Json({{"status", "Success"}})) << "round " << round;
        EXPECT_EQ(activate(speakers, "same-key"), Json({{"status", "Success"}})) << "round " << round;
    }
    EXPECT_TRUE(ingest.wait_for_publishing("same-key", deadline));
    EXPECT_TRUE(listed_active("audio", speakers));
}

// A stream order's bound derives from the bounds of the steps it waits for; these are
// shortened here, so a frozen worker is given up on soon.
void short_stream_steps(client_options& options)
{
    test_timings(options);
    options.media.stream.portal_start_limit = 1s;
    options.media.stream.source_size_limit = 1s;
    options.media.stream.output_start_limit = 2s;
}

class FrozenWorker : public Streams {
protected:
    FrozenWorker() : Streams(short_stream_steps) {}
};

TEST_F(FrozenWorker, AStartWhoseWorkerFreezesFailsWithinItsBoundAndTheClientServesOn)
{
    std::string screen = source_id("screen");
    // The screen's start waits on a silent ingest; its worker is frozen meanwhile.
    test::silent_server silent;
    auto state = service.activate(sim::activation::of(screen, silent.url(), "frozen"));
    ASSERT_TRUE(state);
    ASSERT_TRUE(silent.wait_for_client(deadline));
    auto workers = stream_workers();
    ASSERT_EQ(workers.size(), 1u);
    ASSERT_EQ(::kill(workers.front(), SIGSTOP), 0);

    // The start is answered "Failure" once its bound passes, and the worker is killed.
    client_options shortened;
    short_stream_steps(shortened);
    auto bound = obs::stream_start_limit(shortened.media.stream.steps());
    auto reply = service.wait_for_reply(*state, bound + deadline);
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->message["payload"]["status"], "Failure") << reply->message;
    EXPECT_TRUE(eventually([&] { return test::process_gone(workers.front()); })) << "the frozen worker was left";
    EXPECT_FALSE(listed_active("screen", screen));
    // The client serves on: another stream starts and is answered.
    EXPECT_EQ(activate(screen, "after"), Json({{"status", "Success"}}));
    EXPECT_TRUE(ingest.wait_for_publishing("after", deadline));
}

TEST(LateAnswers, AnAnswerAfterStopOrFromAnEarlierRunStartsNothing)
{
    sim::service_sim service;
    test::rtmp_ingest ingest;
    auto app = std::make_unique<test::client_harness>(service, false, test_timings);
    app->set_secret(service.issue_secret({"Ann", ""}));
    std::mutex mutex;
    std::vector<callback::request> kept; // activations, answered by the test
    app->on_permission([&](source_type::type, const std::string&, const std::string&, request_type::type kind,
                           const callback::request& request) {
        if (kind == request_type::list)
            return request.answer(true);
        std::lock_guard<std::mutex> lock(mutex);
        kept.push_back(request);
    });
    auto asked = [&](std::size_t count) {
        return eventually([&] {
            std::lock_guard<std::mutex> lock(mutex);
            return kept.size() >= count;
        });
    };
    auto activate = [&](const std::string& key) {
        Json screen = service.reply_payload(service.list("screen"), deadline)["results"][0];
        return service.activate(sim::activation::of(screen.value("id", ""), ingest.url(), key)).value_or("");
    };

    app->start();
    ASSERT_TRUE(app->wait_for_state(state_type::connected, deadline));
    std::string first = activate("first");
    ASSERT_TRUE(asked(1));

    // Answered after stop(): the client has gone away meanwhile, and nothing starts.
    app->client().stop();
    kept[0].answer(true);
    app->client().join();
    EXPECT_TRUE(stream_workers().empty());

    // After stop, join and start, an answer to the earlier run's request does nothing either,
    // while this run's requests are served as usual.
    app->start();
    ASSERT_TRUE(app->wait_for_state(state_type::connected, deadline));
    std::string second = activate("second");
    ASSERT_TRUE(asked(2));
    kept[0].answer(true);
    kept[1].answer(false);
    auto rejected = service.wait_for_reply(second, deadline);
    ASSERT_TRUE(rejected);
    EXPECT_EQ(rejected->message["payload"], Json({{"status", "Rejected"}}));
    EXPECT_FALSE(service.wait_for_reply(first, 0ms)) << "the earlier run's request was answered";
    EXPECT_TRUE(stream_workers().empty());
    EXPECT_FALSE(ingest.publishing("first"));

    // Answered once the client is gone altogether: nothing happens, and nothing crashes.
    std::string third = activate("third");
    ASSERT_TRUE(asked(3));
    app.reset();
    kept[2].answer(true);
    EXPECT_TRUE(stream_workers().empty());
}

/// Streams across outages of the link to the service, made by a proxy in front of it
/// that cuts the link and refuses new connections for a while.
class Outages : public Streams {
protected:
    Outages()
        : Streams(
              [](client_options& options) {
                  test_timings(options);
                  options.reconnect_delay_ms = 100;
              },
              true)
    {
        EXPECT_EQ(activate(source_id("screen"), "live"), Json({{"status", "Success"}}));
        EXPECT_TRUE(ingest.wait_for_publishing("live", deadline));
    }

    /// The link drops and every new attempt is refused until end_outage().
    void begin_outage()
    {
        proxy->refuse(true);
        proxy->cut();
    }
    void end_outage() { proxy->refuse(false); }
};

TEST_F(Outages, AShortOutageKeepsTheStream)
{
    auto publisher = ingest.publisher("live");
    ASSERT_TRUE(publisher);
    test::stderr_capture log;
    begin_outage();
    EXPECT_TRUE(app.wait_for_state(state_type::disconnected, deadline));
    EXPECT_TRUE(app.wait_for_state(state_type::disconnected, deadline)); // a second failed attempt
    end_outage();
    EXPECT_TRUE(app.wait_for_state(state_type::streaming, deadline)); // "ready" with a stream running
    // The ingest saw nothing happen: the same connection publishes.
    EXPECT_EQ(ingest.publisher("live"), publisher);
    EXPECT_EQ(log.count_lines_starting("Stopping all current streams"), 0);
    EXPECT_EQ(log.count_lines_starting("The stream of source "), 0) << log.text();
}

TEST_F(Outages, ALongOutageStopsTheStreamsOnTheSixthAttempt)
{
    test::stderr_capture log;
    begin_outage();
    for (int failure = 1; failure <= 6; ++failure)
        EXPECT_TRUE(app.wait_for_state(state_type::disconnected, deadline)) << failure;
    EXPECT_TRUE(ingest.wait_until_not_publishing("live", deadline));
    EXPECT_EQ(log.count_lines_starting("Stopping all current streams due to disconnection lasting 400ms"), 1);
    end_outage();
    EXPECT_TRUE(app.wait_for_state(state_type::connected, deadline)); // nothing left to stream
    EXPECT_TRUE(eventually([] { return stream_workers().empty(); })) << "a stream worker is left";
}

/// Streams to an ingest behind a proxy that can stall the path (take bytes, forward
/// none), with workers that notice a second of silence.
class StalledIngest : public Streams {
protected:
    explicit StalledIngest(std::chrono::milliseconds outage_limit)
        : Streams([outage_limit](client_options& options) {
              options.media.stream.ingest_outage_limit = outage_limit;
              options.media.stream.send_stall_limit = 1s;
          })
    {
    }

    /// Starts a screen stream through the proxy; returns the screen's id.
    std::string stream_through_path(const std::string& key)
    {
        std::string screen = source_id("screen");
        EXPECT_EQ(activate(screen, key, "rtmp://127.0.0.1:" + std::to_string(path.port()) + "/live"),
                  Json({{"status", "Success"}}));
        EXPECT_TRUE(ingest.wait_for_publishing(key, deadline));
        return screen;
    }

    test::fault_proxy path{ingest.rtmp_port()};
};

class LongStall : public StalledIngest {
protected:
    LongStall() : StalledIngest(1s) {}
};

TEST_F(LongStall, EndsTheStreamOnceTheIngestStaysAwayAndLaterActivationsWork)
{
    std::string screen = stream_through_path("stalled");
    test::stderr_capture log;
    path.stall(true);
    // The stalled connection is given up, the reconnection finds the path still stalled,
    // and after the outage limit the stream ends: the client is left connected.
    EXPECT_TRUE(app.wait_for_state(state_type::connected, deadline));
    EXPECT_EQ(log.count_lines_starting("The stream of source " + screen +
                                       " ended: rtmp disconnected: the ingest did not come back within 1000 ms"),
              1)
        << log.text();
    EXPECT_TRUE(eventually([] { return stream_workers().empty(); })) << "its worker is left";
    EXPECT_FALSE(listed_active("screen", screen));
    EXPECT_EQ(activate(screen, "after"), Json({{"status", "Success"}}));
    EXPECT_TRUE(ingest.wait_for_publishing("after", deadline));
}

class ShortStall : public StalledIngest {
protected:
    ShortStall() : StalledIngest(20s) {}
};

TEST_F(ShortStall, ReconnectsTheStreamWhenThePathComesBack)
{
    std::string screen = stream_through_path("resumes");
    auto before = ingest.publisher("resumes");
    int connections = path.accepted();
    test::stderr_capture log;
    path.stall(true);
    // The worker gives the stalled connection up and tries again; the path then clears.
    ASSERT_TRUE(eventually([&] { return path.accepted() > connections; })) << "no new connection";
    path.stall(false);
    EXPECT_TRUE(eventually([&] {
        auto now = ingest.publisher("resumes");
        return now && now != before;
    })) << "the stream did not come back";
    EXPECT_TRUE(listed_active("screen", screen));
    EXPECT_EQ(log.count_lines_starting("The stream of source "), 0) << log.text();
}

} // namespace
} // namespace orbweave
