#include "tests/support/media_fixtures.hpp"

#include "core/obs/requests.hpp"

#include "tests/support/eventually.hpp"
#include "tests/support/line_reader.hpp"
#include "tests/support/rtmp_ingest.hpp"

#include <X11/Xlib.h>
#include <X11/Xutil.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <system_error>

namespace orbweave::test {

namespace {

using namespace std::chrono_literals;
using clock = std::chrono::steady_clock;

constexpr auto start_limit = 15s;

int ignore_x_errors(Display*, XErrorEvent*)
{
    // Windows may vanish between listing and inspecting them.
    return 0;
}

// Waits until condition holds, checking it again whenever a root window property changes
// or a window is created, mapped or destroyed; false at the deadline.
bool wait_on_root(const std::string& display_name, const std::function<bool(Display*)>& condition,
                  std::chrono::milliseconds timeout)
{
    XSetErrorHandler(ignore_x_errors);
    Display* display = XOpenDisplay(display_name.c_str());
    if (!display)
        return false;
    Window root = DefaultRootWindow(display);
    XSelectInput(display, root, PropertyChangeMask | SubstructureNotifyMask);
    XSync(display, False);
    auto deadline = clock::now() + timeout;
    bool met = false;
    for (;;) {
        if ((met = condition(display)))
            break;
        bool event = XPending(display) > 0;
        while (!event) {
            int left = static_cast<int>(time_left(deadline).count());
            if (left == 0)
                break;
            pollfd entry{ConnectionNumber(display), POLLIN, 0};
            ::poll(&entry, 1, left);
            event = XPending(display) > 0;
        }
        if (!event)
            break;
        while (XPending(display) > 0) {
            XEvent ignored;
            XNextEvent(display, &ignored);
        }
    }
    XCloseDisplay(display);
    return met;
}

std::vector<Window> root_windows_property(Display* display, const char* name)
{
    std::string bytes = x_property(display, DefaultRootWindow(display), name);
    std::vector<Window> windows(bytes.size() / sizeof(Window));
    if (!windows.empty())
        std::memcpy(windows.data(), bytes.data(), windows.size() * sizeof(Window));
    return windows;
}

void wait_for_socket(const std::string& path, std::chrono::milliseconds timeout)
{
    // PulseAudio offers no readiness notification we can rely on: try to connect until it answers.
    bool connected = eventually(
        [&] {
            int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
            sockaddr_un address{};
            address.sun_family = AF_UNIX;
            std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
            bool answered = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
            ::close(fd);
            return answered;
        },
        timeout);
    if (!connected)
        throw std::runtime_error("PulseAudio did not open " + path + " in time");
}

media_environment* current_environment = nullptr;

/// Starts an X server whose options pass "-displayfd 3" and returns ":N" from the display
/// number it writes there once it accepts clients. Throws when none comes in time.
std::string start_x_server(obs::child_process::options options, const char* server,
                           std::unique_ptr<obs::child_process>& process)
{
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) < 0)
        throw std::system_error(errno, std::generic_category(), "pipe2");
    options.pass_fds = {{fds[1], 3}};
    options.quiet = true;
    try {
        process = std::make_unique<obs::child_process>(options);
    } catch (...) {
        ::close(fds[0]);
        ::close(fds[1]);
        throw;
    }
    ::close(fds[1]);

    std::optional<std::string> number = line_reader(fds[0]).next(start_limit);
    ::close(fds[0]);
    if (!number)
        throw std::runtime_error(std::string(server) + " did not start");
    return ":" + *number;
}

// The dummy driver's screen: room for the largest mode, the three modes the tests switch
// between (CVT timings), no input devices.
constexpr const char* dummy_xorg_conf = R"(Section "ServerFlags"
    Option "AutoAddDevices" "false"
    Option "AutoEnableDevices" "false"
    Option "DontVTSwitch" "true"
EndSection
Section "Device"
    Identifier "dummy"
    Driver "dummy"
    VideoRam 64000
EndSection
Section "Monitor"
    Identifier "monitor"
    HorizSync 5.0 - 1000.0
    VertRefresh 5.0 - 200.0
    Modeline "1280x720" 74.50 1280 1344 1472 1664 720 723 728 748 -hsync +vsync
    Modeline "1024x768" 63.50 1024 1072 1176 1328 768 771 775 798 -hsync +vsync
    Modeline "800x600" 38.25 800 832 912 1024 600 603 607 624 -hsync +vsync
