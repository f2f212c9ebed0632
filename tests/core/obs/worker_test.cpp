// obs::worker against the real media worker process, with a private Xvfb (two
// screens of different sizes), openbox with two windows, and PulseAudio with a
// null sink and a null source, all started by this program.

#include "core/obs/worker.hpp"
#include "core/system_info.hpp"
#include "tests/support/media_fixtures.hpp"
#include "tests/support/stderr_capture.hpp"

#include <gtest/gtest.h>

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <set>
#include <future>

namespace orbweave::obs {
namespace {

using namespace std::chrono_literals;

[[maybe_unused]] auto* const environment = ::testing::AddGlobalTestEnvironment(new test::media_environment);

// One listing worker for the catalogue cases.
class Catalogue : public ::testing::Test {
protected:
    static void SetUpTestSuite() { worker_ = new worker; }
    static void TearDownTestSuite()
    {
        delete worker_;
        worker_ = nullptr;
    }
    static worker* worker_;
};
worker* Catalogue::worker_ = nullptr;

TEST_F(Catalogue, ListsEachScreenWithItsOwnSize)
{
    auto screens = worker_->list_screens();
    const auto& expected = test::media_environment::current().settings().screens;
    ASSERT_EQ(screens.size(), expected.size());
    for (std::size_t i = 0; i < screens.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(screens[i].index, static_cast<int>(i));
        EXPECT_EQ(screens[i].name, "Display " + std::to_string(i + 1));
        EXPECT_EQ(screens[i].width, static_cast<std::uint64_t>(expected[i].width));
        EXPECT_EQ(screens[i].height, static_cast<std::uint64_t>(expected[i].height));
        EXPECT_EQ(screens[i].description,
                  std::to_string(expected[i].width) + "x" + std::to_string(expected[i].height));
        EXPECT_EQ(screens[i].id, create_unique_hash("Screen" + std::to_string(i)));
        Json rendered = screens[i].to_json();
        EXPECT_EQ(rendered["properties"]["Top"], Json({{"value", 0}}));
        EXPECT_EQ(rendered["properties"]["Left"], Json({{"value", 0}}));
    }
}

TEST_F(Catalogue, ListsManagedWindowsWithClassAndTitle)
{
    auto windows = worker_->list_windows();
    for (const auto& window : windows) {
        EXPECT_FALSE(window.name.empty() && window.description.empty() && window.pid == 0);
        EXPECT_EQ(window.id, create_unique_hash("Window" + std::to_string(window.pid)));
    }
    for (const auto& opened : test::media_environment::current().windows()) {
        auto found = std::find_if(windows.begin(), windows.end(),
                                  [&](const window_entry& w) { return w.description == opened->title(); });
        ASSERT_NE(found, windows.end()) << opened->title() << " is not listed";
        EXPECT_EQ(found->name, opened->instance());
        EXPECT_EQ(static_cast<unsigned long>(found->pid), opened->xid());
    }
}

TEST_F(Catalogue, ListsAudioOutputsBeforeInputs)
{
    auto audios = worker_->list_audios();
    ASSERT_FALSE(audios.empty());
    auto first_input = std::find_if(audios.begin(), audios.end(), [](const audio_entry& a) { return a.input; });
    EXPECT_TRUE(std::none_of(first_input, audios.end(), [](const audio_entry& a) { return !a.input; }))
        << "an output follows an input";

    auto find = [&](bool input, const std::string& part) {
        return std::find_if(audios.begin(), audios.end(), [&](const audio_entry& a) {
            return a.input == input && a.name.find(part) != std::string::npos;
        });
    };
    auto speakers = find(false, test::pulse_server::sink_description);
    ASSERT_NE(speakers, audios.end()) << "the null sink's monitor is not listed as an output";
    EXPECT_NE(speakers->device_id.find("orbweave_speakers"), std::string::npos);
    EXPECT_EQ(speakers->description, speakers->name);
    auto microphone = find(true, test::pulse_server::source_description);
    ASSERT_NE(microphone, audios.end()) << "the null source is not listed as an input";
    EXPECT_EQ(microphone->device_id, "orbweave_microphone");
    EXPECT_EQ(microphone->id, create_unique_hash("AudioInput" + microphone->name));

    // A name listed both ways gets one id per direction.
    bool same_name_both_ways = false;
    for (const auto& output : audios) {
        if (output.input)
            continue;
        for (const auto& input : audios)
            if (input.input && input.name == output.name) {
                same_name_both_ways = true;
                EXPECT_NE(input.id, output.id);
                EXPECT_EQ(output.id, create_unique_hash("AudioOutput" + output.name));
                EXPECT_EQ(input.id, create_unique_hash("AudioInput" + input.name));
            }
    }
    EXPECT_TRUE(same_name_both_ways) << "expected the default device in both directions";
}

TEST_F(Catalogue, ListsNoCameraWithoutVideoDevices)
{
    EXPECT_TRUE(worker_->list_videos().empty());
}

TEST_F(Catalogue, AnErrorReachesTheCallerAndTheWorkerStaysUsable)
{
    try {
        worker_->call(Json{{"op", "no_such_op"}});
        FAIL() << "an unknown op was accepted";
    } catch (const std::runtime_error& error) {
        EXPECT_NE(std::string(error.what()).find("no_such_op"), std::string::npos) << error.what();
    }
    EXPECT_EQ(worker_->list_screens().size(), 2u);
    EXPECT_TRUE(worker_->alive());
}

TEST(WorkerProcess, ShutsDownCleanlyWithoutLeaksOrLeftovers)
{
    pid_t pid;
    std::optional<long> leaks;
    {
        worker listing;
        pid = listing.pid();
        ASSERT_FALSE(listing.list_screens().empty());
        ASSERT_FALSE(listing.list_audios().empty());
        leaks = listing.shutdown();
        EXPECT_FALSE(listing.alive());
        EXPECT_THROW(listing.list_screens(), std::runtime_error);
    }
    ASSERT_TRUE(leaks) << "no shutdown reply";
    EXPECT_EQ(*leaks, 0) << "libobs leaked allocations";
    EXPECT_TRUE(test::process_gone(pid));

    // The configuration directory is under the user's cache directory.
    EXPECT_TRUE(std::filesystem::is_directory(std::filesystem::path(std::getenv("XDG_CACHE_HOME")) / "orbweave" / "obs"));

    // Destruction alone does the same.
    {
        worker idle;
        pid = idle.pid();
    }
    EXPECT_TRUE(test::process_gone(pid));
}

/// The file names of the shared objects mapped into process pid.
std::set<std::string> mapped_libraries(pid_t pid)
{
    std::set<std::string> names;
    std::ifstream maps("/proc/" + std::to_string(pid) + "/maps");
    for (std::string line; std::getline(maps, line);) {
        auto slash = line.rfind('/');
        if (slash != std::string::npos && line.find(".so", slash) != std::string::npos)
            names.insert(line.substr(slash + 1, line.find(".so", slash) - slash - 1));
    }
    return names;
}

// What keeps the idle client small: the listing worker it keeps running loads neither
// the encoders nor any graphics driver; a stream worker brings the encoders with it.
TEST(WorkerProcess, AListingWorkerLoadsOnlyCapturePluginsAndNoGraphics)
{
    worker listing;
    ASSERT_FALSE(listing.list_screens().empty());
    ASSERT_FALSE(listing.list_windows().empty());
    auto listed = mapped_libraries(listing.pid());
    EXPECT_TRUE(listed.count("linux-capture"));
    EXPECT_TRUE(listed.count("linux-pulseaudio"));
    for (const char* unwanted : {"obs-x264", "obs-ffmpeg", "obs-outputs", "libobs-opengl", "swrast_dri"})
        EXPECT_FALSE(listed.count(unwanted)) << unwanted;

    worker::options stream_options;
    stream_options.stream_worker = true;
    worker stream(stream_options);
    auto streaming = mapped_libraries(stream.pid());
    for (const char* wanted : {"linux-capture", "obs-x264", "obs-ffmpeg", "obs-outputs"})
        EXPECT_TRUE(streaming.count(wanted)) << wanted;
}

TEST(WorkerProcess, AKilledWorkerFailsCallsAtOnce)
{
    worker victim;
    std::promise<std::string> ended;
    victim.set_exit_handler([&](const std::string& reason) { ended.set_value(reason); });
    pid_t pid = victim.pid();
    ASSERT_EQ(::kill(pid, SIGKILL), 0);
    auto reason = ended.get_future();
    ASSERT_EQ(reason.wait_for(10s), std::future_status::ready) << "the death went unnoticed";
    EXPECT_EQ(reason.get(), "killed by signal SIGKILL");
    EXPECT_FALSE(victim.alive());
    EXPECT_THROW(victim.list_screens(), std::runtime_error);
    EXPECT_FALSE(victim.shutdown());
    EXPECT_TRUE(test::process_gone(pid));
}

TEST(WorkerProcess, StartFailuresThrowWorkerFailedToInitialize)
{
    auto expect_start_failure = [](const worker::options& options) {
        try {
            worker failing(options);
            ADD_FAILURE() << "the worker started";
        } catch (const std::runtime_error& error) {
            EXPECT_STREQ(error.what(), "worker failed to initialize");
        }
    };
    auto before = test::child_pids();
    worker::options missing;
    missing.executable = "/nonexistent/orbweave-media-worker";
    expect_start_failure(missing);

    worker::options silent;
    silent.executable = "/bin/true"; // exits without saying it is ready
    expect_start_failure(silent);

    // The worker itself refuses: no X display.
    std::string display = std::getenv("DISPLAY");
    ::unsetenv("DISPLAY");
    expect_start_failure(worker::options{});
    ::setenv("DISPLAY", display.c_str(), 1);
    EXPECT_EQ(test::child_pids(), before) << "start failures left processes behind";
}

TEST(WorkerProcess, StandardOutputCarriesOnlyProtocolLines)
{
    // Even with libobs logging everything, its log and the plug-ins' output go to stderr.
    child_process::options options;
    options.argv = {worker::default_executable()};
    options.environment = {{"ORBWEAVE_OBS_LOG", "debug"}};
    options.pipe_stdin = true;
    options.pipe_stdout = true;
    child_process raw(options);
    std::string requests = "{\"op\":\"list_screens\"}\n{\"op\":\"list_audios\"}\nnot json\n{\"op\":\"shutdown\"}\n";
    ASSERT_EQ(::write(raw.stdin_fd(), requests.data(), requests.size()), static_cast<ssize_t>(requests.size()));
    std::string output;
    auto deadline = std::chrono::steady_clock::now() + 20s;
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd entry{raw.stdout_fd(), POLLIN, 0};
        ASSERT_GT(::poll(&entry, 1, static_cast<int>(std::max<long long>(left.count(), 0))), 0) << "no end of output";
        char chunk[4096];
        ssize_t got = ::read(raw.stdout_fd(), chunk, sizeof chunk);
        if (got <= 0)
            break;
        output.append(chunk, static_cast<std::size_t>(got));
    }
    std::vector<Json> lines;
    for (std::size_t start = 0, end; (end = output.find('\n', start)) != std::string::npos; start = end + 1)
        lines.push_back(json::parse(output.substr(start, end - start)));
    ASSERT_EQ(lines.size(), 5u) << output;
    EXPECT_EQ(lines[0], Json({{"ok", true}, {"result", nullptr}}));
    EXPECT_EQ(lines[1]["result"].size(), 2u);
    EXPECT_TRUE(json::bool_at(lines[2], {"ok"}));
    EXPECT_FALSE(json::bool_at(lines[3], {"ok"}));
    EXPECT_EQ(lines[4], Json({{"ok", true}, {"result", {{"leaks", 0}}}}));
    auto status = raw.wait_for(10s);
    ASSERT_TRUE(status);
    EXPECT_EQ(child_process::describe(*status), "exited with code 0");
}

// A scripted worker for what the real one does not do yet: unsolicited events, and
// dying while a call waits for its reply.
class ScriptedWorker : public ::testing::Test {
protected:
    std::string script(const std::string& body)
    {
        auto path = test::media_environment::current().directory() / ("scripted-" + std::to_string(++count_));
        std::ofstream(path) << "#!/bin/sh\n" << body;
        std::filesystem::permissions(path, std::filesystem::perms::owner_all);
        return path.string();
    }
    int count_ = 0;
};

TEST_F(ScriptedWorker, EventLinesGoToTheEventHandlerNotToTheCall)
{
    std::string path = script("echo '{\"ok\":true}'\n"
                              "while read line; do\n"
                              "  echo '{\"event\":\"stopped\",\"error\":\"rtmp disconnected\"}'\n"
                              "  echo '{\"ok\":true,\"result\":[]}'\n"
                              "done\n");
    ::setenv("ORBWEAVE_MEDIA_WORKER", path.c_str(), 1);
    worker scripted; // found through ORBWEAVE_MEDIA_WORKER
    ::unsetenv("ORBWEAVE_MEDIA_WORKER");
    std::promise<std::string> event;
    bool first = true; // only touched on the reader thread
    scripted.set_event_handler([&](const std::string& name, const std::string& reason) {
        if (std::exchange(first, false))
            event.set_value(name + ": " + reason);
    });
    EXPECT_TRUE(scripted.list_screens().empty());
    auto got = event.get_future();
    ASSERT_EQ(got.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(got.get(), "stopped: rtmp disconnected");
    EXPECT_TRUE(scripted.list_windows().empty()) << "replies fell out of step";
}

TEST_F(ScriptedWorker, AWorkerThatIgnoresShutdownIsKilled)
{
    worker::options options;
    options.executable = script("echo '{\"ok\":true}'\nexec sleep 600\n");
    options.shutdown_timeout = 300ms;
    pid_t pid;
    {
        worker stuck(options);
        pid = stuck.pid();
    }
    EXPECT_TRUE(test::process_gone(pid));
}

TEST_F(ScriptedWorker, DyingDuringACallFailsThatCall)
{
    worker::options options;
    options.executable = script("echo '{\"ok\":true}'\nread line\nexit 4\n");
    worker scripted(options);
    try {
        scripted.list_screens();
        FAIL() << "the call returned";
    } catch (const std::runtime_error& error) {
        EXPECT_NE(std::string(error.what()).find("exited with code 4"), std::string::npos) << error.what();
    }
}

TEST_F(ScriptedWorker, GarbageOrARunawayLineFailsTheCallAndTheWorkerIsKilled)
{
    struct broken {
        const char* what;
        const char* script;
    } cases[] = {
        // A line that is not JSON: nothing after it can be trusted, not even a reply.
        {"a line that is not a JSON object", "printf 'garbage\\n{\"ok\":true,\"result\":[]}\\n'\nexec sleep 600\n"},
        {"a line that is not a JSON object", "printf '\\377\\376\\n'\nexec sleep 600\n"},
        // A line without end: killed once it passes the limit.
        {"a line longer than", "exec tr -d '\\n' < /dev/zero\n"},
    };
    for (const broken& worker_case : cases) {
        SCOPED_TRACE(worker_case.script);
        worker::options options;
        options.executable = script(std::string("echo '{\"ok\":true}'\nread line\n") + worker_case.script);
        worker broken_worker(options);
        test::stderr_capture log;
        try {
            broken_worker.list_screens();
            ADD_FAILURE() << "the call returned";
        } catch (const std::runtime_error& error) {
            EXPECT_NE(std::string(error.what()).find(worker_case.what), std::string::npos) << error.what();
        }
        EXPECT_NE(log.text().find(std::string("wrote ") + worker_case.what), std::string::npos) << log.text();
        EXPECT_TRUE(test::process_gone(broken_worker.pid()));
        EXPECT_FALSE(broken_worker.alive());
    }
}

} // namespace
} // namespace orbweave::obs
