#pragma once

// Certificates for loopback TLS peers, made at run time so no key is ever committed.

#include <memory>
#include <string>
#include <vector>

namespace orbweave::wss {

/// Host names and addresses a server certificate is valid for.
struct subject_names {
    std::vector<std::string> dns{"localhost"};
    std::vector<std::string> ips{"127.0.0.1", "::1"};
};

/// A certificate and its private key, both PEM.
struct pem_credentials {
    std::string certificate;
    std::string private_key;
};

/// A throwaway certificate authority (EC P-256, valid from an hour ago for a day).
class test_ca {
public:
    explicit test_ca(const std::string& common_name = "Orbweave Test CA");
    ~test_ca();
    test_ca(test_ca&&) noexcept;
    test_ca& operator=(test_ca&&) noexcept;

    /// The CA certificate, PEM; what clients put in their trust store.
    const std::string& certificate() const;
    /// A server certificate for these names, signed by this CA.
    pem_credentials issue(const subject_names& names = {}) const;

private:
    struct impl;
    std::unique_ptr<impl> impl_;
};

/// A self-signed server certificate, issued by no CA.
pem_credentials self_signed(const subject_names& names = {});

/// What a TLS server presents, plus the CA its clients are told to trust.
struct tls_identity {
    std::string ca;          ///< CA certificate to trust, PEM
    std::string certificate; ///< server certificate, PEM
    std::string private_key; ///< server key, PEM

    /// A fresh CA and a server certificate it signed for the names.
    static tls_identity generate(const subject_names& names = {});
    /// A fresh CA, and a self-signed server certificate that CA never saw: verification fails.
    static tls_identity untrusted(const subject_names& names = {});
    /// A fresh CA, and a server certificate it signed for "wrong.invalid" only: host checks fail.
    static tls_identity wrong_host();

    /// Writes ca.pem, server.pem and server.key (mode 0600) into dir, creating it if needed.
    /// Throws std::runtime_error on failure.
    void write(const std::string& dir) const;
};

} // namespace orbweave::wss
