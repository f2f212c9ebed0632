#include "tests/tools/wss_test_client.hpp"
#include "tools/wss/tls_identity.hpp"
#include "tools/wss/wss_server.hpp"
#include "tests/support/temp_dir.hpp"

#include <gtest/gtest.h>

#include <openssl/bio.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <vector>

#include <sys/stat.h>

namespace orbweave::test {
namespace {

using namespace std::chrono_literals;
constexpr duration deadline = 5s;

std::string url_of(const wss::wss_server& server, const std::string& path = "/api/client")
{
    return "wss://127.0.0.1:" + std::to_string(server.port()) + path;
}

wss::wss_server plain_server(const wss::tls_identity& identity)
{
    wss::server_options options;
    options.identity = identity;
    return wss::wss_server(std::move(options));
}

int status_for(const wss::tls_identity& identity, const std::string& host)
{
    wss::server_options options;
    options.identity = identity;
    wss::wss_server server(std::move(options));
    return https_request(server.port(), identity.ca, "GET", "/", "", deadline, host).status;
}

std::string read_text(const std::filesystem::path& path)
{
    std::ifstream in(path);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// Records what a server's hooks report, for tests to wait on.
struct recorder {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<wss::connection_id> opened, closed;
    std::vector<std::string> messages;

    wss::server_hooks hooks()
    {
        wss::server_hooks h;
        h.on_open = [this](wss::connection_id id) { push(opened, id); };
        h.on_close = [this](wss::connection_id id) { push(closed, id); };
        h.on_message = [this](wss::connection_id, const std::string& text) { push(messages, text); };
        return h;
    }
    template <typename T, typename V>
    void push(T& list, V value)
    {
        std::lock_guard<std::mutex> lock(mutex);
        list.push_back(value);
        changed.notify_all();
    }
    template <typename T>
    bool wait_size(const T& list, std::size_t n)
    {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, deadline, [&] { return list.size() >= n; });
    }
};

TEST(TlsIdentity, IssuedCertificateVerifiesForLoopbackNamesAndNothingElse)
{
    auto identity = wss::tls_identity::generate();
    wss::server_options options;
    options.identity = identity;
    wss::wss_server server(std::move(options));

    for (const char* host : {"127.0.0.1", "localhost", "::1"})
        EXPECT_EQ(https_request(server.port(), identity.ca, "GET", "/", "", deadline, host).status, 404) << host;
    http_result other = https_request(server.port(), identity.ca, "GET", "/", "", deadline, "example.org");
    EXPECT_EQ(other.status, 0);
    EXPECT_NE(other.error.find("handshake"), std::string::npos) << other.error;
    // Another CA's clients refuse this server.
    EXPECT_EQ(https_request(server.port(), wss::test_ca().certificate(), "GET", "/", "", deadline).status, 0);
}

TEST(TlsIdentity, UntrustedAndWrongHostCertificatesFailVerification)
{
    EXPECT_EQ(status_for(wss::tls_identity::untrusted(), "127.0.0.1"), 0);
    EXPECT_EQ(status_for(wss::tls_identity::untrusted(), "localhost"), 0);

    auto wrong = wss::tls_identity::wrong_host();
    EXPECT_EQ(status_for(wrong, "127.0.0.1"), 0);
    EXPECT_EQ(status_for(wrong, "localhost"), 0);
    // Issued by the trusted CA all the same: only the name is wrong.
    EXPECT_EQ(status_for(wrong, "wrong.invalid"), 404);
}

TEST(TlsIdentity, WrittenFilesFormAValidChainAndKeepTheKeyPrivate)
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

    auto load_cert = [](const std::string& pem) {
        BIO* bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
        X509* cert = PEM_read_bio_X509(bio, nullptr, nullptr, nullptr);
        BIO_free(bio);
        return cert;
    };
    X509* ca = load_cert(identity.ca);
    X509* leaf = load_cert(identity.certificate);
    ASSERT_TRUE(ca && leaf);
    EXPECT_EQ(X509_check_ca(ca), 1);
    EXPECT_EQ(X509_check_ca(leaf), 0);
    EXPECT_TRUE(X509_get_key_usage(ca) & KU_KEY_CERT_SIGN);

