#pragma once

namespace orbweave {

/// The version of every Orbweave program, from the project's one version number (CMake's
/// project()): what --version prints, the package's version, and what "identify" reports.
inline constexpr const char* client_version = ORBWEAVE_VERSION;

} // namespace orbweave
