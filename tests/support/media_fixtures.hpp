#pragma once

// Real display and audio for media tests: a private Xvfb with two screens of
// different sizes, openbox as the EWMH window manager, a few real X windows with
// known titles, and a user-mode PulseAudio daemon with a null sink and a null
// source. Each is started by the test itself on a free display / private socket
// and stopped when its object goes away (SIGKILL on the test's death, too).
// Programs linking these fixtures also link libX11.

#include "core/obs/child_process.hpp"
#include "core/obs/pipe_protocol.hpp"
#include "tests/support/processes.hpp"
#include "tests/support/temp_dir.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

typedef struct _XDisplay Display;

namespace orbweave::test {

/// A window's property as Xlib gives it (items of 32 bits each in a long); empty when
/// the window has none or is gone.
std::string x_property(Display* display, unsigned long window, const char* name);

/// What the client sends a stream worker for source: the request's options, server and key.
obs::pipe::stream_order order_for(obs::source_entry source, const Json& options, const std::string& server,
                                  const std::string& key, int bitrate = 1500);

struct screen_size {
    int width;
    int height;
};

/// Xvfb on the first free display. Each size becomes one X screen; RandR is disabled,
/// so screen capture lists the X screens themselves.
class xvfb_display {
public:
    explicit xvfb_display(std::vector<screen_size> screens = {{1280, 720}, {1024, 768}});
    ~xvfb_display();
    /// ":N".
    const std::string& name() const { return name_; }
    const std::vector<screen_size>& screens() const { return screens_; }

private:
    std::vector<screen_size> screens_;
    std::unique_ptr<obs::child_process> process_;
    std::string name_;
};

/// Xorg with the dummy video driver on the first free display: one screen, at 1280x720
/// to begin with, whose mode xrandr changes (Xvfb cannot change its size) among
/// 1280x720, 1024x768 and 800x600. Its configuration and log live in directory; it
/// runs as any user (Xorg reads a configuration named relative to where it starts).
class xorg_display {
public:
    explicit xorg_display(const std::filesystem::path& directory);
    ~xorg_display();
    /// ":N".
    const std::string& name() const { return name_; }
    /// The dummy driver's first output, which shows the screen.
    static constexpr const char* output = "DUMMY0";
    /// Runs an X client (xrandr, xsetroot, ...) on this display and waits for it; throws
    /// std::runtime_error with what it said when it fails.
    void run(std::vector<std::string> argv) const;

private:
    std::filesystem::path directory_;
    std::unique_ptr<obs::child_process> process_;
    std::string name_;
};

/// openbox managing display; returns once its start-up has finished (its --startup
/// command has run), so no window mapped afterwards can be missed.
class window_manager {
public:
    /// directory holds the start-up notification pipe.
    window_manager(const std::string& display, const std::filesystem::path& directory);
    ~window_manager();

private:
    std::unique_ptr<obs::child_process> process_;
};

/// A real top-level X window (xmessage) with a known title and instance name;
/// returns once the window manager lists it.
class test_window {
public:
    test_window(const std::string& display, const std::string& title, const std::string& instance);
    ~test_window();
    const std::string& title() const { return title_; }
    /// The instance part of WM_CLASS, which window capture reports as the window's class.
    const std::string& instance() const { return instance_; }
    unsigned long xid() const { return xid_; }

private:
    std::string title_;
    std::string instance_;
    unsigned long xid_ = 0;
    std::unique_ptr<obs::child_process> process_;
};

/// User-mode PulseAudio with a null sink and a null source on a private socket.
class pulse_server {
public:
    explicit pulse_server(const std::filesystem::path& directory);
    ~pulse_server();
    /// "unix:<socket>", for PULSE_SERVER.
    const std::string& server() const { return server_; }
    const std::filesystem::path& runtime_path() const { return runtime_path_; }
    static constexpr const char* sink_name = "orbweave_speakers";
    static constexpr const char* source_name = "orbweave_microphone";
    static constexpr const char* sink_description = "Orbweave-Speakers";
    static constexpr const char* source_description = "Orbweave-Microphone";

    /// Ends the daemon (as a crash would: SIGKILL) and waits until it has gone.
    void stop();
    /// Starts it again on the same socket, with the same sink and source; returns once it answers.
    void start();

private:
    std::filesystem::path runtime_path_;
    std::string server_;
    std::unique_ptr<obs::child_process> process_;
};

/// pactl with arguments, against whatever PULSE_SERVER names: its output without the
/// trailing newlines; throws std::runtime_error with what it said when it fails.
std::string pactl(const std::vector<std::string>& arguments);

/// Everything a media test needs, started once per test program, with DISPLAY,
/// PULSE_SERVER, PULSE_RUNTIME_PATH and XDG_CACHE_HOME exported to this process and
/// every worker it starts.
class media_environment : public ::testing::Environment {
public:
    struct options {
        std::vector<screen_size> screens{{1280, 720}, {1024, 768}};
        /// (title, instance) of the windows to open.
        std::vector<std::pair<std::string, std::string>> windows{{"Orbweave Test One", "orbweave-one"},
                                                                 {"Orbweave Test Two", "orbweave-two"}};
        bool audio = true;
    };

    media_environment() : media_environment(options{}) {}
    explicit media_environment(options options) : options_(std::move(options)) {}

    void SetUp() override;
    void TearDown() override;

    /// The running environment (set between SetUp and TearDown).
    static media_environment& current();
    const options& settings() const { return options_; }
    const std::vector<std::unique_ptr<test_window>>& windows() const { return windows_; }
    const std::filesystem::path& directory() const { return directory_->path(); }
    /// The sound server; throws when the environment runs without one.
    pulse_server& audio();

private:
    options options_;
    std::unique_ptr<temp_dir> directory_;
    std::unique_ptr<xvfb_display> display_;
    std::unique_ptr<window_manager> window_manager_;
    std::vector<std::unique_ptr<test_window>> windows_;
    std::unique_ptr<pulse_server> pulse_;
};

} // namespace orbweave::test
