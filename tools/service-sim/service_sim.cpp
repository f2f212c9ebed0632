#include "tools/service-sim/service_sim.hpp"

#include <openssl/rand.h>

#include <algorithm>
#include <stdexcept>

namespace orbweave::sim {
namespace {

constexpr const char* client_path = "/api/client";
constexpr const char* probe_path = "/api/client/test";

// Upper-case letters and digits without the look-alikes 0/O and 1/I: 32 symbols, so
// one random byte masked to 5 bits picks one without bias.
constexpr char code_alphabet[] = "ABCDEFGHJKLMNPQRSTUVWXYZ23456789";

std::string random_bytes(std::size_t count)
{
    std::string bytes(count, '\0');
    if (RAND_bytes(reinterpret_cast<unsigned char*>(bytes.data()), static_cast<int>(count)) != 1)
        throw std::runtime_error("service-sim: no random bytes");
    return bytes;
}

std::string random_hex(std::size_t bytes)
{
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (unsigned char c : random_bytes(bytes)) {
        text += digits[c >> 4];
        text += digits[c & 15];
    }
    return text;
}

std::string new_code()
{
    std::string code;
    for (unsigned char c : random_bytes(8))
        code += code_alphabet[c & 31];
    return code;
}

std::string path_of(const std::string& resource)
{
    return resource.substr(0, resource.find('?'));
}

Json ready_message(const std::string& secret, const owner& account)
{
    return {{"id", "ready"},
            {"payload", {{"secret", secret}, {"owner", {{"displayName", account.display_name}, {"avatar", account.avatar}}}}}};
}

} // namespace

std::string secret_prefix(const std::string& secret)
{
    return secret.substr(0, 8) + "...";
}

service_sim::service_sim(options opts)
    : options_(std::move(opts)),
      identity_(options_.identity ? *options_.identity : wss::tls_identity::generate()),
      port_(options_.port)
{
    start();
}

service_sim::~service_sim() { stop(); }

void service_sim::start()
{
    std::lock_guard<std::mutex> server_lock(server_mutex_);
    if (server_)
        return;
    wss::server_options server_options;
    server_options.identity = identity_;
    server_options.address = options_.address;
    server_options.port = port_;
    server_options.hooks.on_open = [this](wss::connection_id id) { on_open(id); };
    server_options.hooks.on_close = [this](wss::connection_id id) { on_close(id); };
    server_options.hooks.on_message = [this](wss::connection_id id, const std::string& text) { on_message(id, text); };
    server_options.hooks.on_http = [this](const wss::http_request& request) { return on_http(request); };
    server_options.hooks.accept_path = [](const std::string& resource) { return path_of(resource) == client_path; };
    server_ = std::make_unique<wss::wss_server>(std::move(server_options));
    server_->answer_pings(answer_pings_);
    port_ = server_->port();
    event("listening " + url());
}

void service_sim::stop()
{
    std::unique_ptr<wss::wss_server> server;
    {
        std::lock_guard<std::mutex> server_lock(server_mutex_);
        server = std::move(server_);
    }
    if (!server)
        return;
    // The hooks take mutex_, so the server is stopped with no lock of ours held.
    server->stop();
    server.reset();
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const auto& entry : open_)
            closed_.push_back(entry.first);
        open_.clear();
        codes_.clear();
        changed_.notify_all();
    }
    event("stopped");
}

bool service_sim::running() const
{
    std::lock_guard<std::mutex> server_lock(server_mutex_);
    return server_ != nullptr;
}

std::uint16_t service_sim::port() const
{
    std::lock_guard<std::mutex> server_lock(server_mutex_);
    return port_;
}

std::string service_sim::url(const std::string& path) const
{
    std::string host = options_.address.find(':') == std::string::npos ? options_.address : "[" + options_.address + "]";
    return "wss://" + host + ":" + std::to_string(port_) + path;
}

const wss::tls_identity& service_sim::identity() const { return identity_; }

void service_sim::event(const std::string& line) const
{
    if (options_.on_event)
        options_.on_event(line);
}

std::vector<wss::ping_record> service_sim::pings() const
{
    std::lock_guard<std::mutex> server_lock(server_mutex_);
    return server_ ? server_->pings() : std::vector<wss::ping_record>{};
}

