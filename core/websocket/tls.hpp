#pragma once

#include <boost/asio/ssl/context.hpp>

#include <memory>
#include <string>

namespace orbweave::websocket {

/// A TLS client context that will accept only TLS 1.2 or newer and only a peer
/// whose certificate chains to the system trust store or to ca_file (when given)
/// and names host (a DNS name or an IP address). Never throws: a CA file that
/// cannot be read is logged and the system store alone is trusted.
std::shared_ptr<boost::asio::ssl::context> make_client_tls_context(const std::string& host,
                                                                   const std::string& ca_file);

/// The extra CA file named by the ORBWEAVE_CA_FILE environment variable, or "".
std::string ca_file_from_environment();

} // namespace orbweave::websocket
