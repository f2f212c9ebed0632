#pragma once

// A headless Wayland desktop for capture tests, started by the tests themselves: a
// private session bus, a compositor, PipeWire with WirePlumber and its PulseAudio
// server, and xdg-desktop-portal with the compositor's backend.
//
// sway: headless backend, pixman renderer (no GPU), xdg-desktop-portal-wlr. Screen
// casts are chosen by a chooser script that records each call and answers what the test
// wrote into its choice file (an output name, or nothing for a user who cancels).
//
// KDE Plasma: kwin_wayland with one virtual output (Virtual-0), xdg-desktop-portal-kde
// with Qt's accessibility on. Its picker's rows offer no action over AT-SPI, so only
// "Cancel" can be answered headless; the tests say so.
//
// GNOME: mutter on its headless backend with virtual monitors (Meta-0, Meta-1, ...),
// xdg-desktop-portal-gnome, and the accessibility bus; the portal's own picker (GTK 4)
// is answered over AT-SPI by tests/support/wayland/answer_picker.py, which selects the
// first entry, ticks "Remember this selection" and presses "Share" (or "Cancel" when
// the test chose nothing), recording each answer.
//
// sway refuses to run as root, so as root it runs as nobody; everything else, and
// the client under test, run as the test's own user, like the portal.
//
// Debian 12's xdg-desktop-portal-wlr cannot start a cast without a GPU; the fixture
// preloads a test-only shim into it (tests/support/wayland/xdpw_shm_shim.c).

#include "core/obs/child_process.hpp"
#include "tests/support/session_bus.hpp"
#include "tests/support/temp_dir.hpp"

#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace orbweave::test {

class wayland_desktop {
public:
    struct output {
        std::string name; // HEADLESS-1, HEADLESS-2, ...
        int left = 0, top = 0, width = 0, height = 0;
        std::string background; // "#rrggbb"
    };

    enum class kind { sway, gnome, kde };

    /// Why the desktop cannot start here (a package missing), or "" when it can.
    static std::string missing_parts(kind desktop);

    struct options {
        kind desktop = kind::sway;
        std::vector<output> outputs{{"HEADLESS-1", 0, 0, 1280, 720, "#1e90ff"},
                                    {"HEADLESS-2", 1280, 0, 1024, 768, "#22aa44"}};
        /// A terminal printing the time five times a second on the first output, so
        /// its picture keeps changing; without it the desktop never changes.
        bool busy = true;
    };

    /// The options of a GNOME desktop with one 1280x720 monitor (its background is
    /// mutter's own, not set by the test) and a terminal to share as a window.
    static options gnome();
    /// The options of a KDE Plasma desktop with one 1280x720 virtual output.
    static options kde();

    wayland_desktop() : wayland_desktop(options{}) {}
    /// Starts the whole stack; throws std::runtime_error when a part does not come up.
    explicit wayland_desktop(options options);
    /// Stops everything it started.
    ~wayland_desktop();
    wayland_desktop(const wayland_desktop&) = delete;
    wayland_desktop& operator=(const wayland_desktop&) = delete;

    /// What a program of the session sees: WAYLAND_DISPLAY, XDG_RUNTIME_DIR,
    /// DBUS_SESSION_BUS_ADDRESS, XDG_SESSION_TYPE, XDG_CURRENT_DESKTOP, PULSE_SERVER
    /// (PipeWire's), and the XDG folders and HOME of the session.
    const std::vector<std::pair<std::string, std::string>>& environment() const { return environment_; }
    /// Sets environment() in this process (and so in every program it starts).
    void export_environment() const;

    const std::vector<output>& outputs() const { return options_.outputs; }
    /// What the chooser answers from now on: an output name, "" (the user cancels), or
    /// "slow" (nothing, after 5 s). On GNOME any name shares the first entry the picker
    /// lists, and "" cancels.
    void choose(const std::string& output_name);
    /// How often the portal has asked the user to choose.
    int chooser_calls() const;
    /// Whether every chooser call has returned.
    bool chooser_idle() const;
    /// Gives an output another size (as a user changing the resolution would); false
    /// when sway refuses.
    bool resize_output(const std::string& name, int width, int height);
    /// Whether a program of the session owns name on its bus now.
    bool on_bus(const std::string& name) const;
    /// Kills the portal backend (every cast it serves ends) and starts a fresh one.
    void restart_portal_backend();

    const std::filesystem::path& directory() const { return dir_.path(); }

private:
    void start(std::vector<std::string> argv, const std::string& log, std::vector<std::pair<std::string, std::string>> extra = {});
    void start_sway();
    void start_gnome();
    void start_kde();
    /// The accessibility bus and the picker's answering script, before the portal backend.
    void start_picker_answers();
    void start_media_and_activation();
    /// Waits for the compositor's socket and sets WAYLAND_DISPLAY to it.
    void wait_for_compositor(const std::string& name);
    void wait_for_bus_name(const std::string& name);
    void start_portal_backend();

    options options_;
    temp_dir dir_;
    std::vector<std::pair<std::string, std::string>> environment_;
    std::unique_ptr<session_bus> bus_;
    // In start order; stopped in reverse.
    std::vector<std::unique_ptr<obs::child_process>> processes_;
    obs::child_process* portal_backend_ = nullptr;
};

} // namespace orbweave::test
