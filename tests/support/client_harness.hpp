#pragma once

// A client wired to an in-process service simulator over loopback TLS, with
// every callback recorded so tests can wait for what the application would see.

#include "core/orbweave_client.hpp"
#include "tests/support/blocking_queue.hpp"
#include "tests/support/temp_dir.hpp"
#include "tools/service-sim/service_sim.hpp"

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace orbweave::test {

/// Production timing scaled down so reconnection and keep-alive tests take milliseconds.
client_options fast_client_options(const std::string& ca_file);

/// Media workers that are the misbehaving stand-in (tests/support/fake_worker): one lists
/// a few sources, and an activation's stream key says how its stream worker breaks.
void use_fake_workers(client_options& options);

/// A PEM file holding the CA that issued sim's certificate; it lasts as long as the program.
std::string ca_file_of(const sim::service_sim& sim);

class client_harness {
public:
    /// A client for sim's URL trusting sim's CA, with fast_client_options()
    /// adjusted by tweak, and every callback installed unless bare. Not started.
    /// A port other than 0 sends it there instead (a proxy in front of sim).
    explicit client_harness(sim::service_sim& sim, bool bare = false,
                            std::function<void(client_options&)> tweak = {}, int port = 0);
    ~client_harness();

    orbweave_client& client() { return *client_; }
    void start() { client_->start(); }
    /// Starts already paired (with a secret the simulator issued to Ann) and waits for
    /// "connected"; false at the deadline.
    bool start_paired(std::chrono::milliseconds timeout);

    /// The next reported state equal to state; false at the deadline.
    bool wait_for_state(callback::state_type::type state, std::chrono::milliseconds timeout);
    blocking_queue<callback::state_type::type>& states() { return states_; }
    blocking_queue<std::string>& codes() { return codes_; }
    blocking_queue<callback::msg::ready>& readies() { return readies_; }
    int resets() const { return resets_; }
    /// Every report of the running streams, in order.
    blocking_queue<std::vector<callback::active_stream>>& streams() { return streams_; }
    /// The next report whose streams are these source ids, in this order; false at the deadline.
    bool wait_for_streams(const std::vector<std::string>& ids, std::chrono::milliseconds timeout);

    /// How permission requests are answered from now on (default: denied at once).
    void on_permission(orbweave_client::permission_callback answer);
    /// Every permission request is granted at once from now on.
    void allow_all();
    /// Permission requests seen so far: (source kind, request kind, name).
    struct permission_asked {
        callback::source_type::type kind;
        callback::request_type::type request;
        std::string name;
        std::string description;
    };
    blocking_queue<permission_asked>& permissions() { return permissions_; }

    /// The secret the application keeps (what the secret callback returns).
    std::string secret() const;
    void set_secret(const std::string& secret);
    const std::string& ca_file() const { return ca_file_; }

private:
    sim::service_sim& sim_;
    std::string ca_file_;
    std::unique_ptr<orbweave_client> client_;
    blocking_queue<callback::state_type::type> states_;
    blocking_queue<std::string> codes_;
    blocking_queue<callback::msg::ready> readies_;
    std::atomic<int> resets_{0};
    blocking_queue<std::vector<callback::active_stream>> streams_;
    blocking_queue<permission_asked> permissions_;
    std::mutex permission_mutex_;
    orbweave_client::permission_callback permission_answer_;
    mutable std::mutex secret_mutex_;
    std::string secret_;
};

} // namespace orbweave::test
