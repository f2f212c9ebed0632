// The test CA and server identities every loopback peer uses: what verifies, for which
// names, and what is written to disk. Checked with OpenSSL's own verification.

#include "tests/support/temp_dir.hpp"
#include "tools/wss/tls_identity.hpp"

#include <gtest/gtest.h>

#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>

namespace orbweave::test {
namespace {

using x509_ptr = std::unique_ptr<X509, decltype(&X509_free)>;

x509_ptr load_certificate(const std::string& pem)
{
    std::unique_ptr<BIO, decltype(&BIO_free)> bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())),
                                                  BIO_free);
    return x509_ptr(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr), X509_free);
}

/// Whether identity's certificate verifies for host (a name or an IP address) against ca_pem.
bool verifies(const wss::tls_identity& identity, const std::string& host, const std::string& ca_pem)
{
    x509_ptr ca = load_certificate(ca_pem);
    x509_ptr leaf = load_certificate(identity.certificate);
    if (!ca || !leaf)
        return false;
    std::unique_ptr<X509_STORE, decltype(&X509_STORE_free)> store(X509_STORE_new(), X509_STORE_free);
    X509_STORE_add_cert(store.get(), ca.get());
    std::unique_ptr<X509_STORE_CTX, decltype(&X509_STORE_CTX_free)> context(X509_STORE_CTX_new(),
                                                                            X509_STORE_CTX_free);
    X509_STORE_CTX_init(context.get(), store.get(), leaf.get(), nullptr);
    X509_VERIFY_PARAM* params = X509_STORE_CTX_get0_param(context.get());
    if (X509_VERIFY_PARAM_set1_ip_asc(params, host.c_str()) != 1)
        X509_VERIFY_PARAM_set1_host(params, host.c_str(), host.size());
    return X509_verify_cert(context.get()) == 1;
}

std::string read_text(const std::filesystem::path& path)
{
    std::ifstream in(path);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

TEST(TlsIdentity, AnIssuedCertificateVerifiesForLoopbackNamesOnly)
{
    auto identity = wss::tls_identity::generate();
    for (const char* host : {"127.0.0.1", "localhost", "::1"})
        EXPECT_TRUE(verifies(identity, host, identity.ca)) << host;
    EXPECT_FALSE(verifies(identity, "example.org", identity.ca));
    EXPECT_FALSE(verifies(identity, "127.0.0.1", wss::test_ca().certificate())) << "another CA trusts it";

    EXPECT_FALSE(verifies(wss::tls_identity::untrusted(), "127.0.0.1", identity.ca));
    auto wrong = wss::tls_identity::wrong_host();
    EXPECT_FALSE(verifies(wrong, "127.0.0.1", wrong.ca));
    EXPECT_TRUE(verifies(wrong, "wrong.invalid", wrong.ca)) << "only the name should be wrong";
}

TEST(TlsIdentity, WrittenFilesFormAChainAndKeepTheKeyPrivate)
{
    test::temp_dir scratch("orbweave-identity");
    std::filesystem::path dir = scratch.path() / "nested";
    auto identity = wss::tls_identity::generate();
    identity.write(dir.string());

    struct stat key_stat {};
    ASSERT_EQ(::stat((dir / "server.key").c_str(), &key_stat), 0);
    EXPECT_EQ(key_stat.st_mode & 0777, 0600u);
    EXPECT_EQ(read_text(dir / "ca.pem"), identity.ca);
    EXPECT_EQ(read_text(dir / "server.pem"), identity.certificate);

    x509_ptr ca = load_certificate(read_text(dir / "ca.pem"));
    x509_ptr leaf = load_certificate(read_text(dir / "server.pem"));
    ASSERT_TRUE(ca && leaf);
    EXPECT_EQ(X509_check_ca(ca.get()), 1);
    EXPECT_EQ(X509_check_ca(leaf.get()), 0);
    EXPECT_TRUE(X509_get_key_usage(ca.get()) & KU_KEY_CERT_SIGN);
}

} // namespace
} // namespace orbweave::test
