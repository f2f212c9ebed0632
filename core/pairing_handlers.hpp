#pragma once

// The pairing conversation: the service sends a code to show ("code"), the
// owner's details and the machine's secret once the code is claimed ("ready"),
// and undoes the pairing with "reset".

#include "core/websocket/message_handler.hpp"

namespace orbweave {

class orbweave_client_impl;

/// The pairing-code request the client sends when it has no secret.
Json code_request_without_secret();
/// The pairing-code request that presents the stored secret.
Json code_request_with_secret(const std::string& secret);

class code_handler final : public websocket::message_handler {
public:
    explicit code_handler(orbweave_client_impl* client);
    void handle(const websocket::connection& connection, const Json& message) override;

private:
    orbweave_client_impl* client_;
};

class ready_handler final : public websocket::message_handler {
public:
    explicit ready_handler(orbweave_client_impl* client);
    void handle(const websocket::connection& connection, const Json& message) override;

private:
    orbweave_client_impl* client_;
};

class reset_handler final : public websocket::message_handler {
public:
    explicit reset_handler(orbweave_client_impl* client);
    void handle(const websocket::connection& connection, const Json& message) override;

private:
    orbweave_client_impl* client_;
};

} // namespace orbweave
