#include "core/websocket/connection.hpp"

#include "core/log.hpp"

namespace orbweave::websocket {

namespace {
constexpr const char* ping_payload = "ping!";
} // namespace

connection::connection(std::weak_ptr<endpoint_type> endpoint, connection_hdl handle)
    : endpoint_(std::move(endpoint)), handle_(std::move(handle))
{
}

connection::connection(std::shared_ptr<const frame_sink> sink)
    : sink_(std::move(sink))
{
}

std::shared_ptr<endpoint_type> connection::lock_endpoint() const
{
    auto endpoint = endpoint_.lock();
    if (!endpoint)
        throw websocketpp::exception(websocketpp::error::make_error_code(websocketpp::error::bad_connection));
    return endpoint;
}

void connection::send(const Json& message) const
{
    std::string text = json::dump(message);
    log::line("Out: ", json::dump(json::redacted(message)));
    transmit(text);
}

void connection::send(std::string text) const
{
    log::line("Out: ", json::redacted_text(text));
    transmit(text);
}

void connection::transmit(const std::string& text) const
{
    if (sink_)
        return (*sink_)(text);
    lock_endpoint()->send(handle_, text, websocketpp::frame::opcode::text);
}

void connection::ping() const
{
    std::error_code ec;
    ping(ec);
    if (ec)
        throw websocketpp::exception(ec);
}

void connection::ping(std::error_code& ec) const
{
    ec.clear();
    if (sink_)
        return; // an in-memory link has nothing to keep alive
    auto endpoint = endpoint_.lock();
    if (!endpoint) {
        ec = websocketpp::error::make_error_code(websocketpp::error::bad_connection);
        return;
    }
    auto link = endpoint->get_con_from_hdl(handle_, ec);
    if (ec)
        return;
    // The time-out runs from the first unanswered ping; another would restart it.
    if (link->awaiting_pong)
        return;
    endpoint->ping(handle_, ping_payload, ec);
    if (!ec)
        link->awaiting_pong = true;
}

} // namespace orbweave::websocket
