#include "tests/support/client_harness.hpp"

#include <atomic>

namespace orbweave::test {

client_options fast_client_options(const std::string& ca_file)
{
    client_options options;
    options.transport.ca_file = ca_file;
    options.transport.open_handshake_timeout_ms = 2000;
    options.transport.close_handshake_timeout_ms = 500;
    options.transport.pong_timeout_ms = 1000;
    options.reconnect_delay_ms = 50;
    options.keepalive_interval_ms = 50;
    return options;
}

void use_fake_workers(client_options& options)
{
    options.media.listing.executable = ORBWEAVE_FAKE_MEDIA_WORKER;
    options.media.stream.executable = ORBWEAVE_FAKE_MEDIA_WORKER;
}

std::string ca_file_of(const sim::service_sim& sim)
{
    static temp_dir dir("orbweave-ca");
    static std::atomic<int> written{0};
    std::string folder = dir.file("ca-" + std::to_string(++written));
    sim.identity().write(folder);
    return folder + "/ca.pem";
}

client_harness::client_harness(sim::service_sim& sim, bool bare, std::function<void(client_options&)> tweak,
                               int port)
    : sim_(sim), ca_file_(ca_file_of(sim))
{
    client_options options = fast_client_options(ca_file_);
    if (tweak)
        tweak(options);
    std::string url = port ? "wss://127.0.0.1:" + std::to_string(port) + "/api/client" : sim.url();
    client_ = orbweave_client::create(url, options);
    if (bare)
        return;
    client_->set_state_change_handler([this](callback::state_type::type state) { states_.push(state); });
    client_->set_new_code_handler([this](std::string code) { codes_.push(code); });
    client_->set_streams_handler(
        [this](const std::vector<callback::active_stream>& streams) { streams_.push(streams); });
    client_->set_secret_handler([this] { return secret(); });
    client_->set_ready_handler([this](callback::msg::ready& ready) {
        set_secret(ready.secret);
        readies_.push(ready);
    });
    client_->set_permission_handler([this](callback::source_type::type kind, const std::string& name,
                                           const std::string& description, callback::request_type::type request,
                                           const callback::request& pending) {
        permissions_.push({kind, request, name, description});
        orbweave_client::permission_callback answer;
        {
            std::lock_guard<std::mutex> lock(permission_mutex_);
            answer = permission_answer_;
        }
        if (answer)
            answer(kind, name, description, request, pending);
        else
            pending.answer(false);
    });
    client_->set_reset_handler([this] {
        ++resets_;
        set_secret("");
    });
}

void client_harness::on_permission(orbweave_client::permission_callback answer)
{
    std::lock_guard<std::mutex> lock(permission_mutex_);
    permission_answer_ = std::move(answer);
}

void client_harness::allow_all()
{
    on_permission([](callback::source_type::type, const std::string&, const std::string&, callback::request_type::type,
                     const callback::request& request) { request.answer(true); });
}

bool client_harness::start_paired(std::chrono::milliseconds timeout)
{
    set_secret(sim_.issue_secret({"Ann", ""}));
    start();
    return wait_for_state(callback::state_type::connected, timeout);
}

client_harness::~client_harness()
{
    client_->stop();
    client_->join();
}

bool client_harness::wait_for_state(callback::state_type::type state, std::chrono::milliseconds timeout)
{
    return states_.pop_until([state](callback::state_type::type s) { return s == state; }, timeout).has_value();
}

bool client_harness::wait_for_streams(const std::vector<std::string>& ids, std::chrono::milliseconds timeout)
{
    auto match = [&ids](const std::vector<callback::active_stream>& streams) {
        std::vector<std::string> running;
        for (const auto& stream : streams)
            running.push_back(stream.id);
        return running == ids;
    };
    return streams_.pop_until(match, timeout).has_value();
}

std::string client_harness::secret() const
{
    std::lock_guard<std::mutex> lock(secret_mutex_);
    return secret_;
}

void client_harness::set_secret(const std::string& secret)
{
    std::lock_guard<std::mutex> lock(secret_mutex_);
    secret_ = secret;
}

} // namespace orbweave::test
