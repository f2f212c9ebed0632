#pragma once

// A TLS WebSocket peer on loopback that plays the service in the client's transport
// tests: it records what the client sends and lets a test wait for it with deadlines.

#include "tests/support/temp_dir.hpp"
#include "tools/wss/wss_server.hpp"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace orbweave::test {

class service_peer {
public:
    using duration = std::chrono::milliseconds;

    /// Starts listening on 127.0.0.1 (port 0 picks a free one) with the identity, and
    /// writes the identity's CA to ca_file().
    explicit service_peer(wss::tls_identity identity = wss::tls_identity::generate(), std::uint16_t port = 0);
    ~service_peer();
    service_peer(const service_peer&) = delete;
    service_peer& operator=(const service_peer&) = delete;

    std::uint16_t port() const { return port_; }
    /// "wss://127.0.0.1:<port><path>".
    std::string url(const std::string& path = "/api/client") const;
    /// A PEM file holding the CA that issued the server certificate.
    const std::string& ca_file() const { return ca_file_; }

    /// The next connection opened since the last call; nullopt at the deadline.
    std::optional<wss::connection_id> wait_for_connection(duration timeout);
    /// The next connection closed since the last call; nullopt at the deadline.
    std::optional<wss::connection_id> wait_for_disconnect(duration timeout);
    /// The next text frame received, in order; nullopt at the deadline.
    std::optional<std::string> wait_for_frame(duration timeout);
    /// Whether at least n pings have arrived (on any connection) by the deadline.
    bool wait_for_pings(std::size_t n, duration timeout);

    /// Every text frame received so far.
    std::vector<std::string> frames() const;
    std::vector<wss::ping_record> pings() const;

    /// Sends text to the latest open connection; false when none is open.
    bool send(const std::string& text);
    /// Closes the latest open connection with a close handshake.
    void close_latest();
    /// Cuts the latest open connection without a close handshake.
    void drop_latest();
    /// Whether pings are answered with pongs (default true).
    void answer_pings(bool answer);
    /// Answers plain HTTP requests (default: 404).
    void set_http_handler(std::function<wss::http_response(const wss::http_request&)> handler);

    /// Closes everything and stops listening.
    void stop();

private:
    void start();
    std::optional<wss::connection_id> latest() const;

    wss::tls_identity identity_;
    std::uint16_t port_;
    temp_dir dir_;
    std::string ca_file_;
    std::unique_ptr<wss::wss_server> server_;

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<wss::connection_id> opened_;
    std::vector<wss::connection_id> closed_;
    std::vector<std::string> frames_;
    std::size_t opened_taken_ = 0;
    std::size_t closed_taken_ = 0;
    std::size_t frames_taken_ = 0;
    std::size_t ping_count_ = 0;
    bool answer_pings_ = true;
    std::function<wss::http_response(const wss::http_request&)> http_handler_;
};

} // namespace orbweave::test
