// Soak run: orbweave-agent (production timings) against the service simulator through a
// fault-injecting proxy, for a number of minutes, with a screen stream running to a
// private nginx-rtmp ingest. At random intervals the proxy cuts the link and refuses
// reconnection for a short while (well under the 25 s after which the agent stops its
// streams) or a long one (well over it), or stalls it for a moment (shorter than the
// keep-alive time-out); in between, lists and an audio stream's activations and
// deactivations are interleaved.
//
// After each fault the streams are checked against what the rules say: a short outage or
// a stall keeps them (the very same publishing connection at the ingest), a long one stops
// them (then the screen is activated again). The agent's descriptors, threads and memory
// are sampled every minute. One line per figure:
//
//   soak_minutes, soak_seed
//   faults short_outages=.. long_outages=.. stalls=..
//   reconnects N (after outages .., unasked ..)   connections the simulator saw after
//                                    the first; unasked: not after an outage (a stall noticed)
//   requests sent=.. answered=..     every list, activate and deactivate sent meanwhile
//   streams kept=../.. lost=../.. unexplained=..   (kept and lost: seen/expected)
//   agent_fds / agent_threads / agent_rss_kib start=.. end=.. per_hour=..
//     (per_hour: the least-squares slope of the minute samples, from the first stream on)
//   agent_children start=.. end=..   its media workers (listing + streams)
//
//   soak [--minutes N] [--seed S]        (default 10 minutes, a seed from the clock)
//
// Everything runs on a private display, PulseAudio, nginx and loopback ports started
// here and stopped at the end; the agent's log is kept in /tmp/orbweave-soak-agent.log.

#include "core/obs/child_process.hpp"
#include "tests/support/fault_proxy.hpp"
#include "tests/support/line_reader.hpp"
#include "tests/support/media_fixtures.hpp"
#include "tests/support/processes.hpp"
#include "tests/support/rtmp_ingest.hpp"
#include "tests/support/temp_dir.hpp"
#include "tools/service-sim/service_sim.hpp"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace orbweave;
using namespace std::chrono_literals;
using clock_type = std::chrono::steady_clock;

constexpr auto deadline = 30s;
// The agent stops its streams when the link has been down this long (5 attempts, 5 s apart).
constexpr auto stream_outage_threshold = 25s;
constexpr auto sample_interval = 60s;

void progress(const std::string& text)
{
    std::fprintf(stderr, "soak: %s\n", text.c_str());
}

// ---- the agent as /proc sees it -------------------------------------------------------

long open_fds(pid_t pid)
{
    std::error_code ignored;
    long count = 0;
    for (auto it = std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd", ignored);
         it != std::filesystem::directory_iterator(); it.increment(ignored))
        ++count;
    return count;
}

struct sample {
    double hours = 0;
    double fds = 0;
    double threads = 0;
    double rss_kib = 0;
    double children = 0;
};

sample take_sample(pid_t pid, clock_type::time_point since)
{
    sample taken;
    taken.hours = std::chrono::duration<double, std::ratio<3600>>(clock_type::now() - since).count();
    taken.fds = static_cast<double>(open_fds(pid));
    taken.threads = static_cast<double>(test::status_field(pid, "Threads"));
    taken.rss_kib = static_cast<double>(test::status_field(pid, "VmRSS"));
    taken.children = static_cast<double>(test::children_running(pid).size());
    return taken;
}

/// The least-squares slope of value over hours.
double slope(const std::vector<sample>& samples, double sample::*value)
{
    if (samples.size() < 2)
        return 0;
    double n = static_cast<double>(samples.size()), sx = 0, sy = 0, sxx = 0, sxy = 0;
    for (const sample& s : samples) {
        sx += s.hours;
        sy += s.*value;
        sxx += s.hours * s.hours;
        sxy += s.hours * (s.*value);
    }
    double denominator = n * sxx - sx * sx;
    return denominator > 0 ? (n * sxy - sx * sy) / denominator : 0;
}

