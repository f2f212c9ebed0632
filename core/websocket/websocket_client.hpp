#pragma once

#include "core/json.hpp"
#include "core/websocket/connection.hpp"
#include "core/websocket/endpoint.hpp"
#include "core/websocket/message_handler.hpp"

#include <boost/asio/io_service.hpp>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <system_error>

namespace orbweave::websocket {

/// Settings of the transport. The defaults are the production values; tests
/// shorten the time-outs instead of waiting them out.
/// The largest message accepted from the service. Its messages are a few kB; a bigger
/// one fails the link with "message too big" (1009) and the client reconnects as after
/// any close. Text frames that are not valid UTF-8 fail it with 1007.
inline constexpr std::size_t max_message_bytes = 1 << 20;

struct client_options {
    /// A CA file trusted in addition to the system store ("" for none).
    std::string ca_file;
    long open_handshake_timeout_ms = 5000;
    long close_handshake_timeout_ms = 5000;
    long pong_timeout_ms = 5000;
};

/// The secure WebSocket link to the service. Every transport event becomes a
/// JSON message dispatched by its "id": frames from the service as they come,
/// and the local events {"id":"open"} when a link opens and {"id":"fail"} when
/// an attempt fails, a pong does not come back in time, or an open link closes.
/// "fail" is dispatched at most once per connection. A handler that throws has
/// its connection closed and reported as "fail"; a new connection closes the
/// previous one first, so at most one link is open.
class websocket_client {
public:
    explicit websocket_client(client_options options = {});
    ~websocket_client();

    websocket_client(const websocket_client&) = delete;
    websocket_client& operator=(const websocket_client&) = delete;

    /// Binds the transport to io (once) and queues a connection to url.
    void start(boost::asio::io_service* io, const std::string& url);
    /// Queues a new connection to url on the io service bound by start().
    void restart(const std::string& url);
    /// Calls callback after milliseconds on the io service's thread, with a
    /// cleared error code, or with an error code set when the timer is cancelled.
    timer_ptr add_timer(long milliseconds, std::function<void(const std::error_code&)> callback);
    /// Stores handler under its id, replacing (destroying) any earlier one.
    void register_message_handler(std::unique_ptr<message_handler>&& handler);
    /// Reads one text frame that arrived on from: logs it ("In: ", secrets hidden), parses
    /// it and dispatches it. The transport calls it for every frame of the service; a
    /// harness may call it on the io thread with an in-memory connection.
    void receive(const connection& from, std::string_view text);
    /// Stops the endpoint's io service; its loop returns as soon as it can.
    void stop();

    /// Held during every dispatch.
    std::recursive_mutex& mutex() { return mutex_; }

private:
    void websocket_client_init();
    void queue_connection(const std::string& url);
    std::shared_ptr<boost::asio::ssl::context> on_tls_init(connection_hdl handle);
    void on_open(connection_hdl handle);
    void on_fail(connection_hdl handle);
    void on_close(connection_hdl handle);
    bool on_pong_timeout(connection_hdl handle, std::string payload);
    void on_message(connection_hdl handle, endpoint_type::message_ptr message);
    void dispatch_local(const char* id, connection_hdl handle);
    void dispatch(const connection& connection, const Json& message);
    bool mark_failed(const connection_hdl& handle);
    void close_current(const std::string& reason);

    client_options options_;
    std::shared_ptr<endpoint_type> endpoint_;
    std::recursive_mutex mutex_;
    std::map<std::string, std::unique_ptr<message_handler>> handlers_;
    // The host of the connection being created; read by on_tls_init.
    std::string connecting_host_;
    // The latest connection queued.
    connection_hdl current_;
    // Connections that already dispatched "fail"; touched only on the io thread.
    std::set<connection_hdl, std::owner_less<connection_hdl>> failed_;
};

} // namespace orbweave::websocket
