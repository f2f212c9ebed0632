// obs::worker against the real media worker process, with a private Xvfb (two
// screens of different sizes), openbox with two windows, and PulseAudio with a
// null sink and a null source, all started by this program.

#include "core/obs/worker.hpp"
#include "core/system_info.hpp"
#include "tests/support/media_fixtures.hpp"
#include "tests/support/line_reader.hpp"

#include <gtest/gtest.h>

#include <signal.h>
#include <unistd.h>

#include <algorithm>
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

TEST_F(Catalogue, AnErrorReachesTheCallerAndTheWorkerStaysUsable)
{
    try {
        worker_->call(Json{{"op", "no_such_op"}});
        FAIL() << "an unknown op was accepted";
    } catch (const std::runtime_error& error) {
        EXPECT_NE(std::string(error.what()).find("no_such_op"), std::string::npos) << error.what();
    }
    EXPECT_EQ(worker_->list(callback::source_type::screen).size(), 2u);
    EXPECT_TRUE(worker_->alive());
}

TEST(WorkerProcess, ShutsDownCleanlyWithoutLeaksOrLeftovers)
{
    pid_t pid;
    std::optional<long> leaks;
    {
        worker listing;
        pid = listing.pid();
        ASSERT_FALSE(listing.list(callback::source_type::screen).empty());
        ASSERT_FALSE(listing.list(callback::source_type::audio).empty());
        leaks = listing.shutdown();
        EXPECT_FALSE(listing.alive());
        EXPECT_THROW(listing.list(callback::source_type::screen), std::runtime_error);
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
    ASSERT_FALSE(listing.list(callback::source_type::screen).empty());
    ASSERT_FALSE(listing.list(callback::source_type::window).empty());
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
    EXPECT_THROW(victim.list(callback::source_type::screen), std::runtime_error);
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
    auto options = test::command({worker::default_executable()});
    options.environment = {{"ORBWEAVE_OBS_LOG", "debug"}};
    options.pipe_stdin = true;
    options.pipe_stdout = true;
    child_process raw(options);
    std::string requests = "{\"op\":\"list_screens\"}\n{\"op\":\"list_audios\"}\nnot json\n{\"op\":\"shutdown\"}\n";
    ASSERT_EQ(::write(raw.stdin_fd(), requests.data(), requests.size()), static_cast<ssize_t>(requests.size()));
    test::line_reader output(raw.stdout_fd());
    std::vector<Json> lines;
    while (auto line = output.next(20s))
        lines.push_back(json::parse(*line));
    ASSERT_EQ(lines.size(), 5u) << "no end of output";
    EXPECT_EQ(test::how_it_ended(raw, 10s), "exited with code 0");
}

} // namespace
} // namespace orbweave::obs
