#pragma once

// The websocketpp types the transport is built on: a TLS client over Boost.Asio.

#include <websocketpp/client.hpp>
#include <websocketpp/config/asio_client.hpp>

namespace orbweave::websocket {

using endpoint_type = websocketpp::client<websocketpp::config::asio_tls_client>;
using connection_hdl = websocketpp::connection_hdl;
using timer_ptr = endpoint_type::timer_ptr;

} // namespace orbweave::websocket
