#pragma once

#include "core/json.hpp"
#include "core/websocket/endpoint.hpp"

#include <memory>
#include <string>
#include <system_error>

namespace orbweave::websocket {

/// The handle through which a handler answers: the endpoint and one connection.
/// Cheap to copy and safe to keep: once the link or the whole transport is gone,
/// sending raises websocketpp's "Bad Connection" instead of touching freed memory.
class connection {
public:
    connection() = default;
    connection(std::weak_ptr<endpoint_type> endpoint, connection_hdl handle);

    /// Serialises the message, logs it as "Out: " (secrets hidden) and sends it as
    /// one text frame; throws websocketpp::exception when it cannot be sent.
    void send(const Json& message) const;
    /// Logs the text as "Out: " (secrets hidden) and sends it as one text frame.
    void send(std::string text) const;
    /// Sends a ping frame with the payload "ping!", unless one is still unanswered (its
    /// pong time-out keeps running); throws when it cannot.
    void ping() const;
    /// The same, reporting failure through ec instead of throwing.
    void ping(std::error_code& ec) const;

    const connection_hdl& handle() const { return handle_; }

private:
    std::shared_ptr<endpoint_type> lock_endpoint() const;

    std::weak_ptr<endpoint_type> endpoint_;
    connection_hdl handle_;
};

} // namespace orbweave::websocket
