// Fuzz target: a frame from the service as the client reads it. Parsing, the lenient
// accessors every handler reads through, redaction for the log, the typed requests
// (parsed once at the boundary) and the compact dump must take any input within the
// message size limit without crashing, hanging or leaking.

#include "core/json.hpp"
#include "core/obs/requests.hpp"
#include "core/websocket/websocket_client.hpp"

#include <cstddef>
#include <cstdint>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace orbweave;
    if (size > websocket::max_message_bytes)
        return -1;
    std::string_view text(reinterpret_cast<const char*>(data), size);
    std::string logged = json::redacted_text(text);
    (void)logged;
    Json message = json::parse(text);
    (void)json::string_at(message, {"id"});
    (void)json::string_at(message, {"state"});
    (void)json::int_at(message, {"payload", "options", "width"});
    (void)json::bool_at(message, {"payload", "isActive"});
    (void)json::string_at(message, {"payload", "source", "type"});
    (void)obs::activate_request::parse(message);
    (void)obs::deactivate_request::parse(message);
    (void)json::dump(json::redacted(message));
    return 0;
}
