#pragma once

// The websocketpp types the transport is built on: a TLS client over Boost.Asio.

#include <websocketpp/client.hpp>
#include <websocketpp/config/asio_client.hpp>

namespace orbweave::websocket {

/// A websocketpp TLS configuration (Base) with a short TLS shutdown. The library
/// starts the TLS shutdown while its own read is still pending; that read can
/// swallow the peer's close_notify, and the close is then reported only when the
/// shutdown times out (5 s by default), delaying every reaction to a lost link.
template <class Base, long ShutdownMilliseconds>
struct short_tls_shutdown : Base {
    using type = short_tls_shutdown;
    using base = Base;

    /// What each connection carries beside the library's own state.
    struct connection_base {
        /// A keep-alive ping went out and its pong has not come back. The library
        /// restarts the pong time-out with every ping, so a later ping must not be sent
        /// meanwhile, or a link that stalls would never time out.
        bool awaiting_pong = false;
    };

    struct transport_config : Base::transport_config {
        using concurrency_type = typename Base::concurrency_type;
        using alog_type = typename Base::alog_type;
        using elog_type = typename Base::elog_type;
        using request_type = typename Base::request_type;
        using response_type = typename Base::response_type;
        using socket_type = websocketpp::transport::asio::tls_socket::endpoint;
        static const long timeout_socket_shutdown = ShutdownMilliseconds;
    };
    using transport_type = websocketpp::transport::asio::endpoint<transport_config>;
};

using tls_client_config = short_tls_shutdown<websocketpp::config::asio_tls_client, 250>;
using endpoint_type = websocketpp::client<tls_client_config>;
using connection_hdl = websocketpp::connection_hdl;
using timer_ptr = endpoint_type::timer_ptr;

} // namespace orbweave::websocket
