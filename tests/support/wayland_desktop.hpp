#pragma once

// A headless Wayland desktop for capture tests, started by the tests themselves: a
// private session bus, a compositor without a GPU, PipeWire with WirePlumber and its
// PulseAudio server, xdg-desktop-portal and the desktop's own portal backend.
//
// - sway (headless backend, pixman renderer) with xdg-desktop-portal-wlr: screen casts
//   are chosen by a chooser script. sway refuses to run as root, so as root it runs as
//   nobody. Debian 12's xdg-desktop-portal-wlr cannot start a cast without a GPU; the
//   fixture preloads a test-only shim into it (tests/support/wayland/xdpw_shm_shim.c).
// - GNOME: gnome-shell --headless with a virtual monitor (on a private system bus:
//   no logind), xdg-desktop-portal-gnome.
// - KDE Plasma: kwin_wayland --virtual, xdg-desktop-portal-kde.
// On GNOME and KDE the portal shows its own picker window; a script playing the user
// (tests/support/wayland/picker.py) answers it over the accessibility bus.
//
// Either way each picker is recorded and answered as the test wrote into the choice
// file (an output or window name, or nothing for a user who cancels). Everything but
// sway, and the client under test, runs as the test's own user, like the portal.

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
    enum class kind { sway, gnome, kde };

    struct output {
        std::string name; // HEADLESS-1, HEADLESS-2, ...
        int left = 0, top = 0, width = 0, height = 0;
        std::string background; // "#rrggbb"
    };

    struct options {
        kind desktop = kind::sway;
        /// Empty: the desktop's usual test outputs (default_outputs()).
        std::vector<output> outputs;
        /// A terminal printing the time five times a second on the first output, so
        /// its picture keeps changing; without it the desktop never changes. On GNOME
        /// and KDE it fills the output, in the output's background colour.
        bool busy = true;
    };

    /// sway: HEADLESS-1 1280x720 and HEADLESS-2 1024x768 beside it; GNOME and KDE: one
    /// 1280x720 output (each output costs a software renderer).
    static std::vector<output> default_outputs(kind desktop);
    /// "sway", "GNOME", "KDE Plasma".
    static std::string name(kind desktop);
    /// The Debian packages the desktop needs (programs, plug-ins, fonts) that are not
    /// installed (empty: it can run). The constructor refuses to start without them.
    static std::vector<std::string> missing_packages(kind desktop);

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

    kind desktop() const { return options_.desktop; }
    const std::vector<output>& outputs() const { return options_.outputs; }
    /// What the picker answers from now on: an output (or window) name, "" (the user
    /// cancels), "slow" (nothing, after 5 s) or, on sway, "delay N NAME" (NAME after N
    /// seconds). On GNOME and KDE a name picks the row
    /// showing it, else the first row.
    void choose(const std::string& output_name);
    /// Why the tests cannot answer this desktop's picker headless; empty where they can.
    std::string picker_limitation() const;
    /// How often the portal has asked the user to choose.
    int chooser_calls() const;
    /// GNOME: what the newest picker asked for and how many it offered ("window 0");
    /// empty elsewhere.
    std::string last_picker() const;
    /// Whether every chooser call has returned.
    bool chooser_idle() const;
    /// sway only: gives an output another size (as a user changing the resolution
    /// would); false when sway refuses.
    bool resize_output(const std::string& name, int width, int height);
    /// Kills the portal backend (every cast it serves ends) and starts a fresh one.
    void restart_portal_backend();
    /// Starts a window on the desktop with this title, width x height pixels without
    /// decorations, all of it colour ("#rrggbb") (tests/support/wayland/window.py), and
    /// returns once it is on the screen; it lives until close_window() or the desktop's
    /// end. Throws std::runtime_error when it does not appear.
    void open_window(const std::string& title, const std::string& colour, int width = 640, int height = 400);
    /// Gives an open window another size, as a user dragging its corner would.
    void resize_window(const std::string& title, int width, int height);
    void close_window(const std::string& title);

    const std::filesystem::path& directory() const { return dir_.path(); }

private:
    void start_sway(bool as_root);
    void start_gnome();
    void start_kde();
    void wait_for_socket(const std::string& compositor);
    void start_picker();
    void start_clock();
    void stop(obs::child_process& process);
    void start(std::vector<std::string> argv, const std::string& log, std::vector<std::pair<std::string, std::string>> extra = {});
    void wait_for_bus_name(const std::string& name);
    /// Runs argv (dbus-send --session ...) on the desktop's session bus; its output.
    std::string session_call(std::vector<std::string> argv) const;
    void leave_overview();
    void start_portal_backend();
    /// The portal backend's name: "wlr", "gnome" or "kde".
    const char* portal_name() const
    {
        return options_.desktop == kind::sway ? "wlr" : options_.desktop == kind::gnome ? "gnome" : "kde";
    }

    options options_;
    temp_dir dir_;
    std::vector<std::pair<std::string, std::string>> environment_;
    std::unique_ptr<session_bus> bus_;
    /// GNOME Shell's system bus: private and empty (no logind).
    std::unique_ptr<session_bus> system_bus_;
    // In start order; stopped in reverse.
    std::vector<std::unique_ptr<obs::child_process>> processes_;
    /// The log of the program started last (the owner of the bus name waited for next).
    std::string last_log_;
    obs::child_process* portal_backend_ = nullptr;
    std::vector<std::pair<std::string, std::unique_ptr<obs::child_process>>> windows_;
};

} // namespace orbweave::test
