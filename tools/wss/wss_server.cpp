#include "tools/wss/wss_server.hpp"

#include "core/websocket/endpoint.hpp"

#include "core/log.hpp"

#include <websocketpp/config/asio.hpp>
#include <websocketpp/server.hpp>

#include <boost/asio/post.hpp>
#include <openssl/ssl.h>

#include <atomic>
#include <future>
#include <map>
#include <mutex>
#include <thread>

namespace orbweave::wss {
namespace {

// A short TLS shutdown, as on the client side, so closes are seen at once.
using server_config = websocket::short_tls_shutdown<websocketpp::config::asio_tls, 100>;
using server_type = websocketpp::server<server_config>;
using hdl_type = websocketpp::connection_hdl;
using clock_type = std::chrono::steady_clock;
namespace asio = boost::asio;

// How long stop() lets close handshakes run before it abandons them.
constexpr auto stop_grace = std::chrono::seconds(2);

std::shared_ptr<asio::ssl::context> make_context(const tls_identity& identity)
{
    auto context = std::make_shared<asio::ssl::context>(asio::ssl::context::tls_server);
    context->set_options(asio::ssl::context::default_workarounds | asio::ssl::context::no_sslv2
                         | asio::ssl::context::no_sslv3 | asio::ssl::context::no_tlsv1
                         | asio::ssl::context::no_tlsv1_1 | asio::ssl::context::single_dh_use);
    SSL_CTX_set_min_proto_version(context->native_handle(), TLS1_2_VERSION);
    context->use_certificate_chain(asio::buffer(identity.certificate));
    context->use_private_key(asio::buffer(identity.private_key), asio::ssl::context::pem);
    return context;
}

template <typename Hook, typename... Args>
void call_hook(const char* name, const Hook& hook, Args&&... args)
{
    if (!hook)
        return;
    try {
        hook(std::forward<Args>(args)...);
    } catch (const std::exception& e) {
        log::line(std::string("wss_server: ") + name + " hook threw: ", e.what());
    }
}

} // namespace

struct wss_server::impl {
    server_options options;
    std::shared_ptr<asio::ssl::context> context;
    server_type server;
    std::uint16_t port = 0;
    std::thread thread;
    std::promise<void> finished;
    std::mutex stop_mutex;
    bool stopped = false;

    std::atomic<bool> answer_pings{true};
    mutable std::mutex mutex;
    connection_id next_id = 1;
    std::map<connection_id, hdl_type> open;
    std::map<hdl_type, connection_id, std::owner_less<hdl_type>> ids;
    std::map<hdl_type, clock_type::time_point, std::owner_less<hdl_type>> accepted;
    std::vector<ping_record> pings;

    connection_id id_of(const hdl_type& hdl) const
    {
        std::lock_guard<std::mutex> lock(mutex);
        auto it = ids.find(hdl);
        return it == ids.end() ? 0 : it->second;
    }

    std::vector<connection_id> open_ids() const
    {
        std::lock_guard<std::mutex> lock(mutex);
        std::vector<connection_id> all;
        for (const auto& entry : open)
            all.push_back(entry.first);
        return all;
    }

    hdl_type hdl_of(connection_id id) const
    {
        std::lock_guard<std::mutex> lock(mutex);
        auto it = open.find(id);
        return it == open.end() ? hdl_type() : it->second;
    }

    // Runs work on the server thread, where websocketpp expects to be driven.
    template <typename F>
    void post(F work)
    {
        asio::post(server.get_io_service(), [work = std::move(work)]() mutable {
            try {
                work();
            } catch (const std::exception& e) {
                log::line("wss_server: ", e.what());
            }
        });
    }

    void on_open(hdl_type hdl)
    {
        connection_id id;
        {
            std::lock_guard<std::mutex> lock(mutex);
            id = next_id++;
            open.emplace(id, hdl);
            ids.emplace(hdl, id);
            accepted.erase(hdl);
        }
        call_hook("open", options.hooks.on_open, id);
    }

    void on_close(hdl_type hdl)
    {
        connection_id id = 0;
        {
            std::lock_guard<std::mutex> lock(mutex);
            accepted.erase(hdl);
            auto it = ids.find(hdl);
            if (it == ids.end())
                return;
            id = it->second;
            ids.erase(it);
            open.erase(id);
        }
        call_hook("close", options.hooks.on_close, id);
    }

    void on_message(hdl_type hdl, server_type::message_ptr message)
    {
        if (message->get_opcode() != websocketpp::frame::opcode::text)
            return;
        call_hook("message", options.hooks.on_message, id_of(hdl), message->get_payload());
    }

    bool on_ping(hdl_type hdl, std::string payload)
    {
        ping_record record{clock_type::now(), id_of(hdl), std::move(payload)};
        {
            std::lock_guard<std::mutex> lock(mutex);
            pings.push_back(record);
        }
        call_hook("ping", options.hooks.on_ping, record);
        return answer_pings.load();
    }

