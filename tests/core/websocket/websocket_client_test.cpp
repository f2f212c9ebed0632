#include "core/websocket/websocket_client.hpp"
#include "tests/support/blocking_queue.hpp"
#include "tests/support/eventually.hpp"
#include "tests/support/client_harness.hpp"
#include "tests/support/stderr_capture.hpp"

#include <gtest/gtest.h>

#include <thread>

namespace orbweave::websocket {
namespace {

using namespace std::chrono_literals;
using test::blocking_queue;
using service_peer = sim::service_sim;

constexpr auto deadline = 5s;

/// A transport on its own io thread, recording every message its handlers see.
class transport {
public:
    explicit transport(client_options options = {})
        : client_(std::make_unique<websocket_client>(std::move(options)))
    {
        for (const char* id : {"open", "fail", "hello", "echo"})
            client_->register_message_handler(lambda_message_handler::create(
                id, [this](const connection& link, const Json& message) { on_message(link, message); }));
    }

    ~transport()
    {
        client_->stop();
        io_.stop();
        if (thread_.joinable())
            thread_.join();
    }

    void start(const std::string& url)
    {
        client_->start(&io_, url);
        // Keep the loop alive between events; the destructor stops it.
        work_ = std::make_unique<boost::asio::io_service::work>(io_);
        thread_ = std::thread([this] { io_.run(); });
    }

    websocket_client& client() { return *client_; }
    blocking_queue<Json>& messages() { return messages_; }

    /// The next dispatched message with this id, skipping others; null at the deadline.
    Json next(const std::string& id, std::chrono::milliseconds timeout = deadline)
    {
        auto found = messages_.pop_until([&](const Json& m) { return json::string_at(m, {"id"}) == id; }, timeout);
        return found ? *found : Json{};
    }

    std::function<void(const connection&, const Json&)> on_open;
    std::function<void(const connection&, const Json&)> on_echo;

    /// Whether the connection of the last "fail" is gone: websocketpp lets go of it only
    /// after its close handler ran, so any second "fail" for it would have come by then.
    bool failed_link_released()
    {
        return test::eventually(
            [this] {
                std::lock_guard<std::mutex> lock(mutex_);
                return last_fail_.handle().expired();
            },
            deadline);
    }

private:
    void on_message(const connection& link, const Json& message)
    {
        std::string id = json::string_at(message, {"id"});
        if (id == "fail") {
            std::lock_guard<std::mutex> lock(mutex_);
            last_fail_ = link;
        }
        messages_.push(message);
        if (id == "open" && on_open)
            on_open(link, message);
        if (id == "echo" && on_echo)
            on_echo(link, message);
    }

