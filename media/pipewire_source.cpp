#include "media/pipewire_source.hpp"

#include "core/log.hpp"
#include "media/c_boundary.hpp"
#include "media/pipewire_params.h"

#include <obs.h>
#include <pipewire/pipewire.h>
#include <spa/buffer/meta.h>
#include <spa/param/format-utils.h>
#include <spa/param/video/format-utils.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace orbweave::obs {

// The libobs source: a PipeWire stream on its own thread loop. The newest frame's buffer
// is kept from PipeWire, and the source draws it itself: libobs's graphics thread uploads
// it into the source's texture when it draws the source, so a still window or screen,
// which sends one frame, is drawn from that frame as long as the stream lasts.
//
// What is shown is the part of each frame the compositor marks with its crop region,
// where it marks one: GNOME casts a window in monitor-sized frames with the window at
// the top left, and the region follows the window as it is resized. The source's size
// is that part's size, so the stream's canvas is made at the window's shape and the
// scene fits the window into it, aspect kept, when it changes. Without a crop region
// the whole frame is shown, and the size is the negotiated format's, known before the
// first frame; with one, the first frame brings it.

namespace {

/// Emitted on the source's signal handler when its stream ends without being asked to.
constexpr const char* ended_signal = "void orbweave_capture_ended(ptr source, string reason)";

/// The part of a frame to show, as PipeWire handed it over: its top left pixel, the
/// frame's stride and the part's size; null pixels when the buffer holds no frame.
struct frame_view {
    const uint8_t* pixels = nullptr;
    uint32_t stride = 0;
    uint32_t width = 0, height = 0;
};

/// A width and a height in one word, so that libobs never reads one without the other.
uint64_t pack(uint32_t width, uint32_t height)
{
    return static_cast<uint64_t>(width) << 32 | height;
}

struct portal_source {
    obs_source_t* source = nullptr;
    pw_thread_loop* loop = nullptr;
    pw_context* context = nullptr;
    pw_core* core = nullptr;
    pw_stream* stream = nullptr;
    pw_registry* registry = nullptr;
    uint32_t node = SPA_ID_INVALID;
    spa_hook core_listener{};
    spa_hook stream_listener{};
    spa_hook registry_listener{};
    bool streaming = false;
    bool ended = false;
    // Guarded by the loop's lock: the stream's thread writes them, libobs's threads read.
    spa_video_info_raw format{};
    bool has_format = false;
    pw_buffer* held = nullptr; // the newest frame, kept until the next arrives
    frame_view shown;          // the part of the held frame to show
    bool uploaded = false;     // whether the texture shows the held frame
    bool told_bad_crop = false;
    // The size of what is shown (pack()), read by libobs without the lock.
    std::atomic<uint64_t> size{0};
    // libobs's graphics thread only.
    gs_texture_t* texture = nullptr;
    std::vector<uint8_t> swizzled; // RGBx frames, turned into BGRX

    void end(const std::string& reason)
    {
        if (ended)
            return;
        ended = true;
        log::line("media: the screen cast ended: " + reason);
        calldata_t data{};
        calldata_set_ptr(&data, "source", source);
        calldata_set_string(&data, "reason", reason.c_str());
        signal_handler_signal(obs_source_get_signal_handler(source), portal_source_ended_signal, &data);
        calldata_free(&data);
    }

    void on_state(pw_stream_state state, const char* error)
    {
        if (state == PW_STREAM_STATE_STREAMING)
            streaming = true;
        else if (state == PW_STREAM_STATE_ERROR)
            end(std::string("the PipeWire stream failed: ") + (error ? error : "unknown error"));
        else if (state == PW_STREAM_STATE_UNCONNECTED && streaming)
            end("the PipeWire stream was disconnected");
    }

    void on_param(uint32_t id, const spa_pod* param)
    {
        if (id != SPA_PARAM_Format || !param)
            return;
        uint32_t media_type = 0, media_subtype = 0;
        if (spa_format_parse(param, &media_type, &media_subtype) < 0 || media_type != SPA_MEDIA_TYPE_video ||
            media_subtype != SPA_MEDIA_SUBTYPE_raw)
            return;
        if (spa_format_video_raw_parse(param, &format) < 0)
            return;
        has_format = supported(format.format);
        if (!has_format)
            size = 0;
        uploaded = false;
        uint8_t buffers[256], crop[256];
        const spa_pod* params[] = {orbweave_shared_memory_buffers_param(buffers, sizeof buffers),
                                   orbweave_crop_meta_param(crop, sizeof crop)};
        pw_stream_update_params(stream, params, 2);
    }

