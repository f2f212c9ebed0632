// orbweave-audio-server: gives the desktop an output device the service's audio
// alert can ask the user to choose. It creates a null sink described "Orbweave
// Virtual Audio Driver" (vendor "ORBVirtualAudio") and loops its monitor back to
// the output that was the default, so the user still hears what plays there; it
// keeps both while it runs and unloads them on SIGTERM or SIGINT, making the output
// that was the default the default again if the virtual one had become it. When the
// device exists already, or no sound server answers, it says so and ends without
// touching anything.
//
//   orbweave-audio-server     prints "ready orbweave_virtual" once the device exists

#include "core/log.hpp"
#include "core/version.hpp"

#include <pulse/pulseaudio.h>

#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>

namespace {

using orbweave::log::line;

constexpr const char* sink_name = "orbweave_virtual";
constexpr const char* description = "Orbweave Virtual Audio Driver";
constexpr const char* vendor = "ORBVirtualAudio";

/// Blocks SIGTERM and SIGINT, so that they wait, pending, for the loop to read them:
/// a module loaded on the server stays after its client has gone, so a signal must never
/// end the program between loading the device and unloading it.
sigset_t block_stop_signals()
{
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGTERM);
    sigaddset(&stop_signals, SIGINT);
    sigprocmask(SIG_BLOCK, &stop_signals, nullptr);
    return stop_signals;
}

/// One connection to the sound server, driven synchronously step by step.
class pulse {
public:
    pulse() : loop_(pa_mainloop_new()), context_(pa_context_new(pa_mainloop_get_api(loop_), "orbweave-audio-server")) {}
    ~pulse()
    {
        pa_context_disconnect(context_);
        pa_context_unref(context_);
        pa_mainloop_free(loop_);
    }

    bool connect()
    {
        if (pa_context_connect(context_, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0)
            return false;
        for (;;) {
            pa_context_state_t state = pa_context_get_state(context_);
            if (state == PA_CONTEXT_READY)
                return true;
            if (!PA_CONTEXT_IS_GOOD(state) || pa_mainloop_iterate(loop_, 1, nullptr) < 0)
                return false;
        }
    }

    /// Runs an operation to its end; false when the connection failed meanwhile.
    bool finish(pa_operation* operation)
    {
        if (!operation)
            return false;
        while (pa_operation_get_state(operation) == PA_OPERATION_RUNNING)
            if (pa_mainloop_iterate(loop_, 1, nullptr) < 0)
                break;
        bool done = pa_operation_get_state(operation) == PA_OPERATION_DONE;
        pa_operation_unref(operation);
        return done;
    }

    std::string default_sink()
    {
        std::string name;
        finish(pa_context_get_server_info(
            context_,
            [](pa_context*, const pa_server_info* info, void* data) {
                if (info && info->default_sink_name)
                    *static_cast<std::string*>(data) = info->default_sink_name;
            },
            &name));
        return name;
    }

    bool has_virtual_output()
    {
        bool found = false;
        finish(pa_context_get_sink_info_list(
            context_,
            [](pa_context*, const pa_sink_info* info, int eol, void* data) {
                if (eol > 0 || !info)
                    return;
                const char* made_by = pa_proplist_gets(info->proplist, PA_PROP_DEVICE_VENDOR_NAME);
                if (std::strcmp(info->name, sink_name) == 0 || (made_by && std::strcmp(made_by, vendor) == 0))
                    *static_cast<bool*>(data) = true;
            },
            &found));
        return found;
    }

    /// The loaded module's index; PA_INVALID_INDEX when it did not load.
    std::uint32_t load(const char* module, const std::string& arguments)
    {
        std::uint32_t index = PA_INVALID_INDEX;
        finish(pa_context_load_module(
            context_, module, arguments.c_str(),
            [](pa_context*, std::uint32_t loaded, void* data) { *static_cast<std::uint32_t*>(data) = loaded; },
            &index));
        return index;
    }

    void set_default_sink(const std::string& name)
    {
        finish(pa_context_set_default_sink(context_, name.c_str(), nullptr, nullptr));
    }

    void unload(std::uint32_t index)
    {
        if (index != PA_INVALID_INDEX)
            finish(pa_context_unload_module(context_, index, nullptr, nullptr));
    }

    /// Runs until SIGTERM or SIGINT (blocked by block_stop_signals()), or until the server
    /// goes away. The signals arrive through a signalfd watched by the loop, which stays
    /// usable afterwards, so what was loaded can be unloaded.
    void run_until_signalled()
    {
        sigset_t stop_signals = block_stop_signals();
        int fd = signalfd(-1, &stop_signals, SFD_CLOEXEC);
        bool stop = fd < 0;
        pa_mainloop_api* api = pa_mainloop_get_api(loop_);
        pa_io_event* watch = fd < 0 ? nullptr
                                    : api->io_new(api, fd, PA_IO_EVENT_INPUT,
                                                  [](pa_mainloop_api*, pa_io_event*, int, pa_io_event_flags_t, void* data) {
                                                      *static_cast<bool*>(data) = true;
                                                  },
                                                  &stop);
        while (!stop && PA_CONTEXT_IS_GOOD(pa_context_get_state(context_)))
            if (pa_mainloop_iterate(loop_, 1, nullptr) < 0)
                break;
        if (watch)
            api->io_free(watch);
        if (fd >= 0)
            ::close(fd);
    }

private:
    pa_mainloop* loop_;
    pa_context* context_;
};

} // namespace

int main(int argc, char** argv)
{
    if (argc > 1 && std::string(argv[1]) == "--version") {
        std::printf("orbweave-audio-server %s\n", orbweave::client_version);
        return 0;
    }
    block_stop_signals();
    pulse server;
    if (!server.connect()) {
        line("orbweave-audio-server: no sound server answers; no virtual output");
        return 0;
    }
    if (server.has_virtual_output()) {
        line("orbweave-audio-server: the virtual output exists already");
        return 0;
    }
    std::string previous = server.default_sink();
    std::uint32_t sink = server.load(
        "module-null-sink", std::string("sink_name=") + sink_name + " sink_properties=\"device.description='" +
                                description + "' device.vendor.name=" + vendor + "\"");
    if (sink == PA_INVALID_INDEX) {
        line("orbweave-audio-server: the sound server refused the virtual output");
        return 1;
    }
    // What plays on the virtual output is still heard on the output the user had.
    std::uint32_t loopback = PA_INVALID_INDEX;
    if (!previous.empty())
        loopback = server.load("module-loopback", std::string("source=") + sink_name + ".monitor sink=" + previous);
    std::printf("ready %s\n", sink_name);
    std::fflush(stdout);

    server.run_until_signalled();
    // The user chose the virtual output (as the audio alert asks): the output they had
    // before is the default again, rather than whichever the sound server would pick.
    if (!previous.empty() && server.default_sink() == sink_name)
        server.set_default_sink(previous);
    server.unload(loopback);
    server.unload(sink);
    return 0;
}
