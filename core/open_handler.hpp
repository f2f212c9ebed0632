#pragma once

#include "core/websocket/message_handler.hpp"

#include <functional>
#include <system_error>

namespace orbweave {

class orbweave_client_impl;

/// Runs each time a link to the service opens: resets the reconnection state,
/// reports `pairing`, keeps one keep-alive chain pinging the latest link, and
/// asks for a pairing code, presenting the stored secret when there is one.
class open_handler final : public websocket::message_handler {
public:
    explicit open_handler(orbweave_client_impl* client);
    void handle(const websocket::connection& connection, const Json& message) override;

private:
    void keep_alive(const std::error_code& ec);

    orbweave_client_impl* client_;
    bool keep_alive_running_ = false;
};

} // namespace orbweave
