#include "tests/tools/wss_test_client.hpp"

#include <websocketpp/client.hpp>
#include <websocketpp/config/asio_client.hpp>

#include <boost/asio/ssl/host_name_verification.hpp>

#include <array>
#include <condition_variable>
#include <deque>
#include <future>
#include <mutex>
#include <thread>

namespace orbweave::test {
namespace {

using client_type = websocketpp::client<websocketpp::config::asio_tls_client>;
using hdl_type = websocketpp::connection_hdl;
namespace asio = boost::asio;

std::shared_ptr<asio::ssl::context> client_context(const std::string& ca_pem, const std::string& host)
{
    auto context = std::make_shared<asio::ssl::context>(asio::ssl::context::tls_client);
    context->set_verify_mode(asio::ssl::verify_peer);
    context->add_certificate_authority(asio::buffer(ca_pem));
    context->set_verify_callback(asio::ssl::host_name_verification(host));
    return context;
}

} // namespace

struct wss_test_client::impl {
    std::string ca_pem;
    client_type client;
    std::thread thread;
    std::promise<void> finished;

    std::mutex mutex;
    std::condition_variable changed;
    hdl_type hdl;
    bool opened = false;
    bool ended = false; // failed or closed
    std::deque<std::string> frames;
    std::size_t pongs = 0;
};

wss_test_client::wss_test_client(std::string ca_pem) : impl_(std::make_unique<impl>())
{
    impl& self = *impl_;
    self.ca_pem = std::move(ca_pem);
    self.client.clear_access_channels(websocketpp::log::alevel::all);
    self.client.clear_error_channels(websocketpp::log::elevel::all);
    self.client.init_asio();
    self.client.start_perpetual();
    self.client.set_open_handler([&self](hdl_type) {
        std::lock_guard<std::mutex> lock(self.mutex);
        self.opened = true;
        self.changed.notify_all();
    });
    auto end = [&self](hdl_type) {
        std::lock_guard<std::mutex> lock(self.mutex);
        self.ended = true;
        self.changed.notify_all();
    };
    self.client.set_fail_handler(end);
    self.client.set_close_handler(end);
    self.client.set_message_handler([&self](hdl_type, client_type::message_ptr message) {
        std::lock_guard<std::mutex> lock(self.mutex);
        self.frames.push_back(message->get_payload());
        self.changed.notify_all();
    });
    self.client.set_pong_handler([&self](hdl_type, std::string) {
        std::lock_guard<std::mutex> lock(self.mutex);
        ++self.pongs;
        self.changed.notify_all();
    });
    self.thread = std::thread([&self] {
        try {
            self.client.run();
        } catch (...) {
        }
        self.finished.set_value();
    });
}

wss_test_client::~wss_test_client()
{
    impl& self = *impl_;
    close();
    self.client.stop_perpetual();
    if (self.finished.get_future().wait_for(std::chrono::seconds(3)) != std::future_status::ready)
        self.client.stop();
    self.thread.join();
}

bool wss_test_client::connect(const std::string& url, duration timeout)
{
    impl& self = *impl_;
    websocketpp::lib::error_code ec;
    websocketpp::uri uri(url);
    std::string host = uri.get_host();
    if (host.size() > 1 && host.front() == '[')
        host = host.substr(1, host.size() - 2);
    auto context = client_context(self.ca_pem, host);
    self.client.set_tls_init_handler([context](hdl_type) { return context; });
    client_type::connection_ptr con = self.client.get_connection(url, ec);
    if (ec)
        return false;
    {
        std::lock_guard<std::mutex> lock(self.mutex);
        self.hdl = con->get_handle();
        self.opened = self.ended = false;
    }
    self.client.connect(con);
    std::unique_lock<std::mutex> lock(self.mutex);
    self.changed.wait_for(lock, timeout, [&self] { return self.opened || self.ended; });
    return self.opened && !self.ended;
}

std::optional<std::string> wss_test_client::wait_for_frame(duration timeout)
{
    impl& self = *impl_;
    std::unique_lock<std::mutex> lock(self.mutex);
    if (!self.changed.wait_for(lock, timeout, [&self] { return !self.frames.empty(); }))
        return std::nullopt;
    std::string frame = std::move(self.frames.front());
    self.frames.pop_front();
    return frame;
}

std::optional<Json> wss_test_client::wait_for_json(duration timeout)
{
    auto frame = wait_for_frame(timeout);
    if (!frame)
        return std::nullopt;
    return json::parse(*frame);
}

void wss_test_client::send(const std::string& text)
{
    impl& self = *impl_;
    asio::post(self.client.get_io_service(), [&self, text] {
        websocketpp::lib::error_code ec;
        self.client.send(self.hdl, text, websocketpp::frame::opcode::text, ec);
    });
}

void wss_test_client::send(const Json& message) { send(json::dump(message)); }

void wss_test_client::ping(const std::string& payload)
{
    impl& self = *impl_;
    asio::post(self.client.get_io_service(), [&self, payload] {
        websocketpp::lib::error_code ec;
        self.client.ping(self.hdl, payload, ec);
    });
}

bool wss_test_client::wait_for_pongs(std::size_t n, duration timeout)
{
    impl& self = *impl_;
    std::unique_lock<std::mutex> lock(self.mutex);
    return self.changed.wait_for(lock, timeout, [&self, n] { return self.pongs >= n; });
}

void wss_test_client::close()
{
    impl& self = *impl_;
    asio::post(self.client.get_io_service(), [&self] {
        websocketpp::lib::error_code ec;
        self.client.close(self.hdl, websocketpp::close::status::normal, "", ec);
    });
}

bool wss_test_client::wait_for_close(duration timeout)
{
    impl& self = *impl_;
    std::unique_lock<std::mutex> lock(self.mutex);
    return self.changed.wait_for(lock, timeout, [&self] { return self.ended; });
}

http_result https_request(std::uint16_t port, const std::string& ca_pem, const std::string& method, const std::string& path,
                          const std::string& body, duration timeout, const std::string& host,
                          const std::string& extra_headers)
{
    asio::io_context io;
    auto context = client_context(ca_pem, host);
    asio::ssl::stream<asio::ip::tcp::socket> stream(io, *context);
    SSL_set_tlsext_host_name(stream.native_handle(), host.c_str());

    std::string request = method + " " + path + " HTTP/1.1\r\nHost: " + host + ":" + std::to_string(port)
                          + "\r\nContent-Type: application/octet-stream\r\nContent-Length: " + std::to_string(body.size())
                          + "\r\n" + (extra_headers.empty() ? "Connection: close\r\n" : extra_headers) + "\r\n" + body;
    http_result result;
    std::string response;
    std::array<char, 16384> buffer;
    bool done = false;

    // Complete once the headers and Content-Length bytes of body are in.
    auto complete = [&] {
        auto end = response.find("\r\n\r\n");
        if (end == std::string::npos)
            return false;
        std::string headers = response.substr(0, end);
        std::size_t length = 0;
        for (std::size_t at = 0; (at = headers.find("\r\n", at)) != std::string::npos;) {
            at += 2;
            std::string line = headers.substr(at, headers.find("\r\n", at) - at);
            std::string lower;
            for (char c : line)
                lower += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
            if (lower.rfind("content-length:", 0) == 0)
                length = std::stoul(line.substr(15));
        }
        if (response.size() < end + 4 + length)
            return false;
        result.status = std::stoi(response.substr(response.find(' ') + 1, 3));
        result.body = response.substr(end + 4, length);
        return true;
    };
    std::function<void()> read_more = [&] {
        stream.async_read_some(asio::buffer(buffer), [&](const boost::system::error_code& ec, std::size_t n) {
            response.append(buffer.data(), n);
            if (complete()) {
                done = true;
                return;
            }
            if (ec) {
                result.error = "read: " + ec.message();
                return;
            }
            read_more();
        });
    };
    asio::ip::tcp::endpoint endpoint(asio::ip::make_address("127.0.0.1"), port);
    stream.lowest_layer().async_connect(endpoint, [&](const boost::system::error_code& ec) {
        if (ec) {
            result.error = "connect: " + ec.message();
            return;
        }
        stream.async_handshake(asio::ssl::stream_base::client, [&](const boost::system::error_code& ec) {
            if (ec) {
                result.error = "handshake: " + ec.message();
                return;
            }
            asio::async_write(stream, asio::buffer(request), [&](const boost::system::error_code& ec, std::size_t) {
                if (ec) {
                    result.error = "write: " + ec.message();
                    return;
                }
                read_more();
            });
        });
    });
    io.run_for(timeout);
    if (!done && result.error.empty())
        result.error = "timed out";
    return result;
}

} // namespace orbweave::test
