// The service line of --check: one TLS handshake with the configured endpoint, trusted
// exactly as the client's link is (the system store plus the given CA, the host name
// checked), bounded, and closed at once: no WebSocket, no pairing.

#include "core/check/checks.hpp"
#include "core/websocket/tls.hpp"

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/host_name_verification.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/asio/steady_timer.hpp>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <websocketpp/uri.hpp>

#include <unistd.h>

#include <ctime>

namespace orbweave::check {

namespace asio = boost::asio;
namespace ssl = asio::ssl;

namespace {

std::string subject_of(X509* certificate)
{
    char text[512];
    X509_NAME_oneline(X509_get_subject_name(certificate), text, sizeof text);
    return text;
}

std::string issuer_of(X509* certificate)
{
    char text[512];
    X509_NAME_oneline(X509_get_issuer_name(certificate), text, sizeof text);
    return text;
}

/// "2027-11-25" and the days left (negative when expired).
std::pair<std::string, int> expiry_of(X509* certificate)
{
    std::tm when{};
    if (!ASN1_TIME_to_tm(X509_get0_notAfter(certificate), &when))
        return {"unknown", 0};
    char text[16];
    std::strftime(text, sizeof text, "%Y-%m-%d", &when);
    int days = 0, seconds = 0;
    ASN1_TIME_diff(&days, &seconds, nullptr, X509_get0_notAfter(certificate));
    return {text, days};
}

} // namespace

item service_check(const settings& options)
{
    Json details{{"url", options.service_url}, {"ca_file", options.ca_file}};
    auto fail = [&](std::string found, std::string fix) {
        return item{"service", status::fail, std::move(found), std::move(fix), details};
    };
    websocketpp::uri uri(options.service_url);
    if (!uri.get_valid() || uri.get_scheme() != "wss")
        return fail("not a wss:// URL: " + options.service_url, "give --service wss://HOST/api/client");
    std::string host = uri.get_host();
    if (!options.ca_file.empty() && ::access(options.ca_file.c_str(), R_OK) != 0)
        return fail("the CA file " + options.ca_file + " cannot be read", "give --ca-file the service's CA certificate (PEM)");

    asio::io_context io;
    auto context = websocket::make_client_tls_context(host, options.ca_file);
    ssl::stream<asio::ip::tcp::socket> stream(io, *context);
    SSL_set_tlsext_host_name(stream.native_handle(), host.c_str());

    // Verify as the link does, but go on to the end of the handshake so that an
    // untrusted certificate can still be described; the first complaint is kept.
    std::string complaint;
    ssl::host_name_verification names(host);
    stream.set_verify_callback([&](bool preverified, ssl::verify_context& verify) {
        X509_STORE_CTX* store = verify.native_handle();
        if (!preverified) {
            if (complaint.empty())
                complaint = X509_verify_cert_error_string(X509_STORE_CTX_get_error(store));
            return true;
        }
        if (X509_STORE_CTX_get_error_depth(store) == 0 && !names(preverified, verify) && complaint.empty())
            complaint = "the certificate does not name " + host;
        return true;
    });

    boost::system::error_code failure;
    bool done = false;
    asio::steady_timer timer(io, tls_limit);
    asio::ip::tcp::resolver resolver(io);
    auto finish = [&](boost::system::error_code ec) {
        if (done)
            return;
        done = true;
        failure = ec;
        timer.cancel();
        resolver.cancel();
        boost::system::error_code ignored;
        stream.lowest_layer().cancel(ignored);
    };
    timer.async_wait([&](boost::system::error_code ec) {
        if (!ec)
            finish(asio::error::timed_out);
    });
    resolver.async_resolve(host, uri.get_port_str(), [&](boost::system::error_code ec, asio::ip::tcp::resolver::results_type results) {
        if (ec)
            return finish(ec);
        asio::async_connect(stream.lowest_layer(), results, [&](boost::system::error_code ec, const asio::ip::tcp::endpoint&) {
            if (ec)
                return finish(ec);
            stream.async_handshake(ssl::stream_base::client, [&](boost::system::error_code ec) { finish(ec); });
        });
    });
    // In slices, so that a cancelled check need not wait out the bound.
    while (!io.stopped()) {
        io.run_for(std::chrono::milliseconds(50));
        if (!done && options.cancelled && options.cancelled())
            finish(asio::error::operation_aborted);
    }

    std::string where = host + ":" + uri.get_port_str();
    if (failure == asio::error::operation_aborted)
        return fail(where + ": the check was cancelled", "run the check again");
    if (failure == asio::error::timed_out)
        return fail(where + " did not complete a TLS handshake within 5 s",
                    "check the network path and the --service URL");
    if (failure)
        return fail(where + ": " + failure.message(),
                    "check the --service URL and that the service is up and reachable from here");

    X509* certificate = SSL_get_peer_certificate(stream.native_handle());
    if (!certificate)
        return fail(where + " presented no certificate", "check the --service URL");
    std::string subject = subject_of(certificate);
    auto [expiry, days] = expiry_of(certificate);
    details["subject"] = subject;
    details["issuer"] = issuer_of(certificate);
    details["expires"] = expiry;
    details["trusted"] = complaint.empty();
    details["protocol"] = SSL_get_version(stream.native_handle());
    X509_free(certificate);
    boost::system::error_code ignored;
    stream.lowest_layer().close(ignored);

    std::string found = where + " " + std::string(details["protocol"]) + ", certificate " + subject + " (issuer " +
                        std::string(details["issuer"]) + "), expires " + expiry;
    std::string trust = options.ca_file.empty() ? "the system's trust store" : "the system's store and " + options.ca_file;
    if (!complaint.empty())
        return fail(found + ", NOT trusted: " + complaint,
                    "give --ca-file (or ORBWEAVE_CA_FILE) the CA that signed the service's certificate, or install "
                    "it in the system store (update-ca-certificates)");
    if (days < 14)
        return item{"service", status::warn, found + ", trusted by " + trust + ", expires in " + std::to_string(days) + " days",
                    "the service's certificate must be renewed before then", details};
    return item{"service", status::ok, found + ", trusted by " + trust, {}, details};
}

} // namespace orbweave::check
