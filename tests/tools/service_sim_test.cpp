#include "tests/tools/wss_test_client.hpp"
#include "tools/service-sim/service_sim.hpp"

#include <gtest/gtest.h>

#include <mutex>
#include <regex>
#include <vector>

namespace orbweave::test {
namespace {

using namespace std::chrono_literals;
constexpr duration deadline = 5s;

const Json code_request = {{"id", "code"}, {"url", "/api/client/connect"}, {"method", "GET"}};

Json code_request_with(const std::string& secret)
{
    return {{"id", "code"}, {"url", "/api/client/connect"}, {"payload", {{"secret", secret}}}};
}

// Collects the simulator's event lines.
struct event_log {
    std::mutex mutex;
    std::vector<std::string> lines;

    std::function<void(const std::string&)> sink()
    {
        return [this](const std::string& line) {
            std::lock_guard<std::mutex> lock(mutex);
            lines.push_back(line);
        };
    }
    bool mentions(const std::string& text)
    {
        std::lock_guard<std::mutex> lock(mutex);
        for (const auto& line : lines)
            if (line.find(text) != std::string::npos)
                return true;
        return false;
    }
};

class ServiceSim : public ::testing::Test {
protected:
    sim::service_sim& start(sim::options options = {})
    {
        options.on_event = events.sink();
        service = std::make_unique<sim::service_sim>(std::move(options));
        return *service;
    }

    // A client that has connected and received its identify request.
    std::unique_ptr<wss_test_client> connect(Json* identify = nullptr)
    {
        auto client = std::make_unique<wss_test_client>(service->identity().ca);
        EXPECT_TRUE(client->connect(service->url(), deadline));
        auto first = client->wait_for_json(deadline);
        EXPECT_TRUE(first.has_value());
        if (identify && first)
            *identify = *first;
        return client;
    }

    // Pairs a fresh client: code request, code, claim. Returns the secret.
    std::string pair(wss_test_client& client, const std::string& name)
    {
        client.send(code_request);
        auto code = client.wait_for_json(deadline);
        auto secret = service->claim(json::string_at(code.value_or(Json()), {"payload", "code"}), {name, ""});
        EXPECT_TRUE(secret.has_value());
        auto ready = client.wait_for_json(deadline);
        EXPECT_EQ(json::string_at(ready.value_or(Json()), {"id"}), "ready");
        return secret.value_or("");
    }