void print_series(const char* name, const std::vector<sample>& samples, double sample::*value)
{
    std::printf("%s start=%.0f end=%.0f per_hour=%.1f\n", name, samples.front().*value, samples.back().*value,
                slope(samples, value));
}

// ---- the run ---------------------------------------------------------------------------

class soak {
public:
    soak(std::chrono::minutes length, unsigned seed)
        : length_(length), random_(seed), service_(simulator_options()), proxy_(service_.port()),
          state_("orbweave-soak")
    {
        service_.identity().write(state_.path());
        log_path_ = state_.file("agent.log");
        obs::child_process::options spawn;
        spawn.argv = {"/bin/sh", "-c", "exec \"$0\" \"$@\" 2>>" + log_path_, obs::beside_this_program("orbweave-agent"),
                      "--service", "wss://127.0.0.1:" + std::to_string(proxy_.port()) + "/api/client",
                      "--ca-file", state_.file("ca.pem"), "--state-dir", state_.file("state"), "--allow", "all",
                      "--bitrate", "1500"};
        spawn.pipe_stdout = true;
        agent_ = std::make_unique<obs::child_process>(spawn);
        lines_ = std::make_unique<test::line_reader>(agent_->stdout_fd());

    }

    ~soak()
    {
        agent_->kill(SIGTERM);
        if (!agent_->wait_for(20s))
            agent_->kill_and_wait();
        auto kept = std::filesystem::temp_directory_path() / "orbweave-soak-agent.log";
        std::error_code ignored;
        std::filesystem::copy_file(log_path_, kept, std::filesystem::copy_options::overwrite_existing, ignored);
        progress("the agent's log is kept in " + kept.string());
        if (std::uncaught_exceptions() > 0)
            show_log_tail();
    }

    void show_log_tail() const
    {
        std::ifstream log(log_path_);
        std::vector<std::string> last;
        for (std::string line; std::getline(log, line);) {
            last.push_back(line.substr(0, 300));
            if (last.size() > 30)
                last.erase(last.begin());
        }
        std::fprintf(stderr, "soak: the agent's last log lines:\n");
        for (const auto& line : last)
            std::fprintf(stderr, "  %s\n", line.c_str());
    }

    void run()
    {
        if (!lines_->wait_for_prefix("state connected", deadline))
            throw std::runtime_error("the agent did not pair");
        service_.wait_for_connection(0ms); // the first connection: not a reconnection
        screen_ = first_id("screen");
        audio_ = first_id("audio");
        if (screen_.empty() || audio_.empty())
            throw std::runtime_error("no screen or no audio device to stream");
        start_screen();

        auto started = clock_type::now();
        auto end = started + length_;
        auto next_sample = started;
        std::vector<sample> samples;
        while (clock_type::now() < end) {
            drain_agent_output();
            if (clock_type::now() >= next_sample) {
                samples.push_back(take_sample(agent_->pid(), started));
                next_sample += sample_interval;
            }
            int roll = std::uniform_int_distribution<int>(0, 99)(random_);
            if (roll < 40)
                requests();
            else if (roll < 60)
                outage(seconds_between(2, 12));
            else if (roll < 70)
                outage(seconds_between(32, 40));
            else if (roll < 85)
                stall(seconds_between(1, 3));
            else
                std::this_thread::sleep_for(5s); // a quiet spell: the stream just runs
        }
        samples.push_back(take_sample(agent_->pid(), started));

        std::printf("soak_minutes %.1f\n", std::chrono::duration<double, std::ratio<60>>(clock_type::now() - started).count());
        std::printf("faults short_outages=%d long_outages=%d stalls=%d\n", short_outages_, long_outages_, stalls_);
        // Any connection not taken by an outage's wait is a reconnection nothing asked for.
        int unasked = 0;
        while (service_.wait_for_connection(0ms))
            ++unasked;
        std::printf("reconnects %d (after outages %d, unasked %d)\n", reconnects_ + unasked, reconnects_, unasked);
        std::printf("requests sent=%d answered=%d\n", sent_, answered_);
        std::printf("streams kept=%d/%d lost=%d/%d unexplained=%d\n", kept_, expected_kept_, lost_, expected_lost_,
                    unexplained_);
        print_series("agent_fds", samples, &sample::fds);
        print_series("agent_threads", samples, &sample::threads);
        print_series("agent_rss_kib", samples, &sample::rss_kib);
        std::printf("agent_children start=%.0f end=%.0f\n", samples.front().children, samples.back().children);
        std::fflush(stdout);
    }

private:
    static sim::options simulator_options()
    {
        sim::options options;
        options.auto_claim = sim::owner{"Soak", ""};
        return options;
    }

