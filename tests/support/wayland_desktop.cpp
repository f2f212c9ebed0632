#include "tests/support/wayland_desktop.hpp"

#include "tests/support/eventually.hpp"
#include "tests/support/rtmp_ingest.hpp"
#include "tests/support/processes.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <algorithm>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace orbweave::test {

namespace {

using namespace std::chrono_literals;
// Generous: a desktop starting on a loaded two-core machine (GNOME Shell under the
// sanitizers) has taken over 20 s; a bound only costs its length when something fails.
constexpr auto start_limit = 60s;
constexpr uid_t nobody = 65534;
constexpr const char* kde_portal_backend = "/usr/lib/x86_64-linux-gnu/libexec/xdg-desktop-portal-kde";
constexpr const char* kde_qt_wayland_plugin = "/usr/lib/x86_64-linux-gnu/qt5/plugins/platforms/libqwayland-generic.so";
// Qt programs show their widgets on the accessibility bus only when asked to.
const std::vector<std::pair<std::string, std::string>> qt_accessible{{"QT_ACCESSIBILITY", "1"},
                                                                     {"QT_LINUX_ACCESSIBILITY_ALWAYS_ON", "1"}};

/// The file's last lines, joined by " | ".
std::string last_lines(const std::filesystem::path& path, std::size_t count)
{
    std::ifstream file(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);)
        if (!line.empty())
            lines.push_back(line);
    std::string joined;
    for (std::size_t i = lines.size() > count ? lines.size() - count : 0; i < lines.size(); ++i)
        joined += (joined.empty() ? "" : " | ") + lines[i];
    return joined;
}

bool is_unix_socket(const std::filesystem::path& path)
{
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 && S_ISSOCK(info.st_mode);
}

} // namespace

std::vector<wayland_desktop::output> wayland_desktop::default_outputs(kind desktop)
{
    switch (desktop) {
    case kind::sway:
        return {{"HEADLESS-1", 0, 0, 1280, 720, "#1e90ff"}, {"HEADLESS-2", 1280, 0, 1024, 768, "#22aa44"}};
    case kind::gnome: return {{"Meta-0", 0, 0, 1280, 720, "#1e90ff"}};
    case kind::kde: return {{"Virtual-0", 0, 0, 1280, 720, "#1e90ff"}};
    }
    return {};
}

std::string wayland_desktop::name(kind desktop)
{
    switch (desktop) {
    case kind::sway: return "sway";
    case kind::gnome: return "GNOME";
    case kind::kde: return "KDE Plasma";
    }
    return {};
}

