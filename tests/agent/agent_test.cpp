#include "agent/agent_options.hpp"
#include "agent/health_report.hpp"
#include "core/orbweave_client.hpp"
#include "agent/secret_store.hpp"
#include "agent/terminal_prompt.hpp"
#include "core/obs/child_process.hpp"
#include "core/obs/stream_limit.hpp"
#include "tests/support/blocking_queue.hpp"
#include "tests/support/fault_proxy.hpp"
#include "tests/support/line_reader.hpp"
#include "tests/support/media_fixtures.hpp"
#include "tests/support/processes.hpp"
#include "tests/support/rtmp_ingest.hpp"
#include "tests/support/scoped_environment.hpp"
#include "tests/support/temp_dir.hpp"
#include "tools/service-sim/service_sim.hpp"

#include <gtest/gtest.h>

#include <fcntl.h>

#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>

namespace orbweave::agent {
namespace {

using namespace std::chrono_literals;
using callback::source_type;
using decision = permission_policy::decision;

constexpr auto deadline = 10s;

TEST(CaptureRoute, TheSessionDecidesUnlessForced)
{
    auto with = [](const char* wayland_display, const char* session_type, obs::capture_route requested) {
        auto value = [](const char* text) { return text ? std::optional<std::string>(text) : std::nullopt; };
        test::scoped_environment display("WAYLAND_DISPLAY", value(wayland_display));
        test::scoped_environment type("XDG_SESSION_TYPE", value(session_type));
        return obs::resolve_capture_route(requested);
    };
    using obs::capture_route;
    EXPECT_EQ(with(nullptr, nullptr, capture_route::automatic), capture_route::x11);
    EXPECT_EQ(with(nullptr, "x11", capture_route::automatic), capture_route::x11);
    // A Wayland session goes through the portal even where DISPLAY names XWayland.
    EXPECT_EQ(with("wayland-0", nullptr, capture_route::automatic), capture_route::portal);
    EXPECT_EQ(with(nullptr, "wayland", capture_route::automatic), capture_route::portal);
    EXPECT_EQ(with("wayland-0", "wayland", capture_route::x11), capture_route::x11);
    EXPECT_EQ(with(nullptr, nullptr, capture_route::portal), capture_route::portal);
    EXPECT_EQ(parse_options({"--capture", "x11"}).capture, capture_route::x11);
    EXPECT_EQ(parse_options({"--capture=portal"}).capture, capture_route::portal);
}

TEST(AgentOptions, AllowAskBitrateAndDefaults)
{
    options parsed = parse_options({"--allow", "screen,audio", "--ask", "--bitrate=2500", "--state-dir", "/x",
                                    "--service", "wss://127.0.0.1:9/api/client", "--ca-file", "/ca.pem",
                                    "--max-streams", "3"});
    EXPECT_EQ(parsed.permissions.decide(source_type::screen), decision::allow);
    EXPECT_EQ(parsed.permissions.decide(source_type::audio), decision::allow);
    EXPECT_EQ(parsed.permissions.decide(source_type::window), decision::ask);
    EXPECT_EQ(parsed.permissions.decide(source_type::none), decision::ask);
    EXPECT_EQ(parsed.bitrate, 2500);
    EXPECT_EQ(parsed.state_dir, "/x");
    EXPECT_EQ(parsed.ca_file, "/ca.pem");
    EXPECT_EQ(parsed.max_streams, 3);
    EXPECT_FALSE(parsed.forget_choices);
    EXPECT_TRUE(parse_options({"--forget-choices"}).forget_choices);

    // By default nothing is allowed, and the build's service is used.
    options defaults = parse_options({});
    EXPECT_EQ(defaults.service_url, orbweave::default_service_url);
    EXPECT_FALSE(defaults.bitrate);
    EXPECT_EQ(defaults.permissions.decide(source_type::screen), decision::deny);
    EXPECT_EQ(defaults.capture, obs::capture_route::automatic);
    EXPECT_FALSE(defaults.max_streams) << "the limit comes from the machine";
}

// The limit of streams at once follows the machine: two streams a core, and half the
// memory at 235 MB a stream, whichever is less; never below one.
TEST(AgentOptions, TheLimitOfStreamsComesFromCoresAndMemory)
{
    constexpr std::uint64_t gb = 1000ull * 1000 * 1000;
    EXPECT_EQ(obs::stream_limit_for({24 * gb, 2}), 4) << "cores bound";
    EXPECT_EQ(obs::stream_limit_for({2 * gb, 16}), 4) << "memory bound";
    EXPECT_EQ(obs::stream_limit_for({gb / 4, 1}), 1) << "at least one";
    EXPECT_EQ(obs::stream_limit_for({0, 8}), 16) << "unknown memory does not limit";
    EXPECT_GE(obs::stream_limit_for(obs::this_machine()), 1);
}

TEST(AgentOptions, BadArgumentsAreRejectedWithAReason)
{
    struct {
        std::vector<std::string> arguments;
        std::string reason;
    } cases[] = {
        {{"--allow", "Screen"}, "unknown kind 'Screen'"},
        {{"--allow"}, "--allow needs a value"},
        {{"--bitrate", "-5"}, "--bitrate needs a whole number"},
        {{"--service", "http://example.invalid/"}, "--service needs a wss:// URL"},
        {{"--capture", "wayland"}, "--capture needs auto, x11 or portal, not 'wayland'"},
        {{"--max-streams", "0"}, "--max-streams needs a whole number between 1 and 1000, not '0'"},
        {{"--json"}, "--json goes with --check"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reason);
        try {
            parse_options(c.arguments);
            ADD_FAILURE() << "accepted";
        } catch (const std::invalid_argument& error) {
            EXPECT_NE(std::string(error.what()).find(c.reason), std::string::npos) << error.what();
        }
    }
}

TEST(AgentHealth, ALineWhenAStreamsLevelChangesAndEveryThirtySeconds)
{
    obs::health_summary good;
    good.kbps = 1480;
    good.target_kbps = 1628;
    good.fps = 29.96;
    EXPECT_EQ(health_line("Display 1", good), "health \"Display 1\": good, 1480 kbps of 1628, 30.0 fps, 0 dropped, 0 lagged");
    obs::health_summary dropping = good;
    dropping.level = obs::health_level::degraded;
    dropping.kbps = 612;
    dropping.fps = 27.5;
    dropping.dropped = 25;
    dropping.lagged = 1;
    EXPECT_EQ(health_line("Display 1", dropping),
              "health \"Display 1\": degraded, 612 kbps of 1628, 27.5 fps, 25 dropped, 1 lagged");

    callback::active_stream display{"d1", source_type::screen, "Display 1", "1280x720"};
    callback::active_stream microphone{"m1", source_type::audio, "Microphone", ""};
    health_announcer announcer;
    health_announcer::clock::time_point start{};
    auto printed = [&](const callback::active_stream& stream, const obs::health_summary& health,
                       std::chrono::milliseconds at) { return announcer.report(stream, health, start + at).has_value(); };
    EXPECT_TRUE(printed(display, good, 0s)) << "its first report";
    EXPECT_FALSE(printed(display, good, 1s));
    EXPECT_TRUE(printed(microphone, good, 2s)) << "streams are told apart";
    EXPECT_FALSE(printed(display, good, 29s));
    EXPECT_TRUE(printed(display, dropping, 29500ms)) << "a change of level";
    EXPECT_FALSE(printed(display, dropping, 45s));
    EXPECT_TRUE(printed(display, dropping, 59500ms)) << "30 s on";
    EXPECT_TRUE(printed(display, good, 60s));
    EXPECT_TRUE(printed(microphone, good, 32s));
    // A stream that stopped and runs again is told afresh.
    announcer.keep_only({microphone});
    EXPECT_TRUE(printed(display, good, 61s));
    EXPECT_FALSE(printed(microphone, good, 33s));
}

TEST(AgentSecretStore, TheSecretIsPrivateAndReplacedWhole)
{
    test::temp_dir dir;
    secret_store store(dir.file("state"));
    EXPECT_EQ(store.load(), "");
    ASSERT_TRUE(store.save("first"));
    ASSERT_TRUE(store.save("second"));
    EXPECT_EQ(store.load(), "second");
    EXPECT_EQ(test::mode_of(store.path()), 0600u);
    EXPECT_EQ(test::mode_of(dir.file("state")), 0700u);
    EXPECT_FALSE(std::filesystem::exists(store.path() + ".new"));
    store.erase();
    EXPECT_EQ(store.load(), "");
}

class Prompt : public ::testing::Test {
protected:
    Prompt()
    {
        EXPECT_EQ(::pipe(input), 0);
    }
    ~Prompt() override
    {
        if (input[1] >= 0)
            ::close(input[1]);
        ::close(input[0]);
    }
    void type(const std::string& text) { ASSERT_EQ(::write(input[1], text.data(), text.size()), ssize_t(text.size())); }
    callback::request recorded(const std::string& name)
    {
        return callback::request([this, name](bool allowed) { answers.push(name + (allowed ? "=yes" : "=no")); });
    }

