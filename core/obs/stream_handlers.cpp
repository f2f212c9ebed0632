#include "core/obs/stream_handlers.hpp"

#include "core/log.hpp"
#include "core/orbweave_client_impl.hpp"
#include "core/websocket/connection.hpp"

namespace orbweave::obs {

using callback::request_type;
using callback::source_type;
using callback::state_type;

namespace {

// Answers may come from an application thread long after the request: a link
// that has gone since must not take that thread down.
void send_reply(const websocket::connection& connection, const Json& reply)
{
    try {
        connection.send(reply);
    } catch (const std::exception& error) {
        log::line("Could not send the reply to " + json::dump(json::at(reply, {"id"})) + ": ", error.what());
    }
}

Json status(const char* text)
{
    return Json{{"status", text}};
}

} // namespace

list_handler::list_handler(orbweave_client_impl* client)
    : message_handler("list"), client_(client)
{
}

Json list_handler::make_result(source_type::type type)
{
    Json results;
    std::string outcome = "Failure";
    auto& manager = client_->work_manager();
    switch (type) {
    case source_type::screen: results = to_json(manager.list_screens()); break;
    case source_type::window: results = to_json(manager.list_windows()); break;
    case source_type::audio: results = to_json(manager.list_audios()); break;
    case source_type::video: results = to_json(manager.list_videos()); break;
    case source_type::none: break;
    }
    if (type != source_type::none)
        outcome = "Success";
    return Json{{"status", outcome}, {"results", results}};
}

void list_handler::handle(const websocket::connection& connection, const Json& message)
{
    source_type::type type = source_type::map(json::string_at(message, {"payload", "type"}));
    callback::request request([this, connection, message, type](bool allowed) {
        if (!allowed) {
            send_reply(connection, websocket::reply_to(message, status("Rejected")));
            return;
        }
        Json result;
        try {
            result = make_result(type);
        } catch (const std::exception& error) {
            // The catalogue could not be read (its worker failed): say so rather than stay silent.
            log::line("Listing failed: ", error.what());
            result = Json{{"status", "Failure"}, {"results", nullptr}, {"error", error.what()}};
        }
        send_reply(connection, websocket::reply_to(message, result));
    });
    client_->signal_on_permission(type, "", "", request_type::list, request);
}

activate_handler::activate_handler(orbweave_client_impl* client)
    : message_handler("activate"), client_(client)
{
}

void activate_handler::handle(const websocket::connection& connection, const Json& message)
{
    source_type::type type = source_type::map(json::string_at(message, {"payload", "source", "type"}));
    Json entry;
    try {
        entry = client_->work_manager().get_source_info(message);
    } catch (const std::exception& error) {
        log::line("Could not look the source up: ", error.what());
    }
    std::string name = json::string_at(entry, {"name"});
    std::string description = json::string_at(entry, {"description"});
    encode_profile profile = client_->signal_on_profile();

    callback::request request([client = client_, connection, message, profile](bool allowed) {
        if (!allowed) {
            send_reply(connection, websocket::reply_to(message, status("Rejected")));
            return;
        }
        auto& manager = client->work_manager();
        bool was_empty = manager.is_empty();
        auto outcome = manager.activate(message, profile);
        if (!outcome.started) {
            // Nothing was kept: the service must not wait for a stream that never comes.
            log::line("The stream did not start: ", outcome.error);
            send_reply(connection, websocket::reply_to(message, {{"status", "Failure"}, {"error", outcome.error}}));
            return;
        }
        send_reply(connection, websocket::reply_to(message, status("Success")));
        if (was_empty)
            client->signal_on_state_change(state_type::streaming);
    });
    client_->signal_on_permission(type, name, description, request_type::activate, request);
}

deactivate_handler::deactivate_handler(orbweave_client_impl* client)
    : message_handler("deactivate"), client_(client)
{
}

void deactivate_handler::handle(const websocket::connection& connection, const Json& message)
{
    client_->work_manager().deactivate(connection, message);
    if (client_->work_manager().is_empty())
        client_->signal_on_state_change(state_type::connected);
}

} // namespace orbweave::obs
