#pragma once

// An in-process stand-in for the live-production service: it speaks the client
// protocol over a real TLS WebSocket on loopback, hands out pairing codes and
// secrets, drives list/activate/deactivate/reset, records every reply and answers
// the bandwidth probe. The orbweave-service-sim program wraps it with a console.

#include "core/json.hpp"
#include "tools/wss/wss_server.hpp"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace orbweave::sim {

using duration = std::chrono::milliseconds;

/// A frame the simulator received from a client.
struct received {
    wss::connection_id connection = 0;
    std::string text;
    Json message; ///< null when the text is not JSON
    std::chrono::steady_clock::time_point at;
};

/// The account that claims a machine.
struct owner {
    std::string display_name;
    std::string avatar;
};

/// What an "activate" request asks for.
struct activation {
    std::string source_id;
    std::string profile = "medium";
    std::string server = "rtmp://127.0.0.1/live";
    std::string key = "stream";
    std::optional<int> width;
    std::optional<int> height;
    std::optional<int> fps;
    /// Empty: taken from the last list reply that named the source.
    std::string type;
    std::string name;
    std::string description;

    /// source_id streamed to server under key; the rest as above.
    static activation of(std::string source_id, std::string server = "rtmp://127.0.0.1/live", std::string key = "stream")
    {
        activation request;
        request.source_id = std::move(source_id);
        request.server = std::move(server);
        request.key = std::move(key);
        return request;
    }
};

/// A bandwidth probe upload the simulator received.
struct probe_request {
    std::string method;
    std::string resource;
    std::size_t bytes = 0;
    long long duration_ms = 0;
};

struct options {
    std::string address = "127.0.0.1";
    std::uint16_t port = 0; ///< 0 picks a free port; a restart keeps the port first chosen
    std::optional<wss::tls_identity> identity; ///< absent: a fresh test CA and server certificate
    std::optional<owner> auto_claim;           ///< claim every code as soon as it is issued
    /// Plain one-line event descriptions ("connected 1", "code ABCD2345", ...); secrets are
    /// shortened and stream keys masked. Called on the server thread or the caller's.
    std::function<void(const std::string&)> on_event;
};

class service_sim {
public:
    /// Starts listening at once.
    explicit service_sim(options opts = {});
    ~service_sim();
    service_sim(const service_sim&) = delete;
    service_sim& operator=(const service_sim&) = delete;

    /// Listens again, on the same port as before (after stop()). Issued secrets are kept.
    void start();
    /// Closes every connection and stops listening.
    void stop();
    bool running() const;
    std::uint16_t port() const;
    /// "wss://127.0.0.1:<port><path>".
    std::string url(const std::string& path = "/api/client") const;
    const wss::tls_identity& identity() const;

    /// Connections open right now, oldest first.
    std::vector<wss::connection_id> connections() const;
    /// The next connection opened since the last call.
    std::optional<wss::connection_id> wait_for_connection(duration timeout);
    /// The next connection closed since the last call.
    std::optional<wss::connection_id> wait_for_disconnect(duration timeout);
    /// Closes every connection with a close handshake; the server keeps listening.
    void drop_connections();
    /// Cuts every connection without a close handshake, as a network failure would.
    void cut_connections();
    /// Whether keep-alive pings are answered with pongs (default true); kept across restarts.
    void answer_pings(bool answer);

    /// The next pairing code issued since the last call.
    std::optional<std::string> wait_for_code(duration timeout);
    /// Claims a code for an account: issues a secret and sends "ready" to the connection
    /// that was given the code. Returns the secret; nullopt when no open connection holds it.
    std::optional<std::string> claim(const std::string& code, const owner& account);
    /// A secret the service knows, as if a claim had happened on an earlier run.
    std::string issue_secret(const owner& account);
    bool knows_secret(const std::string& secret) const;

