#include "agent/agent_options.hpp"

#include "core/orbweave_client.hpp"
#include "core/websocket/tls.hpp"

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

std::int32_t parse_bitrate(const std::string& text)
{
    std::size_t used = 0;
    long value = 0;
    try {
        value = std::stol(text, &used);
    } catch (const std::exception&) {
        used = 0;
    }
    if (used != text.size() || text.empty() || value <= 0 || value > 1000000)
        throw std::invalid_argument("--bitrate needs a whole number of kbps between 1 and 1000000, not '" + text + "'");
    return static_cast<std::int32_t>(value);
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
    result.service_url = default_service_url;
    result.ca_file = websocket::ca_file_from_environment();

    for (std::size_t i = 0; i < arguments.size(); ++i) {
        std::string name = arguments[i];
        std::string value;
        bool inline_value = false;
        if (auto equals = name.find('='); name.rfind("--", 0) == 0 && equals != std::string::npos) {
            value = name.substr(equals + 1);
            name = name.substr(0, equals);
            inline_value = true;
        }
        auto take_value = [&]() -> std::string {
            if (inline_value)
                return value;
            if (i + 1 >= arguments.size())
                throw std::invalid_argument(name + " needs a value");
            return arguments[++i];
        };

        if (name == "--help" || name == "-h")
            result.show_help = true;
        else if (name == "--version")
            result.show_version = true;
        else if (name == "--service")
            result.service_url = take_value();
        else if (name == "--ca-file")
            result.ca_file = take_value();
        else if (name == "--state-dir")
            result.state_dir = take_value();
        else if (name == "--allow")
            parse_allow(take_value(), result.permissions);
        else if (name == "--ask")
            result.permissions.ask = true;
        else if (name == "--bitrate")
            result.bitrate = parse_bitrate(take_value());
        else
            throw std::invalid_argument("unknown argument '" + arguments[i] + "' (see --help)");
    }

    if (result.service_url.rfind("wss://", 0) != 0)
        throw std::invalid_argument("--service needs a wss:// URL, not '" + result.service_url + "'");
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
  --service URL     the service's client endpoint (default )" +
           std::string(default_service_url) + R"()
  --ca-file FILE    also trust this CA certificate (or set ORBWEAVE_CA_FILE)
  --state-dir DIR   where the machine's secret is kept
                    (default $XDG_CONFIG_HOME/orbweave or ~/.config/orbweave)
  --allow KINDS     kinds the service may use without asking: a comma list of
                    screen, window, audio, video, or all (default: none)
  --ask             ask on the terminal for kinds not allowed; without a
                    terminal they are denied
  --bitrate KBPS    stream bitrate; skips the bandwidth probe
  --help            show this text
  --version         show the version
)";
}

} // namespace orbweave::agent
