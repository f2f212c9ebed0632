#include "media/pipewire_capture.hpp"

#include "core/end_notice.hpp"
#include "core/log.hpp"
#include "media/c_boundary.hpp"
#include "media/pipewire_params.h"

#include <pipewire/pipewire.h>
#include <spa/buffer/meta.h>
#include <spa/param/format-utils.h>
#include <spa/param/video/format-utils.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <thread>

namespace orbweave::obs {

namespace {

/// A width and a height in one word, so that no reader sees one without the other.
std::uint64_t pack(std::uint32_t width, std::uint32_t height)
{
    return static_cast<std::uint64_t>(width) << 32 | height;
}

} // namespace

struct pipewire_capture::impl {
    ended_handler on_ended;
    // Heard on the loop's thread; told on teller, away from the loop's lock.
    end_notice ended{[this](const std::string& reason) { tell_end(reason); }};
    std::thread teller;
    pw_thread_loop* loop = nullptr;
    pw_context* context = nullptr;
    pw_core* core = nullptr;
    pw_stream* stream = nullptr;
    pw_registry* registry = nullptr;
    std::uint32_t node = SPA_ID_INVALID;
    spa_hook core_listener{};
    spa_hook stream_listener{};
    spa_hook registry_listener{};
    bool streaming = false;
    // Guarded by the loop's lock: the stream's thread writes them, take_newest() reads.
    spa_video_info_raw format{};
    bool has_format = false;
    pw_buffer* held = nullptr;      // the newest frame, kept until the next arrives
    pw_buffer* returning = nullptr; // one replaced while take_newest() read it, queued after
    frame_view shown;               // the part of the held frame to show
    bool fresh = false;             // whether held arrived since the last take
    row_span changed;
    bool told_bad_crop = false;
    // The size of what is shown (pack()), read without the lock.
    std::atomic<std::uint64_t> size{0};
    // The buffer take_newest() reads without the loop's lock: PipeWire's thread neither
    // queues nor frees it until it is given back.
    std::mutex reading_mutex;
    std::condition_variable reading_done;
    pw_buffer* reading = nullptr;

    void end(const std::string& reason) { ended.end(reason); }

    /// The first end, heard under the loop's lock: its handler may block (a pipe write, a
    /// libobs signal), so it runs on a thread of its own, joined when the capture goes.
    void tell_end(const std::string& reason)
    {
        log::line("media: the screen cast ended: " + reason);
        if (on_ended)
            teller = std::thread([this, reason] {
                guarded("the screen cast's end", [&] { on_ended(reason); });
            });
    }

    bool being_read(pw_buffer* buffer)
    {
        std::lock_guard<std::mutex> lock(reading_mutex);
        return reading == buffer;
    }

