#include "tests/support/wayland_desktop.hpp"

#include "tests/support/eventually.hpp"
#include "tests/support/rtmp_ingest.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace orbweave::test {

namespace {

using namespace std::chrono_literals;
constexpr auto start_limit = 20s;
constexpr uid_t nobody = 65534;

bool is_unix_socket(const std::filesystem::path& path)
{
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 && S_ISSOCK(info.st_mode);
}

} // namespace

std::string wayland_desktop::missing_parts(kind desktop)
{
    namespace fs = std::filesystem;
    std::vector<std::pair<std::string, std::string>> needed{{"/usr/bin/pipewire", "pipewire"},
                                                            {"/usr/bin/wireplumber", "wireplumber"},
                                                            {"/usr/libexec/xdg-desktop-portal", "xdg-desktop-portal"}};
    if (desktop == kind::sway) {
        needed.insert(needed.end(), {{"/usr/bin/sway", "sway"},
                                     {"/usr/libexec/xdg-desktop-portal-wlr", "xdg-desktop-portal-wlr"}});
    } else if (desktop == kind::kde) {
        needed.insert(needed.end(), {{"/usr/bin/kwin_wayland", "kwin-wayland"},
                                     {"/usr/lib/x86_64-linux-gnu/libexec/xdg-desktop-portal-kde", "xdg-desktop-portal-kde"},
                                     {"/usr/lib/x86_64-linux-gnu/qt5/plugins/platforms/libqwayland-generic.so", "qtwayland5"},
                                     {"/usr/lib/x86_64-linux-gnu/qt5/qml/org/kde/pipewire", "qml-module-org-kde-pipewire"},
                                     {"/usr/lib/x86_64-linux-gnu/qt5/qml/org/kde/taskmanager", "plasma-workspace"},
                                     {"/usr/libexec/at-spi-bus-launcher", "at-spi2-core"},
                                     {"/usr/lib/python3/dist-packages/pyatspi", "python3-pyatspi"}});
    } else {
        needed.insert(needed.end(), {{"/usr/bin/mutter", "mutter"},
                                     {"/usr/libexec/xdg-desktop-portal-gnome", "xdg-desktop-portal-gnome"},
                                     {"/usr/libexec/at-spi-bus-launcher", "at-spi2-core"},
                                     {"/usr/lib/python3/dist-packages/pyatspi", "python3-pyatspi"}});
    }
    std::string missing;
    for (const auto& [path, package] : needed)
        if (!fs::exists(path))
            missing += (missing.empty() ? "" : ", ") + package;
    return missing.empty() ? "" : "Debian packages missing: " + missing;
}

wayland_desktop::options wayland_desktop::gnome()
{
    options made;
    made.desktop = kind::gnome;
    made.outputs = {{"Meta-0", 0, 0, 1280, 720, ""}};
    return made;
}

wayland_desktop::options wayland_desktop::kde()
{
    options made;
    made.desktop = kind::kde;
    made.outputs = {{"Virtual-0", 0, 0, 1280, 720, ""}};
    made.busy = false;
    return made;
}

wayland_desktop::wayland_desktop(options options) : options_(std::move(options)), dir_("orbweave-wayland")
{
    namespace fs = std::filesystem;
    const fs::path& root = dir_.path();
    for (const char* folder : {"run", "home", "config/xdg-desktop-portal-wlr", "state", "data", "cache", "logs"})
        fs::create_directories(root / folder);
    fs::permissions(root / "run", fs::perms::owner_all, fs::perm_options::replace);
    bool sway = options_.desktop == kind::sway;
    // sway (as nobody when we are root) creates its socket in the runtime folder.
    if (sway && ::geteuid() == 0 &&
        (::chown(root.c_str(), nobody, nobody) != 0 || ::chown((root / "run").c_str(), nobody, nobody) != 0))
        throw std::runtime_error("cannot hand the runtime folder to sway's user");
    fs::permissions(root, fs::perms::owner_all | fs::perms::group_exec | fs::perms::others_exec,
                    fs::perm_options::replace);

    std::string runtime = (root / "run").string();
    environment_ = {{"HOME", (root / "home").string()},
                    {"XDG_RUNTIME_DIR", runtime},
                    {"XDG_CONFIG_HOME", (root / "config").string()},
                    {"XDG_STATE_HOME", (root / "state").string()},
                    {"XDG_DATA_HOME", (root / "data").string()},
                    {"XDG_CACHE_HOME", (root / "cache").string()},
                    {"XDG_SESSION_TYPE", "wayland"},
                    {"XDG_CURRENT_DESKTOP", sway ? "sway" : options_.desktop == kind::gnome ? "GNOME" : "KDE"},
                    {"LANG", "C.UTF-8"}};

    // The session bus; what it starts on demand sees the session's variables (below).
    bus_ = std::make_unique<session_bus>();
    environment_.push_back({"DBUS_SESSION_BUS_ADDRESS", bus_->address()});

    if (options_.desktop == kind::gnome)
        start_gnome();
    else if (options_.desktop == kind::kde)
        start_kde();
    else
        start_sway();
    start({"/usr/libexec/xdg-desktop-portal", "-v"}, "xdp");
    wait_for_bus_name("org.freedesktop.portal.Desktop");
}

