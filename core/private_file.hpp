#pragma once

// Files only their owner may read (the agent's secret, the portal's restore tokens):
// written whole or not at all.

#include <string>

namespace orbweave {

/// Writes text to path through a temporary file (mode 0600, never through a symbolic
/// link) and renames it into place, creating the folder (mode 0700) when needed.
/// False, with the reason logged, when any step fails; the old file then stays.
bool write_private_file(const std::string& path, const std::string& text);

} // namespace orbweave
