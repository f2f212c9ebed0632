// The service's list, activate and deactivate requests end to end: the
// simulator over loopback TLS, the client, and real media workers under Xvfb
// and PulseAudio.

#include "core/orbweave_client.hpp"
#include "tests/support/client_harness.hpp"
#include "tests/support/media_fixtures.hpp"

#include <gtest/gtest.h>

#include <thread>

namespace orbweave {
namespace {

using namespace std::chrono_literals;
using callback::request_type;
using callback::source_type;
using callback::state_type;

[[maybe_unused]] auto* const environment = ::testing::AddGlobalTestEnvironment(new test::media_environment);

constexpr auto deadline = 20s;
constexpr auto quiet = 300ms;

void allow_all(source_type::type, const std::string&, const std::string&, request_type::type,
               const callback::request& request)
{
    request.answer(true);
}

class Requests : public ::testing::Test {
protected:
    Requests() : app(service)
    {
        app.set_secret(service.issue_secret({"Ann", ""}));
        app.start();
        EXPECT_TRUE(app.wait_for_state(state_type::connected, deadline));
        EXPECT_TRUE(service.wait_for_connection(deadline));
    }

    /// Sends a list request and returns the reply's payload.
    Json list(const std::string& kind)
    {
        auto state = service.list(kind);
        EXPECT_TRUE(state);
        auto reply = service.wait_for_reply(state.value_or(""), deadline);
        EXPECT_TRUE(reply);
        if (!reply)
            return {};
        EXPECT_EQ(reply->message["id"], "list");
        return reply->message["payload"];
    }

    sim::service_sim service;
    test::client_harness app;
};

TEST_F(Requests, ListsEachKindOfSourceWhenAllowed)
{
    app.on_permission(allow_all);

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

    Json windows = list("window");
    EXPECT_EQ(windows["status"], "Success");
    std::vector<std::string> titles;
    for (const auto& window : windows["results"])
        titles.push_back(window["description"]);
    for (const auto& opened : test::media_environment::current().windows())
        EXPECT_NE(std::find(titles.begin(), titles.end(), opened->title()), titles.end()) << opened->title();

    Json audio = list("audio");
    EXPECT_EQ(audio["status"], "Success");
    ASSERT_FALSE(audio["results"].empty());
    EXPECT_EQ(audio["results"][0]["input"], false); // outputs come first
    EXPECT_EQ(audio["results"].back()["input"], true);

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

    app.on_permission(allow_all);
    ASSERT_TRUE(service.send_raw(R"({"id":"list","state":8,"payload":{"type":"SCREEN"}})"));
    auto allowed = service.wait_for([](const sim::received& r) { return r.message.value("state", Json()) == 8; },
                                    deadline);
    ASSERT_TRUE(allowed);
    EXPECT_EQ(allowed->message["payload"]["status"], "Success");
}

TEST_F(Requests, AnAnswerMayComeLaterFromAnotherThreadAndOnlyOnce)
{
    std::mutex mutex;
    std::vector<callback::request> pending;
    app.on_permission([&](source_type::type, const std::string&, const std::string&, request_type::type,
                          const callback::request& request) {
        std::lock_guard<std::mutex> lock(mutex);
        pending.push_back(request);
    });
    auto state = service.list("screen");
    ASSERT_TRUE(state);
    ASSERT_TRUE(app.permissions().pop(deadline));
    EXPECT_FALSE(service.wait_for_reply(*state, quiet)); // nothing until the user answers

    std::thread user([&] {
        std::lock_guard<std::mutex> lock(mutex);
        pending.at(0).answer(true);
        pending.at(0).answer(false); // a second answer is ignored
    });
    user.join();
    auto reply = service.wait_for_reply(*state, deadline);
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->message["payload"]["status"], "Success");
    EXPECT_FALSE(service.wait_for_reply(*state, quiet));
}

TEST(RequestsWithoutPermissionHandler, AreRejectedAtOnce)
{
    sim::service_sim service;
    test::client_harness app(service, /*bare=*/true);
    app.start();
    ASSERT_TRUE(service.wait_for_code_request(deadline));
    auto state = service.list("screen");
    ASSERT_TRUE(state);
    auto reply = service.wait_for_reply(*state, deadline);
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->message["payload"], Json({{"status", "Rejected"}}));
}

} // namespace
} // namespace orbweave