EndSection
Section "Screen"
    Identifier "screen"
    Device "dummy"
    Monitor "monitor"
    DefaultDepth 24
    SubSection "Display"
        Depth 24
        Modes "1280x720" "1024x768" "800x600"
        Virtual 1280 768
    EndSubSection
EndSection
)";

} // namespace

obs::pipe::stream_order order_for(obs::source_entry source, const Json& options, const std::string& server,
                                  const std::string& key, int bitrate)
{
    Json message{{"payload", {{"options", options}, {"service", {{"server", server}, {"key", key}}}}}};
    return obs::pipe::stream_order::of(obs::activate_request::parse(message), std::move(source), bitrate, "");
}

std::string x_property(Display* display, unsigned long window, const char* name)
{
    Atom type = None;
    int format = 0;
    unsigned long count = 0, after = 0;
    unsigned char* data = nullptr;
    std::string bytes;
    if (XGetWindowProperty(display, window, XInternAtom(display, name, False), 0, 4096, False, AnyPropertyType, &type,
                           &format, &count, &after, &data) == Success && data)
        bytes.assign(reinterpret_cast<char*>(data), count * (format == 32 ? sizeof(long) : format / 8));
    if (data)
        XFree(data);
    return bytes;
}

xvfb_display::xvfb_display(std::vector<screen_size> screens) : screens_(std::move(screens))
{
    obs::child_process::options options;
    // -displayfd: Xvfb picks the first free display and writes its number once it accepts clients.
    options.argv = {"Xvfb", "-displayfd", "3", "-nolisten", "tcp", "-noreset", "-extension", "RANDR"};
    for (std::size_t i = 0; i < screens_.size(); ++i) {
        options.argv.push_back("-screen");
        options.argv.push_back(std::to_string(i));
        options.argv.push_back(std::to_string(screens_[i].width) + "x" + std::to_string(screens_[i].height) + "x24");
    }
    name_ = start_x_server(options, "Xvfb", process_);
}

xvfb_display::~xvfb_display() = default;

xorg_display::xorg_display(const std::filesystem::path& directory) : directory_(directory)
{
    std::filesystem::create_directories(directory_);
    std::ofstream(directory_ / "xorg.conf") << dummy_xorg_conf;
    // Xorg takes a configuration by a relative name only, unless run by root, and a log
    // file only from root; others log under $HOME/.local/share/xorg.
    std::string command = "cd \"$0\" && exec Xorg -config xorg.conf -noreset -nolisten tcp -displayfd 3";
    if (::geteuid() == 0)
        command += " -logfile xorg.log";
    auto options = test::command({"sh", "-c", command, directory_.string()});
    options.environment = {{"HOME", directory_.string()}, {"XDG_DATA_HOME", (directory_ / "data").string()}};
    name_ = start_x_server(options, "Xorg (with the dummy driver)", process_);
}

xorg_display::~xorg_display() = default;

void xorg_display::run(std::vector<std::string> argv) const
{
    std::vector<std::string> command = {"env", "DISPLAY=" + name_};
    command.insert(command.end(), argv.begin(), argv.end());
    int code = -1;
    std::string errors;
    std::string said = run_program(command, start_limit, &code, &errors);
    if (code != 0)
        throw std::runtime_error(argv.front() + " failed (" + std::to_string(code) + "): " + said + errors);
}

window_manager::window_manager(const std::string& display, const std::filesystem::path& directory)
{
    // openbox announces itself (_NET_SUPPORTING_WM_CHECK) before it is done starting, and a
    // window mapped in between can go unmanaged; its --startup command runs once it is done.
    std::string fifo = (directory / "openbox-ready").string();
    if (::mkfifo(fifo.c_str(), 0600) < 0)
        throw std::system_error(errno, std::generic_category(), "mkfifo");
    // Non-blocking, so the open does not wait for a writer; poll then waits for the line.
    int ready = ::open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (ready < 0)
        throw std::system_error(errno, std::generic_category(), "open " + fifo);
    auto options = test::command({"openbox", "--sm-disable", "--startup", "sh -c 'echo ready > " + fifo + "'"});
    options.environment = {{"DISPLAY", display}};
    options.quiet = true;
    try {
        process_ = std::make_unique<obs::child_process>(options);
    } catch (...) {
        ::close(ready);
        throw;
    }
    bool started = line_reader(ready).next(start_limit).has_value();
    ::close(ready);
    if (!started)
        throw std::runtime_error("openbox did not start");
}

window_manager::~window_manager() = default;

