#pragma once

#include "core/websocket/message_handler.hpp"

namespace orbweave {

/// Answers "identify" with this machine's name, fingerprint, system and version.
class identify_handler final : public websocket::message_handler {
public:
    identify_handler();
    void handle(const websocket::connection& connection, const Json& message) override;

    /// The reply to a request, as sent.
    static Json make_reply(const Json& message);
};

} // namespace orbweave
