#pragma once

// The service's requests for this machine's sources: "list" a kind, "activate"
// (stream) one, "deactivate" one or all. Listing and activation need the
// application's permission, which may come later and from any thread; the media
// work runs on the work manager's threads. Every reply is sent on the network thread.

#include "core/callback.hpp"
#include "core/websocket/message_handler.hpp"

namespace orbweave {
class orbweave_client_impl;
}

namespace orbweave::obs {

class list_handler final : public websocket::message_handler {
public:
    explicit list_handler(orbweave_client_impl* client);
    void handle(const websocket::connection& connection, const Json& message) override;

private:
    orbweave_client_impl* client_;
};

class activate_handler final : public websocket::message_handler {
public:
    explicit activate_handler(orbweave_client_impl* client);
    void handle(const websocket::connection& connection, const Json& message) override;

private:
    orbweave_client_impl* client_;
};

class deactivate_handler final : public websocket::message_handler {
public:
    explicit deactivate_handler(orbweave_client_impl* client);
    void handle(const websocket::connection& connection, const Json& message) override;

private:
    orbweave_client_impl* client_;
};

} // namespace orbweave::obs
