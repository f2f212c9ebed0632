// A stream's health as the client derives it from its worker's reports: the levels at
// their thresholds, the 10 s the level covers, and the report line read with hostile input.

#include "core/obs/pipe_protocol.hpp"
#include "core/obs/stream_health.hpp"

#include <gtest/gtest.h>

namespace orbweave::obs {
namespace {

/// One second of a 30 fps stream at about 1500 kbps, with some of its frames lost.
health_sample second(int dropped = 0, int lagged = 0, connection_state connection = connection_state::connected)
{
    health_sample sample;
    sample.milliseconds = 1000;
    sample.sent = 30 - dropped - lagged;
    sample.dropped = dropped;
    sample.lagged = lagged;
    sample.bytes = 187500; // 1500 kbps
    sample.target_kbps = 1628;
    sample.connection = connection;
    return sample;
}

health_summary of(std::initializer_list<health_sample> samples)
{
    health_window window;
    for (const health_sample& sample : samples)
        window.add(sample);
    return window.summary();
}

TEST(StreamHealth, LevelsFollowTheShareOfFramesLostAndTheConnection)
{
    health_summary fine = of({second(), second()});
    EXPECT_EQ(fine.level, health_level::good);
    EXPECT_EQ(fine.kbps, 1500);
    EXPECT_EQ(fine.target_kbps, 1628);
    EXPECT_DOUBLE_EQ(fine.fps, 30);
    EXPECT_EQ(level_name(fine.level), std::string("good"));

    // Dropped by the network and lagged before the encoder count alike, at OBS's thresholds.
    struct {
        int dropped, lagged; // of 30 frames a second
        health_level level;
    } shares[] = {
        {1, 0, health_level::good},     // 3.3 %
        {0, 1, health_level::good},     //
        {2, 0, health_level::degraded}, // 6.7 %
        {0, 2, health_level::degraded}, //
        {1, 1, health_level::degraded}, //
        {4, 0, health_level::degraded}, // 13.3 %
        {5, 0, health_level::bad},      // 16.7 %
        {0, 5, health_level::bad},      //
        {30, 0, health_level::bad},     // nothing sent
    };
    for (const auto& share : shares) {
        SCOPED_TRACE(std::to_string(share.dropped) + " dropped, " + std::to_string(share.lagged) + " lagged");
        health_summary summary = of({second(share.dropped, share.lagged), second(share.dropped, share.lagged)});
        EXPECT_EQ(summary.level, share.level);
        EXPECT_EQ(summary.dropped, 2 * share.dropped);
        EXPECT_EQ(summary.lagged, 2 * share.lagged);
    }
    // Exactly 5 % and 15 % are the warning and the critical level.
    health_sample five = second();
    five.sent = 95, five.dropped = 5;
    EXPECT_EQ(of({five}).level, health_level::degraded);
    five.sent = 85, five.dropped = 15;
    EXPECT_EQ(of({five}).level, health_level::bad);

    // The newest report says how the connection stands, whatever came before.
    health_summary reconnecting = of({second(), second(0, 0, connection_state::reconnecting)});
    EXPECT_EQ(reconnecting.level, health_level::reconnecting);
    EXPECT_EQ(reconnecting.attempt, 0) << "no attempt named";
    health_sample third = second(0, 0, connection_state::reconnecting);
    third.attempt = 3;
    EXPECT_EQ(of({third}).attempt, 3);
    EXPECT_EQ(of({second(0, 0, connection_state::stalled)}).level, health_level::bad);
    EXPECT_EQ(of({second(0, 0, connection_state::stalled), second()}).level, health_level::good);
}

TEST(StreamHealth, ABitrateUnderHalfTheTargetIsDegradedOnlyWhenDataWaits)
{
    // A still screen needs few bits: nothing waits, nothing is wrong.
    health_sample still = second();
    still.bytes = 2000; // 16 kbps
    EXPECT_EQ(of({still, still}).level, health_level::good);
    EXPECT_FALSE(of({still}).slow);

    // The same rate with data waiting to be sent: the network is too slow for the stream.
    health_sample slow = still;
    slow.backlog = true;
    health_summary summary = of({still, slow});
    EXPECT_EQ(summary.level, health_level::degraded);
    EXPECT_TRUE(summary.slow);
    // At half the target or more, a backlog alone is not a problem.
    slow.bytes = 1628 * 1000 / 8 / 2 + 1;
    EXPECT_EQ(of({slow}).level, health_level::good);
}

TEST(StreamHealth, TheLevelCoversTheLastTenSeconds)
{
    health_window window;
    for (int i = 0; i < 5; ++i)
        window.add(second(30));
    EXPECT_EQ(window.summary().level, health_level::bad);
    // Good seconds dilute the bad ones until these have left the window.
    for (int i = 0; i < 9; ++i)
        window.add(second());
    EXPECT_EQ(window.summary().level, health_level::degraded) << "30 frames of 300 lost in the last 10 s";
    window.add(second());
    EXPECT_EQ(window.summary().level, health_level::good);
    EXPECT_EQ(window.summary().dropped, 0);
    EXPECT_DOUBLE_EQ(window.summary().fps, 30);

    // Reports a little longer than a second still make up the whole window.
    health_window late;
    health_sample slow_tick = second(5);
    slow_tick.milliseconds = 1040;
    late.add(slow_tick);
    for (int i = 0; i < 9; ++i) {
        health_sample tick = second();
        tick.milliseconds = 1040;
        late.add(tick);
    }
    EXPECT_EQ(late.summary().dropped, 5) << "the first report is still within the last 10 s";
    EXPECT_EQ(of({}).level, health_level::good);
}

TEST(StreamHealth, AReportLineIsReadOnlyWhenWellFormed)
{
    health_sample sample = second(3, 2, connection_state::reconnecting);
    sample.attempt = 2;
    sample.backlog = true;
    std::string line = json::dump(sample.to_json());
    pipe::worker_line read = pipe::worker_line::parse(line);
    ASSERT_EQ(read.type, pipe::worker_line::kind::event);
    EXPECT_EQ(read.event, health_event);
    std::optional<health_sample> back = health_sample::from_json(read.body);
    ASSERT_TRUE(back);
    EXPECT_EQ(back->to_json(), sample.to_json());

    auto with = [&](const char* key, Json value) {
        Json changed = sample.to_json();
        changed[key] = std::move(value);
        return health_sample::from_json(changed);
    };
    EXPECT_FALSE(with("event", "stopped"));
    EXPECT_FALSE(with("ms", 0));
    EXPECT_FALSE(with("ms", 3600000)) << "an hour is not a second";
    EXPECT_FALSE(with("sent", -1));
    EXPECT_FALSE(with("dropped", "many"));
    EXPECT_FALSE(with("bytes", nullptr));
    EXPECT_FALSE(with("connection", "sideways"));
    EXPECT_FALSE(with("connection", 1));
    Json missing = sample.to_json();
    missing.erase("lagged");
    EXPECT_FALSE(health_sample::from_json(missing));
    EXPECT_FALSE(health_sample::from_json(Json::array()));
    EXPECT_FALSE(health_sample::from_json(nullptr));
    // Unknown members are ignored; a missing backlog reads as none.
    Json extra = sample.to_json();
    extra["future"] = {1, 2};
    extra.erase("backlog");
    ASSERT_TRUE(health_sample::from_json(extra));
    EXPECT_FALSE(health_sample::from_json(extra)->backlog);
}

} // namespace
} // namespace orbweave::obs