std::vector<std::string> wayland_desktop::missing_packages(kind desktop)
{
    // What each desktop starts, or loads at run time, and the Debian package that brings it.
    // Some of these come only as a package's recommendation, which scripts/setup does not
    // install, so each is named here instead of surfacing as a time-out on a bus name.
    struct part {
        const char* path; // a program on PATH, or an absolute path
        const char* package;
    };
    std::vector<part> needed{{"dbus-daemon", "dbus"},
                             {"pipewire", "pipewire"},
                             {"wireplumber", "wireplumber"},
                             {"pipewire-pulse", "pipewire-pulse"},
                             {"foot", "foot"},
                             {"/usr/share/fonts/truetype/dejavu/DejaVuSansMono.ttf", "fonts-dejavu-core"},
                             {"/usr/libexec/xdg-desktop-portal", "xdg-desktop-portal"}};
    switch (desktop) {
    case kind::sway:
        needed.insert(needed.end(), {{"sway", "sway"},
                                     {"swaymsg", "sway"},
                                     {"/usr/libexec/xdg-desktop-portal-wlr", "xdg-desktop-portal-wlr"}});
        break;
    case kind::gnome:
        needed.insert(needed.end(), {{"gnome-shell", "gnome-shell"},
                                     {"/usr/libexec/xdg-desktop-portal-gnome", "xdg-desktop-portal-gnome"}});
        break;
    case kind::kde:
        needed.insert(needed.end(), {{"kwin_wayland", "kwin-wayland"},
                                     {kde_portal_backend, "xdg-desktop-portal-kde"},
                                     // The portal is a Qt 5 program: without Qt's Wayland
                                     // platform plug-in it exits at start.
                                     {kde_qt_wayland_plugin, "qtwayland5"}});
        break;
    }
    // The user at the picker answers over the accessibility bus, from Python.
    if (desktop != kind::sway)
        needed.insert(needed.end(),
                      {{"/usr/bin/python3", "python3"}, {"/usr/libexec/at-spi-bus-launcher", "at-spi2-core"}});
    std::vector<std::string> missing;
    auto note = [&](const std::string& package) {
        if (std::find(missing.begin(), missing.end(), package) == missing.end())
            missing.push_back(package);
    };
    for (const part& part : needed)
        if (part.path[0] == '/' ? !std::filesystem::exists(part.path) : obs::find_program(part.path).empty())
            note(part.package);
    if (desktop != kind::sway && missing.empty()) {
        int status = -1;
        run_program({"/usr/bin/python3", "-c", "import pyatspi"}, 10s, &status);
        if (status != 0)
            note("python3-pyatspi");
        // The window the tests share is GTK 3's.
        run_program({"/usr/bin/python3", "-c", "import gi; gi.require_version('Gtk', '3.0')"}, 10s, &status);
        if (status != 0)
            note("gir1.2-gtk-3.0");
    }
    return missing;
}

