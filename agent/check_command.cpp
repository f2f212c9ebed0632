#include "agent/check_command.hpp"

#include "core/check/checks.hpp"

#include <chrono>
#include <cstdlib>
#include <iostream>

namespace orbweave::agent {

int run_check(const options& options)
{
    // The workers' own log would be interleaved with the answer; errors still show.
    ::setenv("ORBWEAVE_OBS_LOG", "error", 0);
    auto started = std::chrono::steady_clock::now();
    check::settings settings;
    settings.service_url = options.service_url;
    settings.ca_file = options.ca_file;
    settings.bitrate = options.bitrate;
    settings.capture = options.capture;

    check::report report;
    report.items = check::run_common(settings);
    report.items.push_back(check::state_folder_check(options.state_dir));
    report.elapsed_ms =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - started).count();
    if (options.json)
        std::cout << report.to_json().dump(2) << "\n";
    else
        std::cout << report.text();
    std::cout.flush();
    return report.exit_status();
}

} // namespace orbweave::agent
