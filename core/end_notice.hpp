#pragma once

// The end of something that can end from several places at once (its owner stopping it, a
// thread that saw its capture go, a library callback) reported exactly once.
//
// The first end() wins: its reason goes to the handler, now if one is set, or when one is.
// Every later end() is ignored and returns false. The handler runs on the thread that made the
// report reach it, outside the notice's lock, so it may call end() again or destroy other
// things safely; it must not destroy the notice itself.

#include <functional>
#include <mutex>
#include <optional>
#include <string>

namespace orbweave {

class end_notice {
public:
    using handler = std::function<void(const std::string& reason)>;

    explicit end_notice(handler on_end = {}) : handler_(std::move(on_end)) {}

    end_notice(const end_notice&) = delete;
    end_notice& operator=(const end_notice&) = delete;

    /// Reports the end with its reason; true when this call was the first.
    bool end(const std::string& reason);

    /// Sets (or replaces) the handler; an end reported before any handler heard it is
    /// handed to this one at once, on the calling thread.
    void on_end(handler on_end);

    /// Stops reports from reaching a handler from now on: an end still counts (and the next
    /// handler set hears it), but nobody is called. For owners whose handler is about to
    /// become invalid.
    void silence();

    bool ended() const;
    /// The first end's reason, if it came.
    std::optional<std::string> reason() const;

private:
    mutable std::mutex mutex_;
    handler handler_;
    std::optional<std::string> reason_;
    bool delivered_ = false;
};

} // namespace orbweave