    boost::asio::io_service io_;
    std::unique_ptr<boost::asio::io_service::work> work_;
    std::unique_ptr<websocket_client> client_;
    std::thread thread_;
    blocking_queue<Json> messages_;
    std::mutex mutex_;
    connection last_fail_;
};

// Both ends have seen the link open: the client's "open" can come before the peer's.
void expect_open(transport& link, service_peer& peer)
{
    ASSERT_FALSE(link.next("open").is_null());
    ASSERT_TRUE(peer.wait_for_connection(deadline));
}

client_options trusting(const service_peer& peer)
{
    client_options options;
    options.ca_file = test::ca_file_of(peer);
    return options;
}

/// The next frame the peer received, as sent.
std::optional<std::string> next_frame(service_peer& peer)
{
    auto frame = peer.wait_for([](const sim::received&) { return true; }, deadline);
    return frame ? std::optional<std::string>(frame->text) : std::nullopt;
}

TEST(TransportTls, UntrustedCertificateFailsWithNothingSent)
{
    for (bool untrusted_certificate : {true, false}) {
        SCOPED_TRACE(untrusted_certificate ? "self-signed certificate" : "certificate for another host");
        sim::options options;
        options.identity = untrusted_certificate ? wss::tls_identity::untrusted() : wss::tls_identity::wrong_host();
        service_peer peer(options);
        test::stderr_capture log;
        transport link(trusting(peer));
        bool opened = false;
        link.on_open = [&](const connection& c, const Json&) {
            opened = true;
            c.send(Json{{"id", "should-not-go"}});
        };
        link.start(peer.url());

        EXPECT_EQ(link.next("fail"), Json({{"id", "fail"}}));
        EXPECT_FALSE(opened);
        // The handshake failed on our side, so the peer can never have seen a WebSocket open.
        EXPECT_FALSE(peer.wait_for_connection(0ms));
        EXPECT_TRUE(peer.messages().empty());
        EXPECT_EQ(log.count_lines_starting("Out: "), 0);
    }
}

// A peer we cannot reach or must not trust, and URLs that name no service: one "fail"
// each, and no crash.
TEST(TransportTls, EveryLinkThatCannotOpenIsReportedAsFail)
{
    service_peer trusted_elsewhere; // its CA is not in the system store alone
    service_peer gone;
    std::string gone_url = gone.url();
    gone.stop();
    const std::pair<std::string, client_options> cases[] = {
        {trusted_elsewhere.url(), {}}, {gone_url, trusting(gone)}, {"not a url", {}},
        {"http://127.0.0.1:1/api/client", {}}, {"", {}}};
    for (const auto& [url, options] : cases) {
        SCOPED_TRACE(url);
        transport link(options);
        link.start(url);
        EXPECT_FALSE(link.next("fail").is_null());
    }
    EXPECT_FALSE(trusted_elsewhere.wait_for_connection(0ms));
}

TEST(TransportLog, EveryFrameIsLoggedOnceWithSecretsHiddenAndSentIntact)
{
    service_peer peer;
    test::stderr_capture log;
    transport link(trusting(peer));
    link.on_open = [](const connection& c, const Json&) {
        c.send(Json{{"id", "hello"}, {"payload", {{"secret", "s3cr3t"}}}});
        c.send(std::string(R"({"id":"activate","payload":{"service":{"key":"live_123","server":"rtmp://h/app"}}})"));
    };
    link.start(peer.url());

    auto first = next_frame(peer);
    auto second = next_frame(peer);
    ASSERT_TRUE(first && second);
    EXPECT_EQ(json::string_at(json::parse(*first), {"payload", "secret"}), "s3cr3t");
    EXPECT_EQ(*second, R"({"id":"activate","payload":{"service":{"key":"live_123","server":"rtmp://h/app"}}})");

    ASSERT_TRUE(peer.send_raw(R"({"id":"hello","payload":{"secret":"from-service","note":"plain"}})"));
    Json hello = link.next("hello");
    EXPECT_EQ(json::string_at(hello, {"payload", "secret"}), "from-service"); // handlers see it intact
    ASSERT_TRUE(peer.send_raw("not json at all"));
    ASSERT_TRUE(peer.send_raw(R"({"id":"echo"})"));
    link.next("echo");

    std::string text = log.text();
    EXPECT_EQ(log.count_lines_starting("Out: "), 2);
    EXPECT_EQ(log.count_lines_starting("In: "), 4); // the service's "identify", then the three above
    EXPECT_NE(text.find("Out: {\"id\":\"hello\",\"payload\":{\"secret\":\"***\"}}\n"), std::string::npos) << text;
    EXPECT_NE(text.find("\"key\":\"***\""), std::string::npos) << text;
    EXPECT_NE(text.find("In: {\"id\":\"hello\",\"payload\":{\"note\":\"plain\",\"secret\":\"***\"}}\n"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("In: not json at all\n"), std::string::npos);
    for (const char* secret : {"s3cr3t", "live_123", "from-service"})
        EXPECT_EQ(text.find(secret), std::string::npos) << secret << " leaked into the log";
    // Local events are not frames and are not logged.
    EXPECT_EQ(text.find("\"open\""), std::string::npos);
}

TEST(TransportDispatch, FramesWithoutAKnownIdAreIgnored)
{
    service_peer peer;
    transport link(trusting(peer));
    link.on_echo = [](const connection& c, const Json&) { c.send(std::string("sentinel")); };
    link.start(peer.url());
    expect_open(link, peer);

    for (const char* frame : {"{not json", R"({"payload":{}})", R"({"id":"unknown"})", R"({"id":42})", "[1,2]"})
        ASSERT_TRUE(peer.send_raw(frame));
    ASSERT_TRUE(peer.send_raw(R"({"id":"echo","state":"last"})"));

    auto next = link.messages().pop(deadline);
    ASSERT_TRUE(next);
    EXPECT_EQ(*next, Json({{"id", "echo"}, {"state", "last"}})); // nothing before it was dispatched
    EXPECT_EQ(next_frame(peer), "sentinel");        // and nothing was answered before it
}

TEST(TransportLimits, AMessageOverTheSizeLimitFailsTheLinkAndOneAtTheLimitPasses)
{
    service_peer peer;
    transport link(trusting(peer));
    link.start(peer.url());
    expect_open(link, peer);
    // The largest message accepted, padded inside a string, is dispatched.
    std::string head = R"({"id":"hello","pad":")", tail = R"("})";
    ASSERT_TRUE(peer.send_raw(head + std::string(max_message_bytes - head.size() - tail.size(), 'x') + tail));
    EXPECT_FALSE(link.next("hello").is_null());
    // One byte more fails the link, once, and the client closes it.
    ASSERT_TRUE(peer.send_raw(head + std::string(max_message_bytes - head.size() - tail.size() + 1, 'x') + tail));
    EXPECT_EQ(link.next("fail"), Json({{"id", "fail"}}));
    EXPECT_TRUE(peer.wait_for_disconnect(deadline));
    EXPECT_TRUE(link.failed_link_released());
    EXPECT_TRUE(link.next("hello", 0ms).is_null());
}

TEST(TransportLiveness, AMissingPongEndsInOneFailAndAnsweredPingsKeepTheLinkUp)
{
    for (bool answered : {false, true}) {
        SCOPED_TRACE(answered ? "pongs answered" : "pongs withheld");
        service_peer peer;
        peer.answer_pings(answered);
        client_options options = trusting(peer);
        options.pong_timeout_ms = 100;
        transport link(options);
        link.on_open = [](const connection& c, const Json&) { c.ping(); };
        link.start(peer.url());
        ASSERT_FALSE(link.next("open").is_null());
        if (answered) {
            EXPECT_TRUE(test::eventually([&] { return !peer.pings().empty(); }, deadline));
            // The pong went out before this frame, so the client has taken it when the frame arrives.
            ASSERT_TRUE(peer.send_raw(R"({"id":"hello"})"));
            EXPECT_FALSE(link.next("hello").is_null());
        } else {
            EXPECT_EQ(link.next("fail"), Json({{"id", "fail"}}));
            // The dead link is closed by the client; that close is not a second failure.
            EXPECT_TRUE(peer.wait_for_disconnect(deadline));
            EXPECT_TRUE(link.failed_link_released());
        }
        EXPECT_TRUE(link.next("fail", 0ms).is_null());
    }
}

TEST(TransportLiveness, ALinkClosedOrCutByTheServiceFailsOnce)
{
    for (bool cut : {false, true}) {
        SCOPED_TRACE(cut ? "cut without close" : "closed by the service");
        service_peer peer;
        transport link(trusting(peer));
        link.start(peer.url());
        expect_open(link, peer);
        auto lost = std::chrono::steady_clock::now();
        cut ? peer.cut_connections() : peer.drop_connections();
        EXPECT_EQ(link.next("fail"), Json({{"id", "fail"}}));
        // Acted on at once, not after a keep-alive or a TLS shutdown time-out.
        EXPECT_LT(std::chrono::steady_clock::now() - lost, 2s);
        EXPECT_TRUE(link.failed_link_released());
        EXPECT_TRUE(link.next("fail", 0ms).is_null());
    }
}

TEST(TransportConnection, ACopyKeptAfterTheTransportIsGoneFailsCleanly)
{
    service_peer peer;
    connection kept;
    {
        transport link(trusting(peer));
        link.on_open = [&](const connection& c, const Json&) { kept = c; };
        link.start(peer.url());
        ASSERT_FALSE(link.next("open").is_null());
    }
    EXPECT_THROW(kept.send(Json{{"id", "late"}}), websocketpp::exception);
    std::error_code ec;
    kept.ping(ec);
    EXPECT_TRUE(ec);
}

} // namespace
} // namespace orbweave::websocket
