#include "media/system_check.hpp"

#include "core/log.hpp"
#include "core/obs/pipe_protocol.hpp"
#include "media/c_boundary.hpp"
#include "media/encoders.hpp"
#include "media/portal_session.hpp"
#include "media/protocol.hpp"
#include "media/runtime.hpp"
#include "media/direct_video.hpp"
#include "media/unique_handle.hpp"

#include <obs.h>

#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <gio/gio.h>
#include <pipewire/pipewire.h>
#include <pulse/pulseaudio.h>
#include <wayland-client.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <optional>
#include <stdexcept>

namespace orbweave::obs {

namespace {

using clock = std::chrono::steady_clock;

// The bounds of each probe. The parent's call bound (core/check) is above their sum.
constexpr int portal_call_ms = 2000;
constexpr auto sound_server_limit = std::chrono::milliseconds(2000);
/// How long an encoder may take to deliver its first few packets.
constexpr auto encode_limit = std::chrono::milliseconds(2500);
/// "A few frames": enough to know the encoder runs, not only that it opened.
constexpr int packets_wanted = 3;
/// The canvas the encoders are tried on: small, but above every encoder's minimum.
constexpr unsigned probe_width = 320, probe_height = 180;

std::string environment(const char* name)
{
    const char* value = std::getenv(name);
    return value ? value : "";
}

// --- display -------------------------------------------------------------------------

Json check_x11()
{
    Json result{{"display", environment("DISPLAY")}};
    Display* display = XOpenDisplay(nullptr);
    if (!display) {
        result["error"] = environment("DISPLAY").empty() ? "DISPLAY is not set" : "the X display does not answer";
        return result;
    }
    result["screens"] = ScreenCount(display);
    // Windows are listed only under an EWMH window manager (_NET_SUPPORTING_WM_CHECK on the root).
    Atom check = XInternAtom(display, "_NET_SUPPORTING_WM_CHECK", True);
    bool managed = false;
    if (check != None) {
        Atom type = None;
        int format = 0;
        unsigned long items = 0, after = 0;
        unsigned char* data = nullptr;
        if (XGetWindowProperty(display, DefaultRootWindow(display), check, 0, 1, False, XA_WINDOW, &type, &format,
                               &items, &after, &data) == Success) {
            managed = items > 0;
            if (data)
                XFree(data);
        }
    }
    result["window_manager"] = managed;
    XCloseDisplay(display);
    return result;
}

/// A uint32 property of the portal's ScreenCast interface; none when no portal answers.
std::optional<unsigned> screen_cast_property(GDBusConnection* bus, const char* name, std::string& error_text)
{
    GError* error = nullptr;
    GVariant* reply = g_dbus_connection_call_sync(
        bus, "org.freedesktop.portal.Desktop", "/org/freedesktop/portal/desktop", "org.freedesktop.DBus.Properties",
        "Get", g_variant_new("(ss)", "org.freedesktop.portal.ScreenCast", name), G_VARIANT_TYPE("(v)"),
        G_DBUS_CALL_FLAGS_NONE, portal_call_ms, nullptr, &error);
    if (!reply) {
        error_text = error ? error->message : "no answer";
        g_clear_error(&error);
        return std::nullopt;
    }
    std::optional<unsigned> value;
    GVariant* inner = nullptr;
    g_variant_get(reply, "(v)", &inner);
    if (g_variant_is_of_type(inner, G_VARIANT_TYPE_UINT32))
        value = g_variant_get_uint32(inner);
    g_variant_unref(inner);
    g_variant_unref(reply);
    return value;
}

Json check_portal()
{
    Json result{{"wayland_display", environment("WAYLAND_DISPLAY")}};
    if (wl_display* display = wl_display_connect(nullptr)) {
        result["compositor"] = true;
        wl_display_disconnect(display);
    } else {
        result["compositor"] = false;
    }
    GError* error = nullptr;
    GDBusConnection* bus = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, &error);
    if (!bus) {
        result["error"] = std::string("no session bus: ") + (error ? error->message : "unknown");
        g_clear_error(&error);
        return result;
    }
    std::string failure;
    // The first call may start the portal by D-Bus activation; it is only read.
    if (auto version = screen_cast_property(bus, "version", failure)) {
        result["version"] = *version;
        std::string ignored;
        result["source_types"] = screen_cast_property(bus, "AvailableSourceTypes", ignored).value_or(0);
        result["cursor_modes"] = screen_cast_property(bus, "AvailableCursorModes", ignored).value_or(0);
    } else {
        result["error"] = failure;
    }
    g_object_unref(bus);
    return result;
}

// --- PipeWire ------------------------------------------------------------------------

Json check_pipewire()
{
    pw_init(nullptr, nullptr);
    Json result{{"library", pw_get_library_version()}};
    pw_main_loop* loop = pw_main_loop_new(nullptr);
    if (!loop) {
        result["error"] = "cannot make a PipeWire loop";
        return result;
    }
    pw_context* context = pw_context_new(pw_main_loop_get_loop(loop), nullptr, 0);
    if (context) {
        if (pw_core* core = pw_context_connect(context, nullptr, 0)) {
            result["connected"] = true;
            pw_core_disconnect(core);
        } else {
            result["connected"] = false;
            result["error"] = std::string("no PipeWire daemon answers: ") + std::strerror(errno);
        }
        pw_context_destroy(context);
    } else {
        result["error"] = "cannot make a PipeWire context";
    }
    pw_main_loop_destroy(loop);
    return result;
}

// --- sound server --------------------------------------------------------------------

struct sound_probe {
    pa_mainloop* loop = nullptr;
    pa_context* context = nullptr;
    int pending = 0;
    Json result = Json::object();