    event_log events;
    std::unique_ptr<sim::service_sim> service;
};

TEST_F(ServiceSim, IdentifiesEveryConnectionWithAFreshStateAndRecordsTheAnswer)
{
    start();
    Json first, second;
    auto one = connect(&first);
    auto two = connect(&second);

    EXPECT_EQ(json::string_at(first, {"id"}), "identify");
    EXPECT_FALSE(json::string_at(first, {"state"}).empty());
    EXPECT_NE(json::string_at(first, {"state"}), json::string_at(second, {"state"}));
    EXPECT_EQ(service->connections().size(), 2u);

    Json answer = {{"id", "identify"},
                   {"state", first["state"]},
                   {"payload", {{"name", "host"}, {"fingerprint", std::string(64, 'a')}, {"version", "0.9.4.0"}}}};
    one->send(answer);
    auto recorded = service->wait_for_identify(deadline);
    ASSERT_TRUE(recorded);
    EXPECT_EQ(recorded->message, answer);
    EXPECT_EQ(recorded->connection, service->connections().front());
    // A wait never returns the same frame twice.
    EXPECT_FALSE(service->wait_for_identify(0ms));
}

TEST_F(ServiceSim, PairsWithACodeClaimAndRecognisesTheSecretLater)
{
    start();
    auto client = connect();
    client->send(code_request);
    auto code_message = client->wait_for_json(deadline);
    ASSERT_TRUE(code_message);
    std::string code = json::string_at(*code_message, {"payload", "code"});
    EXPECT_TRUE(std::regex_match(code, std::regex("[A-HJ-NP-Z2-9]{8}"))) << code;
    EXPECT_EQ(service->wait_for_code(deadline), code);
    auto request = service->wait_for_code_request(deadline);
    ASSERT_TRUE(request);
    EXPECT_EQ(request->message, code_request);

    EXPECT_FALSE(service->claim("NOSUCH22", {"Mallory", ""}));
    auto secret = service->claim(code, {"Alice Example", "https://127.0.0.1/alice.png"});
    ASSERT_TRUE(secret);
    EXPECT_TRUE(std::regex_match(*secret, std::regex("[0-9a-f]{64}")));
    EXPECT_FALSE(service->claim(code, {"Alice Example", ""})) << "a code is claimed once";
    auto ready = client->wait_for_json(deadline);
    ASSERT_TRUE(ready);
    EXPECT_EQ(*ready, Json({{"id", "ready"},
                            {"payload",
                             {{"secret", *secret},
                              {"owner", {{"displayName", "Alice Example"}, {"avatar", "https://127.0.0.1/alice.png"}}}}}}));

    // On a later connection the secret is answered with "ready" at once...
    auto later = connect();
    later->send(code_request_with(*secret));
    auto again = later->wait_for_json(deadline);
    ASSERT_TRUE(again);
    EXPECT_EQ(json::string_at(*again, {"id"}), "ready");
    EXPECT_EQ(json::string_at(*again, {"payload", "secret"}), *secret);
    EXPECT_EQ(json::string_at(*again, {"payload", "owner", "displayName"}), "Alice Example");

    // ...and a secret the service never issued earns a new code.
    later->send(code_request_with("not-a-secret"));
    auto fresh = later->wait_for_json(deadline);
    ASSERT_TRUE(fresh);
    EXPECT_EQ(json::string_at(*fresh, {"id"}), "code");
    EXPECT_NE(json::string_at(*fresh, {"payload", "code"}), code);

    EXPECT_TRUE(events.mentions("claimed " + code + " by Alice Example"));
    EXPECT_TRUE(events.mentions(sim::secret_prefix(*secret)));
    EXPECT_FALSE(events.mentions(*secret)) << "events must not carry whole secrets";
}

TEST_F(ServiceSim, AutoClaimAnswersEveryCodeWithReady)
{
    sim::options options;
    options.auto_claim = sim::owner{"Robot", "avatar"};
    start(options);
    auto client = connect();
    client->send(code_request);
    auto code = client->wait_for_json(deadline);
    auto ready = client->wait_for_json(deadline);
    ASSERT_TRUE(code && ready);
    EXPECT_EQ(json::string_at(*code, {"id"}), "code");
    EXPECT_EQ(json::string_at(*ready, {"id"}), "ready");
    EXPECT_EQ(json::string_at(*ready, {"payload", "owner", "displayName"}), "Robot");
    EXPECT_TRUE(service->knows_secret(json::string_at(*ready, {"payload", "secret"})));
}

TEST_F(ServiceSim, SendsWellFormedRequestsAndRecordsReplies)
{
    start();
    EXPECT_FALSE(service->list("screen")) << "nothing to send to without a client";
    auto client = connect();

    auto list_state = service->list("screen");
    ASSERT_TRUE(list_state);
    auto list = client->wait_for_json(deadline);
    ASSERT_TRUE(list);
    EXPECT_EQ(*list, Json({{"id", "list"}, {"state", *list_state}, {"payload", {{"type", "screen"}}}}));

    Json reply = {{"id", "list"},
                  {"state", *list_state},
                  {"payload",
                   {{"status", "Success"},
                    {"results", {{{"id", "s0"}, {"name", "Display 1"}, {"description", "1280x720"}, {"isActive", false}}}}}}};
    client->send(reply);
    auto recorded = service->wait_for_reply(*list_state, deadline);
    ASSERT_TRUE(recorded);
    EXPECT_EQ(recorded->message, reply);

    // Activation fills in what the list reply said about the source.
    sim::activation request;
    request.source_id = "s0";
    request.profile = "high";
    request.server = "rtmp://127.0.0.1:1935/live";
    request.key = "stream-key-123";
    request.width = 1280;
    request.height = 720;
    auto activate_state = service->activate(request);
    ASSERT_TRUE(activate_state);
    auto activate = client->wait_for_json(deadline);
    ASSERT_TRUE(activate);
    EXPECT_EQ(*activate,
              Json({{"id", "activate"},
                    {"state", *activate_state},
                    {"payload",
                     {{"source", {{"id", "s0"}, {"type", "screen"}, {"name", "Display 1"}, {"description", "1280x720"}}},
                      {"options", {{"profile", "high"}, {"width", 1280}, {"height", 720}}},
                      {"service", {{"server", "rtmp://127.0.0.1:1935/live"}, {"key", "stream-key-123"}}}}}}));
    EXPECT_FALSE(events.mentions("stream-key-123")) << "events must not carry stream keys";

    auto one_state = service->deactivate("s0");
    auto one = client->wait_for_json(deadline);
    ASSERT_TRUE(one_state && one);
    EXPECT_EQ(*one, Json({{"id", "deactivate"}, {"state", *one_state}, {"payload", {{"source", {{"id", "s0"}}}}}}));

    auto all_state = service->deactivate_all();
    auto all = client->wait_for_json(deadline);
    ASSERT_TRUE(all_state && all);
    EXPECT_EQ(*all, Json({{"id", "deactivate"}, {"state", *all_state}}));

    ASSERT_TRUE(service->reset());
    EXPECT_EQ(client->wait_for_json(deadline), Json({{"id", "reset"}}));

    ASSERT_TRUE(service->send_raw("{not json"));
    EXPECT_EQ(client->wait_for_frame(deadline), "{not json");

    // Replies are matched by state, whatever order they come in; anything is recorded.
    client->send(std::string("garbage"));
    client->send(Json({{"id", "deactivate"}, {"state", *all_state}, {"payload", {{"status", "Success"}}}}));
    client->send(Json({{"id", "activate"}, {"state", *activate_state}, {"payload", {{"status", "Rejected"}}}}));
    auto activated = service->wait_for_reply(*activate_state, deadline);
    ASSERT_TRUE(activated);
    EXPECT_EQ(json::string_at(activated->message, {"payload", "status"}), "Rejected");
    EXPECT_TRUE(service->wait_for_reply(*all_state, deadline));
    auto garbage = service->wait_for([](const sim::received& r) { return r.text == "garbage"; }, deadline);
    ASSERT_TRUE(garbage);
    EXPECT_TRUE(garbage->message.is_null());
}

TEST_F(ServiceSim, ProbeEndpointMeasuresOrAnswersAsConfigured)
{
    start();
    const std::string body(1024 * 1024, '\x5a');
    const std::string& ca = service->identity().ca;
    auto post = [&] { return https_request(service->port(), ca, "POST", "/api/client/test", body, deadline); };

    http_result measured = post();
    ASSERT_EQ(measured.status, 200) << measured.error;
    Json answer = json::parse(measured.body);
    EXPECT_EQ(json::int_at(answer, {"bytes"}), 1048576);
    EXPECT_GE(json::int_at(answer, {"duration"}), 1);
    auto probe = service->wait_for_probe(deadline);
    ASSERT_TRUE(probe);
    EXPECT_EQ(probe->bytes, body.size());

    service->answer_probe_json({{"bytes", 1048576}, {"duration", 3}});
    EXPECT_EQ(json::parse(post().body), Json({{"bytes", 1048576}, {"duration", 3}}));

    service->answer_probe_text("not json at all");
    http_result text = post();
    EXPECT_EQ(text.status, 200);
    EXPECT_EQ(text.body, "not json at all");

    service->answer_probe_status(503, "busy");
    EXPECT_EQ(post().status, 503);

    service->answer_probe_measured();
    EXPECT_EQ(json::int_at(json::parse(post().body), {"bytes"}), 1048576);

    EXPECT_EQ(https_request(service->port(), ca, "GET", "/api/client/test", "", deadline).status, 405);
    EXPECT_EQ(https_request(service->port(), ca, "POST", "/elsewhere", "x", deadline).status, 404);
    EXPECT_EQ(service->probes().size(), 5u) << "only uploads to the probe path count";
}

TEST_F(ServiceSim, DropsConnectionsAndRestartsOnTheSamePortKeepingSecrets)
{
    start();
    auto client = connect();
    std::string secret = pair(*client, "Alice");
    ASSERT_TRUE(service->wait_for_connection(deadline));

    service->drop_connections();
    EXPECT_TRUE(client->wait_for_close(deadline));
    EXPECT_TRUE(service->wait_for_disconnect(deadline));
    auto back = connect(); // still listening
    ASSERT_TRUE(service->wait_for_connection(deadline));

    std::uint16_t port = service->port();
    service->stop();
    EXPECT_FALSE(service->running());
    EXPECT_TRUE(back->wait_for_close(deadline));
    EXPECT_TRUE(service->wait_for_disconnect(deadline));
    {
        wss_test_client refused(service->identity().ca);
        EXPECT_FALSE(refused.connect(service->url(), 2s));
    }

    service->start();
    EXPECT_EQ(service->port(), port);
    auto returning = connect();
    returning->send(code_request_with(secret));
    auto ready = returning->wait_for_json(deadline);
    ASSERT_TRUE(ready);
    EXPECT_EQ(json::string_at(*ready, {"id"}), "ready");
    EXPECT_EQ(json::string_at(*ready, {"payload", "owner", "displayName"}), "Alice");
}

TEST_F(ServiceSim, RefusesWebSocketsOnOtherPaths)
{
    start();
    wss_test_client client(service->identity().ca);
    EXPECT_FALSE(client.connect(service->url("/api/other"), deadline));
    EXPECT_TRUE(service->connections().empty());
}

} // namespace
} // namespace orbweave::test