    /// A buffer of the negotiated format arrived: without a crop region every frame is
    /// shown whole, so the format's size is the source's from now on. With one, the next
    /// frame tells (until then a new format keeps the last frame's size).
    void on_buffer_added(pw_buffer* buffer)
    {
        if (has_format && !held && !spa_buffer_find_meta(buffer->buffer, SPA_META_VideoCrop))
            size = pack(format.size.width, format.size.height);
    }

    void on_process()
    {
        // Only the newest frame matters; older ones go straight back.
        pw_buffer* newest = nullptr;
        while (pw_buffer* next = pw_stream_dequeue_buffer(stream)) {
            if (newest)
                pw_stream_queue_buffer(stream, newest);
            newest = next;
        }
        if (!newest)
            return;
        frame_view frame = view(newest->buffer);
        if (frame.pixels == nullptr) {
            pw_stream_queue_buffer(stream, newest); // damaged or empty: keep the last good one
            return;
        }
        if (held)
            pw_stream_queue_buffer(stream, held);
        held = newest;
        shown = frame;
        uploaded = false;
        size = pack(frame.width, frame.height);
    }

    static bool supported(uint32_t video_format)
    {
        return video_format == SPA_VIDEO_FORMAT_BGRx || video_format == SPA_VIDEO_FORMAT_BGRA ||
               video_format == SPA_VIDEO_FORMAT_RGBx || video_format == SPA_VIDEO_FORMAT_RGBA;
    }

    /// The part of the buffer's frame to show, when it holds a whole frame of the
    /// negotiated format.
    frame_view view(spa_buffer* buffer)
    {
        auto* header = static_cast<spa_meta_header*>(spa_buffer_find_meta_data(buffer, SPA_META_Header, sizeof(spa_meta_header)));
        if (header && (header->flags & SPA_META_HEADER_FLAG_CORRUPTED))
            return {};
        const spa_data& data = buffer->datas[0];
        if (!has_format || !data.data || !data.chunk || data.chunk->size == 0 || data.maxsize == 0)
            return {};
        uint32_t stride = data.chunk->stride > 0 ? static_cast<uint32_t>(data.chunk->stride) : format.size.width * 4;
        uint32_t offset = data.chunk->offset % data.maxsize;
        if (stride < format.size.width * 4 || static_cast<uint64_t>(stride) * format.size.height > data.maxsize - offset)
            return {};
        spa_rectangle area = format.size;
        spa_point at{0, 0};
        crop_region(buffer, at, area);
        const uint8_t* pixels = static_cast<const uint8_t*>(data.data) + offset +
                                static_cast<size_t>(at.y) * stride + static_cast<size_t>(at.x) * 4;
        return {pixels, stride, area.width, area.height};
    }

    /// Narrows the whole frame (at, area) to the producer's crop region, where the buffer
    /// carries one. A region of no size means the whole frame; one that reaches past the
    /// frame is cut to it, and one wholly outside it is ignored (and said once).
    void crop_region(spa_buffer* buffer, spa_point& at, spa_rectangle& area)
    {
        auto* crop = static_cast<spa_meta_region*>(
            spa_buffer_find_meta_data(buffer, SPA_META_VideoCrop, sizeof(spa_meta_region)));
        if (!crop || !spa_meta_region_is_valid(crop))
            return;
        const spa_region& region = crop->region;
        int64_t left = std::max<int64_t>(region.position.x, 0);
        int64_t top = std::max<int64_t>(region.position.y, 0);
        int64_t right = std::min<int64_t>(int64_t{region.position.x} + region.size.width, area.width);
        int64_t bottom = std::min<int64_t>(int64_t{region.position.y} + region.size.height, area.height);
        if (left >= right || top >= bottom) {
            if (!told_bad_crop)
                log::line("media: the screen cast's crop region (" + std::to_string(region.size.width) + "x" +
                          std::to_string(region.size.height) + " at " + std::to_string(region.position.x) + "," +
                          std::to_string(region.position.y) + ") lies outside its " + std::to_string(area.width) +
                          "x" + std::to_string(area.height) + " frame; the whole frame is shown");
            told_bad_crop = true;
            return;
        }
        at = {static_cast<int32_t>(left), static_cast<int32_t>(top)};
        area = {static_cast<uint32_t>(right - left), static_cast<uint32_t>(bottom - top)};
    }

