#pragma once

// What this machine offers the media worker, for "orbweave-agent --check" and
// "orbweave --check": the desktop side (display, portal, PipeWire, sound server) and
// the encoding side (renderer, capture paths, which H.264 encoders actually open and
// encode, AAC). Everything here only looks: no device is loaded, no cast is started,
// nothing is sent anywhere. Each probe is bounded.
//
//   {"op":"check_desktop"}  -> {"ok":true,"result":{"route":...,"x11":{...}|"portal":{...},
//                                "pipewire":{...},"sound":{...}}}
//   {"op":"check_encoders"} -> {"ok":true,"result":{"renderer":...,"software":bool,
//                                "paths":{...},"encoders":[...],"aac":{...},"stream_encoder":...}}
//                              (a stream worker only: it needs graphics and the encoders)

#include "core/json.hpp"
#include "core/obs/capture_route.hpp"

namespace orbweave::obs {

class request_loop;

/// The desktop side: the display the route uses, the portal's ScreenCast interface
/// (version, source types, cursor modes), a PipeWire connection, the sound server's
/// defaults.
Json check_desktop(capture_route route);

/// The encoding side: the renderer, the path each kind of source takes, each H.264
/// encoder tried on a few frames and AAC on a few packets.
Json check_encoders(capture_route route);

/// Registers both ops on the worker's request loop.
void serve_checks(request_loop& loop, capture_route route);

} // namespace orbweave::obs
