#include "tools/wss/tls_identity.hpp"

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace orbweave::wss {
namespace {

template <typename T, void (*Free)(T*)>
struct deleter {
    void operator()(T* p) const { Free(p); }
};
using pkey_ptr = std::unique_ptr<EVP_PKEY, deleter<EVP_PKEY, EVP_PKEY_free>>;
using x509_ptr = std::unique_ptr<X509, deleter<X509, X509_free>>;
using ext_ptr = std::unique_ptr<X509_EXTENSION, deleter<X509_EXTENSION, X509_EXTENSION_free>>;
void bio_free(BIO* b) { BIO_free(b); }
using bio_ptr = std::unique_ptr<BIO, deleter<BIO, bio_free>>;

[[noreturn]] void fail(const char* step)
{
    char reason[256] = "unknown error";
    if (unsigned long e = ERR_get_error())
        ERR_error_string_n(e, reason, sizeof reason);
    ERR_clear_error();
    throw std::runtime_error(std::string("tls identity: ") + step + ": " + reason);
}

pkey_ptr make_key()
{
    pkey_ptr key(EVP_EC_gen("P-256"));
    if (!key)
        fail("EC key generation");
    return key;
}

void add_extension(X509* cert, X509* issuer, int nid, const std::string& value)
{
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
    ext_ptr ext(X509V3_EXT_conf_nid(nullptr, &ctx, nid, value.c_str()));
    if (!ext || !X509_add_ext(cert, ext.get(), -1))
        fail("certificate extension");
}

std::string alt_names(const subject_names& names)
{
    std::string text;
    for (const auto& dns : names.dns)
        text += (text.empty() ? "" : ",") + std::string("DNS:") + dns;
    for (const auto& ip : names.ips)
        text += (text.empty() ? "" : ",") + std::string("IP:") + ip;
    return text;
}

// An unsigned certificate for key named common_name; a null issuer means self-signed.
x509_ptr make_certificate(EVP_PKEY* key, const std::string& common_name, X509* issuer)
{
    x509_ptr cert(X509_new());
    if (!cert || !X509_set_version(cert.get(), 2))
        fail("certificate allocation");

    std::unique_ptr<BIGNUM, deleter<BIGNUM, BN_free>> serial(BN_new());
    if (!serial || !BN_rand(serial.get(), 120, BN_RAND_TOP_ANY, BN_RAND_BOTTOM_ANY)
        || !BN_to_ASN1_INTEGER(serial.get(), X509_get_serialNumber(cert.get())))
        fail("serial number");

    X509_gmtime_adj(X509_getm_notBefore(cert.get()), -3600);
    X509_gmtime_adj(X509_getm_notAfter(cert.get()), 24 * 3600);
    if (!X509_set_pubkey(cert.get(), key))
        fail("public key");

    X509_NAME* name = X509_get_subject_name(cert.get());
    X509_NAME_add_entry_by_txt(name, "O", MBSTRING_UTF8, reinterpret_cast<const unsigned char*>("Orbweave tests"), -1, -1, 0);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>(common_name.c_str()), -1, -1, 0);
    X509* signer = issuer ? issuer : cert.get();
    if (!X509_set_issuer_name(cert.get(), X509_get_subject_name(signer)))
        fail("issuer name");

    add_extension(cert.get(), signer, NID_subject_key_identifier, "hash");
    add_extension(cert.get(), signer, NID_authority_key_identifier, "keyid:always");
    return cert;
}

void sign(X509* cert, EVP_PKEY* key)
{
    if (!X509_sign(cert, key, EVP_sha256()))
        fail("signing");
}

std::string pem_of(X509* cert)
{
    bio_ptr bio(BIO_new(BIO_s_mem()));
    if (!bio || !PEM_write_bio_X509(bio.get(), cert))
        fail("certificate PEM");
    char* data = nullptr;
    long size = BIO_get_mem_data(bio.get(), &data);
    return std::string(data, static_cast<std::size_t>(size));
}

std::string pem_of(EVP_PKEY* key)
{
    bio_ptr bio(BIO_new(BIO_s_mem()));
    if (!bio || !PEM_write_bio_PrivateKey(bio.get(), key, nullptr, nullptr, 0, nullptr, nullptr))
        fail("key PEM");
    char* data = nullptr;
    long size = BIO_get_mem_data(bio.get(), &data);
    return std::string(data, static_cast<std::size_t>(size));
}

void add_server_extensions(X509* cert, X509* signer, const subject_names& names)
{
    add_extension(cert, signer, NID_basic_constraints, "critical,CA:FALSE");
    add_extension(cert, signer, NID_key_usage, "critical,digitalSignature");
    add_extension(cert, signer, NID_ext_key_usage, "serverAuth");
    std::string san = alt_names(names);
    if (!san.empty())
        add_extension(cert, signer, NID_subject_alt_name, san);
}

std::string common_name_for(const subject_names& names)
{
    if (!names.dns.empty())
        return names.dns.front();
    return names.ips.empty() ? "server" : names.ips.front();
}

void write_file(const std::filesystem::path& path, const std::string& text, mode_t mode)
{
    // Open with the final mode so a key is never readable by others, even briefly.
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    if (fd < 0)
        throw std::runtime_error("cannot write " + path.string() + ": " + std::strerror(errno));
    bool ok = ::fchmod(fd, mode) == 0;
    std::size_t done = 0;
    while (ok && done < text.size()) {
        ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        ok = n > 0;
        if (ok)
            done += static_cast<std::size_t>(n);
    }
    ok = (::close(fd) == 0) && ok;
    if (!ok)
        throw std::runtime_error("cannot write " + path.string() + ": " + std::strerror(errno));
}

} // namespace

