#pragma once

// A TLS WebSocket server on loopback for tests and the service simulator: its own
// thread, hooks for what arrives, and operations callable from any thread.

#include "tools/wss/tls_identity.hpp"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace orbweave::wss {

/// Identifies one WebSocket connection of a server; numbered from 1 in opening order.
using connection_id = std::uint64_t;

/// A plain HTTP request that arrived on the server's port.
struct http_request {
    std::string method;
    std::string resource; ///< path and query, as sent
    std::string body;
    std::string content_type;
    std::chrono::steady_clock::time_point accepted; ///< when the TCP connection was accepted
    std::chrono::steady_clock::time_point received; ///< when the whole request had arrived
};

/// The answer to an http_request.
struct http_response {
    int status = 404;
    std::string body;
    std::string content_type = "text/plain";
};

/// A ping frame the server received.
struct ping_record {
    std::chrono::steady_clock::time_point at;
    connection_id connection = 0;
    std::string payload;
};

/// Hooks run on the server's thread; each may be empty.
struct server_hooks {
    std::function<void(connection_id)> on_open;
    std::function<void(connection_id)> on_close;
    std::function<void(connection_id, const std::string&)> on_message;
    std::function<void(const ping_record&)> on_ping;
    /// Absent: every plain HTTP request gets 404.
    std::function<http_response(const http_request&)> on_http;
    /// Which WebSocket paths to accept; absent accepts all. A refused upgrade gets 404.
    std::function<bool(const std::string& resource)> accept_path;
};

struct server_options {
    tls_identity identity;
    std::string address = "127.0.0.1";
    std::uint16_t port = 0; ///< 0 picks a free port; a fixed port is bound with SO_REUSEADDR
    server_hooks hooks;
};

class wss_server {
public:
    /// Binds, listens and starts the server thread. Throws std::exception when it cannot bind.
    explicit wss_server(server_options options);
    /// Same as stop().
    ~wss_server();
    wss_server(const wss_server&) = delete;
    wss_server& operator=(const wss_server&) = delete;

    std::uint16_t port() const;
    const tls_identity& identity() const;

    /// Queues a text frame; silently dropped if the connection is gone.
    void send(connection_id connection, const std::string& text);
    /// Starts a normal close handshake (code 1000 unless given).
    void close(connection_id connection, std::uint16_t code = 1000, const std::string& reason = "");
    /// Closes every open connection.
    void close_all(std::uint16_t code = 1001, const std::string& reason = "going away");
    /// Cuts the TCP connection without a WebSocket close handshake.
    void drop(connection_id connection);

    /// Whether pings are answered with pongs (default true).
    void answer_pings(bool answer);
    std::vector<ping_record> pings() const;
    std::size_t ping_count() const;

    /// Connections open right now, oldest first.
    std::vector<connection_id> open_connections() const;

    /// Stops listening, closes every connection and joins the thread. Bounded (about 2 s at
    /// worst, when a peer ignores the close); safe to call more than once, but not from a hook.
    void stop();

private:
    struct impl;
    std::unique_ptr<impl> impl_;
};

} // namespace orbweave::wss
