#include "agent/agent.hpp"

#include "core/bandwidth_probe.hpp"

namespace orbweave::agent {

using callback::request_type;
using callback::source_type;
using callback::state_type;

agent::agent(options options, std::function<void(const std::string&)> print, int prompt_fd)
    : options_(std::move(options)), print_(std::move(print)), secrets_(options_.state_dir)
{
    if (options_.permissions.ask && prompt_fd >= 0)
        prompt_ = std::make_unique<terminal_prompt>(prompt_fd, print_);
}

agent::~agent()
{
    // The client stops first: an answer typed while the prompt closes then finds it stopped.
    stop();
    prompt_.reset();
}

bool agent::start(const std::function<bool()>& cancelled)
{
    if (options_.bitrate) {
        bitrate_ = *options_.bitrate;
    } else {
        print_("measuring bandwidth");
        probe_options probe;
        probe.ca_file = options_.ca_file;
        probe.cancelled = cancelled;
        bitrate_ = recommended_bitrate(options_.service_url, probe);
        if (cancelled && cancelled())
            return false;
    }
    print_("bitrate " + std::to_string(bitrate_.load()) + " kbps");

    client_options settings;
    settings.transport.ca_file = options_.ca_file;
    command_line::use_capture_route(options_.capture, settings);
    command_line::use_stream_limit(options_.max_streams, settings);
    settings.media.restore_tokens = restore_tokens_path(options_.state_dir);
    settings.activity = std::make_shared<activity_log>(options_.state_dir + "/activity.jsonl");
    settings.media.warm = true;
    client_ = orbweave_client::create(options_.service_url, settings);
    client_->set_state_change_handler([this](state_type::type state) { on_state(state); });
    client_->set_secret_handler([this] { return secrets_.load(); });
    client_->set_new_code_handler([this](std::string code) { print_("code " + code); });
    client_->set_ready_handler([this](callback::msg::ready& ready) {
        if (!ready.secret.empty())
            secrets_.save(ready.secret);
        print_("paired with " + (ready.displayName.empty() ? std::string("an unnamed account") : ready.displayName));
    });
    client_->set_reset_handler([this] {
        secrets_.erase();
        print_("pairing removed by the service");
    });
    client_->set_permission_handler(
        [this](source_type::type kind, const std::string& name, const std::string& description,
               request_type::type request_kind, const callback::request& request) {
            on_permission(kind, name, description, request_kind, request);
        });
    client_->set_rule_handler([this](source_type::type kind) {
        auto decision = options_.permissions.decide(kind);
        if (decision == permission_policy::decision::allow || (decision == permission_policy::decision::ask && prompt_))
            return callback::permission_rule::ask; // the permission handler answers, and says so
        print_(std::string("denied activate ") + source_type::name(kind));
        return callback::permission_rule::never;
    });
    client_->set_streams_handler(
        [this](const std::vector<callback::active_stream>& streams) { health_.keep_only(streams); });
    client_->set_health_handler([this](const callback::active_stream& stream, const obs::health_summary& health) {
        if (auto line = health_.report(stream, health, health_announcer::clock::now()))
            print_(*line);
    });
    client_->set_profile_handler([this] { return encode_profile{profile_type::low, bitrate_.load()}; });
    print_("connecting to " + options_.service_url);
    client_->start();
    return true;
}

void agent::stop()
{
    if (!client_)
        return;
    client_->stop();
    client_->join();
    client_.reset();
}

void agent::on_state(state_type::type state)
{
    print_(std::string("state ") + state_type::name(state));
}

void agent::on_permission(source_type::type kind, const std::string& name, const std::string& description,
                          request_type::type request_kind, const callback::request& request)
{
    std::string what = std::string(request_type::name(request_kind)) + " " +
                       (kind == source_type::none ? "unknown kind" : source_type::name(kind));
    if (!name.empty())
        what += " \"" + name + "\"";
    switch (options_.permissions.decide(kind)) {
    case permission_policy::decision::allow:
        print_("allowed " + what);
        request.answer(true);
        return;
    case permission_policy::decision::ask:
        if (prompt_) {
            std::string question = "The service asks to " + what;
            if (!description.empty() && description != name)
                question += " (" + description + ")";
            prompt_->ask(question + ". Allow?", request);
            return;
        }
        [[fallthrough]];
    case permission_policy::decision::deny:
        print_("denied " + what);
        request.answer(false);
        return;
    }
}

} // namespace orbweave::agent