    int input[2] = {-1, -1};
    test::blocking_queue<std::string> questions;
    test::blocking_queue<std::string> answers;
};

TEST_F(Prompt, AsksOneQuestionAtATimeAndTakesOnlyYes)
{
    terminal_prompt prompt(input[0], [this](const std::string& q) { questions.push(q); });
    prompt.ask("first?", recorded("first"));
    prompt.ask("second?", recorded("second"));
    prompt.ask("third?", recorded("third"));
    EXPECT_EQ(questions.pop(deadline), std::optional<std::string>("first? [y/N] "));
    EXPECT_FALSE(questions.pop(100ms)); // the second waits for the first answer
    type("Y\n");
    EXPECT_EQ(answers.pop(deadline), std::optional<std::string>("first=yes"));
    EXPECT_EQ(questions.pop(deadline), std::optional<std::string>("second? [y/N] "));
    type("maybe\nyes\n");
    EXPECT_EQ(answers.pop(deadline), std::optional<std::string>("second=no"));
    EXPECT_EQ(answers.pop(deadline), std::optional<std::string>("third=yes"));
}

TEST_F(Prompt, EndOfInputAndClosingDenyWhatIsOpen)
{
    {
        terminal_prompt prompt(input[0], [this](const std::string& q) { questions.push(q); });
        prompt.ask("a?", recorded("a"));
        ASSERT_TRUE(questions.pop(deadline));
        prompt.ask("b?", recorded("b"));
    } // closed while "a" waits for an answer and "b" is queued
    EXPECT_EQ(answers.pop(deadline), std::optional<std::string>("a=no"));
    EXPECT_EQ(answers.pop(deadline), std::optional<std::string>("b=no"));

    terminal_prompt prompt(input[0], [this](const std::string& q) { questions.push(q); });
    ::close(input[1]);
    input[1] = -1;
    prompt.ask("c?", recorded("c"));
    prompt.ask("d?", recorded("d"));
    EXPECT_EQ(answers.pop(deadline), std::optional<std::string>("c=no"));
    EXPECT_EQ(answers.pop(deadline), std::optional<std::string>("d=no"));
}

/// orbweave-agent as a child process against an in-process simulator.
class AgentProcess : public ::testing::Test {
protected:
    AgentProcess() { service.identity().write(dir.path()); }