void service_sim::send_to(wss::connection_id id, const Json& message)
{
    std::string text = json::dump(message);
    {
        std::lock_guard<std::mutex> server_lock(server_mutex_);
        if (!server_)
            return;
        server_->send(id, text);
    }
    event("sent " + json::dump(json::redacted(message)));
}

// ---- connections -------------------------------------------------------------------

void service_sim::on_open(wss::connection_id id)
{
    std::string state = random_hex(8);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        open_[id].identify_state = state;
        opened_.push_back(id);
        changed_.notify_all();
    }
    event("connected " + std::to_string(id));
    send_to(id, {{"id", "identify"}, {"state", state}});
}

void service_sim::on_close(wss::connection_id id)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!open_.erase(id))
            return;
        for (auto it = codes_.begin(); it != codes_.end();)
            it = it->second == id ? codes_.erase(it) : std::next(it);
        closed_.push_back(id);
        changed_.notify_all();
    }
    event("disconnected " + std::to_string(id));
}

std::vector<wss::connection_id> service_sim::connections() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<wss::connection_id> ids;
    for (const auto& entry : open_)
        ids.push_back(entry.first);
    return ids;
}

std::optional<wss::connection_id> service_sim::wait_for_connection(duration timeout)
{
    std::unique_lock<std::mutex> lock(mutex_);
    if (!changed_.wait_for(lock, timeout, [this] { return opened_.size() > opened_taken_; }))
        return std::nullopt;
    return opened_[opened_taken_++];
}

std::optional<wss::connection_id> service_sim::wait_for_disconnect(duration timeout)
{
    std::unique_lock<std::mutex> lock(mutex_);
    if (!changed_.wait_for(lock, timeout, [this] { return closed_.size() > closed_taken_; }))
        return std::nullopt;
    return closed_[closed_taken_++];
}

void service_sim::drop_connections()
{
    std::lock_guard<std::mutex> server_lock(server_mutex_);
    if (server_)
        server_->close_all();
}

void service_sim::cut_connections()
{
    std::lock_guard<std::mutex> server_lock(server_mutex_);
    if (server_)
        for (wss::connection_id id : server_->open_connections())
            server_->drop(id);
}

void service_sim::answer_pings(bool answer)
{
    std::lock_guard<std::mutex> server_lock(server_mutex_);
    answer_pings_ = answer;
    if (server_)
        server_->answer_pings(answer);
}

// ---- messages from clients ---------------------------------------------------------

void service_sim::on_message(wss::connection_id id, const std::string& text)
{
    Json message = json::parse(text);
    std::string kind = json::string_at(message, {"id"});
    // Learn first, so whoever waits for this reply can activate what it lists.
    if (kind == "list")
        learn_sources(message);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        received_.push_back({id, text, message, std::chrono::steady_clock::now()});
        taken_.push_back(false);
        changed_.notify_all();
    }
    if (kind == "code") {
        std::string secret = json::string_at(message, {"payload", "secret"});
        event(secret.empty() ? "code-request" : "code-request with secret " + secret_prefix(secret));
        answer_code_request(id, message);
        return;
    }
    event("reply " + json::dump(json::redacted(message)));
}

void service_sim::answer_code_request(wss::connection_id id, const Json& message)
{
    std::string secret = json::string_at(message, {"payload", "secret"});
    std::optional<owner> known;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = secrets_.find(secret);
        if (!secret.empty() && it != secrets_.end())
            known = it->second;
    }
    if (known) {
        event("ready " + secret_prefix(secret) + " for " + known->display_name);
        send_to(id, ready_message(secret, *known));
        return;
    }

    std::string code = new_code();
    {
        std::lock_guard<std::mutex> lock(mutex_);
        codes_[code] = id;
        issued_codes_.push_back(code);
        changed_.notify_all();
    }
    event("code " + code);
    send_to(id, {{"id", "code"}, {"payload", {{"code", code}}}});
    if (options_.auto_claim)
        claim(code, *options_.auto_claim);
}

