// Media worker figures, each the median of 10 runs, in milliseconds:
//   worker_start_ms         spawn to its start-up reply
//   worker_shutdown_ms      shutdown request to the process reaped
//   list_screens_ms, list_windows_ms, list_audios_ms, list_videos_ms
//
// With DISPLAY set the current display (and PulseAudio) are used; otherwise a private
// Xvfb, openbox with two windows and PulseAudio are started first.

#include "core/obs/worker.hpp"
#include "tests/support/media_fixtures.hpp"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <vector>

namespace {

using clock_type = std::chrono::steady_clock;
constexpr int runs = 10;

double median(std::vector<double> times)
{
    std::sort(times.begin(), times.end());
    std::size_t middle = times.size() / 2;
    return times.size() % 2 ? times[middle] : (times[middle - 1] + times[middle]) / 2;
}

double median_ms(const std::function<void()>& run)
{
    std::vector<double> times;
    for (int i = 0; i < runs; ++i) {
        auto start = clock_type::now();
        run();
        times.push_back(std::chrono::duration<double, std::milli>(clock_type::now() - start).count());
    }
    return median(std::move(times));
}

void print(const char* name, double value)
{
    std::printf("%s %.1f\n", name, value);
    std::fflush(stdout);
}

} // namespace

int main()
{
    using namespace orbweave;
    std::unique_ptr<test::media_environment> environment;
    const char* display = std::getenv("DISPLAY");
    if (!display || !*display) {
        environment = std::make_unique<test::media_environment>();
        environment->SetUp();
        std::fprintf(stderr, "bench: private display %s\n", std::getenv("DISPLAY"));
    }

    try {
        // Start-up and shut-down, one worker per run.
        std::vector<double> starts, shutdowns;
        for (int i = 0; i < runs; ++i) {
            auto start = clock_type::now();
            auto worker = std::make_unique<obs::worker>();
            auto ready = clock_type::now();
            worker->shutdown();
            auto gone = clock_type::now();
            starts.push_back(std::chrono::duration<double, std::milli>(ready - start).count());
            shutdowns.push_back(std::chrono::duration<double, std::milli>(gone - ready).count());
        }
        print("worker_start_ms", median(starts));
        print("worker_shutdown_ms", median(shutdowns));

        obs::worker worker;
        print("list_screens_ms", median_ms([&] { worker.list(callback::source_type::screen); }));
        print("list_windows_ms", median_ms([&] { worker.list(callback::source_type::window); }));
        print("list_audios_ms", median_ms([&] { worker.list(callback::source_type::audio); }));
        print("list_videos_ms", median_ms([&] { worker.list(callback::source_type::video); }));
    } catch (const std::exception& error) {
        std::fprintf(stderr, "bench: %s\n", error.what());
        if (environment)
            environment->TearDown();
        return 1;
    }
    if (environment)
        environment->TearDown();
    return 0;
}
