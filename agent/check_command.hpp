#pragma once

#include "agent/agent_options.hpp"

namespace orbweave::agent {

/// orbweave-agent --check [--json]: runs every check, prints the lines (or one JSON
/// object) on standard output, and returns the exit status: 0 when a stream can work.
int run_check(const options& options);

} // namespace orbweave::agent
