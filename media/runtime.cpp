#include "media/runtime.hpp"

#include "core/log.hpp"
#include "media/c_boundary.hpp"
#include "media/pipewire_source.hpp"

#include <obsconfig.h> // before obs-nix-platform.h: it says whether Wayland is built in
#include <obs-nix-platform.h>
#include <obs.h>
#include <util/base.h>

#include <EGL/egl.h>
#include <X11/Xlib.h>
#include <wayland-client.h>

#if defined(__SANITIZE_ADDRESS__)
#include <dlfcn.h>
#include <link.h>
#endif

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <new>
#include <stdexcept>
#include <string_view>

namespace orbweave::obs {

namespace {

/// The conversion ORBWEAVE_COLOUR_CONVERSION names ("cpu" or "gpu", the default), and the
/// renderer once graphics run.
video_path& chosen_path()
{
    static video_path path = [] {
        video_path chosen;
        const char* asked = std::getenv("ORBWEAVE_COLOUR_CONVERSION");
        if (asked && std::string_view(asked) == "cpu")
            chosen.conversion = colour_conversion::cpu;
        return chosen;
    }();
    return path;
}

bool reset_video(unsigned width, unsigned height, unsigned fps, colour_conversion conversion)
{
    obs_video_info info{};
    info.graphics_module = "libobs-opengl";
    info.fps_num = fps;
    info.fps_den = 1;
    info.base_width = width;
    info.base_height = height;
    info.output_width = width;
    info.output_height = height;
    // libobs reads back, on the CPU path, the texture its output pass draws into, and
    // draws that pass (at the canvas's own size) only for BGRA: any other format would
    // read back a texture nothing was drawn into, a flat black picture.
    info.output_format = conversion == colour_conversion::gpu ? VIDEO_FORMAT_NV12 : VIDEO_FORMAT_BGRA;
    info.gpu_conversion = conversion == colour_conversion::gpu;
    info.adapter = 0;
    info.colorspace = VIDEO_CS_DEFAULT;
    info.range = VIDEO_RANGE_DEFAULT;
    info.scale_type = OBS_SCALE_DISABLE;
    return obs_reset_video(&info) == OBS_VIDEO_SUCCESS;
}

/// GL_RENDERER of the context libobs draws with.
std::string query_renderer()
{
    using get_string = const unsigned char* (*)(unsigned);
    auto get = reinterpret_cast<get_string>(eglGetProcAddress("glGetString"));
    if (!get)
        return {};
    constexpr unsigned gl_renderer = 0x1F01;
    obs_enter_graphics();
    const unsigned char* name = get(gl_renderer);
    std::string renderer = name ? reinterpret_cast<const char*>(name) : "";
    obs_leave_graphics();
    return renderer;
}

} // namespace

bool software_renderer(const std::string& renderer)
{
    for (const char* name : {"llvmpipe", "softpipe", "swrast", "Software Rasterizer"})
        if (renderer.find(name) != std::string::npos)
            return true;
    return false;
}

const char* to_string(colour_conversion conversion)
{
    return conversion == colour_conversion::gpu ? "GPU" : "CPU";
}

const video_path& current_video_path()
{
    return chosen_path();
}

bool initialize_video(unsigned width, unsigned height, unsigned fps, colour_conversion conversion)
{
    video_path& path = chosen_path();
    path.conversion = conversion;
    if (!reset_video(width, height, fps, conversion))
        return false;
    if (path.renderer.empty())
        path.renderer = query_renderer();
    return true;
}

bool initialize_video(unsigned width, unsigned height, unsigned fps)
{
    return initialize_video(width, height, fps, chosen_path().conversion);
}

bool initialize_audio()
{
    obs_audio_info info{};
    info.samples_per_sec = 44100;
    info.speakers = SPEAKERS_STEREO;
    return obs_reset_audio(&info);
}

const std::vector<std::string>& capture_modules()
{
    static const std::vector<std::string> modules{"linux-capture", "linux-pulseaudio", "linux-v4l2"};
    return modules;
}

const std::vector<std::string>& allowed_modules()
{
    // rtmp-services is left out on purpose: on load it fetches a services list from the
    // internet. The worker registers its own minimal RTMP service type instead.
    static const std::vector<std::string> modules = [] {
        std::vector<std::string> all = capture_modules();
        all.insert(all.end(), {"obs-x264", "obs-ffmpeg", "obs-outputs"});
        return all;
    }();
    return modules;
}

std::string config_directory()
{
    namespace fs = std::filesystem;
    fs::path base;
    if (const char* cache = std::getenv("XDG_CACHE_HOME"); cache && *cache)
        base = cache;
    else if (const char* home = std::getenv("HOME"); home && *home)
        base = fs::path(home) / ".cache";
    else
        base = fs::temp_directory_path();
    return (base / "orbweave" / "obs").string();
}

namespace {

int log_max_level = LOG_WARNING;

void log_to_stderr(int level, const char* format, va_list args, void*)
{
    if (level > log_max_level)
        return;
    char text[4096];
    std::vsnprintf(text, sizeof text, format, args);
    guarded("libobs's log handler", [&] { log::line("libobs: ", text); });
}

// The RTMP service: the server address and stream key an activate request names.
struct rtmp_service {
    std::string server;
    std::string key;
};

void rtmp_service_update(void* data, obs_data_t* settings) noexcept
{
    auto* service = static_cast<rtmp_service*>(data);
    // Both or neither: a server with another stream's key must not be left behind.
    service->server.clear();
    service->key.clear();
    guarded("the rtmp service's update", [&] {
        std::string server = obs_data_get_string(settings, "server");
        std::string key = obs_data_get_string(settings, "key");
        service->server = std::move(server);
        service->key = std::move(key);
    });
}

void register_rtmp_service()
{
    static obs_service_info info = [] {
        obs_service_info i{};
        i.id = rtmp_service_id;
        i.get_name = [](void*) -> const char* { return "RTMP server"; };
        i.create = [](obs_data_t* settings, obs_service_t*) -> void* {
            auto* service = new (std::nothrow) rtmp_service;
            if (service)
                rtmp_service_update(service, settings);
            return service;
        };
        i.destroy = [](void* data) { delete static_cast<rtmp_service*>(data); };
        i.update = rtmp_service_update;
        i.get_properties = [](void*) {
            obs_properties_t* properties = obs_properties_create();
            obs_properties_add_text(properties, "server", "Server", OBS_TEXT_DEFAULT);
            obs_properties_add_text(properties, "key", "Stream key", OBS_TEXT_PASSWORD);
            return properties;
        };
        i.get_url = [](void* data) { return static_cast<rtmp_service*>(data)->server.c_str(); };
        i.get_key = [](void* data) { return static_cast<rtmp_service*>(data)->key.c_str(); };
        i.get_output_type = [](void*) -> const char* { return "rtmp_output"; };
        return i;
    }();
    obs_register_service(&info);
}

struct module_search {
    const std::vector<std::string>* wanted;
    std::vector<std::pair<std::string, std::pair<std::string, std::string>>> paths;

