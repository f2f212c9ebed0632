#include "core/obs/stream_handlers.hpp"

#include "core/log.hpp"
#include "core/obs/requests.hpp"
#include "core/orbweave_client_impl.hpp"
#include "core/websocket/connection.hpp"

namespace orbweave::obs {

using callback::request_type;
using callback::source_type;
using callback::state_type;

namespace {

// A reply may go out long after its request: a link that has gone since is
// logged, not thrown into the network loop.
void send_reply(const websocket::connection& connection, const websocket::envelope& to, Json payload)
{
    try {
        connection.send(to.reply(std::move(payload)));
    } catch (const std::exception& error) {
        log::line("Could not send the reply to " + json::dump(to.id) + ": ", error.what());
    }
}

Json status(const char* text)
{
    return Json{{"status", text}};
}

Json failure(const std::string& error)
{
    return Json{{"status", "Failure"}, {"error", error}};
}

} // namespace

list_handler::list_handler(orbweave_client_impl* client)
    : message_handler("list"), client_(client)
{
}

void list_handler::handle(const websocket::connection& connection, const Json& message)
{
    source_type::type kind = source_type::map(json::string_at(message, {"payload", "type"}));
    auto to = websocket::envelope::of(message);
    client_->ask_permission(kind, "", "", request_type::list, [client = client_, connection, to, kind](bool allowed) {
        if (!allowed)
            return send_reply(connection, to, status("Rejected"));
        if (kind == source_type::none)
            return send_reply(connection, to, Json{{"status", "Failure"}, {"results", nullptr}});
        client->work_manager().list(kind, [connection, to](const worker_manager::listing& listed) {
            if (!listed.error.empty()) {
                // The catalogue could not be read (its worker failed): say so rather than stay silent.
                log::line("Listing failed: ", listed.error);
                return send_reply(connection, to, {{"status", "Failure"}, {"results", nullptr}, {"error", listed.error}});
            }
            send_reply(connection, to, {{"status", "Success"}, {"results", listed.entries}});
        });
    });
}

activate_handler::activate_handler(orbweave_client_impl* client)
    : message_handler("activate"), client_(client)
{
}

void activate_handler::handle(const websocket::connection& connection, const Json& message)
{
    activate_request request = activate_request::parse(message);
    auto to = websocket::envelope::of(message);
    if (request.source.kind == source_type::none)
        return send_reply(connection, to, failure("unknown source type"));

    // The user is asked about the source as this machine names it, so it is looked up first.
    client_->work_manager().find_source(request.source, [client = client_, connection, to,
                                                          request](const worker_manager::lookup& found) {
        if (!found.entry) {
            std::string error = found.error.empty() ? "source not found" : found.error;
            log::line("The stream did not start: ", error);
            return send_reply(connection, to, failure(error));
        }
        encode_profile profile = client->signal_on_profile();
        const source_entry& entry = *found.entry;
        client->ask_permission(
            request.source.kind, entry_name(entry), entry_description(entry), request_type::activate,
            [client, connection, to, request, entry, profile](bool allowed) {
                if (!allowed)
                    return send_reply(connection, to, status("Rejected"));
                client->work_manager().activate(
                    request, entry, profile.bitrate, [client, connection, to](const worker_manager::activation& outcome) {
                        if (!outcome.started) {
                            // Nothing was kept: the service must not wait for a stream that never comes.
                            log::line("The stream did not start: ", outcome.error);
                            if (outcome.rejected) // the user said no in the desktop's own picker
                                return send_reply(connection, to, status("Rejected"));
                            return send_reply(connection, to, failure(outcome.error));
                        }
                        send_reply(connection, to, status("Success"));
                        if (outcome.first)
                            client->signal_on_state_change(state_type::streaming);
                    });
            });
    });
}

deactivate_handler::deactivate_handler(orbweave_client_impl* client)
    : message_handler("deactivate"), client_(client)
{
}

void deactivate_handler::handle(const websocket::connection& connection, const Json& message)
{
    worker_manager::deactivation outcome = client_->work_manager().deactivate(deactivate_request::parse(message));
    // A source that is not streaming gets no answer at all.
    if (outcome.known)
        send_reply(connection, websocket::envelope::of(message), status("Success"));
    if (outcome.now_empty)
        client_->signal_on_state_change(state_type::connected);
}

} // namespace orbweave::obs
