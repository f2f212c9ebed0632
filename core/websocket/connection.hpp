#pragma once

#include "core/json.hpp"
#include "core/websocket/endpoint.hpp"

#include <functional>
#include <memory>
#include <string>
#include <system_error>

namespace orbweave::websocket {

/// The handle through which a handler answers: the endpoint and one connection.
/// Cheap to copy and safe to keep: once the link or the whole transport is gone,
/// sending raises websocketpp's "Bad Connection" instead of touching freed memory.
class connection {
public:
    /// Where the frames of an in-memory link go. It stands in for the network where a
    /// harness drives the handlers without sockets (the dispatch fuzz target).
    using frame_sink = std::function<void(const std::string& text)>;

    connection() = default;
    connection(std::weak_ptr<endpoint_type> endpoint, connection_hdl handle);
    /// An in-memory link: send() logs each frame and hands it to sink, ping() does nothing.
    explicit connection(std::shared_ptr<const frame_sink> sink);

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

    void transmit(const std::string& text) const;

    std::weak_ptr<endpoint_type> endpoint_;
    connection_hdl handle_;
    std::shared_ptr<const frame_sink> sink_;
};

} // namespace orbweave::websocket
