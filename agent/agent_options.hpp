#pragma once

#include "core/callback.hpp"
#include "core/command_line.hpp"

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace orbweave::agent {

/// How the agent answers the service's permission requests.
struct permission_policy {
    /// Kinds allowed without asking.
    std::set<callback::source_type::type> allowed;
    /// `all` also allows kinds this client does not know (the service then gets "Failure").
    bool allow_unknown = false;
    /// Ask on the terminal for kinds not allowed (denied when there is no terminal).
    bool ask = false;

    enum class decision { allow, deny, ask };
    decision decide(callback::source_type::type kind) const;
};

/// The common options (service, CA, bitrate, help, version) and the agent's own.
struct options : command_line::common_options {
    std::string state_dir;
    permission_policy permissions;
    /// --check: say what will work on this machine, and exit (--json: as one JSON object).
    bool check = false;
    bool json = false;
};

/// The options for a command line; std::invalid_argument with a message for the
/// user when an argument is wrong. environment lookups go through getenv.
options parse_options(const std::vector<std::string>& arguments);

/// The --help text.
std::string usage();

/// $XDG_CONFIG_HOME/orbweave, else $HOME/.config/orbweave.
std::string default_state_dir();

} // namespace orbweave::agent
