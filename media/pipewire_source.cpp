#include "media/pipewire_source.hpp"

#include "core/log.hpp"
#include "media/c_boundary.hpp"
#include "media/pipewire_capture.hpp"
#include "media/pipewire_frames.hpp"

#include <obs.h>
#include <pipewire/pipewire.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace orbweave::obs {

// The libobs source: the cast's newest frame (media/pipewire_capture), drawn by the
// source itself. libobs's graphics thread uploads it into the source's texture when it
// draws the source, so a still window or screen, which sends one frame, is drawn from
// that frame as long as the stream lasts. The source's size is the capture's: the
// stream's canvas is made at the window's shape and the scene fits the window into it,
// aspect kept, when it changes.

namespace {

/// Emitted on the source's signal handler when its stream ends without being asked to.
constexpr const char* ended_signal = "void orbweave_capture_ended(ptr source, string reason)";

struct portal_source {
    obs_source_t* source = nullptr;
    std::unique_ptr<pipewire_capture> capture;
    // libobs's graphics thread only.
    gs_texture_t* texture = nullptr;
    std::vector<std::uint8_t> swizzled; // RGBx frames, turned into BGRX

    /// Told once by the capture, on its own thread (never under PipeWire's lock): the
    /// capture_source listening may write to the worker's pipe.
    void end(const std::string& reason)
    {
        calldata_t data{};
        calldata_set_ptr(&data, "source", source);
        calldata_set_string(&data, "reason", reason.c_str());
        signal_handler_signal(obs_source_get_signal_handler(source), portal_source_ended_signal, &data);
        calldata_free(&data);
    }

    /// libobs's draw call, on its graphics thread: uploads the newest frame when it has
    /// not been yet, then draws the texture.
    void draw()
    {
        capture->take_newest([this](const pipewire_capture::frame& frame) {
            if (frame.fresh || !texture)
                upload(frame);
        });
        if (texture)
            obs_source_draw(texture, 0, 0, 0, 0, false);
    }

    /// Copies the part of the frame to show, and nothing else, into the texture.
    void upload(const pipewire_capture::frame& frame)
    {
        std::uint32_t w = frame.view.width, h = frame.view.height;
        gs_color_format wanted = frame.alpha ? GS_BGRA : GS_BGRX;
        if (!texture || gs_texture_get_width(texture) != w || gs_texture_get_height(texture) != h ||
            gs_texture_get_color_format(texture) != wanted) {
            gs_texture_destroy(texture);
            texture = gs_texture_create(w, h, wanted, 1, nullptr, GS_DYNAMIC);
            if (!texture)
                return;
        }
        const std::uint8_t* pixels = frame.view.pixels;
        std::uint32_t stride = frame.view.stride;
        if (frame.rgb_order) {
            rgbx_to_bgrx(frame.view, swizzled);
            pixels = swizzled.data();
            stride = w * 4;
        }
        gs_texture_set_image(texture, pixels, stride, false);
    }

    /// libobs's create: the source for the settings' PipeWire remote and node; null when
    /// it cannot connect.
    static void* create(obs_data_t* settings, obs_source_t* source)
    {
        signal_handler_add(obs_source_get_signal_handler(source), ended_signal);
        auto shown = std::make_unique<portal_source>();
        shown->source = source;
        int fd = static_cast<int>(obs_data_get_int(settings, "fd"));
        auto node = static_cast<std::uint32_t>(obs_data_get_int(settings, "node"));
        try {
            portal_source* self = shown.get();
            shown->capture =
                std::make_unique<pipewire_capture>(fd, node, [self](const std::string& reason) { self->end(reason); });
        } catch (const std::exception& failure) {
            log::line(std::string("media: ") + failure.what());
            return nullptr;
        }
        return shown.release();
    }

    ~portal_source()
    {
        // Disconnected first: no frame or end arrives once the texture goes.
        capture.reset();
        if (texture) {
            obs_enter_graphics();
            gs_texture_destroy(texture);
            obs_leave_graphics();
        }
    }

    std::pair<int, int> size() const { return capture->size(); }
};

} // namespace

void register_portal_source()
{
    pw_init(nullptr, nullptr);
    obs_source_info info{};
    info.id = portal_source_id;
    info.type = OBS_SOURCE_TYPE_INPUT;
    info.output_flags = OBS_SOURCE_VIDEO | OBS_SOURCE_DO_NOT_DUPLICATE;
    info.get_name = [](void*) { return "Orbweave screen (desktop portal)"; };
    info.create = [](obs_data_t* settings, obs_source_t* source) {
        return guarded("the screen cast source's creation", [&] { return portal_source::create(settings, source); });
    };
    info.destroy = [](void* data) {
        guarded("the screen cast source's destruction", [&] { delete static_cast<portal_source*>(data); });
    };
    info.get_width = [](void* data) { return static_cast<uint32_t>(static_cast<portal_source*>(data)->size().first); };
    info.get_height = [](void* data) { return static_cast<uint32_t>(static_cast<portal_source*>(data)->size().second); };
    info.video_render = [](void* data, gs_effect_t*) {
        guarded("the screen cast source's drawing", [&] { static_cast<portal_source*>(data)->draw(); });
    };
    obs_register_source(&info);
}

} // namespace orbweave::obs
