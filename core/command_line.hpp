#pragma once

// The command-line options every front end shares (the desktop app and the
// headless agent), and the walk over an argument list that both parse with.

#include "core/obs/capture_route.hpp"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace orbweave {
struct client_options;
}

namespace orbweave::command_line {

/// How to reach the service, and what to print instead of running.
struct common_options {
    /// --service URL (a wss:// URL); the build's ORBWEAVE_SERVICE_URL by default.
    std::string service_url;
    /// --ca-file FILE, else $ORBWEAVE_CA_FILE: a CA trusted beside the system store.
    std::string ca_file;
    /// --bitrate KBPS: use it and skip the bandwidth probe.
    std::optional<std::int32_t> bitrate;
    /// --capture auto|x11|portal: how screens are captured (auto: by the session).
    obs::capture_route capture = obs::capture_route::automatic;
    /// --max-streams N: at most N streams at once (default: what the machine can carry).
    std::optional<int> max_streams;
    bool show_help = false;
    bool show_version = false;
};

/// Gives a front end's own option its value: call it only for options that take one.
using value_reader = std::function<std::string()>;
/// Consumes a front end's own option name (with value() for its value); false when it
/// is not one of its options.
using extra_option = std::function<bool(const std::string& name, const value_reader& value)>;

/// Parses arguments ("--name value" or "--name=value"); options that are not common go
/// to extra. Throws std::invalid_argument with a message for the user when an argument
/// is unknown or a value is wrong.
common_options parse(const std::vector<std::string>& arguments, const extra_option& extra = {});

/// Resolves the capture route for this session, logs it once, and hands it to every
/// media worker the client will start.
void use_capture_route(obs::capture_route requested, client_options& client);

/// Sets the limit of streams at once: requested where given, else derived from the
/// machine's memory and cores; logs it once.
void use_stream_limit(std::optional<int> requested, client_options& client);

/// The help lines of the common options, aligned like the front ends' own.
std::string common_usage();

} // namespace orbweave::command_line