    /// libobs's draw call, on its graphics thread: uploads the newest frame when it has
    /// not been yet, then draws the texture.
    void draw()
    {
        pw_thread_loop_lock(loop);
        if (held && !uploaded)
            upload(shown);
        pw_thread_loop_unlock(loop);
        if (texture)
            obs_source_draw(texture, 0, 0, 0, 0, false);
    }

    /// Copies the part of the frame to show, and nothing else, into the texture.
    void upload(frame_view frame)
    {
        if (!frame.pixels)
            return;
        uint32_t w = frame.width, h = frame.height;
        bool alpha = format.format == SPA_VIDEO_FORMAT_BGRA || format.format == SPA_VIDEO_FORMAT_RGBA;
        gs_color_format wanted = alpha ? GS_BGRA : GS_BGRX;
        if (!texture || gs_texture_get_width(texture) != w || gs_texture_get_height(texture) != h ||
            gs_texture_get_color_format(texture) != wanted) {
            gs_texture_destroy(texture);
            texture = gs_texture_create(w, h, wanted, 1, nullptr, GS_DYNAMIC);
            if (!texture)
                return;
        }
        const uint8_t* pixels = frame.pixels;
        uint32_t stride = frame.stride;
        if (format.format == SPA_VIDEO_FORMAT_RGBx || format.format == SPA_VIDEO_FORMAT_RGBA) {
            // No RGB-ordered texture format in libobs: red and blue swap places.
            swizzled.resize(static_cast<size_t>(w) * h * 4);
            for (uint32_t row = 0; row < h; ++row) {
                const uint8_t* in = pixels + static_cast<size_t>(row) * stride;
                uint8_t* out = swizzled.data() + static_cast<size_t>(row) * w * 4;
                for (uint32_t column = 0; column < w; ++column, in += 4, out += 4) {
                    out[0] = in[2];
                    out[1] = in[1];
                    out[2] = in[0];
                    out[3] = in[3];
                }
            }
            pixels = swizzled.data();
            stride = w * 4;
        }
        gs_texture_set_image(texture, pixels, stride, false);
        uploaded = true;
    }

    static const pw_stream_events* stream_events()
    {
        static const pw_stream_events events = [] {
            pw_stream_events e{};
            e.version = PW_VERSION_STREAM_EVENTS;
            e.state_changed = [](void* data, pw_stream_state, pw_stream_state state, const char* error) {
                guarded("the PipeWire stream's state event",
                        [&] { static_cast<portal_source*>(data)->on_state(state, error); });
            };
            e.param_changed = [](void* data, uint32_t id, const spa_pod* param) {
                guarded("the PipeWire stream's format event",
                        [&] { static_cast<portal_source*>(data)->on_param(id, param); });
            };
            // PipeWire frees a stream's buffers when the format changes or the cast's
            // node goes: the held frame must not outlive its buffer.
            e.remove_buffer = [](void* data, pw_buffer* buffer) {
                guarded("the PipeWire stream's buffer removal", [&] {
                    auto* self = static_cast<portal_source*>(data);
                    if (self->held == buffer)
                        self->held = nullptr;
                });
            };
            e.add_buffer = [](void* data, pw_buffer* buffer) {
                guarded("the PipeWire stream's buffer addition",
                        [&] { static_cast<portal_source*>(data)->on_buffer_added(buffer); });
            };
            e.process = [](void* data) {
                guarded("the PipeWire stream's frame event", [&] { static_cast<portal_source*>(data)->on_process(); });
            };
            return e;
        }();
        return &events;
    }

    static const pw_core_events* core_events()
    {
        static const pw_core_events events = [] {
            pw_core_events e{};
            e.version = PW_VERSION_CORE_EVENTS;
            e.error = [](void* data, uint32_t id, int, int, const char* message) {
                guarded("the PipeWire connection's error event", [&] {
                    if (id == PW_ID_CORE)
                        static_cast<portal_source*>(data)->end(std::string("PipeWire: ") +
                                                               (message ? message : "error"));
                });
            };
            return e;
        }();
        return &events;
    }