void service_sim::learn_sources(const Json& reply)
{
    const Json& results = json::at(reply, {"payload", "results"});
    if (!results.is_array())
        return;
    std::lock_guard<std::mutex> lock(mutex_);
    std::string kind;
    if (reply.contains("state") && reply["state"].is_string()) {
        auto it = list_kinds_.find(reply["state"].get<std::string>());
        if (it != list_kinds_.end())
            kind = it->second;
    }
    for (const Json& entry : results) {
        std::string id = json::string_at(entry, {"id"});
        if (id.empty())
            continue;
        sources_[id] = {{"type", kind},
                        {"name", json::string_at(entry, {"name"})},
                        {"description", json::string_at(entry, {"description"})}};
    }
}

// ---- pairing ------------------------------------------------------------------------

std::optional<std::string> service_sim::wait_for_code(duration timeout)
{
    std::unique_lock<std::mutex> lock(mutex_);
    if (!changed_.wait_for(lock, timeout, [this] { return issued_codes_.size() > codes_taken_; }))
        return std::nullopt;
    return issued_codes_[codes_taken_++];
}

std::optional<std::string> service_sim::claim(const std::string& code, const owner& account)
{
    wss::connection_id id = 0;
    std::string secret = random_hex(32);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = codes_.find(code);
        if (it == codes_.end())
            return std::nullopt;
        id = it->second;
        codes_.erase(it);
        secrets_[secret] = account;
    }
    event("claimed " + code + " by " + account.display_name + " (secret " + secret_prefix(secret) + ")");
    send_to(id, ready_message(secret, account));
    return secret;
}

std::string service_sim::issue_secret(const owner& account)
{
    std::string secret = random_hex(32);
    std::lock_guard<std::mutex> lock(mutex_);
    secrets_[secret] = account;
    return secret;
}

bool service_sim::knows_secret(const std::string& secret) const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return secrets_.count(secret) > 0;
}

// ---- requests to the client ---------------------------------------------------------

std::optional<std::string> service_sim::send_request(Json message)
{
    std::optional<wss::connection_id> target;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!open_.empty())
            target = open_.rbegin()->first;
    }
    if (!target)
        return std::nullopt;
    std::string state = message.contains("state") ? message["state"].get<std::string>() : std::string();
    send_to(*target, message);
    return state;
}

std::optional<std::string> service_sim::identify()
{
    return send_request({{"id", "identify"}, {"state", random_hex(8)}});
}

std::optional<std::string> service_sim::list(const std::string& kind)
{
    std::string state = random_hex(8);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        list_kinds_[state] = kind;
    }
    return send_request({{"id", "list"}, {"state", state}, {"payload", {{"type", kind}}}});
}

Json service_sim::activate_message(const activation& request, const std::string& state) const
{
    Json known;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = sources_.find(request.source_id);
        if (it != sources_.end())
            known = it->second;
    }
    auto pick = [&known](const std::string& given, const char* key) {
        return given.empty() ? json::string_at(known, {key}) : given;
    };
    Json options = {{"profile", request.profile}};
    if (request.width)
        options["width"] = *request.width;
    if (request.height)
        options["height"] = *request.height;
    if (request.fps)
        options["fps"] = *request.fps;
    return {{"id", "activate"},
            {"state", state},
            {"payload",
             {{"source",
               {{"id", request.source_id},
                {"type", pick(request.type, "type")},
                {"name", pick(request.name, "name")},
                {"description", pick(request.description, "description")}}},
              {"options", options},
              {"service", {{"server", request.server}, {"key", request.key}}}}}};
}

std::optional<std::string> service_sim::activate(const activation& request)
{
    return send_request(activate_message(request, random_hex(8)));
}

std::optional<std::string> service_sim::deactivate(const std::string& source_id)
{
    return send_request({{"id", "deactivate"}, {"state", random_hex(8)}, {"payload", {{"source", {{"id", source_id}}}}}});
}

std::optional<std::string> service_sim::deactivate_all()
{
    return send_request({{"id", "deactivate"}, {"state", random_hex(8)}});
}

std::optional<std::string> service_sim::reset()
{
    return send_request({{"id", "reset"}});
}

bool service_sim::send_raw(const std::string& text)
{
    std::optional<wss::connection_id> target;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!open_.empty())
            target = open_.rbegin()->first;
    }
    if (!target)
        return false;
    {
        std::lock_guard<std::mutex> server_lock(server_mutex_);
        if (!server_)
            return false;
        server_->send(*target, text);
    }
    event("sent " + json::redacted_text(text));
    return true;
}