wayland_desktop::wayland_desktop(options options) : options_(std::move(options)), dir_("orbweave-wayland")
{
    namespace fs = std::filesystem;
    if (auto missing = missing_packages(options_.desktop); !missing.empty()) {
        std::string list;
        for (const std::string& package : missing)
            list += (list.empty() ? "" : " ") + package;
        throw std::runtime_error("missing package(s) " + list +
                                 "; scripts/setup installs them");
    }
    if (options_.outputs.empty())
        options_.outputs = default_outputs(options_.desktop);
    const fs::path& root = dir_.path();
    for (const char* folder : {"run", "home", "config/xdg-desktop-portal-wlr", "state", "data", "cache", "logs", "portals"})
        fs::create_directories(root / folder);
    fs::permissions(root / "run", fs::perms::owner_all, fs::perm_options::replace);
    bool as_root = ::geteuid() == 0;
    // sway (as nobody when we are root) creates its socket in the runtime folder.
    if (options_.desktop == kind::sway && as_root &&
        (::chown(root.c_str(), nobody, nobody) != 0 || ::chown((root / "run").c_str(), nobody, nobody) != 0))
        throw std::runtime_error("cannot hand the runtime folder to sway's user");
    fs::permissions(root, fs::perms::owner_all | fs::perms::group_exec | fs::perms::others_exec,
                    fs::perm_options::replace);

    std::string runtime = (root / "run").string();
    const char* current_desktop = options_.desktop == kind::sway ? "sway" : options_.desktop == kind::gnome ? "GNOME" : "KDE";
    environment_ = {{"HOME", (root / "home").string()},
                    {"XDG_RUNTIME_DIR", runtime},
                    {"XDG_CONFIG_HOME", (root / "config").string()},
                    {"XDG_STATE_HOME", (root / "state").string()},
                    {"XDG_DATA_HOME", (root / "data").string()},
                    {"XDG_CACHE_HOME", (root / "cache").string()},
                    {"XDG_SESSION_TYPE", "wayland"},
                    {"XDG_CURRENT_DESKTOP", current_desktop},
                    {"LANG", "C.UTF-8"}};

    // The session bus; what it starts on demand sees the session's variables (below).
    bus_ = std::make_unique<session_bus>();
    environment_.push_back({"DBUS_SESSION_BUS_ADDRESS", bus_->address()});

    switch (options_.desktop) {
    case kind::sway: start_sway(as_root); break;
    case kind::gnome: start_gnome(); break;
    case kind::kde: start_kde(); break;
    }

    // Sound and video: PipeWire, its session manager and its PulseAudio server.
    start({"pipewire"}, "pipewire");
    if (!eventually([&] { return is_unix_socket(root / "run/pipewire-0"); }, start_limit))
        throw std::runtime_error("pipewire did not open its socket");
    start({"wireplumber"}, "wireplumber");
    start({"pipewire-pulse"}, "pipewire-pulse");
    if (!eventually([&] { return is_unix_socket(root / "run/pulse/native"); }, start_limit))
        throw std::runtime_error("pipewire-pulse did not open its socket");
    environment_.push_back({"PULSE_SERVER", "unix:" + (root / "run/pulse/native").string()});

    // Programs the bus starts on demand (the portal's permission store, the
    // accessibility bus) see the session.
    std::vector<std::string> update{"env"};
    for (const auto& [name, value] : environment_)
        update.push_back(name + "=" + value);
    update.insert(update.end(), {"dbus-update-activation-environment", "WAYLAND_DISPLAY", "XDG_RUNTIME_DIR",
                                 "XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_STATE_HOME", "XDG_CACHE_HOME", "HOME",
                                 "XDG_SESSION_TYPE", "XDG_CURRENT_DESKTOP"});
    int status = -1;
    run_program(update, 10s, &status);
    if (status != 0)
        throw std::runtime_error("dbus-update-activation-environment failed");

    // The portal: the desktop's backend (with a recording chooser on sway, the user at
    // the picker elsewhere), then the front end, which sees only that backend.
    choose(options_.outputs.front().name);
    if (options_.desktop == kind::sway) {
        // "slow" stands for a user who takes 5 s and then picks nothing, "delay N NAME" for
        // one who picks NAME after N seconds.
        std::ofstream(root / "chooser.sh") << "#!/bin/sh\necho called >> '" << (root / "chooser-calls").string()
                                           << "'\nchoice=$(cat '" << (root / "choice").string() << "')\n"
                                           << "if [ \"$choice\" = slow ]; then sleep 5; choice=; fi\n"
                                           << "case \"$choice\" in \"delay \"*) set -- $choice; sleep \"$2\"; "
                                              "choice=\"$3\";; esac\n"
                                           << "echo returned >> '" << (root / "chooser-returns").string() << "'\n"
                                           << "echo \"$choice\"\n";
        std::ofstream(root / "config/xdg-desktop-portal-wlr/config")
            << "[screencast]\nmax_fps=30\nchooser_type=simple\nchooser_cmd=sh " << (root / "chooser.sh").string()
            << "\n";
    }
    start_portal_backend();
    if (options_.desktop != kind::sway && picker_limitation().empty())
        start_picker();
    std::string portal = std::string(portal_name()) + ".portal";
    fs::copy_file(fs::path("/usr/share/xdg-desktop-portal/portals") / portal, root / "portals" / portal);
    start({"/usr/libexec/xdg-desktop-portal", "-v"}, "xdp", {{"XDG_DESKTOP_PORTAL_DIR", (root / "portals").string()}});
    wait_for_bus_name("org.freedesktop.portal.Desktop");
}

void wayland_desktop::wait_for_socket(const std::string& compositor)
{
    namespace fs = std::filesystem;
    fs::path runtime = dir_.path() / "run";
    std::string display;
    if (!eventually(
            [&] {
                for (const auto& entry : fs::directory_iterator(runtime))
                    if (entry.path().filename().string().rfind("wayland-", 0) == 0 && is_unix_socket(entry.path()))
                        display = entry.path().filename().string();
                return !display.empty();
            },
            start_limit))
        throw std::runtime_error(compositor + " did not open its socket; see " +
                                 (dir_.path() / "logs" / (compositor + ".log")).string());
    environment_.push_back({"WAYLAND_DISPLAY", display});
}

