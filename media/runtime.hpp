#pragma once

// libobs inside the media worker process: start-up on the X11 or Wayland platform
// display, the video and audio pipelines, the allow-listed plug-in modules and
// our own RTMP service type, and shut-down.

#include "core/obs/capture_route.hpp"

#include <optional>
#include <string>
#include <vector>

namespace orbweave::obs {

/// How the canvas becomes the NV12 frames the encoders take.
enum class colour_conversion {
    /// Two shader passes convert the canvas and NV12 is read back (1.5 bytes a pixel).
    /// The default, also on a software renderer: on llvmpipe the two passes cost less than
    /// reading back four bytes a pixel and converting them (bench_libobs_floor).
    gpu,
    /// The canvas is read back as BGRA and libobs's scaler converts it on the CPU.
    cpu,
};

/// The GL renderer libobs draws with (empty until video has been initialised) and the
/// conversion in use.
struct video_path {
    std::string renderer;
    colour_conversion conversion = colour_conversion::gpu;
};

/// Resets libobs video to width x height at fps/1, no scaling, with the process's colour
/// conversion (ORBWEAVE_COLOUR_CONVERSION=cpu chooses the CPU's); true on success.
bool initialize_video(unsigned width, unsigned height, unsigned fps);

/// The same with the given conversion, which the process keeps from then on.
bool initialize_video(unsigned width, unsigned height, unsigned fps, colour_conversion conversion);

const video_path& current_video_path();

/// Whether renderer (a GL_RENDERER) is a software rasteriser: llvmpipe, softpipe, swrast.
bool software_renderer(const std::string& renderer);

/// "GPU" or "CPU".
const char* to_string(colour_conversion conversion);

/// Resets libobs audio to 44.1 kHz stereo; obs_reset_audio's result.
bool initialize_audio();

/// The plug-in modules a stream worker loads, by file name without extension.
const std::vector<std::string>& allowed_modules();

/// The ones of them that capture (and list what they can capture): all a listing worker
/// loads. The encoders and outputs (obs-ffmpeg alone brings some 70 libraries) would
/// only lengthen its start.
const std::vector<std::string>& capture_modules();

/// The id of the RTMP service type the worker registers itself ("server" and "key").
inline constexpr const char* rtmp_service_id = "rtmp_custom";

/// Where libobs keeps module configuration: $XDG_CACHE_HOME/orbweave/obs, else ~/.cache/orbweave/obs.
std::string config_directory();

/// Sends libobs's log to standard error, keeping messages up to max_level (LOG_ERROR..LOG_DEBUG).
void route_log_to_stderr(int max_level);

struct canvas {
    unsigned width = 0;
    unsigned height = 0;
    unsigned fps = 0;
};

/// The canvas a stream worker starts with, so that its graphics (the GL context, the
/// software driver, the shaders) are up before a stream is asked for and only the canvas
/// is remade at the stream's size: about 70 ms of the activation on a machine without a
/// GPU. 4x4 costs next to nothing to render (the idle spare measured 2 % of a core). Its
/// frame rate is the stream's: remaking the canvas waits out the current frame (33 ms at
/// most, against 100 at 10 fps), and a canvas for frames to arrive on (a camera, a
/// screen cast) is this one already.
inline constexpr canvas placeholder_canvas{4, 4, 30};

struct runtime_options {
    /// Video to initialise at start-up; none leaves video for the first stream to set once.
    /// Listing needs none: the capture plug-ins register their sources and list their
    /// devices without graphics, and without a canvas the listing worker never loads the
    /// software GL driver (half its memory: 49 MB instead of 117 on a machine without a GPU).
    std::optional<canvas> video;
    /// Modules to load; those not found are logged and skipped.
    std::vector<std::string> modules = allowed_modules();
    /// portal: graphics on the Wayland display; anything else: on the X display.
    capture_route route = capture_route::x11;
};

/// libobs, started in this process for as long as the object lives. One per process.
class runtime {
public:
    /// Starts libobs; throws std::runtime_error with the reason when it cannot.
    explicit runtime(const runtime_options& options = {});
    /// Shuts libobs down and closes the X display.
    ~runtime();

    runtime(const runtime&) = delete;
    runtime& operator=(const runtime&) = delete;

    /// The modules that were opened and initialised, in load order.
    const std::vector<std::string>& loaded_modules() const { return loaded_; }

private:
    /// Opens and initialises the modules found of names, in that order, then finishes loading.
    void load_modules(const std::vector<std::string>& names);
    void close_displays();

    void* display_ = nullptr;         // X11 Display
    void* wayland_display_ = nullptr; // wl_display
    std::vector<std::string> loaded_;
};

} // namespace orbweave::obs