    std::unique_ptr<obs::child_process> run(std::vector<std::string> extra = {},
                                            std::vector<std::pair<std::string, std::string>> environment = {})
    {
        auto options = test::command(arguments(extra, /*ca_file=*/environment.empty()));
        options.environment = std::move(environment);
        options.pipe_stdout = true;
        auto child = std::make_unique<obs::child_process>(options);
        output = std::make_unique<test::line_reader>(child->stdout_fd());
        return child;
    }

    /// The agent's command line against the simulator, with extra at the end.
    std::vector<std::string> arguments(const std::vector<std::string>& extra, bool ca_file = true)
    {
        std::vector<std::string> argv{obs::beside_this_program("orbweave-agent"), "--service", service.url(), "--state-dir", dir.file("state")};
        if (ca_file)
            argv.insert(argv.end(), {"--ca-file", dir.file("ca.pem")});
        argv.insert(argv.end(), extra.begin(), extra.end());
        return argv;
    }

    void stop(obs::child_process& child)
    {
        child.kill(SIGTERM);
        EXPECT_TRUE(output->wait_for_prefix("stopped", deadline));
        EXPECT_EQ(test::how_it_ended(child, deadline), "exited with code 0");
    }

    test::temp_dir dir;
    sim::service_sim service;
    std::unique_ptr<test::line_reader> output;
};

TEST_F(AgentProcess, MeasuresPairsKeepsTheSecretAndPairsAgainByItself)
{
    // Without --bitrate the uplink is measured first.
    auto agent = run();
    auto bitrate = output->wait_for_prefix("bitrate ", deadline);
    ASSERT_TRUE(bitrate);
    EXPECT_NE(*bitrate, "bitrate 1250 kbps"); // measured, not the fallback
    EXPECT_TRUE(service.wait_for_probe(deadline));
    auto code_line = output->wait_for_prefix("code ", deadline);
    ASSERT_TRUE(code_line);
    std::string code = code_line->substr(5);
    auto secret = service.claim(code, {"Ann Example", ""});
    ASSERT_TRUE(secret);
    EXPECT_TRUE(output->wait_for_prefix("state connected", deadline));
    EXPECT_TRUE(output->wait_for_prefix("paired with Ann Example", deadline));
    stop(*agent);

    secret_store stored(dir.file("state"));
    EXPECT_EQ(stored.load(), *secret); // kept as the store keeps it (its own test: private, whole)
    for (const auto& line : output->lines())
        EXPECT_EQ(line.find(*secret), std::string::npos) << "the secret was printed";

    // The second run presents the secret: connected without a code, at the bitrate given.
    agent = run({"--bitrate", "2000"});
    EXPECT_TRUE(output->wait_for_prefix("bitrate 2000 kbps", deadline));
    auto first_state = output->wait_for([](const std::string& l) { return l == "state connected" || l.rfind("code ", 0) == 0; },
                                        deadline);
    EXPECT_EQ(first_state, std::optional<std::string>("state connected"));

    // A reset forgets the secret and asks for a new code.
    service.reset();
    EXPECT_TRUE(output->wait_for_prefix("pairing removed", deadline));
    EXPECT_TRUE(output->wait_for_prefix("code ", deadline));
    EXPECT_EQ(stored.load(), "");

    // SIGINT ends it cleanly too, even while the service is away.
    service.stop();
    EXPECT_TRUE(output->wait_for_prefix("state disconnected", deadline));
    agent->kill(SIGINT);
    EXPECT_TRUE(output->wait_for_prefix("stopped", deadline));
    EXPECT_EQ(test::how_it_ended(*agent, deadline), "exited with code 0");
}

TEST_F(AgentProcess, AnswersRequestsByItsPolicy)
{
    std::string secret = service.issue_secret({"Ann", ""});
    ASSERT_TRUE(secret_store(dir.file("state")).save(secret));

    // Only screens are allowed: a window list is rejected without asking anyone.
    auto agent = run({"--bitrate", "1000", "--allow", "screen", "--ask"}); // no terminal: asking denies
    ASSERT_TRUE(output->wait_for_prefix("state connected", deadline));
    ASSERT_TRUE(service.wait_for_connection(deadline));
    EXPECT_EQ(service.reply_payload(service.list("window"), deadline), Json({{"status", "Rejected"}}));
    EXPECT_TRUE(output->wait_for_prefix("denied list window", deadline));
    // Nor is activating a window, whatever it names: nothing is looked up to answer it.
    auto window = sim::activation::of(std::string(64, 'f'));
    window.type = "Window";
    EXPECT_EQ(service.reply_payload(service.activate(window), deadline), Json({{"status", "Rejected"}}));
    EXPECT_TRUE(output->wait_for_prefix("denied activate window", deadline));
    stop(*agent);
    // Both refusals are in the history in its state folder (what each holds is the
    // history's own test).
    std::vector<Json> events = activity_log(dir.file("state/activity.jsonl")).recent(10);
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[1].value("decided", ""), "rule");

