#include "tests/support/service_peer.hpp"

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <system_error>

namespace orbweave::test {

service_peer::service_peer(wss::tls_identity identity, std::uint16_t port)
    : identity_(std::move(identity)), port_(port), dir_("orbweave-peer")
{
    identity_.write(dir_.path());
    ca_file_ = dir_.file("ca.pem");
    start();
}

service_peer::~service_peer()
{
    stop();
}

void service_peer::start()
{
    wss::server_options options;
    options.identity = identity_;
    options.port = port_;
    options.hooks.on_open = [this](wss::connection_id id) {
        std::lock_guard<std::mutex> lock(mutex_);
        opened_.push_back(id);
        changed_.notify_all();
    };
    options.hooks.on_close = [this](wss::connection_id id) {
        std::lock_guard<std::mutex> lock(mutex_);
        closed_.push_back(id);
        changed_.notify_all();
    };
    options.hooks.on_message = [this](wss::connection_id, const std::string& text) {
        std::lock_guard<std::mutex> lock(mutex_);
        frames_.push_back(text);
        changed_.notify_all();
    };
    options.hooks.on_ping = [this](const wss::ping_record&) {
        std::lock_guard<std::mutex> lock(mutex_);
        ++ping_count_;
        changed_.notify_all();
    };
    options.hooks.on_http = [this](const wss::http_request& request) {
        std::function<wss::http_response(const wss::http_request&)> handler;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            handler = http_handler_;
        }
        return handler ? handler(request) : wss::http_response{};
    };
    server_ = std::make_unique<wss::wss_server>(std::move(options));
    server_->answer_pings(answer_pings_);
    port_ = server_->port();
}

void service_peer::stop()
{
    if (server_)
        server_->stop();
}

std::string service_peer::url(const std::string& path) const
{
    return "wss://127.0.0.1:" + std::to_string(port_) + path;
}

std::optional<wss::connection_id> service_peer::wait_for_connection(duration timeout)
{
    std::unique_lock<std::mutex> lock(mutex_);
    if (!changed_.wait_for(lock, timeout, [this] { return opened_.size() > opened_taken_; }))
        return std::nullopt;
    return opened_[opened_taken_++];
}

std::optional<wss::connection_id> service_peer::wait_for_disconnect(duration timeout)
{
    std::unique_lock<std::mutex> lock(mutex_);
    if (!changed_.wait_for(lock, timeout, [this] { return closed_.size() > closed_taken_; }))
        return std::nullopt;
    return closed_[closed_taken_++];
}

std::optional<std::string> service_peer::wait_for_frame(duration timeout)
{
    std::unique_lock<std::mutex> lock(mutex_);
    if (!changed_.wait_for(lock, timeout, [this] { return frames_.size() > frames_taken_; }))
        return std::nullopt;
    return frames_[frames_taken_++];
}

bool service_peer::wait_for_pings(std::size_t n, duration timeout)
{
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, timeout, [this, n] { return ping_count_ >= n; });
}

std::vector<std::string> service_peer::frames() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return frames_;
}

std::vector<wss::ping_record> service_peer::pings() const
{
    return server_ ? server_->pings() : std::vector<wss::ping_record>{};
}

std::optional<wss::connection_id> service_peer::latest() const
{
    if (!server_)
        return std::nullopt;
    auto open = server_->open_connections();
    if (open.empty())
        return std::nullopt;
    return open.back();
}

bool service_peer::send(const std::string& text)
{
    auto id = latest();
    if (id)
        server_->send(*id, text);
    return id.has_value();
}

void service_peer::close_latest()
{
    if (auto id = latest())
        server_->close(*id);
}

void service_peer::drop_latest()
{
    if (auto id = latest())
        server_->drop(*id);
}

void service_peer::answer_pings(bool answer)
{
    answer_pings_ = answer;
    if (server_)
        server_->answer_pings(answer);
}

void service_peer::set_http_handler(std::function<wss::http_response(const wss::http_request&)> handler)
{
    std::lock_guard<std::mutex> lock(mutex_);
    http_handler_ = std::move(handler);
}

} // namespace orbweave::test
