#pragma once

// Client ends for testing the loopback servers: a websocketpp TLS WebSocket client and
// a one-shot HTTPS request, both verifying the server against a given CA.

#include "core/json.hpp"

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace orbweave::test {

using duration = std::chrono::milliseconds;

class wss_test_client {
public:
    /// Trusts only ca_pem; checks the server certificate against the URL's host.
    explicit wss_test_client(std::string ca_pem);
    /// Closes the connection and joins the client thread (bounded).
    ~wss_test_client();

    /// True once the WebSocket is open; false when it failed or the deadline passed.
    bool connect(const std::string& url, duration timeout);
    std::optional<std::string> wait_for_frame(duration timeout);
    /// The next frame parsed as JSON (null when it is not JSON).
    std::optional<Json> wait_for_json(duration timeout);
    void send(const std::string& text);
    void send(const Json& message);
    void ping(const std::string& payload);
    /// Whether n pongs have arrived by the deadline.
    bool wait_for_pongs(std::size_t n, duration timeout);
    void close();
    /// Whether the connection has closed (by either end) by the deadline.
    bool wait_for_close(duration timeout);

private:
    struct impl;
    std::unique_ptr<impl> impl_;
};

struct http_result {
    int status = 0; ///< 0 when no response arrived
    std::string body;
    std::string error;
};

/// One HTTPS request to 127.0.0.1:port, verifying the server as host against ca_pem.
/// extra_headers are whole "Name: value\r\n" lines. It reads the status line, the headers
/// and Content-Length bytes of body, then drops the connection without a TLS close.
http_result https_request(std::uint16_t port, const std::string& ca_pem, const std::string& method, const std::string& path,
                          const std::string& body, duration timeout, const std::string& host = "127.0.0.1",
                          const std::string& extra_headers = "");

} // namespace orbweave::test