    X509_STORE* store = X509_STORE_new();
    ASSERT_EQ(X509_STORE_load_file(store, (dir / "ca.pem").c_str()), 1);
    X509_STORE_CTX* ctx = X509_STORE_CTX_new();
    X509_STORE_CTX_init(ctx, store, leaf, nullptr);
    EXPECT_EQ(X509_verify_cert(ctx), 1) << X509_verify_cert_error_string(X509_STORE_CTX_get_error(ctx));
    X509_STORE_CTX_free(ctx);
    X509_STORE_free(store);
    X509_free(leaf);
    X509_free(ca);
}

TEST(WssServer, CarriesTextBothWaysAndReportsOpenAndClose)
{
    recorder seen;
    std::unique_ptr<wss::wss_server> server;
    wss::server_options options;
    options.identity = wss::tls_identity::generate();
    options.hooks = seen.hooks();
    // Echo from the server's own thread: sending from inside a hook must work.
    options.hooks.on_message = [&](wss::connection_id id, const std::string& text) {
        seen.push(seen.messages, text);
        server->send(id, "echo " + text);
    };
    server = std::make_unique<wss::wss_server>(options);

    wss_test_client client(options.identity.ca);
    ASSERT_TRUE(client.connect(url_of(*server), deadline));
    ASSERT_TRUE(seen.wait_size(seen.opened, 1));
    EXPECT_EQ(server->open_connections(), std::vector<wss::connection_id>{seen.opened[0]});

    client.send(std::string("hello"));
    EXPECT_EQ(client.wait_for_frame(deadline), "echo hello");
    server->send(seen.opened[0], R"({"id":"identify"})");
    EXPECT_EQ(client.wait_for_frame(deadline), R"({"id":"identify"})");
    server->send(9999, "nobody"); // an unknown connection is ignored

    client.close();
    ASSERT_TRUE(seen.wait_size(seen.closed, 1));
    EXPECT_EQ(seen.closed[0], seen.opened[0]);
    EXPECT_TRUE(server->open_connections().empty());
}

TEST(WssServer, ClosesOneOrAllConnectionsOrCutsThem)
{
    recorder seen;
    wss::server_options options;
    options.identity = wss::tls_identity::generate();
    options.hooks = seen.hooks();
    wss::wss_server server(options);

    wss_test_client first(options.identity.ca), second(options.identity.ca), third(options.identity.ca);
    ASSERT_TRUE(first.connect(url_of(server), deadline));
    ASSERT_TRUE(second.connect(url_of(server), deadline));
    ASSERT_TRUE(third.connect(url_of(server), deadline));
    ASSERT_TRUE(seen.wait_size(seen.opened, 3));
    auto ids = server.open_connections();
    ASSERT_EQ(ids.size(), 3u);

    server.close(ids[0]);
    EXPECT_TRUE(first.wait_for_close(deadline));
    server.drop(ids[1]);
    EXPECT_TRUE(second.wait_for_close(deadline));
    ASSERT_TRUE(seen.wait_size(seen.closed, 2));
    EXPECT_EQ(server.open_connections(), std::vector<wss::connection_id>{ids[2]});

    server.close_all();
    EXPECT_TRUE(third.wait_for_close(deadline));
    ASSERT_TRUE(seen.wait_size(seen.closed, 3));
    EXPECT_TRUE(server.open_connections().empty());
}

TEST(WssServer, ReportsAClientThatVanishesWithoutClosing)
{
    recorder seen;
    wss::server_options options;
    options.identity = wss::tls_identity::generate();
    options.hooks = seen.hooks();
    wss::wss_server server(options);

    // A WebSocket upgrade, then the TCP connection goes away with no close frame and no
    // TLS close, as when a client process dies.
    http_result upgrade = https_request(server.port(), options.identity.ca, "GET", "/api/client", "", deadline, "127.0.0.1",
                                        "Connection: Upgrade\r\nUpgrade: websocket\r\nSec-WebSocket-Version: 13\r\n"
                                        "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n");
    EXPECT_EQ(upgrade.status, 101) << upgrade.error;
    ASSERT_TRUE(seen.wait_size(seen.opened, 1));
    ASSERT_TRUE(seen.wait_size(seen.closed, 1));
    EXPECT_TRUE(server.open_connections().empty());
}

TEST(WssServer, RecordsPingsAndCanWithholdPongs)
{
    recorder seen;
    std::unique_ptr<wss::wss_server> server;
    wss::server_options options;
    options.identity = wss::tls_identity::generate();
    options.hooks = seen.hooks();
    options.hooks.on_message = [&](wss::connection_id id, const std::string& text) { server->send(id, text); };
    server = std::make_unique<wss::wss_server>(options);

    wss_test_client client(options.identity.ca);
    ASSERT_TRUE(client.connect(url_of(*server), deadline));
    ASSERT_TRUE(seen.wait_size(seen.opened, 1));

    client.ping("ping!");
    ASSERT_TRUE(client.wait_for_pongs(1, deadline));
    auto pings = server->pings();
    ASSERT_EQ(pings.size(), 1u);
    EXPECT_EQ(pings[0].payload, "ping!");
    EXPECT_EQ(pings[0].connection, seen.opened[0]);

    server->answer_pings(false);
    client.ping("ping!");
    // The echo of a later frame proves the server has handled the ping before it.
    client.send(std::string("marker"));
    ASSERT_EQ(client.wait_for_frame(deadline), "marker");
    EXPECT_EQ(server->ping_count(), 2u);
    EXPECT_FALSE(client.wait_for_pongs(2, 0ms));

    server->answer_pings(true);
    client.ping("again");
    EXPECT_TRUE(client.wait_for_pongs(2, deadline));
}

TEST(WssServer, AnswersPlainHttpOnTheSamePortIncludingLargeBodies)
{
    std::mutex mutex;
    std::vector<wss::http_request> requests;
    wss::server_options options;
    options.identity = wss::tls_identity::generate();
    options.hooks.on_http = [&](const wss::http_request& request) {
        std::lock_guard<std::mutex> lock(mutex);
        requests.push_back(request);
        return wss::http_response{201, std::to_string(request.body.size()), "application/json"};
    };
    wss::wss_server server(options);

    std::string body(1024 * 1024, 'x');
    http_result result = https_request(server.port(), options.identity.ca, "POST", "/api/client/test?x=1", body, deadline);
    EXPECT_EQ(result.status, 201) << result.error;
    EXPECT_EQ(result.body, "1048576");
    {
        std::lock_guard<std::mutex> lock(mutex);
        ASSERT_EQ(requests.size(), 1u);
        EXPECT_EQ(requests[0].method, "POST");
        EXPECT_EQ(requests[0].resource, "/api/client/test?x=1");
        EXPECT_EQ(requests[0].content_type, "application/octet-stream");
        EXPECT_LE(requests[0].accepted, requests[0].received);
    }

    // Without a handler every plain request is answered 404.
    auto bare = plain_server(options.identity);
    EXPECT_EQ(https_request(bare.port(), options.identity.ca, "POST", "/api/client/test", "abc", deadline).status, 404);
}

TEST(WssServer, RefusesUnwantedPathsAndRestartsOnTheSamePort)
{
    wss::server_options options;
    options.identity = wss::tls_identity::generate();
    options.hooks.accept_path = [](const std::string& resource) { return resource == "/api/client"; };
    auto server = std::make_unique<wss::wss_server>(options);
    std::uint16_t port = server->port();
    ASSERT_NE(port, 0);

    {
        wss_test_client refused(options.identity.ca);
        EXPECT_FALSE(refused.connect(url_of(*server, "/elsewhere"), deadline));
    }
    wss_test_client client(options.identity.ca);
    ASSERT_TRUE(client.connect(url_of(*server), deadline));

    auto started = std::chrono::steady_clock::now();
    server->stop();
    EXPECT_LT(std::chrono::steady_clock::now() - started, 2500ms);
    EXPECT_TRUE(client.wait_for_close(deadline));
    server->stop(); // a second stop is harmless
    server.reset();

    options.port = port;
    server = std::make_unique<wss::wss_server>(options);
    EXPECT_EQ(server->port(), port);
    wss_test_client again(options.identity.ca);
    EXPECT_TRUE(again.connect(url_of(*server), deadline));
}

} // namespace
} // namespace orbweave::test
