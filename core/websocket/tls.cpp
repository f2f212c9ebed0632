#include "core/websocket/tls.hpp"

#include "core/log.hpp"

#include <boost/asio/ssl/host_name_verification.hpp>
#include <openssl/ssl.h>

#include <cstdlib>

namespace orbweave::websocket {

namespace ssl = boost::asio::ssl;

std::shared_ptr<ssl::context> make_client_tls_context(const std::string& host, const std::string& ca_file)
{
    auto context = std::make_shared<ssl::context>(ssl::context::tls_client);
    SSL_CTX_set_min_proto_version(context->native_handle(), TLS1_2_VERSION);
    context->set_options(ssl::context::default_workarounds | ssl::context::no_compression);

    boost::system::error_code ec;
    context->set_default_verify_paths(ec);
    if (ec)
        log::line("TLS: cannot load the system trust store: ", ec.message());
    if (!ca_file.empty()) {
        context->load_verify_file(ca_file, ec);
        if (ec)
            log::line("TLS: cannot load CA file " + ca_file + ": ", ec.message());
    }
    context->set_verify_mode(ssl::verify_peer, ec);
    context->set_verify_callback(ssl::host_name_verification(host), ec);
    return context;
}

std::string ca_file_from_environment()
{
    const char* value = std::getenv("ORBWEAVE_CA_FILE");
    return value ? value : "";
}

} // namespace orbweave::websocket
