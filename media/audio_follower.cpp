#include "media/audio_follower.hpp"

#include "core/log.hpp"
#include "media/c_boundary.hpp"
#include "media/catalogue.hpp"

#include <obs.h>
#include <pulse/context.h>
#include <pulse/introspect.h>
#include <pulse/mainloop.h>
#include <pulse/subscribe.h>

#include <algorithm>
#include <cstring>

namespace orbweave::obs {

namespace {

using namespace std::chrono_literals;
using clock = std::chrono::steady_clock;

/// The first pause before reaching a sound server again; it doubles up to the limit.
constexpr std::chrono::milliseconds first_retry{100};
/// How long the old sources may take to be destroyed before new ones are made anyway.
constexpr auto release_limit = 2s;
/// How often that is checked: libobs tells nobody when a source is finally released.
constexpr auto release_poll_interval = 5ms;

/// The setting of a source that records the default device: the plug-in resolves it
/// when it connects.
constexpr const char* default_device = "default";

bool is_pulse_source(obs_source_t* source, bool& input)
{
    const char* id = obs_source_get_id(source);
    if (!id)
        return false;
    input = std::strcmp(id, capture_id::audio_input) == 0;
    return input || std::strcmp(id, capture_id::audio_output) == 0;
}

std::string setting_of(obs_source_t* source)
{
    data_handle settings(obs_source_get_settings(source));
    const char* device = settings ? obs_data_get_string(settings.get(), "device_id") : nullptr;
    return device ? device : "";
}

/// Waits, bounded, until every one of sources has been destroyed; then releases them.
void wait_until_destroyed(std::vector<obs_weak_source_t*>& sources)
{
    auto deadline = clock::now() + release_limit;
    for (;;) {
        bool released = std::all_of(sources.begin(), sources.end(),
                                    [](obs_weak_source_t* weak) { return obs_weak_source_expired(weak); });
        // Lets the audio and video threads drop what they hold, and finishes the
        // destruction of what was released, which runs on libobs's own thread.
        obs_wait_for_destroy_queue();
        if (released)
            break;
        if (clock::now() >= deadline) {
            log::line("media: an old audio source outlived its sound server; its replacement may stay silent");
            break;
        }
        std::this_thread::sleep_for(release_poll_interval);
    }
    for (auto* weak : sources)
        obs_weak_source_release(weak);
    sources.clear();
}

} // namespace

audio_follower::audio_follower(obs_scene_t* scene, source_handle held) : scene_(scene), held_(std::move(held))
{
    obs_scene_enum_items(
        scene_,
        [](obs_scene_t*, obs_sceneitem_t* item, void* data) {
            auto& found = *static_cast<std::vector<followed>*>(data);
            obs_source_t* source = obs_sceneitem_get_source(item);
            followed entry;
            if (!source || !is_pulse_source(source, entry.input))
                return true;
            entry.device = setting_of(source);
            const char* name = obs_source_get_name(source);
            entry.name = name ? name : "sound";
            obs_sceneitem_addref(item);
            entry.item = item;
            found.push_back(std::move(entry));
            return true;
        },
        &followed_);
    if (followed_.empty())
        return;
    loop_ = pa_mainloop_new();
    thread_ = std::thread([this] {
        guarded("the audio device follower", [this] { run(); });
    });
}

audio_follower::~audio_follower()
{
    if (thread_.joinable()) {
        stop_ = true;
        pa_mainloop_wakeup(loop_);
        thread_.join();
    }
    drop_connection();
    if (loop_)
        pa_mainloop_free(loop_);
    for (auto& source : followed_)
        if (source.item)
            obs_sceneitem_release(source.item);
}

void audio_follower::run()
{
    auto retry_at = clock::now();
    std::chrono::milliseconds backoff = first_retry;
    while (!stop_) {
        if (!context_ && clock::now() >= retry_at)
            connect();
        if (context_)
            check_connection(retry_at, backoff);
        if (querying_ && answer_.pending == 0) {
            querying_ = false;
            snapshot server = std::move(answer_);
            answer_ = {};
            if (server.failed)
                refresh_wanted_ = true;
            else
                apply(server);
        }
        if (ready_ && refresh_wanted_ && !querying_)
            query();
        int timeout = -1;
        if (!context_) {
            auto left = std::chrono::duration_cast<std::chrono::microseconds>(retry_at - clock::now());
            timeout = static_cast<int>(std::max<std::chrono::microseconds::rep>(left.count(), 0));
        }
        if (pa_mainloop_prepare(loop_, timeout) < 0 || pa_mainloop_poll(loop_) < 0 ||
            pa_mainloop_dispatch(loop_) < 0) {
            log::line("media: the sound server's events can no longer be read; audio devices are not followed");
            break;
        }
    }
}

void audio_follower::connect()
{
    context_ = pa_context_new(pa_mainloop_get_api(loop_), "Orbweave");
    if (!context_)
        return;
    pa_context_set_subscribe_callback(
        context_,
        [](pa_context*, pa_subscription_event_type_t, std::uint32_t, void* data) {
            static_cast<audio_follower*>(data)->refresh_wanted_ = true;
        },
        this);
    // A failed start shows as the context's failed state, handled with every other loss.
    pa_context_connect(context_, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr);
}

void audio_follower::check_connection(clock::time_point& retry_at, std::chrono::milliseconds& backoff)
{
    pa_context_state_t state = pa_context_get_state(context_);
    if (state == PA_CONTEXT_READY && !ready_) {
        ready_ = true;
        backoff = first_retry;
        pa_context_subscribe(context_,
                             static_cast<pa_subscription_mask_t>(PA_SUBSCRIPTION_MASK_SOURCE |
                                                                 PA_SUBSCRIPTION_MASK_SERVER),
                             nullptr, nullptr);
        if (loss_logged_)
            log::line("media: the sound server is back");
        loss_logged_ = false;
        refresh_wanted_ = true;
        return;
    }
    if (PA_CONTEXT_IS_GOOD(state))
        return;
    if (ready_ && !loss_logged_) {
        log::line("media: the sound server is gone; the stream carries silence until it is back");
        loss_logged_ = true;
    }
    // Not reached (or not any more): whatever the sources hold is no connection.
    if (ready_ || first_answer_)
        server_lost_ = true;
    for (auto& source : followed_)
        source.gone = true;
    drop_connection();
    retry_at = clock::now() + backoff;
    backoff = std::min(backoff * 2, sound_server_retry_limit);
}

void audio_follower::drop_connection()
{
    if (context_) {
        pa_context_set_subscribe_callback(context_, nullptr, nullptr);
        pa_context_disconnect(context_);
        pa_context_unref(context_);
        context_ = nullptr;
    }
    ready_ = false;
    querying_ = false;
    answer_ = {};
}

void audio_follower::query()
{
    refresh_wanted_ = false;
    answer_ = {};
    auto on_server = [](pa_context*, const pa_server_info* info, void* data) {
        auto& self = *static_cast<audio_follower*>(data);
        if (info) {
            self.answer_.default_source = info->default_source_name ? info->default_source_name : "";
            self.answer_.default_sink = info->default_sink_name ? info->default_sink_name : "";
        } else {
            self.answer_.failed = true;
        }
        --self.answer_.pending;
    };
    auto on_source = [](pa_context*, const pa_source_info* info, int last, void* data) {
        auto& self = *static_cast<audio_follower*>(data);
        if (last != 0) {
            self.answer_.failed = self.answer_.failed || last < 0;
            --self.answer_.pending;
            return;
        }
        if (info && info->name)
            self.answer_.sources[info->name] = info->index;
    };
    pa_operation* server = pa_context_get_server_info(context_, on_server, this);
    pa_operation* sources = pa_context_get_source_info_list(context_, on_source, this);
    answer_.pending = (server ? 1 : 0) + (sources ? 1 : 0);
    if (server)
        pa_operation_unref(server);
    if (sources)
        pa_operation_unref(sources);
    // Both are needed; with one missing the connection is failing, which is handled then.
    querying_ = server && sources;
}

std::string audio_follower::wanted_device(const followed& source, const snapshot& server) const
{
    if (source.device != default_device)
        return source.device;
    if (source.input)
        return server.default_source;
    return server.default_sink.empty() ? std::string() : server.default_sink + ".monitor";
}

void audio_follower::apply(const snapshot& server)
{
    std::vector<std::size_t> to_remake;
    for (std::size_t i = 0; i < followed_.size(); ++i) {
        followed& source = followed_[i];
        std::string wanted = wanted_device(source, server);
        auto found = server.sources.find(wanted);
        bool present = !wanted.empty() && found != server.sources.end();
        if (first_answer_ && !server_lost_) {
            // Made moments ago: connected to what is there now.
            if (present) {
                source.connected_to = wanted;
                source.index = found->second;
            }
        }
        if (!present) {
            if (!source.gone || first_answer_)
                log::line("media: the audio device '" + source.device +
                          "' is gone; the stream carries silence until it is back");
            source.gone = true;
            // Still on the old connection: made again with the rest so that it can go.
            if (server_lost_)
                to_remake.push_back(i);
            continue;
        }
        if (server_lost_ || source.gone || found->second != source.index || wanted != source.connected_to)
            to_remake.push_back(i);
    }
    first_answer_ = false;
    if (!to_remake.empty())
        remake(to_remake, server, server_lost_);
    server_lost_ = false;
}

void audio_follower::remake(const std::vector<std::size_t>& indices, const snapshot& server, bool fresh_connection)
{
    std::vector<obs_weak_source_t*> old;
    for (std::size_t i : indices) {
        followed& source = followed_[i];
        if (!source.item)
            continue; // its last making failed
        obs_source_t* current = obs_sceneitem_get_source(source.item);
        if (fresh_connection)
            old.push_back(obs_source_get_weak_source(current));
        if (held_.get() == current)
            held_.reset();
        obs_sceneitem_remove(source.item);
        obs_sceneitem_release(source.item);
        source.item = nullptr;
    }
    if (fresh_connection)
        wait_until_destroyed(old);
    for (std::size_t i : indices) {
        followed& source = followed_[i];
        data_handle settings(obs_data_create());
        obs_data_set_string(settings.get(), "device_id", source.device.c_str());
        source_handle made(obs_source_create(source.input ? capture_id::audio_input : capture_id::audio_output,
                                             source.name.c_str(), settings.get(), nullptr));
        if (!made) {
            log::line("media: cannot make the audio source for '" + source.device + "' again");
            continue;
        }
        source.item = obs_scene_add(scene_, made.get());
        if (source.item)
            obs_sceneitem_addref(source.item);
        std::string wanted = wanted_device(source, server);
        auto found = server.sources.find(wanted);
        if (wanted.empty() || found == server.sources.end())
            continue;
        if (source.gone)
            log::line("media: the audio device '" + wanted + "' is back");
        else if (wanted != source.connected_to)
            log::line("media: the default " + std::string(source.input ? "input" : "output") + " is now '" +
                      wanted + "'; the stream follows it");
        source.gone = false;
        source.connected_to = wanted;
        source.index = found->second;
    }
}

} // namespace orbweave::obs