    std::chrono::milliseconds seconds_between(int low, int high)
    {
        return std::chrono::milliseconds(std::uniform_int_distribution<int>(low * 1000, high * 1000)(random_));
    }

    /// Sends a request and waits for its reply; the reply's payload, or null.
    Json ask(const std::string& what, std::optional<std::string> state)
    {
        ++sent_;
        auto reply = state ? service_.wait_for_reply(*state, deadline) : std::nullopt;
        if (!reply) {
            progress("no answer to " + what + " (state " + state.value_or("none") + ") after " + last_fault_);
            return nullptr;
        }
        ++answered_;
        return reply->message["payload"];
    }

    std::string first_id(const std::string& kind)
    {
        Json listed = ask("list " + kind, service_.list(kind));
        const Json& results = json::at(listed, {"results"});
        return results.is_array() && !results.empty() ? json::string_at(results[0], {"id"}) : std::string();
    }

    bool activate(const std::string& id, const std::string& key)
    {
        sim::activation request;
        request.source_id = id;
        request.server = ingest_.url();
        request.key = key;
        Json reply = ask("activate " + key, service_.activate(request));
        if (json::string_at(reply, {"status"}) != "Success") {
            progress("activating " + key + " answered " + json::dump(reply));
            return false;
        }
        return ingest_.wait_for_publishing(key, deadline);
    }

    void start_screen()
    {
        if (!activate(screen_, "screen"))
            throw std::runtime_error("the screen stream did not start");
    }

    /// Lists every kind and starts or stops the audio stream.
    void requests()
    {
        for (const char* kind : {"screen", "window", "audio", "video"})
            ask(std::string("list ") + kind, service_.list(kind));
        if (audio_on_)
            audio_on_ = json::string_at(ask("deactivate audio", service_.deactivate(audio_)), {"status"}) != "Success";
        else
            audio_on_ = activate(audio_, "audio");
    }

    /// The streams running now: key and the ingest's publishing connection.
    std::vector<std::pair<std::string, std::optional<std::string>>> publishers()
    {
        std::vector<std::pair<std::string, std::optional<std::string>>> seen;
        for (const char* key : {"screen", "audio"})
            if (std::string(key) == "screen" || audio_on_)
                seen.emplace_back(key, ingest_.publisher(key));
        return seen;
    }

    /// Checks the streams that ran before a fault against what the rules say.
    void judge(const std::vector<std::pair<std::string, std::optional<std::string>>>& before, bool keep)
    {
        for (const auto& [key, publisher] : before) {
            bool still = keep ? ingest_.publisher(key) == publisher
                              : ingest_.wait_until_not_publishing(key, deadline);
            auto now = ingest_.publisher(key);
            bool kept = now && now == publisher;
            (keep ? expected_kept_ : expected_lost_)++;
            kept ? ++kept_ : ++lost_;
            if (!still) {
                ++unexplained_;
                progress("unexplained: the " + key + " stream was " + (kept ? "kept" : "lost") + " after " +
                         (keep ? "a short fault" : "a long outage"));
            }
        }
        if (!keep) {
            audio_on_ = false;
            start_screen();
        } else if (!ingest_.publishing("screen")) {
            start_screen(); // lost against the rules (counted above): carry on streaming
        }
    }

