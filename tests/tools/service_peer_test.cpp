#include "tests/support/service_peer.hpp"
#include "tests/tools/wss_test_client.hpp"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

namespace orbweave::test {
namespace {

using namespace std::chrono_literals;
constexpr duration deadline = 5s;

std::string read_text(const std::string& path)
{
    std::ifstream in(path);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

TEST(ServicePeer, RecordsWhatTheClientSendsAndWaitsWithDeadlines)
{
    service_peer peer;
    EXPECT_EQ(peer.url(), "wss://127.0.0.1:" + std::to_string(peer.port()) + "/api/client");
    std::string ca = read_text(peer.ca_file());
    ASSERT_FALSE(ca.empty());
    EXPECT_FALSE(peer.wait_for_connection(0ms));
    EXPECT_FALSE(peer.send("nobody listens"));

    wss_test_client client(ca);
    ASSERT_TRUE(client.connect(peer.url(), deadline));
    auto first = peer.wait_for_connection(deadline);
    ASSERT_TRUE(first);

    client.send(std::string("one"));
    client.send(std::string("two"));
    EXPECT_EQ(peer.wait_for_frame(deadline), "one");
    EXPECT_EQ(peer.wait_for_frame(deadline), "two");
    EXPECT_FALSE(peer.wait_for_frame(0ms));
    EXPECT_EQ(peer.frames(), (std::vector<std::string>{"one", "two"}));

    EXPECT_TRUE(peer.send(R"({"id":"identify","state":"s"})"));
    EXPECT_EQ(client.wait_for_frame(deadline), R"({"id":"identify","state":"s"})");

    client.ping("ping!");
    client.ping("ping!");
    EXPECT_TRUE(peer.wait_for_pings(2, deadline));
    EXPECT_TRUE(client.wait_for_pongs(2, deadline));
    EXPECT_EQ(peer.pings().at(1).connection, *first);

    peer.close_latest();
    EXPECT_TRUE(client.wait_for_close(deadline));
    EXPECT_EQ(peer.wait_for_disconnect(deadline), first);
}

TEST(ServicePeer, DropsAndRestartsOnTheSamePortKeepingItsSettings)
{
    service_peer peer;
    std::string ca = read_text(peer.ca_file());
    std::uint16_t port = peer.port();
    peer.answer_pings(false);
    peer.set_http_handler([](const wss::http_request& request) {
        return wss::http_response{200, std::to_string(request.body.size()), "text/plain"};
    });

    wss_test_client first(ca);
    ASSERT_TRUE(first.connect(peer.url(), deadline));
    ASSERT_TRUE(peer.wait_for_connection(deadline));
    peer.drop_latest();
    EXPECT_TRUE(first.wait_for_close(deadline));
    ASSERT_TRUE(peer.wait_for_disconnect(deadline));

    peer.restart();
    EXPECT_EQ(peer.port(), port);
    wss_test_client second(ca);
    ASSERT_TRUE(second.connect(peer.url(), deadline));
    ASSERT_TRUE(peer.wait_for_connection(deadline));
    EXPECT_EQ(peer.connection_count(), 2u);

    second.ping("ping!");
    second.send(std::string("after the ping"));
    EXPECT_EQ(peer.wait_for_frame(deadline), "after the ping");
    EXPECT_TRUE(peer.wait_for_pings(1, deadline));
    // A pong, had there been one, would arrive ahead of this frame.
    ASSERT_TRUE(peer.send("marker"));
    EXPECT_EQ(second.wait_for_frame(deadline), "marker");
    EXPECT_FALSE(second.wait_for_pongs(1, 0ms)) << "pongs stay withheld after a restart";

    EXPECT_EQ(https_request(peer.port(), ca, "POST", "/api/client/test", "12345", deadline).body, "5");
}

} // namespace
} // namespace orbweave::test
