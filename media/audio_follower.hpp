#pragma once

// Keeps a running stream's sound while the machine's audio changes under it.
//
// libobs's PulseAudio sources connect once. A device that goes (a microphone unplugged,
// its module unloaded) leaves its source silent for good, even when the device comes
// back under the same name; a source of the "Default" entry stays on whatever device
// was the default when it started; and a sound server that restarts leaves every source
// on a dead connection (the plug-in shares one connection per process and never renews
// it while a source holds it: libobs 29's linux-pulseaudio/pulse-wrapper.c leaves the
// reconnection as a to-do, and its update with an unchanged device does nothing). The
// stream itself goes on, carrying silence.
//
// The follower watches the sound server on a connection of its own and remakes a source
// in the stream's scene when its device is back, or when the default it follows changes;
// when the server itself comes back it remakes them all, after the last one is gone, so
// that the plug-in opens a new connection. Each change is logged once.

#include "media/unique_handle.hpp"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <thread>
#include <vector>

struct pa_mainloop;
struct pa_context;

namespace orbweave::obs {

/// The longest pause between two attempts to reach a sound server that went away.
inline constexpr std::chrono::milliseconds sound_server_retry_limit{1000};

class audio_follower {
public:
    /// Follows the PulseAudio sources shown in scene (the device a stream captures, or the
    /// sound that goes with a screen, window or camera). held is the caller's reference to
    /// one of them, given up here so that the source can be remade. Starts a thread only
    /// when the scene shows such a source.
    explicit audio_follower(obs_scene_t* scene, source_handle held = {});
    /// Stops following; the sources stay in the scene. Call before the scene goes.
    ~audio_follower();

    audio_follower(const audio_follower&) = delete;
    audio_follower& operator=(const audio_follower&) = delete;

private:
    struct followed {
        bool input = true;
        std::string device;                 ///< the source's setting: a PulseAudio source, or "default"
        std::string name;                   ///< the libobs source's name
        obs_sceneitem_t* item = nullptr;    ///< a reference of ours
        std::string connected_to;           ///< the PulseAudio source it was made for; "" when none
        std::uint32_t index = UINT32_MAX;   ///< that source's index: a device loaded again has a new one
        bool gone = false;                  ///< its device is not there (and that was logged)
    };
    /// What the server said when asked: its defaults and its sources by name.
    struct snapshot {
        std::string default_source;
        std::string default_sink;
        std::map<std::string, std::uint32_t> sources;
        int pending = 0;
        bool failed = false;
    };

    void run();
    void connect();
    /// Reacts to the connection's state: ready, or lost (then retried after backoff).
    void check_connection(std::chrono::steady_clock::time_point& retry_at, std::chrono::milliseconds& backoff);
    void drop_connection();
    void query();
    /// Compares what the server has with what the sources were made for.
    void apply(const snapshot& server);
    /// Takes the sources at indices off the scene and makes them again; with fresh_connection,
    /// waits until the old ones are destroyed first, so the plug-in connects again.
    void remake(const std::vector<std::size_t>& indices, const snapshot& server, bool fresh_connection);
    std::string wanted_device(const followed& source, const snapshot& server) const;

    obs_scene_t* scene_;
    source_handle held_;
    std::vector<followed> followed_;

    // Touched by the follower's thread only, once it runs.
    pa_mainloop* loop_ = nullptr;
    pa_context* context_ = nullptr;
    bool ready_ = false;
    // The server went away (or was not there) since the sources were made: remake them all.
    bool server_lost_ = false;
    bool loss_logged_ = false;
    // The first answer only learns what the sources were made for.
    bool first_answer_ = true;
    bool refresh_wanted_ = false;
    bool querying_ = false;
    snapshot answer_;

    std::atomic<bool> stop_{false};
    std::thread thread_;
};

} // namespace orbweave::obs
