#pragma once

// Screen capture on Wayland, our side: a libobs source that shows the PipeWire stream of
// a desktop portal's screen cast (media/portal_session). The only place that uses
// libpipewire.

namespace orbweave::obs {

/// The source type registered with libobs by register_portal_source(): settings
/// "fd" (a PipeWire remote the source takes over) and "node" (the stream's node id).
inline constexpr const char* portal_source_id = "orbweave_portal_screen";

/// The signal a portal source emits, with a "reason" string, when its stream ends
/// without being asked to (the desktop ended the cast, PipeWire failed).
inline constexpr const char* portal_source_ended_signal = "orbweave_capture_ended";

/// Registers the source type; once per process, after obs_startup.
void register_portal_source();

} // namespace orbweave::obs
