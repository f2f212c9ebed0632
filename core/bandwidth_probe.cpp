#include "core/bandwidth_probe.hpp"

#include "core/json.hpp"
#include "core/log.hpp"
#include "core/websocket/tls.hpp"

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <sodium.h>
#include <websocketpp/uri.hpp>

#include <limits>
#include <optional>

namespace orbweave {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;

namespace {

constexpr const char* probe_path = "/api/client/test";

struct probe_target {
    std::string host;
    std::string port;
};

std::optional<probe_target> target_for(const std::string& websocket_url)
{
    websocketpp::uri uri(websocket_url);
    // The probe travels over verified TLS like the link itself, so only wss services qualify.
    if (!uri.get_valid() || uri.get_scheme() != "wss")
        return std::nullopt;
    return probe_target{uri.get_host(), uri.get_port_str()};
}

std::string random_body(std::size_t bytes)
{
    [[maybe_unused]] static const int sodium_ready = sodium_init();
    std::string body(bytes, '\0');
    randombytes_buf(body.data(), body.size());
    return body;
}

// Runs one HTTPS POST with an overall deadline; the answer's body, or nothing.
std::optional<std::string> post(const probe_target& target, const probe_options& options)
{
    asio::io_context io;
    auto context = websocket::make_client_tls_context(target.host, options.ca_file);
    beast::ssl_stream<beast::tcp_stream> stream(io, *context);
    if (!SSL_set_tlsext_host_name(stream.native_handle(), target.host.c_str()))
        return std::nullopt;

    http::request<http::string_body> request{http::verb::post, probe_path, 11};
    request.set(http::field::host, target.host);
    request.set(http::field::content_type, "application/octet-stream");
    request.body() = random_body(options.body_bytes);
    request.prepare_payload();

    beast::flat_buffer buffer;
    http::response<http::string_body> response;
    beast::error_code failure;
    auto fail = [&](beast::error_code ec) {
        if (ec && !failure)
            failure = ec;
        return bool(ec);
    };

    asio::ip::tcp::resolver resolver(io);
    beast::get_lowest_layer(stream).expires_after(options.timeout);
    resolver.async_resolve(target.host, target.port, [&](beast::error_code ec, asio::ip::tcp::resolver::results_type results) {
        if (fail(ec))
            return;
        beast::get_lowest_layer(stream).async_connect(results, [&](beast::error_code ec, auto) {
            if (fail(ec))
                return;
            stream.async_handshake(asio::ssl::stream_base::client, [&](beast::error_code ec) {
                if (fail(ec))
                    return;
                http::async_write(stream, request, [&](beast::error_code ec, std::size_t) {
                    if (fail(ec))
                        return;
                    http::async_read(stream, buffer, response, [&](beast::error_code ec, std::size_t) { fail(ec); });
                });
            });
        });
    });
    // Run in slices so a caller shutting down need not wait out the time-out.
    while (!io.stopped()) {
        io.run_for(std::chrono::milliseconds(100));
        if (!io.stopped() && options.cancelled && options.cancelled()) {
            failure = asio::error::operation_aborted;
            beast::get_lowest_layer(stream).cancel();
            resolver.cancel();
            io.run();
        }
    }

    if (failure) {
        log::line("Bandwidth probe failed: ", failure.message());
        return std::nullopt;
    }
    if (response.result() != http::status::ok) {
        log::line("Bandwidth probe failed: HTTP ", std::to_string(response.result_int()));
        return std::nullopt;
    }
    return std::move(response.body());
}

} // namespace

std::string probe_url_for(const std::string& websocket_url)
{
    auto target = target_for(websocket_url);
    if (!target)
        return {};
    return "https://" + target->host + ":" + target->port + probe_path;
}

std::int32_t bitrate_from_answer(std::string_view body)
{
    Json answer = json::parse(body);
    if (answer.is_null())
        return fallback_bitrate;
    std::int32_t bytes = json::int_at(answer, {"bytes"});
    std::int32_t duration = json::int_at(answer, {"duration"});
    if (duration == 0)
        return fallback_bitrate;
    // Multiplication wraps like 32-bit hardware arithmetic; division truncates toward zero.
    auto bits = static_cast<std::int32_t>(static_cast<std::uint32_t>(bytes) * 8u);
    std::int32_t rate = (bits == std::numeric_limits<std::int32_t>::min() && duration == -1) ? bits : bits / duration;
    return rate / 2;
}

std::int32_t recommended_bitrate(const std::string& websocket_url, const probe_options& options)
{
    auto target = target_for(websocket_url);
    if (!target) {
        log::line("Bandwidth probe skipped: not a service URL: ", websocket_url);
        return fallback_bitrate;
    }
    auto body = post(*target, options);
    return body ? bitrate_from_answer(*body) : fallback_bitrate;
}

} // namespace orbweave
