#pragma once

// This process's children as /proc shows them, for checks that nothing is left behind.

#include <string>
#include <vector>

namespace orbweave::test {

/// Processes whose parent is parent and whose command line contains every word (from /proc).
std::vector<int> children_running(int parent, const std::vector<std::string>& words = {});
/// Processes whose parent is this process, for checks that nothing is left behind.
std::vector<int> child_pids();
/// Whether pid has ended and been reaped: neither our child any more nor a process at all.
bool process_gone(int pid);
/// A number from /proc/PID/status ("VmRSS" in KiB, "Threads"); -1 when it cannot be read.
long status_field(int pid, const std::string& name);

} // namespace orbweave::test