    static const pw_registry_events* registry_events()
    {
        // The cast's node going away is the desktop ending the cast: the stream itself
        // only pauses.
        static const pw_registry_events events = [] {
            pw_registry_events e{};
            e.version = PW_VERSION_REGISTRY_EVENTS;
            e.global_remove = [](void* data, uint32_t id) {
                guarded("the PipeWire registry's remove event", [&] {
                    auto* self = static_cast<portal_source*>(data);
                    if (id == self->node)
                        self->end("the desktop ended the screen cast");
                });
            };
            return e;
        }();
        return &events;
    }

    bool connect(int fd, uint32_t target)
    {
        node = target;
        loop = pw_thread_loop_new("orbweave-pipewire", nullptr);
        context = loop ? pw_context_new(pw_thread_loop_get_loop(loop), nullptr, 0) : nullptr;
        if (!context || pw_thread_loop_start(loop) < 0) {
            ::close(fd);
            return false;
        }
        pw_thread_loop_lock(loop);
        core = pw_context_connect_fd(context, fd, nullptr, 0); // owns fd from here on
        if (core) {
            pw_core_add_listener(core, &core_listener, core_events(), this);
            registry = pw_core_get_registry(core, PW_VERSION_REGISTRY, 0);
            if (registry)
                pw_registry_add_listener(registry, &registry_listener, registry_events(), this);
            stream = pw_stream_new(core, "Orbweave screen",
                                   pw_properties_new(PW_KEY_MEDIA_TYPE, "Video", PW_KEY_MEDIA_CATEGORY, "Capture",
                                                     PW_KEY_MEDIA_ROLE, "Screen", nullptr));
        }
        bool connected = false;
        if (stream) {
            pw_stream_add_listener(stream, &stream_listener, stream_events(), this);
            uint8_t buffer[1024];
            const spa_pod* params[] = {orbweave_video_format_param(buffer, sizeof buffer)};
            connected = pw_stream_connect(stream, PW_DIRECTION_INPUT, node,
                                          static_cast<pw_stream_flags>(PW_STREAM_FLAG_AUTOCONNECT |
                                                                       PW_STREAM_FLAG_MAP_BUFFERS),
                                          params, 1) == 0;
        }
        pw_thread_loop_unlock(loop);
        return connected;
    }

    /// libobs's create: the source for the settings' PipeWire remote and node; null when
    /// it cannot connect.
    static void* create(obs_data_t* settings, obs_source_t* source)
    {
        signal_handler_add(obs_source_get_signal_handler(source), ended_signal);
        auto capture = std::make_unique<portal_source>();
        capture->source = source;
        int fd = static_cast<int>(obs_data_get_int(settings, "fd"));
        auto node = static_cast<uint32_t>(obs_data_get_int(settings, "node"));
        if (fd < 0 || !capture->connect(fd, node)) {
            log::line("media: cannot connect to the screen cast's PipeWire stream");
            return nullptr;
        }
        return capture.release();
    }

    ~portal_source()
    {
        if (loop) {
            pw_thread_loop_lock(loop);
            if (stream) {
                if (held)
                    pw_stream_queue_buffer(stream, held);
                spa_hook_remove(&stream_listener);
                pw_stream_disconnect(stream);
                pw_stream_destroy(stream);
            }
            if (registry) {
                spa_hook_remove(&registry_listener);
                pw_proxy_destroy(reinterpret_cast<pw_proxy*>(registry));
            }
            if (core) {
                spa_hook_remove(&core_listener);
                pw_core_disconnect(core);
            }
            pw_thread_loop_unlock(loop);
            pw_thread_loop_stop(loop);
        }
        if (texture) {
            obs_enter_graphics();
            gs_texture_destroy(texture);
            obs_leave_graphics();
        }
        if (context)
            pw_context_destroy(context);
        if (loop)
            pw_thread_loop_destroy(loop);
    }
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
    info.get_width = [](void* data) { return static_cast<uint32_t>(static_cast<portal_source*>(data)->size.load() >> 32); };
    info.get_height = [](void* data) { return static_cast<uint32_t>(static_cast<portal_source*>(data)->size.load()); };
    info.video_render = [](void* data, gs_effect_t*) {
        guarded("the screen cast source's drawing", [&] { static_cast<portal_source*>(data)->draw(); });
    };
    obs_register_source(&info);
}

} // namespace orbweave::obs
