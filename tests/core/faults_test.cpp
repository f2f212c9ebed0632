// The service link through a fault-injecting proxy: stalls, cuts at every stage,
// refused connections and 1-byte writes. The client must notice, reconnect and end
// up paired and serving, whatever the network does.

#include "tests/support/client_harness.hpp"
#include "tests/support/eventually.hpp"
#include "tests/support/fault_proxy.hpp"
#include "tools/service-sim/service_sim.hpp"

#include <gtest/gtest.h>

namespace orbweave {
namespace {

using namespace std::chrono_literals;
using callback::state_type;
constexpr auto deadline = 15s;

class Faults : public ::testing::Test {
protected:
    /// A paired client talking to the simulator through the proxy.
    void start_paired()
    {
        app.set_secret(service.issue_secret({"Ann", ""}));
        app.start();
        ASSERT_TRUE(app.wait_for_state(state_type::connected, deadline));
    }

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
    start_paired();
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
    app.set_secret(service.issue_secret({"Ann", ""}));
    app.start();
    ASSERT_TRUE(test::eventually([&] { return proxy.accepted() >= 2; }, deadline));
    EXPECT_TRUE(app.wait_for_state(state_type::connected, deadline));
    EXPECT_TRUE(serves());

    std::uint64_t before = proxy.forwarded();
    proxy.cut_next_after(5000);
    proxy.cut();
    EXPECT_TRUE(app.wait_for_state(state_type::disconnected, deadline));
    EXPECT_TRUE(app.wait_for_state(state_type::connected, deadline));
    EXPECT_TRUE(serves());
    EXPECT_GT(proxy.forwarded(), before);
}

TEST_F(Faults, ALinkCutWhilePairingPairsOnTheNextCode)
{
    app.start(); // no secret yet: the service hands out a code
    auto first = service.wait_for_code(deadline);
    ASSERT_TRUE(first);
    proxy.cut();
    EXPECT_TRUE(app.wait_for_state(state_type::disconnected, deadline));
    auto second = service.wait_for_code(deadline);
    ASSERT_TRUE(second) << "no new code after the cut";
    ASSERT_TRUE(service.claim(*second, {"Ann", ""}));
    EXPECT_TRUE(app.wait_for_state(state_type::connected, deadline));
    EXPECT_FALSE(app.secret().empty());
    EXPECT_TRUE(serves());
}

TEST_F(Faults, RefusedConnectionsAreRetriedUntilTheServiceIsReachable)
{
    start_paired();
    proxy.refuse(true);
    int before = proxy.accepted();
    proxy.cut();
    ASSERT_TRUE(test::eventually([&] { return proxy.accepted() >= before + 3; }, deadline)) << "no retries";
    proxy.refuse(false);
    EXPECT_TRUE(app.wait_for_state(state_type::connected, deadline));
    EXPECT_TRUE(serves());
}

TEST_F(Faults, OneByteWritesAndLatencyChangeNothing)
{
    proxy.slice(true);
    proxy.delay(20ms);
    app.start();
    auto code = service.wait_for_code(deadline);
    ASSERT_TRUE(code);
    ASSERT_TRUE(service.claim(*code, {"Ann", ""}));
    EXPECT_TRUE(app.wait_for_state(state_type::connected, deadline));
    EXPECT_TRUE(serves());
    EXPECT_EQ(proxy.accepted(), 1) << "the link was lost on the way";
}

} // namespace
} // namespace orbweave