// ---- recorded traffic ---------------------------------------------------------------

std::vector<received> service_sim::messages() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return received_;
}

std::optional<received> service_sim::wait_for(std::function<bool(const received&)> match, duration timeout)
{
    std::unique_lock<std::mutex> lock(mutex_);
    std::optional<received> found;
    std::size_t scanned = 0;
    changed_.wait_for(lock, timeout, [&] {
        for (; scanned < received_.size(); ++scanned) {
            if (!taken_[scanned] && match(received_[scanned])) {
                taken_[scanned] = true;
                found = received_[scanned];
                return true;
            }
        }
        return false;
    });
    return found;
}

std::optional<received> service_sim::wait_for_reply(const std::string& state, duration timeout)
{
    return wait_for([&state](const received& r) { return r.message.is_object() && r.message.value("state", Json()) == state; },
                    timeout);
}

Json service_sim::reply_payload(const std::optional<std::string>& state, duration timeout)
{
    if (!state)
        return nullptr;
    auto reply = wait_for_reply(*state, timeout);
    return reply ? json::at(reply->message, {"payload"}) : Json();
}

std::optional<received> service_sim::wait_for_identify(duration timeout)
{
    return wait_for([](const received& r) { return json::string_at(r.message, {"id"}) == "identify"; }, timeout);
}

std::optional<received> service_sim::wait_for_code_request(duration timeout)
{
    return wait_for([](const received& r) { return json::string_at(r.message, {"id"}) == "code"; }, timeout);
}

// ---- bandwidth probe ----------------------------------------------------------------

wss::http_response service_sim::on_http(const wss::http_request& request)
{
    if (path_of(request.resource) != probe_path)
        return {404, "not found\n", "text/plain"};
    if (request.method != "POST")
        return {405, "method not allowed\n", "text/plain"};

    auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(request.received - request.accepted);
    probe_request probe{request.method, request.resource, request.body.size(), std::max<long long>(1, elapsed.count())};
    std::shared_future<void> release;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        probes_.push_back(probe);
        changed_.notify_all();
        release = probe_release_;
    }
    if (release.valid())
        release.wait_for(std::chrono::minutes(1));

    wss::http_response response;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        switch (probe_mode_) {
        case probe_mode::measured:
            response = {200, json::dump({{"bytes", probe.bytes}, {"duration", probe.duration_ms}}), "application/json"};
            break;
        case probe_mode::json:
            response = {200, probe_body_, "application/json"};
            break;
        case probe_mode::text:
            response = {200, probe_body_, probe_content_type_};
            break;
        case probe_mode::status:
            response = {probe_status_, probe_body_, "text/plain"};
            break;
        }
    }
    event("probe " + std::to_string(probe.bytes) + " bytes in " + std::to_string(probe.duration_ms) + " ms, answered "
          + std::to_string(response.status));
    return response;
}

void service_sim::hold_probe(std::shared_future<void> released)
{
    std::lock_guard<std::mutex> lock(mutex_);
    probe_release_ = std::move(released);
}

void service_sim::answer_probe_measured()
{
    std::lock_guard<std::mutex> lock(mutex_);
    probe_mode_ = probe_mode::measured;
}

void service_sim::answer_probe_json(const Json& value)
{
    std::lock_guard<std::mutex> lock(mutex_);
    probe_mode_ = probe_mode::json;
    probe_body_ = json::dump(value);
}

void service_sim::answer_probe_text(const std::string& body, const std::string& content_type)
{
    std::lock_guard<std::mutex> lock(mutex_);
    probe_mode_ = probe_mode::text;
    probe_body_ = body;
    probe_content_type_ = content_type;
}

void service_sim::answer_probe_status(int status, const std::string& body)
{
    std::lock_guard<std::mutex> lock(mutex_);
    probe_mode_ = probe_mode::status;
    probe_status_ = status;
    probe_body_ = body;
}

std::vector<probe_request> service_sim::probes() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return probes_;
}

std::optional<probe_request> service_sim::wait_for_probe(duration timeout)
{
    std::unique_lock<std::mutex> lock(mutex_);
    if (!changed_.wait_for(lock, timeout, [this] { return probes_.size() > probes_taken_; }))
        return std::nullopt;
    return probes_[probes_taken_++];
}

} // namespace orbweave::sim
