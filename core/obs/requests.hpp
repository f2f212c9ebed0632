#pragma once

// The service's stream requests as the client acts on them: each frame is read
// into one of these where it arrives, and nothing past that point reads the raw
// document again.

#include "core/callback.hpp"
#include "core/encode_profile.hpp"
#include "core/json.hpp"

#include <optional>
#include <string>

namespace orbweave::obs {

/// The source a request names: "payload"."source"."type" and "id".
struct source_ref {
    callback::source_type::type kind = callback::source_type::none;
    std::string id;
};

/// An "activate": which source, at what quality and size, to which ingest.
struct activate_request {
    source_ref source;
    /// "options"."profile", compared exactly; low for anything else.
    profile_type::type profile = profile_type::low;
    /// "options"."width" / "height" when they are JSON numbers. "fps" is not read:
    /// every stream runs at 30 frames per second.
    std::optional<int> width;
    std::optional<int> height;
    /// "service"."server" and "service"."key".
    std::string server;
    std::string key;

    static activate_request parse(const Json& message);
};

/// A "deactivate": one source, or every stream when "payload" is not an object.
struct deactivate_request {
    bool all = false;
    std::string id;

    static deactivate_request parse(const Json& message);
};

} // namespace orbweave::obs
