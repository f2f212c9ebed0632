#include "agent/agent_options.hpp"


#include <cstdlib>
#include <sstream>
#include <stdexcept>

namespace orbweave::agent {

using callback::source_type;

permission_policy::decision permission_policy::decide(source_type::type kind) const
{
    if (allowed.count(kind) || (kind == source_type::none && allow_unknown))
        return decision::allow;
    return ask ? decision::ask : decision::deny;
}

namespace {

void parse_allow(const std::string& list, permission_policy& policy)
{
    std::istringstream items(list);
    std::string item;
    bool any = false;
    while (std::getline(items, item, ',')) {
        if (item.empty())
            continue;
        any = true;
        if (item == "all") {
            policy.allowed = {source_type::screen, source_type::window, source_type::audio, source_type::video};
            policy.allow_unknown = true;
            continue;
        }
        source_type::type kind = source_type::map(item);
        if (kind == source_type::none || item != source_type::name(kind))
            throw std::invalid_argument("--allow: unknown kind '" + item +
                                        "' (use screen, window, audio, video or all)");
        policy.allowed.insert(kind);
    }
    if (!any)
        throw std::invalid_argument("--allow needs a comma-separated list of screen, window, audio, video or all");
}

} // namespace

std::string default_state_dir()
{
    if (const char* config = std::getenv("XDG_CONFIG_HOME"); config && *config)
        return std::string(config) + "/orbweave";
    if (const char* home = std::getenv("HOME"); home && *home)
        return std::string(home) + "/.config/orbweave";
    return ".orbweave";
}

options parse_options(const std::vector<std::string>& arguments)
{
    options result;
    static_cast<command_line::common_options&>(result) =
        command_line::parse(arguments, [&](const std::string& name, const command_line::value_reader& value) {
            if (name == "--state-dir")
                result.state_dir = value();
            else if (name == "--allow")
                parse_allow(value(), result.permissions);
            else if (name == "--ask")
                result.permissions.ask = true;
            else if (name == "--check")
                result.check = true;
            else if (name == "--json")
                result.json = true;
            else
                return false;
            return true;
        });
    if (result.json && !result.check)
        throw std::invalid_argument("--json goes with --check");
    if (result.state_dir.empty())
        result.state_dir = default_state_dir();
    return result;
}

std::string usage()
{
    return R"(Usage: orbweave-agent [options]

Lets the live-production service use this machine's screens, windows, audio
devices and cameras, without a desktop. Prints the pairing code and state
changes on standard output; the protocol log goes to standard error.

Options:
)" + command_line::common_usage() +
           R"(  --state-dir DIR   where the machine's secret is kept
                    (default $XDG_CONFIG_HOME/orbweave or ~/.config/orbweave)
  --allow KINDS     kinds the service may use without asking: a comma list of
                    screen, window, audio, video, or all (default: none)
  --ask             ask on the terminal for kinds not allowed; without a
                    terminal they are denied
  --check           check this machine (display, sound, encoders, the service,
                    the bandwidth, the state folder), print one line per check
                    and exit: 0 when a stream can work here, 1 when not
  --json            with --check: print the result as one JSON object
)";
}

} // namespace orbweave::agent