    /// Runs the loop until done() or the deadline; false on the deadline.
    template <class Done>
    bool run_until(clock::time_point deadline, Done done)
    {
        while (!done()) {
            auto left = std::chrono::duration_cast<std::chrono::microseconds>(deadline - clock::now()).count();
            if (left <= 0)
                return false;
            if (pa_mainloop_prepare(loop, static_cast<int>(left)) < 0 || pa_mainloop_poll(loop) < 0 ||
                pa_mainloop_dispatch(loop) < 0)
                return false;
        }
        return true;
    }
};

Json check_sound_server()
{
    sound_probe probe;
    probe.loop = pa_mainloop_new();
    probe.context = pa_context_new(pa_mainloop_get_api(probe.loop), "orbweave-check");
    auto deadline = clock::now() + sound_server_limit;
    Json& result = probe.result;
    result["server"] = environment("PULSE_SERVER");
    // No autospawn: the check starts nothing on the machine.
    if (pa_context_connect(probe.context, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0) {
        result["error"] = pa_strerror(pa_context_errno(probe.context));
    } else {
        auto settled = [&] {
            auto state = pa_context_get_state(probe.context);
            return state == PA_CONTEXT_READY || !PA_CONTEXT_IS_GOOD(state);
        };
        if (!probe.run_until(deadline, settled)) {
            result["error"] = "no answer within 2 s";
        } else if (pa_context_get_state(probe.context) != PA_CONTEXT_READY) {
            result["error"] = pa_strerror(pa_context_errno(probe.context));
        } else {
            probe.pending = 1;
            pa_operation_unref(pa_context_get_server_info(
                probe.context,
                [](pa_context* context, const pa_server_info* info, void* data) {
                    auto* p = static_cast<sound_probe*>(data);
                    --p->pending;
                    if (!info)
                        return;
                    p->result["name"] = info->server_name ? info->server_name : "";
                    p->result["version"] = info->server_version ? info->server_version : "";
                    std::string sink = info->default_sink_name ? info->default_sink_name : "";
                    std::string source = info->default_source_name ? info->default_source_name : "";
                    p->result["default_output"] = sink;
                    p->result["default_input"] = source;
                    // The descriptions are what the user knows the devices by.
                    if (!sink.empty()) {
                        ++p->pending;
                        pa_operation_unref(pa_context_get_sink_info_by_name(
                            context, sink.c_str(),
                            [](pa_context*, const pa_sink_info* sink_info, int eol, void* data) {
                                auto* p = static_cast<sound_probe*>(data);
                                if (eol)
                                    --p->pending;
                                else if (sink_info && sink_info->description)
                                    p->result["default_output_description"] = sink_info->description;
                            },
                            p));
                    }
                    if (!source.empty()) {
                        ++p->pending;
                        pa_operation_unref(pa_context_get_source_info_by_name(
                            context, source.c_str(),
                            [](pa_context*, const pa_source_info* source_info, int eol, void* data) {
                                auto* p = static_cast<sound_probe*>(data);
                                if (eol)
                                    --p->pending;
                                else if (source_info && source_info->description)
                                    p->result["default_input_description"] = source_info->description;
                            },
                            p));
                    }
                },
                &probe));
            if (!probe.run_until(deadline, [&] { return probe.pending <= 0; }))
                result["error"] = "the sound server did not describe itself within 2 s";
            else
                result["connected"] = true;
        }
        pa_context_disconnect(probe.context);
    }
    pa_context_unref(probe.context);
    pa_mainloop_free(probe.loop);
    return result;
}

// --- encoders ------------------------------------------------------------------------

/// An output of our own that takes encoded packets and only counts them: the encoders
/// open and run exactly as for a stream, and nothing leaves the process.
struct packet_counter {
    obs_output_t* output = nullptr;
    std::mutex mutex;
    std::condition_variable arrived;
    int packets = 0;
};

void register_probe_outputs()
{
    static bool registered = [] {
        for (bool video : {true, false}) {
            obs_output_info info{};
            info.id = video ? "orbweave_check_video" : "orbweave_check_audio";
            info.flags = OBS_OUTPUT_ENCODED | (video ? OBS_OUTPUT_VIDEO : OBS_OUTPUT_AUDIO);
            info.get_name = [](void*) -> const char* { return "Encoder check"; };
            info.create = [](obs_data_t*, obs_output_t* output) -> void* {
                return guarded("the encoder check's create", [output]() -> void* {
                    auto* counter = new packet_counter;
                    counter->output = output;
                    return counter;
                });
            };
            info.destroy = [](void* data) { delete static_cast<packet_counter*>(data); };
            info.start = [](void* data) {
                auto* counter = static_cast<packet_counter*>(data);
                if (!obs_output_can_begin_data_capture(counter->output, 0) ||
                    !obs_output_initialize_encoders(counter->output, 0))
                    return false;
                return obs_output_begin_data_capture(counter->output, 0);
            };
            info.stop = [](void* data, uint64_t) {
                obs_output_end_data_capture(static_cast<packet_counter*>(data)->output);
            };
            info.encoded_packet = [](void* data, encoder_packet* packet) {
                if (!packet)
                    return;
                auto* counter = static_cast<packet_counter*>(data);
                std::lock_guard<std::mutex> lock(counter->mutex);
                ++counter->packets;
                counter->arrived.notify_all();
            };
            info.encoded_video_codecs = "h264";
            info.encoded_audio_codecs = "aac";
            obs_register_output(&info);
        }
        return true;
    }();
    (void)registered;
}

/// Opens encoder on the probe output and waits for a few packets: {"works":bool,"packets":n,"ms":t,"error":...}.
Json try_encoder(encoder_handle encoder, bool video)
{
    Json result{{"works", false}};
    if (!encoder) {
        result["error"] = "the encoder could not be created";
        return result;
    }
    if (video)
        obs_encoder_set_video(encoder.get(), obs_get_video());
    else
        obs_encoder_set_audio(encoder.get(), obs_get_audio());
    output_handle output(obs_output_create(video ? "orbweave_check_video" : "orbweave_check_audio", "encoder check",
                                           nullptr, nullptr));
    if (!output) {
        result["error"] = "the check's output could not be created";
        return result;
    }
    if (video)
        obs_output_set_video_encoder(output.get(), encoder.get());
    else
        obs_output_set_audio_encoder(output.get(), encoder.get(), 0);
    auto* counter = static_cast<packet_counter*>(obs_obj_get_data(output.get()));
    auto started = clock::now();
    if (!obs_output_start(output.get())) {
        const char* why = obs_encoder_get_last_error(encoder.get());
        if (!why)
            why = obs_output_get_last_error(output.get());
        result["error"] = std::string("does not open") + (why && *why ? std::string(": ") + why : std::string());
        return result;
    }
    int packets = 0;
    {
        std::unique_lock<std::mutex> lock(counter->mutex);
        counter->arrived.wait_until(lock, started + encode_limit, [&] { return counter->packets >= packets_wanted; });
        packets = counter->packets;
    }
    auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(clock::now() - started).count();
    obs_output_force_stop(output.get());
    result["packets"] = packets;
    result["ms"] = elapsed;
    result["works"] = packets >= packets_wanted;
    if (packets < packets_wanted) {
        const char* why = obs_encoder_get_last_error(encoder.get());
        result["error"] = "opened but delivered " + std::to_string(packets) + " of " + std::to_string(packets_wanted) +
                          " packets within 2.5 s" + (why && *why ? std::string(": ") + why : std::string());
    }
    return result;
}

Json try_video_encoder(const std::string& id)
{
    Json result{{"id", id}, {"registered", obs_get_encoder_codec(id.c_str()) != nullptr}};
    // An unregistered id still creates an object, so it is never tried.
    if (!result["registered"].get<bool>())
        return result;
    bool software = id == software_encoder_id;
    video_encoder_plan plan = plan_video_encoder(software, profile_type::medium, software ? 1500 : hardware_threshold,
                                                 software ? std::string() : id);
    data_handle settings = to_obs_data(plan.settings);
    Json tried = try_encoder(encoder_handle(obs_video_encoder_create(id.c_str(), "encoder check", settings.get(),
                                                                     nullptr)),
                             true);
    result.update(tried);
    return result;
}

} // namespace

Json check_desktop(capture_route route)
{
    Json result{{"route", capture_route_name(route)}};
    if (route == capture_route::portal)
        result["portal"] = check_portal();
    else
        result["x11"] = check_x11();
    result["pipewire"] = check_pipewire();
    result["sound"] = check_sound_server();
    return result;
}

Json check_encoders(capture_route route)
{
    if (!obs_get_video())
        throw std::runtime_error("the encoders are checked in a stream worker");
    Json result;
    if (!initialize_video(probe_width, probe_height, stream_fps))
        throw std::runtime_error("video could not be started for the check");
    const video_path& path = current_video_path();
    result["renderer"] = path.renderer;
    result["software"] = software_renderer(path.renderer);
    result["conversion"] = to_string(path.conversion);

    bool portal = route == capture_route::portal;
    using callback::source_type;
    Json paths;
    if (portal)
        paths["screen"] = feeds_directly(route, source_type::screen)
                              ? "the desktop portal and PipeWire, converted on the CPU, no canvas"
                              : "the desktop portal and PipeWire, drawn on the canvas";
    else if (feeds_directly(route, source_type::screen))
        paths["screen"] = "grabbed from the X server (MIT-SHM) and converted on the CPU, no canvas";
    else
        paths["screen"] = "xshm_input, drawn on the canvas";
    if (portal)
        paths["window"] = feeds_directly(route, source_type::window)
                              ? "a window picked in the desktop portal, PipeWire, converted on the CPU, no canvas"
                              : "a window picked in the desktop portal, PipeWire, the canvas";
    else
        paths["window"] = feeds_directly(route, source_type::window)
                              ? "the window's picture on the X server (XComposite, MIT-SHM), converted on the CPU, no canvas"
                              : "xcomposite_input, drawn on the canvas";
    paths["audio"] = "PulseAudio (pulse_output_capture, pulse_input_capture), libobs's mixer";
    paths["camera"] = "v4l2_input, drawn on the canvas";
    result["paths"] = paths;

    register_probe_outputs();
    Json encoders = Json::array();
    for (const char* id : {software_encoder_id, "ffmpeg_vaapi", "ffmpeg_nvenc"})
        encoders.push_back(try_video_encoder(id));
    result["encoders"] = encoders;
    // What a stream asks for: the first registered hardware encoder from the hardware
    // threshold up (a failed start falls back to x264), x264 below it.
    result["hardware_encoder"] = hardware_encoder_id();

    Json aac{{"id", audio_encoder_id}, {"registered", obs_get_encoder_codec(audio_encoder_id) != nullptr}};
    if (aac["registered"].get<bool>())
        aac.update(try_encoder(create_audio_encoder(), false));
    result["aac"] = aac;
    return result;
}

void serve_checks(request_loop& loop, capture_route route)
{
    loop.on(pipe::op::check_desktop, [route](const Json&) { return check_desktop(route); });
    loop.on(pipe::op::check_encoders, [route](const Json&) { return check_encoders(route); });
}

} // namespace orbweave::obs