    void on_http(hdl_type hdl)
    {
        server_type::connection_ptr con = server.get_con_from_hdl(hdl);
        http_request request;
        request.method = con->get_request().get_method();
        request.resource = con->get_resource();
        request.body = con->get_request_body();
        request.content_type = con->get_request_header("Content-Type");
        request.received = clock_type::now();
        {
            std::lock_guard<std::mutex> lock(mutex);
            auto it = accepted.find(hdl);
            request.accepted = it == accepted.end() ? request.received : it->second;
            if (it != accepted.end())
                accepted.erase(it);
        }
        http_response response;
        if (options.hooks.on_http) {
            try {
                response = options.hooks.on_http(request);
            } catch (const std::exception& e) {
                log::line("wss_server: http hook threw: ", e.what());
                response = http_response{500, "internal error\n", "text/plain"};
            }
        }
        con->set_status(static_cast<websocketpp::http::status_code::value>(response.status));
        con->set_body(response.body);
        con->replace_header("Content-Type", response.content_type);
    }

    bool on_validate(hdl_type hdl)
    {
        if (!options.hooks.accept_path)
            return true;
        server_type::connection_ptr con = server.get_con_from_hdl(hdl);
        if (options.hooks.accept_path(con->get_resource()))
            return true;
        con->set_status(websocketpp::http::status_code::not_found);
        return false;
    }
};

wss_server::wss_server(server_options options) : impl_(std::make_unique<impl>())
{
    impl& self = *impl_;
    self.options = std::move(options);
    self.context = make_context(self.options.identity);

    server_type& server = self.server;
    server.clear_access_channels(websocketpp::log::alevel::all);
    server.clear_error_channels(websocketpp::log::elevel::all);
    server.init_asio();
    server.set_reuse_addr(true);
    server.set_close_handshake_timeout(1000);

    auto context = self.context;
    server.set_tls_init_handler([context](hdl_type) { return context; });
    server.set_tcp_pre_init_handler([&self](hdl_type hdl) {
        std::lock_guard<std::mutex> lock(self.mutex);
        self.accepted[hdl] = clock_type::now();
    });
    server.set_open_handler([&self](hdl_type hdl) { self.on_open(hdl); });
    server.set_close_handler([&self](hdl_type hdl) { self.on_close(hdl); });
    server.set_fail_handler([&self](hdl_type hdl) { self.on_close(hdl); });
    server.set_message_handler([&self](hdl_type hdl, server_type::message_ptr m) { self.on_message(hdl, m); });
    server.set_ping_handler([&self](hdl_type hdl, std::string payload) { return self.on_ping(hdl, std::move(payload)); });
    server.set_http_handler([&self](hdl_type hdl) { self.on_http(hdl); });
    server.set_validate_handler([&self](hdl_type hdl) { return self.on_validate(hdl); });

    asio::ip::tcp::endpoint endpoint(asio::ip::make_address(self.options.address), self.options.port);
    server.listen(endpoint);
    server.start_accept();
    websocketpp::lib::asio::error_code ec;
    self.port = server.get_local_endpoint(ec).port();
    if (ec)
        throw std::runtime_error("wss_server: no local endpoint: " + ec.message());

    self.thread = std::thread([&self] {
        for (;;) {
            try {
                self.server.run();
                break;
            } catch (const std::exception& e) {
                log::line("wss_server: ", e.what());
            }
        }
        self.finished.set_value();
    });
}

wss_server::~wss_server() { stop(); }

std::uint16_t wss_server::port() const { return impl_->port; }

const tls_identity& wss_server::identity() const { return impl_->options.identity; }

void wss_server::send(connection_id connection, const std::string& text)
{
    impl_->post([self = impl_.get(), connection, text] {
        hdl_type hdl = self->hdl_of(connection);
        websocketpp::lib::error_code ec;
        self->server.send(hdl, text, websocketpp::frame::opcode::text, ec);
    });
}

void wss_server::close(connection_id connection, std::uint16_t code, const std::string& reason)
{
    impl_->post([self = impl_.get(), connection, code, reason] {
        websocketpp::lib::error_code ec;
        self->server.close(self->hdl_of(connection), code, reason, ec);
    });
}

void wss_server::close_all(std::uint16_t code, const std::string& reason)
{
    impl_->post([self = impl_.get(), code, reason] {
        for (connection_id id : self->open_ids()) {
            websocketpp::lib::error_code ec;
            self->server.close(self->hdl_of(id), code, reason, ec);
        }
    });
}

void wss_server::drop(connection_id connection)
{
    impl_->post([self = impl_.get(), connection] {
        websocketpp::lib::error_code ec;
        server_type::connection_ptr con = self->server.get_con_from_hdl(self->hdl_of(connection), ec);
        if (ec || !con)
            return;
        boost::system::error_code ignored;
        con->get_raw_socket().shutdown(asio::ip::tcp::socket::shutdown_both, ignored);
    });
}

void wss_server::answer_pings(bool answer) { impl_->answer_pings.store(answer); }

std::vector<ping_record> wss_server::pings() const
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->pings;
}

std::size_t wss_server::ping_count() const
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->pings.size();
}

std::vector<connection_id> wss_server::open_connections() const { return impl_->open_ids(); }

void wss_server::stop()
{
    impl& self = *impl_;
    std::lock_guard<std::mutex> stop_lock(self.stop_mutex);
    if (self.stopped)
        return;
    self.stopped = true;
    self.post([&self] {
        websocketpp::lib::error_code ec;
        self.server.stop_listening(ec);
    });
    close_all(1001, "going away");
    // run() returns once the listener and every connection are gone; a peer that never
    // finishes its close handshake must not hold the caller up for long.
    if (self.finished.get_future().wait_for(stop_grace) != std::future_status::ready)
        self.server.stop();
    self.thread.join();
}

} // namespace orbweave::wss