void wayland_desktop::start_sway()
{
    namespace fs = std::filesystem;
    const fs::path& root = dir_.path();
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
    if (::geteuid() == 0)
        sway_argv.insert(sway_argv.begin(),
                         {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"});
    start(sway_argv, "sway",
          {{"WLR_BACKENDS", "headless"},
           {"WLR_LIBINPUT_NO_DEVICES", "1"},
           {"WLR_RENDERER", "pixman"},
           {"WLR_HEADLESS_OUTPUTS", std::to_string(options_.outputs.size())}});
    wait_for_compositor("sway");
    start_media_and_activation();

    // The portal's wlroots backend with a recording chooser.
    choose(options_.outputs.front().name);
    // "slow" stands for a user who takes 5 s and then picks nothing.
    std::ofstream(root / "chooser.sh") << "#!/bin/sh\necho called >> '" << (root / "chooser-calls").string()
                                       << "'\nchoice=$(cat '" << (root / "choice").string() << "')\n"
                                       << "if [ \"$choice\" = slow ]; then sleep 5; choice=; fi\n"
                                       << "echo returned >> '" << (root / "chooser-returns").string() << "'\n"
                                       << "echo \"$choice\"\n";
    std::ofstream(root / "config/xdg-desktop-portal-wlr/config")
        << "[screencast]\nmax_fps=30\nchooser_type=simple\nchooser_cmd=sh " << (root / "chooser.sh").string() << "\n";
    start_portal_backend();
}

void wayland_desktop::start_gnome()
{
    // mutter alone (gnome-shell wants logind on the system bus), one virtual monitor per output.
    std::vector<std::string> mutter{"mutter", "--headless", "--wayland", "--no-x11"};
    for (const output& out : options_.outputs) {
        mutter.push_back("--virtual-monitor");
        mutter.push_back(std::to_string(out.width) + "x" + std::to_string(out.height));
    }
    start(mutter, "mutter");
    wait_for_compositor("mutter");
    start_media_and_activation();
    if (options_.busy)
        start({"foot", "--app-id=clock", "--title=Orbweave clock", "--font=DejaVu Sans Mono:size=20", "-e", "sh", "-c",
               "while :; do date +%T.%N | cut -c1-12; sleep 0.2; done"},
              "foot");

    // The picker is a GTK 4 dialog of the portal's GNOME backend.
    start_picker_answers();
    start_portal_backend();
}

void wayland_desktop::start_kde()
{
    namespace fs = std::filesystem;
    // Debian installs kwin_wayland with a file capability (cap_sys_resource, to raise
    // its scheduling limits), which a container that lacks it refuses to execute; a copy
    // without it runs the same.
    fs::path kwin = dir_.path() / "kwin_wayland";
    fs::copy_file("/usr/bin/kwin_wayland", kwin, fs::copy_options::overwrite_existing);
    const output& first = options_.outputs.front();
    start({kwin.string(), "--virtual", "--width", std::to_string(first.width), "--height",
           std::to_string(first.height), "--no-lockscreen", "--socket", "wayland-0"},
          "kwin");
    wait_for_compositor("kwin_wayland");
    start_media_and_activation();
    // The picker is a Qt Quick dialog of the portal's KDE backend, on Wayland, with Qt's
    // accessibility bridge on.
    environment_.insert(environment_.end(), {{"QT_QPA_PLATFORM", "wayland"},
                                             {"QT_ACCESSIBILITY", "1"},
                                             {"QT_LINUX_ACCESSIBILITY_ALWAYS_ON", "1"},
                                             {"KDE_FULL_SESSION", "true"}});
    start_picker_answers();
    start_portal_backend();
}

void wayland_desktop::start_picker_answers()
{
    // Answered over the accessibility bus, which must run before the dialog's toolkit
    // looks for it.
    const std::filesystem::path& root = dir_.path();
    start({"/usr/libexec/at-spi-bus-launcher", "--launch-immediately"}, "at-spi");
    wait_for_bus_name("org.a11y.Bus");
    choose("share");
    start({"/usr/bin/python3", ORBWEAVE_PICKER_SCRIPT, (root / "choice").string(), (root / "chooser-calls").string()},
          "picker");
}

void wayland_desktop::wait_for_compositor(const std::string& name)
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
        throw std::runtime_error(name + " did not open its socket; see " + (dir_.path() / "logs").string());
    environment_.push_back({"WAYLAND_DISPLAY", display});
}

void wayland_desktop::start_media_and_activation()
{
    const std::filesystem::path& root = dir_.path();
    // Sound and video: PipeWire, its session manager and its PulseAudio server.
    start({"pipewire"}, "pipewire");
    if (!eventually([&] { return is_unix_socket(root / "run/pipewire-0"); }, start_limit))
        throw std::runtime_error("pipewire did not open its socket");
    start({"wireplumber"}, "wireplumber");
    start({"pipewire-pulse"}, "pipewire-pulse");
    if (!eventually([&] { return is_unix_socket(root / "run/pulse/native"); }, start_limit))
        throw std::runtime_error("pipewire-pulse did not open its socket");
    environment_.push_back({"PULSE_SERVER", "unix:" + (root / "run/pulse/native").string()});

    // Programs the bus starts on demand (the portal's permission store) see the session.
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
}

wayland_desktop::~wayland_desktop()
{
    for (auto process = processes_.rbegin(); process != processes_.rend(); ++process) {
        // Each runs in its own group: its helpers (sway's terminal) end with it.
        ::kill(-(*process)->pid(), SIGTERM);
        if (!(*process)->wait_for(5s))
            ::kill(-(*process)->pid(), SIGKILL);
    }
    processes_.clear();
    bus_.reset();
}

void wayland_desktop::start(std::vector<std::string> argv, const std::string& log,
                            std::vector<std::pair<std::string, std::string>> extra)
{
    obs::child_process::options options;
    options.argv = {"sh", "-c", "exec \"$@\" >\"$0\" 2>&1", (dir_.path() / "logs" / (log + ".log")).string()};
    options.argv.insert(options.argv.end(), argv.begin(), argv.end());
    options.environment = environment_;
    options.environment.insert(options.environment.end(), extra.begin(), extra.end());
    options.unset_environment = {"DISPLAY", "LD_PRELOAD"};
    options.new_process_group = true;
    processes_.push_back(std::make_unique<obs::child_process>(options));
}

bool wayland_desktop::on_bus(const std::string& name) const
{
    std::string reply = run_program({"env", "DBUS_SESSION_BUS_ADDRESS=" + bus_->address(), "dbus-send", "--session",
                                     "--print-reply", "--dest=org.freedesktop.DBus", "/org/freedesktop/DBus",
                                     "org.freedesktop.DBus.NameHasOwner", "string:" + name},
                                    5s);
    return reply.find("boolean true") != std::string::npos;
}

void wayland_desktop::wait_for_bus_name(const std::string& name)
{
    if (!eventually([&] { return on_bus(name); }, start_limit, 50ms))
        throw std::runtime_error(name + " did not appear on the session bus; see " + dir_.path().string() + "/logs");
}

void wayland_desktop::export_environment() const
{
    for (const auto& [name, value] : environment_)
        ::setenv(name.c_str(), value.c_str(), 1);
    ::unsetenv("DISPLAY");
}

void wayland_desktop::choose(const std::string& output_name)
{
    if (options_.desktop != kind::sway)
        std::ofstream(dir_.path() / "choice") << (output_name.empty() ? "cancel" : "share") << "\n";
    else
        std::ofstream(dir_.path() / "choice") << output_name << (output_name.empty() ? "" : "\n");
}

namespace {
int count_lines(const std::filesystem::path& path)
{
    std::ifstream lines(path);
    int count = 0;
    for (std::string line; std::getline(lines, line);)
        ++count;
    return count;
}
} // namespace

int wayland_desktop::chooser_calls() const
{
    return count_lines(dir_.path() / "chooser-calls");
}

bool wayland_desktop::chooser_idle() const
{
    // GNOME's and KDE's pickers are answered as soon as they are seen.
    if (options_.desktop != kind::sway)
        return true;
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
    if (options_.desktop == kind::gnome) {
        start({"/usr/libexec/xdg-desktop-portal-gnome"}, "xdpg");
        portal_backend_ = processes_.back().get();
        wait_for_bus_name("org.freedesktop.impl.portal.desktop.gnome");
        return;
    }
    if (options_.desktop == kind::kde) {
        start({"/usr/lib/x86_64-linux-gnu/libexec/xdg-desktop-portal-kde"}, "xdpk");
        portal_backend_ = processes_.back().get();
        wait_for_bus_name("org.freedesktop.impl.portal.desktop.kde");
        return;
    }
    start({"/usr/libexec/xdg-desktop-portal-wlr", "-l", "DEBUG", "-c",
           (dir_.path() / "config/xdg-desktop-portal-wlr/config").string()},
          "xdpw", {{"LD_PRELOAD", ORBWEAVE_XDPW_SHIM}});
    portal_backend_ = processes_.back().get();
    wait_for_bus_name("org.freedesktop.impl.portal.desktop.wlr");
}

void wayland_desktop::restart_portal_backend()
{
    if (portal_backend_) {
        portal_backend_->kill(SIGKILL);
        portal_backend_->wait_for(5s);
    }
    start_portal_backend();
}

} // namespace orbweave::test
