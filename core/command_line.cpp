#include "core/command_line.hpp"

#include "core/log.hpp"
#include "core/obs/stream_limit.hpp"
#include "core/orbweave_client.hpp"
#include "core/websocket/tls.hpp"

#include <stdexcept>

namespace orbweave::command_line {

namespace {

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

int parse_max_streams(const std::string& text)
{
    std::size_t used = 0;
    long value = 0;
    try {
        value = std::stol(text, &used);
    } catch (const std::exception&) {
        used = 0;
    }
    if (used != text.size() || text.empty() || value < 1 || value > obs::highest_stream_limit)
        throw std::invalid_argument("--max-streams needs a whole number between 1 and " +
                                    std::to_string(obs::highest_stream_limit) + ", not '" + text + "'");
    return static_cast<int>(value);
}

} // namespace

common_options parse(const std::vector<std::string>& arguments, const extra_option& extra)
{
    common_options result;
    result.service_url = default_service_url;
    result.ca_file = websocket::ca_file_from_environment();

    for (std::size_t i = 0; i < arguments.size(); ++i) {
        std::string name = arguments[i];
        std::optional<std::string> inline_value;
        if (auto equals = name.find('='); name.rfind("--", 0) == 0 && equals != std::string::npos) {
            inline_value = name.substr(equals + 1);
            name = name.substr(0, equals);
        }
        value_reader value = [&]() -> std::string {
            if (inline_value)
                return *inline_value;
            if (i + 1 >= arguments.size())
                throw std::invalid_argument(name + " needs a value");
            return arguments[++i];
        };

        if (name == "--help" || name == "-h")
            result.show_help = true;
        else if (name == "--version")
            result.show_version = true;
        else if (name == "--service")
            result.service_url = value();
        else if (name == "--ca-file")
            result.ca_file = value();
        else if (name == "--bitrate")
            result.bitrate = parse_bitrate(value());
        else if (name == "--max-streams")
            result.max_streams = parse_max_streams(value());
        else if (name == "--capture") {
            std::string mode = value();
            auto route = obs::parse_capture_route(mode);
            if (!route)
                throw std::invalid_argument("--capture needs auto, x11 or portal, not '" + mode + "'");
            result.capture = *route;
        }
        else if (!extra || !extra(name, value))
            throw std::invalid_argument("unknown argument '" + arguments[i] + "' (see --help)");
    }

    if (result.service_url.rfind("wss://", 0) != 0)
        throw std::invalid_argument("--service needs a wss:// URL, not '" + result.service_url + "'");
    return result;
}

void use_capture_route(obs::capture_route requested, client_options& client)
{
    obs::capture_route route = obs::resolve_capture_route(requested);
    log::line(obs::describe_capture_route(route));
    client.media.listing.capture = route;
    client.media.stream.capture = route;
}

void use_stream_limit(std::optional<int> requested, client_options& client)
{
    if (requested) {
        client.media.max_streams = *requested;
        log::line("At most " + std::to_string(*requested) + " streams at once, as set");
        return;
    }
    obs::machine_resources machine = obs::this_machine();
    client.media.max_streams = obs::stream_limit_for(machine);
    log::line("At most " + std::to_string(client.media.max_streams) + " streams at once, from " +
              obs::describe_stream_limit(machine) + " (--max-streams sets another limit)");
}

std::string common_usage()
{
    return "  --service URL     the service's client endpoint (default " + std::string(default_service_url) +
           ")\n"
           "  --ca-file FILE    also trust this CA certificate (or set ORBWEAVE_CA_FILE)\n"
           "  --bitrate KBPS    stream bitrate; skips the bandwidth probe\n"
           "  --capture MODE    how screens are captured: auto (by the session), x11, or\n"
           "                    portal (the desktop portal and PipeWire, for Wayland)\n"
           "  --max-streams N   at most N streams at once (default: from the machine's\n"
           "                    memory and cores)\n"
           "  --help            show this text\n"
           "  --version         show the version\n";
}

} // namespace orbweave::command_line
