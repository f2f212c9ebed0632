#pragma once

// Types shared by the client core, the protocol handlers and the front ends.

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace orbweave::callback {

/// The client's state as reported to the application.
struct state_type {
    enum type : std::int32_t {
        pairing = 0,      ///< link open, not yet paired
        connected = 1,    ///< paired, no stream
        disconnected = 2, ///< link down or reset
        streaming = 3,    ///< paired, at least one stream
    };
    static const char* name(type state);
};

/// The kinds of capture source the service can ask for.
struct source_type {
    enum type : std::int32_t { none = 0, screen = 1, window = 2, audio = 3, video = 4 };
    /// "screen", "window", "audio", "video" in any letter case; anything else is none.
    static type map(const std::string& text);
    static const char* name(type source);
};

/// What a permission request is for.
struct request_type {
    enum type : std::int32_t { list = 0, activate = 1 };
    static const char* name(type request);
};

/// How the user treats a kind of source: asked each time, always allowed, or never.
struct permission_rule {
    enum type : std::int32_t { ask = 0, allow = 1, never = 2 };
};

/// A stream that runs now, and the source it captures as this machine names it.
struct active_stream {
    std::string id;
    source_type::type kind = source_type::none;
    std::string name;
    std::string description;

    bool operator==(const active_stream& other) const
    {
        return id == other.id && kind == other.kind && name == other.name && description == other.description;
    }
};

/// A pending permission request. Copies share one answer: the first call of
/// answer() on any copy, from any thread, acts; every later call is ignored.
class request {
public:
    request() = default;
    explicit request(std::function<void(bool)> answer);

    /// Delivers the user's decision: true allows, false denies. Returns at once.
    void answer(bool allowed) const;
    /// Whether there is an answer function at all.
    explicit operator bool() const { return state_ && state_->answer; }

private:
    struct state {
        std::atomic<bool> answered{false};
        std::function<void(bool)> answer;
    };
    std::shared_ptr<state> state_;
};

namespace msg {
/// What the service hands over when an account claims this machine.
struct ready {
    std::string secret;
    std::string displayName;
    std::string avatar;
};
} // namespace msg

} // namespace orbweave::callback
