// The work manager and the source catalogue against the fake media worker
// (tests/support/fake_worker): how long a stream's start may take, and how promptly
// starts and the whole media side stop. No libobs in any process, so it also runs under
// ThreadSanitizer.

#include "core/obs/source_catalogue.hpp"
#include "core/obs/worker_manager.hpp"
#include "core/serial_executor.hpp"
#include "tests/support/blocking_queue.hpp"
#include "tests/support/eventually.hpp"
#include "tests/support/processes.hpp"
#include "tests/support/scoped_environment.hpp"

#include <gtest/gtest.h>

#include <unistd.h>

#include <memory>

namespace orbweave {
namespace {

using namespace std::chrono_literals;
using obs::worker_manager;

constexpr auto deadline = 30s;
// Much less than a worker's start-up bound (30 s), and than the slow start below.
constexpr auto promptly = 5s;

const obs::screen_entry displays[] = {{0, "Display 1", "1280x720", 0, 0, 1280, 720},
                                      {1, "Display 2", "1280x720", 1280, 0, 1280, 720}};

class WorkManager : public ::testing::Test {
protected:
    static worker_manager::options fake_workers()
    {
        worker_manager::options options;
        options.stream.executable = ORBWEAVE_FAKE_MEDIA_WORKER;
        return options;
    }

    void start(const worker_manager::options& options)
    {
        manager = std::make_unique<worker_manager>(post(), tokens, options);
    }

    /// The catalogue as the front ends run it: its listing worker starts at once.
    void start_catalogue()
    {
        obs::worker::options listing;
        listing.executable = ORBWEAVE_FAKE_MEDIA_WORKER;
        catalogue = std::make_unique<obs::source_catalogue>(post(), listing, true);
    }

    worker_manager::post_function post()
    {
        return [this](std::function<void()> task) { owner.post(std::move(task)); };
    }

    /// Activates one of the fake worker's displays; what became of it arrives in outcomes.
    void activate(const obs::screen_entry& display, const std::string& key)
    {
        Json message{{"payload",
                      {{"source", {{"type", "screen"}, {"id", display.id}}},
                       {"options", {{"profile", "medium"}}},
                       {"service", {{"server", "rtmp://127.0.0.1:9/live"}, {"key", key}}}}}};
        manager->activate(obs::activate_request::parse(message), display, 1500,
                          [this](const worker_manager::activation& outcome) { outcomes.push(outcome); });
    }

    static std::vector<int> stream_workers()
    {
        return test::children_running(::getpid(), {"orbweave_fake_media_worker", "--stream-worker"});
    }

    static std::vector<int> all_workers()
    {
        return test::children_running(::getpid(), {"orbweave_fake_media_worker"});
    }

    static bool none_left()
    {
        return test::children_running(::getpid(), {"orbweave_fake_media_worker"}).empty();
    }

    // Destroyed in reverse: the manager, then the thread its results go to, then where
    // that thread puts them.
    test::blocking_queue<worker_manager::activation> outcomes;
    serial_executor owner; // the client's network thread, to which results are posted
    obs::restore_tokens tokens;
    std::unique_ptr<obs::source_catalogue> catalogue;
    std::unique_ptr<worker_manager> manager;
};

TEST_F(WorkManager, AStartWaitsAsLongAsThePickerMayTakeNotTheCallTime)
{
    // Shortened, in the relation the defaults have: the desktop's picker may take longer
    // than an ordinary call to a worker (120 s against 60 s).
    worker_manager::options options = fake_workers();
    options.stream.call_timeout = 1s;
    options.stream.portal_start_limit = 4s;
    start(options);

    // The user answers after the call time has passed, but within the picker's limit.
    activate(displays[0], "picker-2500");
    auto answered = outcomes.pop(deadline);
    ASSERT_TRUE(answered);
    EXPECT_TRUE(answered->started) << answered->error;
    EXPECT_EQ(manager->active_ids(), std::vector<std::string>{displays[0].id});

    // Past the picker's limit, the worker gives up by itself and says why; it is not
    // killed for answering late.
    activate(displays[1], "picker-8000");
    auto late = outcomes.pop(deadline);
    ASSERT_TRUE(late);
    EXPECT_FALSE(late->started);
    EXPECT_EQ(late->error, "the desktop did not start the screen cast within 4 s");
    EXPECT_EQ(manager->active_ids(), std::vector<std::string>{displays[0].id});
}

TEST_F(WorkManager, ADeactivateDuringAWorkersStartCancelsItAtOnce)
{
    // Each worker takes a minute to start, twice its start-up bound.
    test::scoped_environment slow("ORBWEAVE_FAKE_WORKER_START_MS", "60000");
    start(fake_workers());
    activate(displays[0], "ok");
    ASSERT_TRUE(test::eventually([] { return stream_workers().size() == 1; }, deadline));
    int spawning = stream_workers().front();

    auto asked = std::chrono::steady_clock::now();
    worker_manager::deactivation stopped = manager->deactivate({false, displays[0].id});
    EXPECT_TRUE(stopped.known);
    auto answered = outcomes.pop(promptly);
    ASSERT_TRUE(answered) << "the start was not cancelled";
    EXPECT_LT(std::chrono::steady_clock::now() - asked, promptly);
    EXPECT_FALSE(answered->started);
    EXPECT_EQ(answered->error, "deactivated while starting");
    EXPECT_TRUE(test::eventually([&] { return test::process_gone(spawning); }, promptly)) << "the worker was left";
}

TEST_F(WorkManager, StoppingWhileWorkersStartIsPromptAndLeavesNothing)
{
    // The listing worker and the spare both start at once, slowly; the activation waits
    // for the spare rather than spawning a worker of its own.
    test::scoped_environment slow("ORBWEAVE_FAKE_WORKER_START_MS", "60000");
    worker_manager::options options = fake_workers();
    options.keep_spare = true;
    start_catalogue();
    start(options);
    ASSERT_TRUE(test::eventually([] { return stream_workers().size() == 1; }, deadline)) << "no spare started";
    ASSERT_TRUE(test::eventually([] { return all_workers().size() == 2; }, deadline)) << "no listing worker started";
    activate(displays[0], "ok");

    // As the client stops: the catalogue closes, then the manager and the catalogue go.
    auto asked = std::chrono::steady_clock::now();
    catalogue->close();
    manager.reset();
    catalogue.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - asked, promptly);
    EXPECT_EQ(stream_workers().size(), 0u);
    EXPECT_TRUE(none_left());
    auto answered = outcomes.pop(deadline);
    ASSERT_TRUE(answered);
    EXPECT_EQ(answered->error, "the client is stopping");
}

TEST_F(WorkManager, StoppingWithStreamsRunningAndTheSpareRefillingLeavesNothing)
{
    // The stream threads refill the spare as they start, while stopping shuts the spare
    // down: the two must not overlap (ThreadSanitizer watches this case).
    worker_manager::options options = fake_workers();
    options.keep_spare = true;
    for (int round = 0; round < 3; ++round) {
        start(options);
        activate(displays[0], "ok");
        activate(displays[1], "ok");
        // The first time stopping comes while both streams start, then once one runs.
        if (round > 0) {
            auto answered = outcomes.pop(deadline);
            ASSERT_TRUE(answered);
        }
        manager.reset();
        EXPECT_TRUE(none_left()) << "round " << round;
        while (outcomes.pop(0ms))
            ;
    }
}

} // namespace
} // namespace orbweave