    void outage(std::chrono::milliseconds length)
    {
        bool keep = length < stream_outage_threshold;
        (keep ? short_outages_ : long_outages_)++;
        last_fault_ = std::string(keep ? "a short" : "a long") + " outage of " + std::to_string(length.count()) + " ms";
        auto before = publishers();
        proxy_.refuse(true);
        proxy_.cut();
        std::this_thread::sleep_for(length); // the outage itself
        proxy_.refuse(false);
        wait_until_back();
        judge(before, keep);
    }

    /// Waits for the agent's next connection to answer "identify": the requests sent after
    /// that reach a paired agent (the simulator sends "ready" before them).
    void wait_until_back()
    {
        // A reconnection attempt comes every 5 s; a few may fail before one gets through.
        auto timeout = std::chrono::duration_cast<std::chrono::milliseconds>(deadline + 10s);
        auto opened = service_.wait_for_connection(timeout);
        if (!opened)
            throw std::runtime_error("the agent did not come back after an outage");
        ++reconnects_;
        while (auto reply = service_.wait_for_identify(timeout))
            if (reply->connection == *opened)
                return;
        throw std::runtime_error("the agent reconnected but did not answer identify");
    }

    /// Reads what the agent printed, so its standard output never fills up.
    void drain_agent_output()
    {
        while (lines_->next(0ms)) {
        }
    }

    void stall(std::chrono::milliseconds length)
    {
        ++stalls_;
        last_fault_ = "a stall of " + std::to_string(length.count()) + " ms";
        auto before = publishers();
        proxy_.stall(true);
        std::this_thread::sleep_for(length); // the stall itself
        proxy_.stall(false);
        // The link must still serve: a list is answered.
        ask("list screen", service_.list("screen"));
        judge(before, true);
    }

    std::chrono::minutes length_;
    std::mt19937 random_;
    test::rtmp_ingest ingest_;
    sim::service_sim service_;
    test::fault_proxy proxy_;
    test::temp_dir state_;
    std::string log_path_;
    std::unique_ptr<obs::child_process> agent_;
    std::unique_ptr<test::line_reader> lines_;
    std::string screen_, audio_;
    std::string last_fault_ = "no fault";
    bool audio_on_ = false;
    int sent_ = 0, answered_ = 0, reconnects_ = 0;
    int short_outages_ = 0, long_outages_ = 0, stalls_ = 0;
    int kept_ = 0, lost_ = 0, expected_kept_ = 0, expected_lost_ = 0, unexplained_ = 0;
};

} // namespace

int main(int argc, char** argv)
{
    long minutes = 10;
    unsigned seed = static_cast<unsigned>(std::chrono::system_clock::now().time_since_epoch().count());
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--minutes" && i + 1 < argc)
            minutes = std::strtol(argv[++i], nullptr, 10);
        else if (arg == "--seed" && i + 1 < argc)
            seed = static_cast<unsigned>(std::strtoul(argv[++i], nullptr, 10));
        else {
            std::fprintf(stderr, "usage: soak [--minutes N] [--seed S]\n");
            return 2;
        }
    }
    if (minutes <= 0) {
        std::fprintf(stderr, "soak: --minutes needs a positive number\n");
        return 2;
    }
    std::printf("soak_seed %u\n", seed);
    test::media_environment::options settings;
    settings.screens = {{1280, 720}};
    settings.windows = {};
    test::media_environment environment(settings);
    int status = 0;
    try {
        environment.SetUp();
        soak(std::chrono::minutes(minutes), seed).run();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "soak: %s\n", error.what());
        status = 1;
    }
    environment.TearDown();
    return status;
}