test_window::test_window(const std::string& display, const std::string& title, const std::string& instance)
    : title_(title), instance_(instance)
{
    auto options = test::command({"xmessage", "-name", instance, "-title", title, "Orbweave test window: " + title});
    options.environment = {{"DISPLAY", display}};
    options.quiet = true;
    process_ = std::make_unique<obs::child_process>(options);
    // What the window manager lists, to tell a slow client from a lost one on failure.
    std::string seen;
    bool listed = wait_on_root(
        display,
        [&](Display* x) {
            seen.clear();
            for (Window window : root_windows_property(x, "_NET_CLIENT_LIST")) {
                std::string name = x_property(x, window, "WM_NAME");
                seen += " [" + name + "]";
                if (name == title_)
                    xid_ = window;
            }
            return xid_ != 0;
        },
        start_limit);
    if (!listed)
        throw std::runtime_error("window \"" + title + "\" did not appear; listed:" + seen +
                                 (process_->wait_for(std::chrono::milliseconds(0)) ? " (xmessage exited)" : ""));
}

test_window::~test_window() = default;

pulse_server::pulse_server(const std::filesystem::path& directory) : runtime_path_(directory)
{
    std::filesystem::create_directories(runtime_path_ / "state");
    server_ = "unix:" + (runtime_path_ / "native").string();
    start();
}

std::string pactl(const std::vector<std::string>& arguments)
{
    std::vector<std::string> argv{"pactl"};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    int code = -1;
    std::string error;
    std::string output = run_program(argv, start_limit, &code, &error);
    if (code != 0)
        throw std::runtime_error("pactl " + arguments.front() + " failed: " + error);
    while (!output.empty() && output.back() == '\n')
        output.pop_back();
    return output;
}

void pulse_server::start()
{
    std::string socket = (runtime_path_ / "native").string();
    auto options = test::command({
        "pulseaudio",
        "--daemonize=no",
        "--exit-idle-time=-1",
        "-n",
        "--use-pid-file=no",
        "--log-target=stderr",
        "--log-level=error",
        "--load=module-native-protocol-unix socket=" + socket + " auth-anonymous=1",
        std::string("--load=module-null-sink sink_name=") + sink_name +
            " sink_properties=device.description=" + sink_description,
        std::string("--load=module-null-source source_name=") + source_name + " description=" + source_description,
    });
    options.environment = {{"PULSE_RUNTIME_PATH", runtime_path_.string()},
                           {"PULSE_STATE_PATH", (runtime_path_ / "state").string()},
                           {"HOME", runtime_path_.string()}};
    options.unset_environment = {"PULSE_SERVER"};
    options.quiet = true;
    process_ = std::make_unique<obs::child_process>(options);
    wait_for_socket(socket, start_limit);
}

void pulse_server::stop()
{
    // The socket file stays behind, as after a crash; the next daemon replaces it.
    if (process_)
        process_->kill_and_wait();
    process_.reset();
}

pulse_server::~pulse_server() = default;

void media_environment::SetUp()
{
    directory_ = std::make_unique<temp_dir>("orbweave-media");
    ::setenv("XDG_CACHE_HOME", (directory_->path() / "cache").c_str(), 1);
    display_ = std::make_unique<xvfb_display>(options_.screens);
    ::setenv("DISPLAY", display_->name().c_str(), 1);
    // An X11 session, even when the tests run inside a Wayland desktop's terminal.
    ::unsetenv("WAYLAND_DISPLAY");
    ::setenv("XDG_SESSION_TYPE", "x11", 1);
    window_manager_ = std::make_unique<window_manager>(display_->name(), directory_->path());
    for (const auto& [title, instance] : options_.windows)
        windows_.push_back(std::make_unique<test_window>(display_->name(), title, instance));
    if (options_.audio) {
        pulse_ = std::make_unique<pulse_server>(directory_->path() / "pulse");
        ::setenv("PULSE_SERVER", pulse_->server().c_str(), 1);
        ::setenv("PULSE_RUNTIME_PATH", pulse_->runtime_path().c_str(), 1);
    }
    current_environment = this;
}

void media_environment::TearDown()
{
    current_environment = nullptr;
    pulse_.reset();
    windows_.clear();
    window_manager_.reset();
    display_.reset();
    directory_.reset();
}

pulse_server& media_environment::audio()
{
    if (!pulse_)
        throw std::logic_error("the media environment runs without a sound server");
    return *pulse_;
}

media_environment& media_environment::current()
{
    if (!current_environment)
        throw std::logic_error("media_environment is not running");
    return *current_environment;
}

} // namespace orbweave::test
