#include "core/end_notice.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace orbweave {
namespace {

TEST(EndNotice, ManyThreadsEndingAtOnceReachTheHandlerOnceWithTheWinningReason)
{
    std::atomic<int> calls{0};
    std::string heard;
    end_notice notice([&](const std::string& reason) {
        ++calls;
        heard = reason;
    });
    std::atomic<int> winners{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([&, i] {
            if (notice.end("reason " + std::to_string(i)))
                ++winners;
        });
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(winners, 1);
    EXPECT_EQ(notice.reason(), heard);
}

TEST(EndNotice, AnEndBeforeTheHandlerIsHeardWhenOneIsSetAndOnlyByThatOne)
{
    end_notice notice;
    EXPECT_FALSE(notice.ended());
    EXPECT_TRUE(notice.end("the cast closed"));
    EXPECT_FALSE(notice.end("a later end"));

    std::vector<std::string> first, second;
    notice.on_end([&](const std::string& reason) { first.push_back(reason); });
    notice.on_end([&](const std::string& reason) { second.push_back(reason); });
    EXPECT_EQ(first, std::vector<std::string>{"the cast closed"});
    EXPECT_TRUE(second.empty());
}

TEST(EndNotice, TheHandlerMayReportAgainAndASilencedNoticeKeepsTheEndForTheNextHandler)
{
    end_notice reentrant;
    int calls = 0;
    reentrant.on_end([&](const std::string&) {
        ++calls;
        EXPECT_FALSE(reentrant.end("from inside")); // no deadlock, no second call
    });
    reentrant.end("first");
    EXPECT_EQ(calls, 1);

    end_notice silenced([&](const std::string&) { ADD_FAILURE() << "silenced handler called"; });
    silenced.silence();
    EXPECT_TRUE(silenced.end("gone"));
    std::string heard;
    silenced.on_end([&](const std::string& reason) { heard = reason; });
    EXPECT_EQ(heard, "gone");
}

} // namespace
} // namespace orbweave