struct test_ca::impl {
    pkey_ptr key;
    x509_ptr cert;
    std::string pem;
};

test_ca::test_ca(const std::string& common_name) : impl_(std::make_unique<impl>())
{
    impl_->key = make_key();
    impl_->cert = make_certificate(impl_->key.get(), common_name, nullptr);
    add_extension(impl_->cert.get(), impl_->cert.get(), NID_basic_constraints, "critical,CA:TRUE");
    add_extension(impl_->cert.get(), impl_->cert.get(), NID_key_usage, "critical,keyCertSign,cRLSign");
    sign(impl_->cert.get(), impl_->key.get());
    impl_->pem = pem_of(impl_->cert.get());
}

test_ca::~test_ca() = default;
test_ca::test_ca(test_ca&&) noexcept = default;
test_ca& test_ca::operator=(test_ca&&) noexcept = default;

const std::string& test_ca::certificate() const { return impl_->pem; }

pem_credentials test_ca::issue(const subject_names& names) const
{
    pkey_ptr key = make_key();
    x509_ptr cert = make_certificate(key.get(), common_name_for(names), impl_->cert.get());
    add_server_extensions(cert.get(), impl_->cert.get(), names);
    sign(cert.get(), impl_->key.get());
    return {pem_of(cert.get()), pem_of(key.get())};
}

pem_credentials self_signed(const subject_names& names)
{
    pkey_ptr key = make_key();
    x509_ptr cert = make_certificate(key.get(), common_name_for(names), nullptr);
    add_server_extensions(cert.get(), cert.get(), names);
    sign(cert.get(), key.get());
    return {pem_of(cert.get()), pem_of(key.get())};
}

tls_identity tls_identity::generate(const subject_names& names)
{
    test_ca ca;
    pem_credentials server = ca.issue(names);
    return {ca.certificate(), server.certificate, server.private_key};
}

tls_identity tls_identity::untrusted(const subject_names& names)
{
    test_ca ca;
    pem_credentials server = self_signed(names);
    return {ca.certificate(), server.certificate, server.private_key};
}

tls_identity tls_identity::wrong_host()
{
    test_ca ca;
    pem_credentials server = ca.issue(subject_names{{"wrong.invalid"}, {}});
    return {ca.certificate(), server.certificate, server.private_key};
}

void tls_identity::write(const std::string& dir) const
{
    std::filesystem::path base(dir);
    std::filesystem::create_directories(base);
    write_file(base / "ca.pem", ca, 0644);
    write_file(base / "server.pem", certificate, 0644);
    write_file(base / "server.key", private_key, 0600);
}

} // namespace orbweave::wss