    void note(const obs_module_info2* info)
    {
        if (std::find(wanted->begin(), wanted->end(), info->name) == wanted->end())
            return;
        // The first path found for a name wins, as in libobs's own loader.
        for (const auto& known : paths)
            if (known.first == info->name)
                return;
        paths.push_back({info->name, {info->bin_path, info->data_path}});
    }
};

} // namespace

void route_log_to_stderr(int max_level)
{
    log_max_level = max_level;
    base_set_log_handler(log_to_stderr, nullptr);
}

runtime::runtime(const runtime_options& options)
{
    // libobs starts its graphics on the platform display, which must be set before
    // obs_startup: the Wayland compositor itself on the portal route (not XWayland),
    // the X server otherwise.
    if (options.route == capture_route::portal) {
        wl_display* display = wl_display_connect(nullptr);
        if (!display)
            throw std::runtime_error("cannot connect to the Wayland display (is WAYLAND_DISPLAY set?)");
        wayland_display_ = display;
        obs_set_nix_platform(OBS_NIX_PLATFORM_WAYLAND);
        obs_set_nix_platform_display(display);
    } else {
        Display* display = XOpenDisplay(nullptr);
        if (!display)
            throw std::runtime_error("cannot open the X display (is DISPLAY set?)");
        display_ = display;
        obs_set_nix_platform(OBS_NIX_PLATFORM_X11_EGL);
        obs_set_nix_platform_display(display);
    }

    // Without a configuration directory plug-ins write into the current directory.
    std::string config = config_directory();
    std::error_code error;
    std::filesystem::create_directories(config, error);
    if (error)
        log::line("media: cannot create " + config + ": " + error.message());

    if (!obs_startup("en-US", config.c_str(), nullptr)) {
        close_displays();
        throw std::runtime_error("obs_startup failed");
    }

    if (options.video && !initialize_video(options.video->width, options.video->height, options.video->fps))
        log::line("media: video initialisation failed");
    if (!initialize_audio())
        log::line("media: audio initialisation failed");

    register_rtmp_service();
    if (options.route == capture_route::portal)
        register_portal_source();

    load_modules(options.modules);
}

void runtime::load_modules(const std::vector<std::string>& names)
{
    module_search search;
    search.wanted = &names;
    obs_find_modules2(
        [](void* param, const obs_module_info2* info) {
            // A module that cannot be noted is reported missing below.
            guarded("the module search", [&] { static_cast<module_search*>(param)->note(info); });
        },
        &search);

    // Load in allow-list order, so the log and loaded_modules() read the same on every machine.
    for (const auto& name : names) {
        auto path = std::find_if(search.paths.begin(), search.paths.end(),
                                 [&](const auto& found) { return found.first == name; });
        if (path == search.paths.end()) {
            log::line("media: module " + name + " not found");
            continue;
        }
        obs_module_t* module = nullptr;
        int result = obs_open_module(&module, path->second.first.c_str(), path->second.second.c_str());
        if (result != MODULE_SUCCESS) {
            log::line("media: module " + name + " failed to open (" + std::to_string(result) + ")");
            continue;
        }
        if (!obs_init_module(module)) {
            log::line("media: module " + name + " failed to initialise");
            continue;
        }
        loaded_.push_back(name);
    }
    obs_post_load_modules();
}

#if defined(__SANITIZE_ADDRESS__)
namespace {

// libobs unloads its plug-ins (and Mesa its drivers) during shutdown, before
// LeakSanitizer reports at exit; their leaks would then show as "<unknown module>" and
// no suppression could name them. Pinning every loaded object keeps its symbols, so
// scripts/sanitizers/lsan.supp can name each library that leaks and say why.
void keep_loaded_objects_for_leak_reports()
{
    // Names first, dlopen after: dl_iterate_phdr holds the loader's lock, and another
    // thread's dlclose waiting on it would deadlock with a dlopen made from the callback.
    std::vector<std::string> names;
    dl_iterate_phdr(
        [](dl_phdr_info* info, size_t, void* found) {
            if (info->dlpi_name && *info->dlpi_name)
                static_cast<std::vector<std::string>*>(found)->emplace_back(info->dlpi_name);
            return 0;
        },
        &names);
    for (const auto& name : names)
        dlopen(name.c_str(), RTLD_NOW | RTLD_NOLOAD | RTLD_NODELETE);
}

} // namespace
#endif

runtime::~runtime()
{
#if defined(__SANITIZE_ADDRESS__)
    keep_loaded_objects_for_leak_reports();
#endif
    obs_shutdown();
    close_displays();
}

void runtime::close_displays()
{
    if (display_)
        XCloseDisplay(static_cast<Display*>(display_));
    if (wayland_display_)
        wl_display_disconnect(static_cast<wl_display*>(wayland_display_));
    display_ = nullptr;
    wayland_display_ = nullptr;
}

} // namespace orbweave::obs