    // Everything is allowed: a kind this client does not know is answered, as a failure.
    agent = run({"--bitrate", "1000", "--allow", "all"});
    ASSERT_TRUE(output->wait_for_prefix("state connected", deadline));
    ASSERT_TRUE(service.wait_for_connection(deadline));
    EXPECT_EQ(service.reply_payload(service.list("printer"), deadline),
              Json({{"status", "Failure"}, {"results", nullptr}}));
    EXPECT_TRUE(output->wait_for_prefix("allowed list unknown kind", deadline));
    stop(*agent);
}

TEST_F(AgentProcess, KeepsAnsweringWhileNobodyReadsItsOutput)
{
    std::string secret = service.issue_secret({"Ann", ""});
    ASSERT_TRUE(secret_store(dir.file("state")).save(secret));
    // Its standard output is the smallest pipe there is: a few hundred status lines fill it.
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    ASSERT_GE(::fcntl(ends[0], F_SETPIPE_SZ, 4096), 0);
    auto options = test::command(arguments({"--bitrate", "1000", "--allow", "screen"}));
    options.pass_fds = {{ends[1], STDOUT_FILENO}};
    obs::child_process agent(options);
    ::close(ends[1]);
    output = std::make_unique<test::line_reader>(ends[0]);
    ASSERT_TRUE(output->wait_for_prefix("state connected", deadline));
    ASSERT_TRUE(service.wait_for_connection(deadline));

    // From here nothing reads the agent's output, and each refused list prints a line.
    for (int i = 0; i < 600; ++i) {
        auto state = service.list("window");
        ASSERT_TRUE(state);
        ASSERT_TRUE(service.wait_for_reply(*state, deadline)) << "request " << i << " was not answered";
    }
    stop(agent); // reading again, the waiting lines arrive, and "stopped" after them
    output.reset();
    ::close(ends[0]);
}

// The desktop's screen choices go with --forget-choices: the agent forgets the restore
// tokens in its state folder, says so, and exits without connecting anywhere; bad
// arguments end it with status 2, without connecting either.
TEST_F(AgentProcess, ForgetChoicesAndBadArgumentsExitWithoutConnecting)
{
    std::filesystem::create_directories(dir.file("state"));
    std::string tokens = restore_tokens_path(dir.file("state"));
    std::ofstream(tokens) << R"({"account":"Ann","tokens":{"abc":"token-1"}})";
    auto agent = run({"--forget-choices"});
    EXPECT_EQ(test::how_it_ended(*agent, deadline), "exited with code 0");
    EXPECT_TRUE(output->wait_for_prefix("forgot the screen choices", deadline));
    EXPECT_FALSE(std::filesystem::exists(tokens));
    EXPECT_FALSE(service.wait_for_connection(0ms)) << "it connected";
    // Nothing to forget is no error.
    agent = run({"--forget-choices"});
    EXPECT_EQ(test::how_it_ended(*agent, deadline), "exited with code 0");
    agent = run({"--allow", "printer"});
    EXPECT_EQ(test::how_it_ended(*agent, deadline), "exited with code 2");
    EXPECT_FALSE(service.wait_for_connection(0ms)) << "it connected";
}

/// A moving test pattern over the whole of display's first screen, so the encoder spends
/// its whole bitrate; returns once it runs.
std::unique_ptr<obs::child_process> moving_pattern(const std::string& display, int width, int height)
{
    auto options = test::command({"ffplay", "-loglevel", "error", "-an", "-f", "lavfi", "-i",
                                  "testsrc2=size=" + std::to_string(width) + "x" + std::to_string(height) + ":rate=30",
                                  "-vf", "format=rgb0", "-x", std::to_string(width), "-y", std::to_string(height),
                                  "-noborder", "-left", "0", "-top", "0"});
    options.environment = {{"DISPLAY", display}, {"SDL_AUDIODRIVER", "dummy"}};
    options.quiet = true;
    return std::make_unique<obs::child_process>(options);
}

// The agent prints a stream's health, measured in its worker: good while the ingest takes
// everything, within 10 s something else when the path to it slows down or stalls, and
// good again once it recovers.
TEST_F(AgentProcess, PrintsAStreamsHealthAsThePathToItsIngestSlowsAndStalls)
{
    test::temp_dir home;
    test::xvfb_display screen({{640, 360}});
    auto pattern = moving_pattern(screen.name(), 640, 360);
    test::rtmp_ingest ingest;
    test::fault_proxy path(ingest.rtmp_port());
    ASSERT_TRUE(secret_store(dir.file("state")).save(service.issue_secret({"Ann", ""})));
    auto agent = run({"--bitrate", "1000", "--allow", "screen"},
                     {{"DISPLAY", screen.name()},
                      {"PULSE_SERVER", "unix:" + home.file("no-sound-server")},
                      {"ORBWEAVE_CA_FILE", dir.file("ca.pem")}});
    ASSERT_TRUE(output->wait_for_prefix("state connected", 30s));
    ASSERT_TRUE(service.wait_for_connection(deadline));
    Json screens = service.reply_payload(service.list("screen"), deadline)["results"];
    ASSERT_EQ(screens.size(), 1u) << screens;
    std::string name = screens[0].value("name", "");
    auto request = sim::activation::of(screens[0].value("id", ""),
                                       "rtmp://127.0.0.1:" + std::to_string(path.port()) + "/live", "health");
    request.profile = "low";
    ASSERT_EQ(service.reply_payload(service.activate(request), 30s), Json({{"status", "Success"}}));
    ASSERT_TRUE(ingest.wait_for_publishing("health", deadline));

    std::string prefix = "health \"" + name + "\": ";
    auto level_line = [&](const std::vector<std::string>& levels, std::chrono::milliseconds within) {
        return output->wait_for(
            [&](const std::string& line) {
                if (line.rfind(prefix, 0) != 0)
                    return false;
                for (const std::string& level : levels)
                    if (line.compare(prefix.size(), level.size() + 1, level + ",") == 0)
                        return true;
                return false;
            },
            within);
    };
    // What the agent printed of the stream's health, for a failure's message.
    auto printed = [&] {
        std::string lines;
        for (const std::string& line : output->lines())
            if (line.rfind("health ", 0) == 0)
                lines += line + "\n";
        return lines;
    };
    auto good = level_line({"good"}, 30s);
    ASSERT_TRUE(good) << "never good\n" << printed();
    EXPECT_NE(good->find(" kbps of "), std::string::npos) << *good;

    // The path slows to a quarter of the bitrate: within 10 s the stream is not good.
    path.throttle(32 * 1000);
    auto slowed = level_line({"degraded", "bad", "reconnecting"}, 10s);
    EXPECT_TRUE(slowed) << "still good 10 s after the path slowed\n" << printed();
    path.throttle(0);
    EXPECT_TRUE(level_line({"good"}, 30s)) << "not good again after the path recovered\n" << printed();

    // The path stalls: nothing reaches the ingest, and the stream says so within 10 s.
    path.stall(true);
    auto stalled = level_line({"bad", "reconnecting", "degraded"}, 10s);
    EXPECT_TRUE(stalled) << "still good 10 s after the path stalled\n" << printed();
    path.stall(false);
    EXPECT_TRUE(level_line({"good"}, 40s)) << "not good again after the stall\n" << printed();
    stop(*agent);
}

} // namespace
} // namespace orbweave::agent