    /// Gives a replaced frame's buffer back to PipeWire, or leaves it to take_newest()
    /// while that reads it.
    void give_back(pw_buffer* buffer)
    {
        if (being_read(buffer))
            returning = buffer;
        else
            pw_stream_queue_buffer(stream, buffer);
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

    void on_param(std::uint32_t id, const spa_pod* param)
    {
        if (id != SPA_PARAM_Format || !param)
            return;
        std::uint32_t media_type = 0, media_subtype = 0;
        if (spa_format_parse(param, &media_type, &media_subtype) < 0 || media_type != SPA_MEDIA_TYPE_video ||
            media_subtype != SPA_MEDIA_SUBTYPE_raw)
            return;
        if (spa_format_video_raw_parse(param, &format) < 0)
            return;
        has_format = supported_format(format.format);
        if (!has_format)
            size = 0;
        fresh = false;
        std::uint8_t buffers[256], crop[256], damage[256];
        const spa_pod* params[] = {orbweave_shared_memory_buffers_param(buffers, sizeof buffers),
                                   orbweave_crop_meta_param(crop, sizeof crop),
                                   orbweave_damage_meta_param(damage, sizeof damage)};
        pw_stream_update_params(stream, params, 3);
    }

    /// A buffer of the negotiated format arrived: without a crop region every frame is
    /// shown whole, so the format's size is the capture's from now on. With one, the next
    /// frame tells (until then a new format keeps the last frame's size).
    void on_buffer_added(pw_buffer* buffer)
    {
        if (has_format && !held && !spa_buffer_find_meta(buffer->buffer, SPA_META_VideoCrop))
            size = pack(format.size.width, format.size.height);
    }

    void on_process()
    {
        // Only the newest frame matters; older ones go straight back, their damage kept.
        pw_buffer* newest = nullptr;
        while (pw_buffer* next = pw_stream_dequeue_buffer(stream)) {
            if (newest) {
                note_damage(*newest->buffer);
                pw_stream_queue_buffer(stream, newest);
            }
            newest = next;
        }
        if (!newest)
            return;
        bool bad_crop = false;
        frame_view frame = has_format ? view_frame(*newest->buffer, format, bad_crop) : frame_view{};
        if (bad_crop && !told_bad_crop) {
            log::line("media: the screen cast's crop region lies outside its " + std::to_string(format.size.width) +
                      "x" + std::to_string(format.size.height) + " frame; the whole frame is shown");
            told_bad_crop = true;
        }
        if (frame.pixels == nullptr) {
            pw_stream_queue_buffer(stream, newest); // damaged or empty: keep the last good one
            return;
        }
        bool same_part = held && frame.width == shown.width && frame.height == shown.height &&
                         frame.left == shown.left && frame.top == shown.top;
        if (held)
            give_back(held);
        held = newest;
        if (!same_part)
            changed.all(static_cast<int>(frame.height));
        shown = frame;
        note_damage(*newest->buffer);
        fresh = true;
        size = pack(frame.width, frame.height);
    }

    /// Adds what buffer marks changed to what changed since the last take.
    void note_damage(const spa_buffer& buffer)
    {
        bool bad_crop = false;
        frame_view frame = has_format ? view_frame(buffer, format, bad_crop) : frame_view{};
        if (!frame.pixels) {
            changed.all(static_cast<int>(shown.height));
            return;
        }
        auto [top, bottom] = damaged_rows(buffer, frame);
        changed.add(top, bottom);
    }

    static const pw_stream_events* stream_events()
    {
        static const pw_stream_events events = [] {
            pw_stream_events e{};
            e.version = PW_VERSION_STREAM_EVENTS;
            e.state_changed = [](void* data, pw_stream_state, pw_stream_state state, const char* error) {
                guarded("the PipeWire stream's state event", [&] { static_cast<impl*>(data)->on_state(state, error); });
            };
            e.param_changed = [](void* data, std::uint32_t id, const spa_pod* param) {
                guarded("the PipeWire stream's format event", [&] { static_cast<impl*>(data)->on_param(id, param); });
            };
            // PipeWire frees a stream's buffers when the format changes or the cast's
            // node goes: the held frame must not outlive its buffer.
            e.remove_buffer = [](void* data, pw_buffer* buffer) {
                guarded("the PipeWire stream's buffer removal", [&] {
                    auto* self = static_cast<impl*>(data);
                    std::unique_lock<std::mutex> lock(self->reading_mutex);
                    self->reading_done.wait(lock, [&] { return self->reading != buffer; });
                    if (self->held == buffer) {
                        self->held = nullptr;
                        self->fresh = false;
                    }
                    if (self->returning == buffer)
                        self->returning = nullptr;
                });
            };
            e.add_buffer = [](void* data, pw_buffer* buffer) {
                guarded("the PipeWire stream's buffer addition",
                        [&] { static_cast<impl*>(data)->on_buffer_added(buffer); });
            };
            e.process = [](void* data) {
                guarded("the PipeWire stream's frame event", [&] { static_cast<impl*>(data)->on_process(); });
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
            e.error = [](void* data, std::uint32_t id, int, int, const char* message) {
                guarded("the PipeWire connection's error event", [&] {
                    if (id == PW_ID_CORE)
                        static_cast<impl*>(data)->end(std::string("PipeWire: ") + (message ? message : "error"));
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
            e.global_remove = [](void* data, std::uint32_t id) {
                guarded("the PipeWire registry's remove event", [&] {
                    auto* self = static_cast<impl*>(data);
                    if (id == self->node)
                        self->end("the desktop ended the screen cast");
                });
            };
            return e;
        }();
        return &events;
    }

    bool connect(int fd, std::uint32_t target)
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
            std::uint8_t buffer[1024];
            const spa_pod* params[] = {orbweave_video_format_param(buffer, sizeof buffer)};
            connected = pw_stream_connect(stream, PW_DIRECTION_INPUT, node,
                                          static_cast<pw_stream_flags>(PW_STREAM_FLAG_AUTOCONNECT |
                                                                       PW_STREAM_FLAG_MAP_BUFFERS),
                                          params, 1) == 0;
        }
        pw_thread_loop_unlock(loop);
        return connected;
    }

    ~impl()
    {
        if (loop) {
            pw_thread_loop_lock(loop);
            // Asked to stop: an end now is no news.
            ended.silence();
            if (stream) {
                if (held)
                    pw_stream_queue_buffer(stream, held);
                if (returning)
                    pw_stream_queue_buffer(stream, returning);
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
        if (context)
            pw_context_destroy(context);
        if (loop)
            pw_thread_loop_destroy(loop);
        if (teller.joinable())
            teller.join();
    }
};

pipewire_capture::pipewire_capture(int fd, std::uint32_t node, ended_handler on_ended) : impl_(std::make_unique<impl>())
{
    impl_->on_ended = std::move(on_ended);
    if (fd < 0 || !impl_->connect(fd, node))
        throw std::runtime_error("cannot connect to the screen cast's PipeWire stream");
}

pipewire_capture::~pipewire_capture() = default;

std::pair<int, int> pipewire_capture::size() const
{
    std::uint64_t packed = impl_->size.load();
    return {static_cast<int>(packed >> 32), static_cast<int>(packed & 0xffffffffu)};
}

void pipewire_capture::take_newest(const std::function<void(const frame&)>& use)
{
    impl& self = *impl_;
    frame newest;
    {
        pw_thread_loop_lock(self.loop);
        if (self.held) {
            newest.view = self.shown;
            newest.rgb_order = rgb_ordered(self.format.format);
            newest.alpha = has_alpha(self.format.format);
            newest.fresh = self.fresh;
            newest.changed = self.changed;
            self.fresh = false;
            self.changed.clear();
            std::lock_guard<std::mutex> lock(self.reading_mutex);
            self.reading = self.held;
        }
        pw_thread_loop_unlock(self.loop);
    }
    if (!newest.view.pixels)
        return;
    struct give_back_after {
        impl& self;
        ~give_back_after()
        {
            {
                std::lock_guard<std::mutex> lock(self.reading_mutex);
                self.reading = nullptr;
            }
            self.reading_done.notify_all();
            // Replaced while it was read: PipeWire may refill it now.
            pw_thread_loop_lock(self.loop);
            if (self.returning) {
                pw_stream_queue_buffer(self.stream, self.returning);
                self.returning = nullptr;
            }
            pw_thread_loop_unlock(self.loop);
        }
    } done{self};
    use(newest);
}

} // namespace orbweave::obs
