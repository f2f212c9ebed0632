#pragma once

// The pairing conversation: the service sends a code to show ("code"), the
// owner's details and the machine's secret once the code is claimed ("ready"),
// and undoes the pairing with "reset". The desktop's screen-cast consent goes with the
// pairing: a reset, or a pairing with another account, forgets it.

#include "core/app_callbacks.hpp"
#include "core/websocket/message_handler.hpp"

namespace orbweave {

namespace obs {
class restore_tokens;
class worker_manager;
} // namespace obs

/// The pairing-code request the client sends when it has no secret.
Json code_request_without_secret();
/// The pairing-code request that presents the stored secret.
Json code_request_with_secret(const std::string& secret);

class code_handler final : public websocket::message_handler {
public:
    explicit code_handler(app_callbacks& app);
    void handle(const websocket::connection& connection, const Json& message) override;

private:
    app_callbacks& app_;
};

class ready_handler final : public websocket::message_handler {
public:
    ready_handler(app_callbacks& app, obs::worker_manager& media, obs::restore_tokens& consent);
    void handle(const websocket::connection& connection, const Json& message) override;

private:
    app_callbacks& app_;
    obs::worker_manager& media_;
    obs::restore_tokens& consent_;
};

class reset_handler final : public websocket::message_handler {
public:
    reset_handler(app_callbacks& app, obs::worker_manager& media, obs::restore_tokens& consent);
    void handle(const websocket::connection& connection, const Json& message) override;

private:
    app_callbacks& app_;
    obs::worker_manager& media_;
    obs::restore_tokens& consent_;
};

} // namespace orbweave
