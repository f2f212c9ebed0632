#pragma once

// The websocketpp types the transport is built on: a TLS client over Boost.Asio.

#include <websocketpp/client.hpp>
#include <websocketpp/config/asio_client.hpp>

namespace orbweave::websocket {

/// websocketpp's asio_tls_client with a short TLS shutdown. The library starts the
/// TLS shutdown while its own read is still pending; that read can swallow the
/// peer's close_notify, and the close is then reported only when the shutdown
/// times out (5 s by default), which would delay every reaction to a lost link.
struct tls_client_config : websocketpp::config::asio_tls_client {
    using type = tls_client_config;
    using base = websocketpp::config::asio_tls_client;

    struct transport_config : base::transport_config {
        using concurrency_type = base::concurrency_type;
        using alog_type = base::alog_type;
        using elog_type = base::elog_type;
        using request_type = base::request_type;
        using response_type = base::response_type;
        using socket_type = websocketpp::transport::asio::tls_socket::endpoint;
        static const long timeout_socket_shutdown = 250;
    };
    using transport_type = websocketpp::transport::asio::endpoint<transport_config>;
};

using endpoint_type = websocketpp::client<tls_client_config>;
using connection_hdl = websocketpp::connection_hdl;
using timer_ptr = endpoint_type::timer_ptr;

} // namespace orbweave::websocket
