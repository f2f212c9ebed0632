#include "core/callback.hpp"

#include <cctype>

namespace orbweave::callback {

const char* state_type::name(type state)
{
    switch (state) {
    case pairing: return "pairing";
    case connected: return "connected";
    case disconnected: return "disconnected";
    case streaming: return "streaming";
    }
    return "unknown";
}

source_type::type source_type::map(const std::string& text)
{
    std::string lower;
    lower.reserve(text.size());
    for (unsigned char c : text)
        lower.push_back(static_cast<char>(std::tolower(c)));
    if (lower == "screen") return screen;
    if (lower == "window") return window;
    if (lower == "audio") return audio;
    if (lower == "video") return video;
    return none;
}

const char* source_type::name(type source)
{
    switch (source) {
    case screen: return "screen";
    case window: return "window";
    case audio: return "audio";
    case video: return "video";
    case none: break;
    }
    return "none";
}

const char* request_type::name(type request)
{
    return request == activate ? "activate" : "list";
}

request::request(std::function<void(bool)> answer)
    : state_(std::make_shared<state>())
{
    state_->answer = std::move(answer);
}

void request::answer(bool allowed) const
{
    if (!state_ || !state_->answer)
        return;
    if (state_->answered.exchange(true))
        return;
    state_->answer(allowed);
}

} // namespace orbweave::callback