void wayland_desktop::start_sway(bool as_root)
{
    const std::filesystem::path& root = dir_.path();
    // The compositor, its outputs and (when busy) a terminal that keeps changing.
    std::ostringstream sway;
    sway << "xwayland disable\ndefault_border none\n";
    for (const output& out : options_.outputs)
        sway << "output " << out.name << " mode " << out.width << "x" << out.height << " position " << out.left << " "
             << out.top << " bg " << out.background << " solid_color\n";
    if (options_.busy)
        sway << "for_window [app_id=\"clock\"] floating enable, resize set 600 120, move position 40 40\n"
                "exec foot --app-id=clock --font=\"DejaVu Sans Mono:size=20\" -e sh -c "
                "'while :; do date +%T.%N | cut -c1-12; sleep 0.2; done'\n";
    std::ofstream(root / "config/sway.conf") << sway.str();
    std::vector<std::string> sway_argv{"sway", "-c", (root / "config/sway.conf").string()};
    if (as_root)
        sway_argv.insert(sway_argv.begin(), {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"});
    start(sway_argv, "sway",
          {{"WLR_BACKENDS", "headless"},
           {"WLR_LIBINPUT_NO_DEVICES", "1"},
           {"WLR_RENDERER", "pixman"},
           {"WLR_HEADLESS_OUTPUTS", std::to_string(options_.outputs.size())}});
    wait_for_socket("sway");
}

void wayland_desktop::start_gnome()
{
    // GNOME Shell, whose Introspect service lets the portal offer windows. It asks
    // logind for the session over the system bus and goes on without one when that bus
    // is a private, empty one.
    std::vector<std::string> argv{"gnome-shell", "--headless", "--wayland", "--no-x11"};
    for (const output& out : options_.outputs)
        argv.insert(argv.end(), {"--virtual-monitor", std::to_string(out.width) + "x" + std::to_string(out.height)});
    system_bus_ = std::make_unique<session_bus>();
    start(argv, "gnome-shell", {{"DBUS_SYSTEM_BUS_ADDRESS", system_bus_->address()}});
    wait_for_socket("gnome-shell");
    wait_for_bus_name("org.gnome.Mutter.ScreenCast");
    wait_for_bus_name("org.gnome.Shell.Introspect");
    leave_overview();
    if (options_.busy)
        start_clock();
}

void wayland_desktop::leave_overview()
{
    // The shell ends its start-up in the overview, which hides every window; a user
    // starts working by leaving it.
    auto overview = [&](const char* method, std::vector<std::string> more = {}) {
        std::vector<std::string> argv{"dbus-send", "--session", "--print-reply", "--dest=org.gnome.Shell",
                                      "/org/gnome/Shell", std::string("org.freedesktop.DBus.Properties.") + method,
                                      "string:org.gnome.Shell", "string:OverviewActive"};
        argv.insert(argv.end(), more.begin(), more.end());
        return session_call(argv);
    };
    auto shown = [&] { return overview("Get").find("boolean true") != std::string::npos; };
    if (!eventually(shown, start_limit, 50ms))
        throw std::runtime_error("GNOME Shell did not finish starting (no overview)");
    if (!eventually(
            [&] {
                overview("Set", {"variant:boolean:false"});
                return eventually([&] { return overview("Get").find("boolean false") != std::string::npos; }, 2s, 50ms);
            },
            start_limit, 50ms))
        throw std::runtime_error("GNOME Shell did not leave its overview");
}

std::string wayland_desktop::session_call(std::vector<std::string> argv) const
{
    argv.insert(argv.begin(), {"env", "DBUS_SESSION_BUS_ADDRESS=" + bus_->address()});
    return run_program(argv, 5s);
}

void wayland_desktop::start_kde()
{
    // Debian installs kwin_wayland with a file capability (cap_sys_resource) that a
    // container's bounding set refuses at exec ("Operation not permitted"); a copy has none.
    std::filesystem::path kwin = dir_.path() / "kwin_wayland";
    std::filesystem::copy_file(obs::find_program("kwin_wayland"), kwin);
    const output& first = options_.outputs.front();
    start({kwin.string(), "--virtual", "--width", std::to_string(first.width), "--height",
           std::to_string(first.height), "--output-count", std::to_string(options_.outputs.size()), "--no-lockscreen",
           "--no-global-shortcuts", "--no-kactivities", "--socket", "wayland-0"},
          "kwin");
    wait_for_socket("kwin");
    wait_for_bus_name("org.kde.KWin");
    if (options_.busy)
        start_clock();
}

void wayland_desktop::start_clock()
{
    // Fills the output in its background colour, with the time at the top left.
    const output& first = options_.outputs.front();
    start({"foot", "--fullscreen", "--app-id=clock", "-o", "colors.background=" + first.background.substr(1),
           "--font=DejaVu Sans Mono:size=20", "-e", "sh", "-c", "while :; do date +%T.%N | cut -c1-12; sleep 0.2; done"},
          "clock");
}

void wayland_desktop::start_picker()
{
    // A crashed test leaves the user at the picker behind for ten minutes at most.
    start({"/usr/bin/python3", ORBWEAVE_PICKER_SCRIPT, dir_.path().string(), "600"}, "picker");
}

wayland_desktop::~wayland_desktop()
{
    for (auto& [title, window] : windows_)
        stop(*window);
    windows_.clear();
    for (auto process = processes_.rbegin(); process != processes_.rend(); ++process)
        stop(**process);
    processes_.clear();
    bus_.reset();
    system_bus_.reset();
}

void wayland_desktop::start(std::vector<std::string> argv, const std::string& log,
                            std::vector<std::pair<std::string, std::string>> extra)
{
    auto options = test::command({"sh", "-c", "exec \"$@\" >\"$0\" 2>&1", (dir_.path() / "logs" / (log + ".log")).string()});
    options.argv.insert(options.argv.end(), argv.begin(), argv.end());
    options.environment = environment_;
    options.environment.insert(options.environment.end(), extra.begin(), extra.end());
    options.unset_environment = {"DISPLAY", "LD_PRELOAD"};
    options.new_process_group = true;
    processes_.push_back(std::make_unique<obs::child_process>(options));
    last_log_ = log;
}

void wayland_desktop::wait_for_bus_name(const std::string& name)
{
    // The name's owner is the program started last; when it has ended, waiting longer
    // cannot help, and its last words say why.
    obs::child_process& owner = *processes_.back();
    std::optional<int> ended;
    bool owned = eventually(
        [&] {
            ended = owner.wait_for(0ms);
            return ended || has_owner(bus_->address(), name);
        },
        start_limit, 50ms);
    std::filesystem::path log = dir_.path() / "logs" / (last_log_ + ".log");
    if (ended)
        throw std::runtime_error(last_log_ + " " + obs::child_process::describe(*ended) + " before " + name +
                                 " appeared on the session bus; it said: " + last_lines(log, 3));
    if (!owned)
        throw std::runtime_error(name + " did not appear on the session bus; see " + log.string());
}

void wayland_desktop::export_environment() const
{
    for (const auto& [name, value] : environment_)
        ::setenv(name.c_str(), value.c_str(), 1);
    ::unsetenv("DISPLAY");
}

void wayland_desktop::choose(const std::string& output_name)
{
    std::ofstream(dir_.path() / "choice") << output_name << (output_name.empty() ? "" : "\n");
}

namespace {
int count_lines(const std::filesystem::path& path)
{
    std::string text = file_text(path);
    return static_cast<int>(std::count(text.begin(), text.end(), '\n'));
}
} // namespace

std::string wayland_desktop::picker_limitation() const
{
    if (options_.desktop != kind::kde)
        return {};
    return "KDE's picker (xdg-desktop-portal-kde 5.27) shows the screens and windows as QML grid items that "
           "offer no accessible action or selection, and AT-SPI cannot click on Wayland, so nothing can pick one "
           "headless (pressing Share with nothing picked does nothing)";
}

int wayland_desktop::chooser_calls() const
{
    return count_lines(dir_.path() / "chooser-calls");
}

std::string wayland_desktop::last_picker() const
{
    std::ifstream lines(dir_.path() / "chooser-calls");
    std::string last;
    for (std::string line; std::getline(lines, line);)
        last = line;
    return last.rfind("called ", 0) == 0 ? last.substr(7) : std::string();
}

bool wayland_desktop::chooser_idle() const
{
    return count_lines(dir_.path() / "chooser-returns") == chooser_calls();
}

bool wayland_desktop::resize_output(const std::string& name, int width, int height)
{
    std::string socket;
    for (const auto& entry : std::filesystem::directory_iterator(dir_.path() / "run"))
        if (entry.path().filename().string().rfind("sway-ipc.", 0) == 0)
            socket = entry.path().string();
    if (socket.empty())
        return false;
    int status = -1;
    run_program({"swaymsg", "-s", socket, "output", name, "mode",
                 std::to_string(width) + "x" + std::to_string(height)},
                10s, &status);
    return status == 0;
}

void wayland_desktop::start_portal_backend()
{
    if (options_.desktop == kind::sway)
        start({"/usr/libexec/xdg-desktop-portal-wlr", "-l", "DEBUG", "-c",
               (dir_.path() / "config/xdg-desktop-portal-wlr/config").string()},
              "xdpw", {{"LD_PRELOAD", ORBWEAVE_XDPW_SHIM}});
    else if (options_.desktop == kind::gnome)
        start({"/usr/libexec/xdg-desktop-portal-gnome", "-v"}, "xdp-gnome");
    else
        start({kde_portal_backend}, "xdp-kde", qt_accessible);
    portal_backend_ = processes_.back().get();
    wait_for_bus_name(std::string("org.freedesktop.impl.portal.desktop.") + portal_name());
}

void wayland_desktop::restart_portal_backend()
{
    if (portal_backend_) {
        portal_backend_->kill(SIGKILL);
        portal_backend_->wait_for(5s);
    }
    start_portal_backend();
}

void wayland_desktop::open_window(const std::string& title, const std::string& colour, int width, int height)
{
    std::filesystem::path shown = dir_.path() / ("shown-" + title);
    std::filesystem::remove(shown);
    auto options = test::command({"/usr/bin/python3", ORBWEAVE_WINDOW_SCRIPT, title, colour, std::to_string(width),
                            std::to_string(height), shown.string(), (dir_.path() / ("size-of-" + title)).string()});
    options.environment = environment_;
    options.unset_environment = {"DISPLAY", "LD_PRELOAD"};
    options.new_process_group = true;
    options.quiet = true;
    windows_.emplace_back(title, std::make_unique<obs::child_process>(options));
    // A picker opened before the window is on the screen would not offer it.
    if (!eventually([&] { return std::filesystem::exists(shown); }, start_limit, 50ms))
        throw std::runtime_error("the window " + title + " did not appear");
}

void wayland_desktop::resize_window(const std::string& title, int width, int height)
{
    std::ofstream(dir_.path() / ("size-of-" + title)) << width << "x" << height << "\n";
    for (const auto& [name, window] : windows_)
        if (name == title)
            ::kill(window->pid(), SIGUSR1);
}

void wayland_desktop::close_window(const std::string& title)
{
    for (auto window = windows_.begin(); window != windows_.end(); ++window)
        if (window->first == title) {
            stop(*window->second);
            windows_.erase(window);
            return;
        }
}

void wayland_desktop::stop(obs::child_process& process)
{
    // Each runs in its own group: its helpers (sway's terminal) end with it.
    ::kill(-process.pid(), SIGTERM);
    if (!process.wait_for(5s))
        ::kill(-process.pid(), SIGKILL);
}

} // namespace orbweave::test
