#include "core/obs/stream_handlers.hpp"

#include "core/log.hpp"
#include "core/obs/requests.hpp"
#include "core/websocket/connection.hpp"

#include <algorithm>

namespace orbweave::obs {

using callback::permission_rule;
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

/// A reason for the history: whatever a worker said, without the stream key or the
/// ingest's path (an error may quote the URL it failed on).
std::string scrubbed(std::string reason, const activate_request& request)
{
    auto blank = [&reason](const std::string& secret, const std::string& with) {
        if (secret.empty())
            return;
        for (auto at = reason.find(secret); at != std::string::npos; at = reason.find(secret, at + with.size()))
            reason.replace(at, secret.size(), with);
    };
    blank(request.server, activity_log::ingest_of(request.server));
    blank(request.key, "***");
    return reason;
}

/// The history's event for an activation of entry (or of an id not found: no name).
activity_event activation_event(const char* event, const activate_request& request, const std::string& source)
{
    activity_event line;
    line.event = event;
    line.kind = request.source.kind;
    line.source = source;
    line.ingest = activity_log::ingest_of(request.server);
    return line;
}

/// The entries as the service sees them, marked active where streaming.
Json marked(const std::vector<source_entry>& entries, const std::vector<std::string>& active)
{
    Json array = Json::array();
    for (source_entry entry : entries) {
        bool streaming = std::find(active.begin(), active.end(), entry_id(entry)) != active.end();
        std::visit([streaming](auto& typed) { typed.is_active = streaming; }, entry);
        array.push_back(to_json(entry));
    }
    return array;
}

} // namespace

list_handler::list_handler(source_catalogue& catalogue, worker_manager& media, app_callbacks& app)
    : message_handler("list"), catalogue_(catalogue), media_(media), app_(app)
{
}

void list_handler::handle(const websocket::connection& connection, const Json& message)
{
    source_type::type kind = source_type::map(json::string_at(message, {"payload", "type"}));
    auto to = websocket::envelope::of(message);
    auto& history = app_.activity();
    app_.ask_permission(kind, "", "", request_type::list,
                        [&catalogue = catalogue_, &media = media_, &history, connection, to, kind](
                            bool allowed, const char* decided) {
        activity_event line;
        line.kind = kind;
        line.decided = decided;
        if (!allowed) {
            line.event = "deny";
            line.outcome = "rejected";
            history.record(line);
            return send_reply(connection, to, status("Rejected"));
        }
        if (kind == source_type::none)
            return send_reply(connection, to, Json{{"status", "Failure"}, {"results", nullptr}});
        catalogue.list(kind, [&media, connection, to, &history, line](const source_catalogue::listing& listed) mutable {
            line.event = "list";
            if (!listed.error.empty()) {
                // The catalogue could not be read (its worker failed): say so rather than stay silent.
                log::line("Listing failed: ", listed.error);
                line.outcome = "failed";
                line.reason = listed.error;
                history.record(line);
                return send_reply(connection, to, {{"status", "Failure"}, {"results", nullptr}, {"error", listed.error}});
            }
            line.outcome = "listed";
            history.record(line);
            send_reply(connection, to, {{"status", "Success"}, {"results", marked(listed.entries, media.active_ids())}});
        });
    });
}

activate_handler::activate_handler(source_catalogue& catalogue, worker_manager& media, app_callbacks& app)
    : message_handler("activate"), catalogue_(catalogue), media_(media), app_(app)
{
}

void activate_handler::handle(const websocket::connection& connection, const Json& message)
{
    activate_request request = activate_request::parse(message);
    auto to = websocket::envelope::of(message);
    if (request.source.kind == source_type::none)
        return send_reply(connection, to, failure("unknown source type"));
    // Before any lookup: whether a source exists is nobody's business for a kind the
    // user never allows.
    if (app_.rule(request.source.kind) == permission_rule::never) {
        activity_event line = activation_event("deny", request, "");
        line.decided = "rule";
        line.outcome = "rejected";
        app_.activity().record(line);
        return send_reply(connection, to, status("Rejected"));
    }

    // The service lists before it activates, so the entry is usually at hand; otherwise
    // the listing worker looks that one source up.
    if (std::optional<source_entry> listed = catalogue_.listed_source(request.source))
        return ask_and_start(connection, to, request, *listed);
    catalogue_.find_source(request.source, [this, connection, to, request](const source_catalogue::lookup& found) {
        if (!found.entry) {
            std::string error = found.error.empty() ? "source not found" : found.error;
            log::line("The stream did not start: ", error);
            activity_event line = activation_event("activate", request, "");
            line.outcome = "failed";
            line.reason = scrubbed(error, request);
            app_.activity().record(line);
            return send_reply(connection, to, failure(error));
        }
        ask_and_start(connection, to, request, *found.entry);
    });
}

void activate_handler::ask_and_start(const websocket::connection& connection, const websocket::envelope& to,
                                     const activate_request& request, const source_entry& entry)
{
    // Nobody is asked about a stream that could not start; the limit is checked again
    // once the answer comes, since streams may have started meanwhile.
    if (std::string refused = media_.refusal(); !refused.empty()) {
        log::line("The stream did not start: ", refused);
        activity_event line = activation_event("activate", request, entry_name(entry));
        line.decided = "rule";
        line.outcome = "failed";
        line.reason = refused;
        app_.activity().record(line);
        return send_reply(connection, to, failure(refused));
    }
    auto start = [this, connection, to, request, entry](bool allowed, const char* decided) {
        activity_event line = activation_event("activate", request, entry_name(entry));
        line.decided = decided;
        if (!allowed) {
            line.event = "deny";
            line.outcome = "rejected";
            app_.activity().record(line);
            return send_reply(connection, to, status("Rejected"));
        }
        media_.activate(request, entry, app_.profile().bitrate,
                        [&app = app_, connection, to, request, line](const worker_manager::activation& outcome) mutable {
                            if (!outcome.started) {
                                // Nothing was kept: the service must not wait for a stream that never comes.
                                log::line("The stream did not start: ", outcome.error);
                                if (outcome.rejected) { // the user said no in the desktop's own picker
                                    line.event = "deny";
                                    line.decided = "user";
                                    line.outcome = "rejected";
                                    app.activity().record(line);
                                    return send_reply(connection, to, status("Rejected"));
                                }
                                line.outcome = "failed";
                                line.reason = scrubbed(outcome.error, request);
                                app.activity().record(line);
                                return send_reply(connection, to, failure(outcome.error));
                            }
                            line.outcome = "started";
                            app.activity().started(request.source.id, line);
                            send_reply(connection, to, status("Success"));
                            if (outcome.first)
                                app.state_changed(state_type::streaming);
                        });
    };
    app_.ask_permission(request.source.kind, entry_name(entry), entry_description(entry), request_type::activate,
                        std::move(start));
}

deactivate_handler::deactivate_handler(worker_manager& media, app_callbacks& app)
    : message_handler("deactivate"), media_(media), app_(app)
{
}

void deactivate_handler::handle(const websocket::connection& connection, const Json& message)
{
    deactivate_request request = deactivate_request::parse(message);
    worker_manager::deactivation outcome = media_.deactivate(request);
    // A source that is not streaming gets no answer at all.
    if (outcome.known) {
        constexpr const char* why = "stopped by the service";
        if (request.all)
            app_.activity().stopped_all("deactivate", why);
        else
            app_.activity().stopped(request.id, "deactivate", why);
        send_reply(connection, websocket::envelope::of(message), status("Success"));
    }
    if (outcome.now_empty)
        app_.state_changed(state_type::connected);
}

} // namespace orbweave::obs
