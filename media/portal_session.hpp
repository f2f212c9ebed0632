#pragma once

// Screen capture on Wayland, the desktop's side: a ScreenCast session of the desktop
// portal (the desktop's own consent and picker, restore tokens), which hands over a
// PipeWire remote that media/pipewire_source shows. The only place that uses libportal.

#include "core/obs/media_limits.hpp"

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace orbweave::obs {

/// What the desktop's portal can cast (its AvailableSourceTypes): bit 1 screens, bit 2
/// windows; 0 when no portal answers within limits::portal_query.
unsigned portal_source_types();
inline constexpr unsigned portal_screens = 1;
inline constexpr unsigned portal_windows = 2;

/// How the portal can show the pointer (its AvailableCursorModes): bit 1 hidden, bit 2
/// embedded in the picture, bit 4 as metadata beside it; 0 when no portal answers.
unsigned portal_cursor_modes();
inline constexpr unsigned portal_cursor_hidden = 1;
inline constexpr unsigned portal_cursor_embedded = 2;
inline constexpr unsigned portal_cursor_metadata = 4;
/// The mode a cast asks for: embedded where offered, so a presenter's pointer is in the
/// picture; else metadata, else hidden (and hidden when the portal says nothing).
unsigned choose_cursor_mode(unsigned available);


/// One ScreenCast session of the desktop portal, open while the object lives.
class portal_session {
public:
    enum class outcome { started, cancelled, failed };

    struct cast {
        outcome result = outcome::failed;
        std::string error;
        /// The PipeWire remote (ours to close) and the stream's node.
        int pipewire_fd = -1;
        unsigned node = 0;
        /// Where the chosen output sits in the desktop's layout, when the portal says.
        bool has_geometry = false;
        int left = 0, top = 0, width = 0, height = 0;
        /// The token that restores this choice next time (single-use).
        std::string restore_token;
    };

    /// Opens a session for one monitor (or one window) and starts it: with a valid
    /// restore token the desktop restores that choice, otherwise it asks the user. Waits
    /// at most limit.
    explicit portal_session(const std::string& restore_token, bool window = false,
                            std::chrono::milliseconds limit = limits::portal_start);
    /// Closes the session (the desktop stops casting).
    ~portal_session();
    portal_session(const portal_session&) = delete;
    portal_session& operator=(const portal_session&) = delete;

    const cast& started() const { return cast_; }
    /// Called once, on the session's own thread, when the desktop ends the cast by
    /// itself (output gone, permission revoked, the portal gone); on the caller's, at
    /// once, when it did so before the handler was set.
    void set_closed_handler(std::function<void(const std::string& reason)> handler);

private:
    struct impl;
    std::unique_ptr<impl> impl_;
    cast cast_;
};

} // namespace orbweave::obs