    // Requests to the latest open connection. Each returns the "state" it sent
    // (reset: an empty string), or nullopt when no client is connected.
    std::optional<std::string> identify();
    std::optional<std::string> list(const std::string& kind);
    std::optional<std::string> activate(const activation& request);
    std::optional<std::string> deactivate(const std::string& source_id);
    /// A "deactivate" without payload: the client stops everything.
    std::optional<std::string> deactivate_all();
    std::optional<std::string> reset();
    /// Any text, sent as it is.
    bool send_raw(const std::string& text);
    /// The activate request activate() would send (for checking or for send_raw).
    Json activate_message(const activation& request, const std::string& state) const;

    /// Every frame received, in order.
    std::vector<received> messages() const;
    /// Every keep-alive ping received, in order (answered with a pong unless told otherwise).
    std::vector<wss::ping_record> pings() const;
    /// The first received frame that matches and that no earlier wait returned.
    std::optional<received> wait_for(std::function<bool(const received&)> match, duration timeout);
    /// The next reply carrying this "state".
    std::optional<received> wait_for_reply(const std::string& state, duration timeout);
    /// The payload of the next reply carrying state; null when none came in time (or
    /// nothing was sent: no state). E.g. reply_payload(list("screen"), 5s)["results"].
    Json reply_payload(const std::optional<std::string>& state, duration timeout);
    /// The next reply to an "identify".
    std::optional<received> wait_for_identify(duration timeout);
    /// The next "code" request from a client.
    std::optional<received> wait_for_code_request(duration timeout);

    /// Probe answers: the measured {"bytes","duration"} (default), a JSON value, raw text,
    /// or an HTTP error status.
    void answer_probe_measured();
    void answer_probe_json(const Json& value);
    void answer_probe_text(const std::string& body, const std::string& content_type = "text/plain");
    void answer_probe_status(int status, const std::string& body = "");
    /// Holds every probe answer until released is ready (a minute at most): a slow uplink.
    void hold_probe(std::shared_future<void> released);
    std::vector<probe_request> probes() const;
    /// The next probe upload received since the last call.
    std::optional<probe_request> wait_for_probe(duration timeout);

private:
    struct client_state {
        std::string identify_state;
    };
    enum class probe_mode { measured, json, text, status };

    void on_open(wss::connection_id id);
    void on_close(wss::connection_id id);
    void on_message(wss::connection_id id, const std::string& text);
    wss::http_response on_http(const wss::http_request& request);
    void answer_code_request(wss::connection_id id, const Json& message);
    void learn_sources(const Json& reply);
    void send_to(wss::connection_id id, const Json& message);
    std::optional<std::string> send_request(Json message);
    void event(const std::string& line) const;

    options options_;
    wss::tls_identity identity_;
    std::uint16_t port_;

    mutable std::mutex server_mutex_; // guards server_; never held while stopping it
    std::unique_ptr<wss::wss_server> server_;
    bool answer_pings_ = true; // guarded by server_mutex_

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::map<wss::connection_id, client_state> open_;
    std::vector<wss::connection_id> opened_;
    std::vector<wss::connection_id> closed_;
    std::size_t opened_taken_ = 0;
    std::size_t closed_taken_ = 0;
    std::map<std::string, wss::connection_id> codes_; // code -> connection it was given to
    std::vector<std::string> issued_codes_;
    std::size_t codes_taken_ = 0;
    std::map<std::string, owner> secrets_;
    std::vector<received> received_;
    std::vector<bool> taken_;
    std::map<std::string, std::string> list_kinds_; // list state -> kind asked for
    std::map<std::string, Json> sources_;           // source id -> {type, name, description}
    probe_mode probe_mode_ = probe_mode::measured;
    std::string probe_body_;
    std::string probe_content_type_;
    int probe_status_ = 200;
    std::shared_future<void> probe_release_;
    std::vector<probe_request> probes_;
    std::size_t probes_taken_ = 0;
};

/// A short, loggable form of a secret: its first 8 characters and an ellipsis.
std::string secret_prefix(const std::string& secret);

} // namespace orbweave::sim
