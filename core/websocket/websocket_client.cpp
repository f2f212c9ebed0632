#include "core/websocket/websocket_client.hpp"

#include "core/log.hpp"
#include "core/websocket/tls.hpp"

namespace orbweave::websocket {

using std::placeholders::_1;
using std::placeholders::_2;

websocket_client::websocket_client(client_options options)
    : options_(std::move(options)), endpoint_(std::make_shared<endpoint_type>())
{
    endpoint_->set_tls_init_handler(std::bind(&websocket_client::on_tls_init, this, _1));
    websocket_client_init();
}

websocket_client::~websocket_client() = default;

void websocket_client::websocket_client_init()
{
    endpoint_->clear_access_channels(websocketpp::log::alevel::all);
    endpoint_->clear_error_channels(websocketpp::log::elevel::all);
    endpoint_->set_open_handler(std::bind(&websocket_client::on_open, this, _1));
    endpoint_->set_message_handler(std::bind(&websocket_client::on_message, this, _1, _2));
    endpoint_->set_fail_handler(std::bind(&websocket_client::on_fail, this, _1));
    endpoint_->set_close_handler(std::bind(&websocket_client::on_close, this, _1));
    endpoint_->set_pong_timeout_handler(std::bind(&websocket_client::on_pong_timeout, this, _1, _2));
    endpoint_->set_pong_handler([this](connection_hdl handle, const std::string&) {
        std::error_code ec;
        if (auto link = endpoint_->get_con_from_hdl(handle, ec))
            link->awaiting_pong = false;
    });
    endpoint_->set_max_message_size(max_message_bytes);
}

void websocket_client::start(boost::asio::io_service* io, const std::string& url)
{
    endpoint_->init_asio(io);
    queue_connection(url);
}

void websocket_client::restart(const std::string& url)
{
    queue_connection(url);
}

void websocket_client::queue_connection(const std::string& url)
{
    // One link at a time: an earlier one still open is closed before the next is made.
    close_current("replaced by a new connection");

    // The library asks for the TLS context while it creates the connection, before
    // the connection knows its URI, so the host to verify is taken from the URL here.
    websocketpp::uri uri(url);
    connecting_host_ = uri.get_valid() ? uri.get_host() : std::string{};
    std::error_code ec;
    endpoint_type::connection_ptr connection = endpoint_->get_connection(url, ec);
    if (ec) {
        // A URL the library refuses yields no connection; report it like any
        // failed attempt, on the io thread, so the reconnection policy applies.
        log::line("Cannot connect to " + url + ": ", ec.message());
        endpoint_->get_io_service().post([this] { dispatch_local("fail", connection_hdl{}); });
        return;
    }
    connection->set_open_handshake_timeout(options_.open_handshake_timeout_ms);
    connection->set_close_handshake_timeout(options_.close_handshake_timeout_ms);
    connection->set_pong_timeout(options_.pong_timeout_ms);
    current_ = connection->get_handle();
    endpoint_->connect(connection);
}

void websocket_client::close_current(const std::string& reason)
{
    std::error_code ec;
    endpoint_type::connection_ptr open = endpoint_->get_con_from_hdl(current_, ec);
    if (ec || !open || open->get_state() != websocketpp::session::state::open)
        return;
    // Its close must not count as a second failure.
    mark_failed(current_);
    open->close(websocketpp::close::status::going_away, reason, ec);
}

timer_ptr websocket_client::add_timer(long milliseconds, std::function<void(const std::error_code&)> callback)
{
    return endpoint_->set_timer(milliseconds, std::move(callback));
}

void websocket_client::register_message_handler(std::unique_ptr<message_handler>&& handler)
{
    std::string id = handler->id();
    handlers_[id] = std::move(handler);
}

void websocket_client::stop()
{
    endpoint_->stop();
}

std::shared_ptr<boost::asio::ssl::context> websocket_client::on_tls_init(connection_hdl)
{
    return make_client_tls_context(connecting_host_, options_.ca_file);
}

void websocket_client::on_open(connection_hdl handle)
{
    dispatch_local("open", std::move(handle));
}

void websocket_client::on_fail(connection_hdl handle)
{
    if (mark_failed(handle))
        dispatch_local("fail", std::move(handle));
}

void websocket_client::on_close(connection_hdl handle)
{
    if (mark_failed(handle))
        dispatch_local("fail", std::move(handle));
}

bool websocket_client::on_pong_timeout(connection_hdl handle, std::string)
{
    if (mark_failed(handle)) {
        dispatch_local("fail", handle);
        // The link is dead; close it so it does not linger beside the next one.
        std::error_code ignored;
        endpoint_->close(handle, websocketpp::close::status::going_away, "pong timeout", ignored);
    }
    return false;
}

bool websocket_client::mark_failed(const connection_hdl& handle)
{
    for (auto it = failed_.begin(); it != failed_.end();)
        it = it->expired() ? failed_.erase(it) : std::next(it);
    return failed_.insert(handle).second;
}

void websocket_client::on_message(connection_hdl handle, endpoint_type::message_ptr message)
{
    receive(connection(endpoint_, std::move(handle)), message->get_payload());
}

void websocket_client::receive(const connection& from, std::string_view text)
{
    // Parsed once: the log line is written from the same document the handlers get.
    Json message = json::parse(text);
    log::line("In: ", json::redacted_text(text, message));
    dispatch(from, message);
}

void websocket_client::dispatch_local(const char* id, connection_hdl handle)
{
    dispatch(connection(endpoint_, std::move(handle)), Json{{"id", id}});
}

void websocket_client::dispatch(const connection& connection, const Json& message)
{
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    std::string id = json::string_at(message, {"id"});
    auto found = handlers_.find(id);
    if (found == handlers_.end())
        return; // an unknown id, or none: only the "In: " line records it
    message_handler* handler = found->second.get();
    // One failing handler must not take the link down with it: an exception leaving
    // here would stop the library reading this connection. The link is closed and
    // reported as failed instead, and the client reconnects as after any close.
    std::string failure;
    try {
        handler->handle(connection, message);
        return;
    } catch (const std::exception& error) {
        failure = error.what();
    } catch (...) {
        failure = "unknown error";
    }
    log::line("The handler of \"" + id + "\" failed: ", failure);
    if (id == "fail" || connection.handle().expired() || !mark_failed(connection.handle()))
        return;
    std::error_code ignored;
    endpoint_->close(connection.handle(), websocketpp::close::status::internal_endpoint_error, "handler failed",
                     ignored);
    dispatch_local("fail", connection.handle());
}

} // namespace orbweave::websocket
