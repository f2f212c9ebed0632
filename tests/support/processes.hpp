#pragma once

// This process's children as /proc shows them, for checks that nothing is left behind,
// and what a process costs, for the benchmarks.

#include "core/obs/child_process.hpp"

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace orbweave::test {

/// The options that run argv, the rest as child_process's defaults.
obs::child_process::options command(std::vector<std::string> argv);
/// Processes whose parent is parent and whose command line contains every word (from /proc).
std::vector<int> children_running(int parent, const std::vector<std::string>& words = {});
/// This process's stream workers: the media workers it started without a canvas.
std::vector<int> stream_workers();
/// The command line of pid, its arguments separated by spaces; "" once it is gone.
std::string command_line(int pid);
/// Processes whose parent is this process, for checks that nothing is left behind.
std::vector<int> child_pids();
/// Whether pid has ended and been reaped: neither our child any more nor a process at all.
bool process_gone(int pid);
/// How program ended, as child_process::describe says it ("exited with code 0"), waiting
/// up to timeout; "still running" when it has not ended by then.
std::string how_it_ended(obs::child_process& program, std::chrono::milliseconds timeout);
/// Reads fd until its end (true) or until deadline or an error (false), adding to out.
bool read_all(int fd, std::string& out, std::chrono::milliseconds timeout);
/// Runs a program (its standard output captured, its standard error to a file) and
/// returns its output; kills it after timeout. exit_code is set to its exit code, or -1
/// when it was killed.
std::string output_of(obs::child_process::options options, std::chrono::milliseconds timeout,
                      int* exit_code = nullptr, std::string* error_output = nullptr);
/// output_of for argv, the rest as child_process's defaults.
std::string run_program(const std::vector<std::string>& argv, std::chrono::milliseconds timeout,
                        int* exit_code = nullptr, std::string* error_output = nullptr);
/// A number from /proc/PID/status ("VmRSS" in KiB, "Threads"); -1 when it cannot be read.
long status_field(int pid, const std::string& name);
/// The processor time (user + system, in seconds) in a /proc stat file: a process's
/// (/proc/PID/stat) or a thread's (/proc/PID/task/TID/stat); none when it cannot be read.
std::optional<double> cpu_seconds_in(const std::string& stat_file);

} // namespace orbweave::test
