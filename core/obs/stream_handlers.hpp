#pragma once

// The service's requests for this machine's sources: "list" a kind, "activate"
// (stream) one, "deactivate" one or all. An activation of a kind the user never
// allows is refused before anything about the source is looked up; otherwise the
// permission answer may come later and from any thread. Listings and lookups run on
// the source catalogue's thread, streams on the work manager's. Every reply is sent on
// the network thread.

#include "core/app_callbacks.hpp"
#include "core/obs/source_catalogue.hpp"
#include "core/obs/worker_manager.hpp"
#include "core/websocket/message_handler.hpp"

namespace orbweave::obs {

class list_handler final : public websocket::message_handler {
public:
    list_handler(source_catalogue& catalogue, worker_manager& media, app_callbacks& app);
    void handle(const websocket::connection& connection, const Json& message) override;

private:
    source_catalogue& catalogue_;
    worker_manager& media_;
    app_callbacks& app_;
};

class activate_handler final : public websocket::message_handler {
public:
    activate_handler(source_catalogue& catalogue, worker_manager& media, app_callbacks& app);
    void handle(const websocket::connection& connection, const Json& message) override;

private:
    /// The source is known: the user is asked about it as this machine names it.
    void ask_and_start(const websocket::connection& connection, const websocket::envelope& to,
                       const activate_request& request, const source_entry& entry);

    source_catalogue& catalogue_;
    worker_manager& media_;
    app_callbacks& app_;
};

class deactivate_handler final : public websocket::message_handler {
public:
    deactivate_handler(worker_manager& media, app_callbacks& app);
    void handle(const websocket::connection& connection, const Json& message) override;

private:
    worker_manager& media_;
    app_callbacks& app_;
};

} // namespace orbweave::obs
