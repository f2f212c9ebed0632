#pragma once

#include "agent/agent_options.hpp"
#include "agent/health_report.hpp"
#include "agent/secret_store.hpp"
#include "agent/terminal_prompt.hpp"
#include "core/orbweave_client.hpp"

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace orbweave::agent {

/// The headless front end: wires the client's callbacks to plain output lines,
/// the secret file and the permission policy.
class agent {
public:
    /// print receives each output line (without newline); prompt_fd is where
    /// --ask reads answers (-1: nowhere, so asking denies).
    agent(options options, std::function<void(const std::string&)> print, int prompt_fd);
    ~agent();

    /// Measures the bitrate (unless given) and connects. cancelled is polled
    /// during the measurement; true stops start() early and returns false.
    bool start(const std::function<bool()>& cancelled = {});
    /// Stops every stream and the link, and waits for the network thread.
    void stop();

    std::int32_t bitrate() const { return bitrate_; }

private:
    void on_state(callback::state_type::type state);
    void on_permission(callback::source_type::type kind, const std::string& name, const std::string& description,
                       callback::request_type::type request_kind, const callback::request& request);

    options options_;
    std::function<void(const std::string&)> print_;
    secret_store secrets_;
    std::unique_ptr<terminal_prompt> prompt_;
    std::unique_ptr<orbweave_client> client_;
    std::atomic<std::int32_t> bitrate_{0};
    // Used on the client's network thread only.
    health_announcer health_;
};

} // namespace orbweave::agent
