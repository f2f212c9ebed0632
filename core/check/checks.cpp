#include "core/check/checks.hpp"

#include "core/bandwidth_probe.hpp"
#include "core/encode_profile.hpp"
#include "core/obs/child_process.hpp"
#include "core/obs/pipe_channel.hpp"
#include "core/obs/worker.hpp"

#include <poll.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <future>

namespace orbweave::check {

namespace {

using json::bool_at;
using json::int_at;
using json::string_at;

std::string environment(const char* name)
{
    const char* value = std::getenv(name);
    return value ? value : "";
}

item make(std::string name, status level, std::string found, std::string fix = {}, Json details = Json::object())
{
    return item{std::move(name), level, std::move(found), std::move(fix), std::move(details)};
}

std::string plural(long long count, const char* one, const char* many)
{
    return std::to_string(count) + " " + (count == 1 ? one : many);
}

obs::worker::options worker_options(const settings& options, bool stream_worker, std::chrono::milliseconds calls)
{
    obs::worker::options worker;
    worker.executable = options.worker_executable;
    worker.stream_worker = stream_worker;
    worker.start_timeout = worker_start_limit;
    worker.call_timeout = calls;
    worker.shutdown_timeout = std::chrono::milliseconds(3000);
    worker.capture = obs::resolve_capture_route(options.capture);
    return worker;
}

/// Why no media worker runs here, for a person.
std::string start_failure(obs::capture_route route)
{
    if (route == obs::capture_route::portal)
        return environment("WAYLAND_DISPLAY").empty() ? "WAYLAND_DISPLAY is not set"
                                                      : "the media worker could not start on Wayland display " +
                                                            environment("WAYLAND_DISPLAY");
    return environment("DISPLAY").empty() ? "no display: DISPLAY is not set"
                                          : "the media worker could not open X display " + environment("DISPLAY");
}

const char* display_fix(obs::capture_route route)
{
    return route == obs::capture_route::portal
               ? "run inside the Wayland session (WAYLAND_DISPLAY, XDG_RUNTIME_DIR), or --capture x11 with DISPLAY"
               : "run inside a desktop session, or set DISPLAY (and XAUTHORITY) to the X display to capture, "
                 "e.g. DISPLAY=:0 in ~/.config/orbweave/agent.env";
}

std::string cursor_modes(unsigned modes)
{
    std::string text;
    auto add = [&](unsigned bit, const char* name) {
        if (modes & bit)
            text += (text.empty() ? "" : ", ") + std::string(name);
    };
    add(2, "embedded");
    add(4, "metadata");
    add(1, "hidden");
    return text.empty() ? "none" : text;
}

item display_item(obs::capture_route route, const Json& desktop)
{
    if (route == obs::capture_route::portal) {
        const Json& portal = json::at(desktop, {"portal"});
        std::string name = string_at(portal, {"wayland_display"});
        if (!bool_at(portal, {"compositor"}))
            return make("display", status::fail, "no Wayland compositor answers at WAYLAND_DISPLAY=" + name,
                        display_fix(route), portal);
        return make("display", status::ok, "Wayland (" + name + "): screens through the desktop portal and PipeWire",
                    {}, portal);
    }
    const Json& x11 = json::at(desktop, {"x11"});
    std::string name = string_at(x11, {"display"});
    if (!string_at(x11, {"error"}).empty())
        return make("display", status::fail, "X11 " + name + ": " + string_at(x11, {"error"}), display_fix(route), x11);
    std::string found = "X11 " + name + ": " + plural(int_at(x11, {"screens"}), "screen", "screens");
    if (!bool_at(x11, {"window_manager"}))
        return make("display", status::warn, found + ", no EWMH window manager (windows are not listed)",
                    "run a window manager that supports EWMH (any desktop's, or openbox)", x11);
    return make("display", status::ok, found + ", EWMH window manager", {}, x11);
}

item portal_item(const Json& desktop)
{
    Json portal = json::at(desktop, {"portal"});
    if (!json::is_number_at(portal, {"version"}))
        return make("portal", status::fail,
                    "no desktop portal with ScreenCast answers (" + string_at(portal, {"error"}) + ")",
                    "install xdg-desktop-portal and the desktop's backend (xdg-desktop-portal-gnome, -kde or -wlr) "
                    "and log in again",
                    portal);
    int version = int_at(portal, {"version"});
    unsigned types = static_cast<unsigned>(int_at(portal, {"source_types"}));
    unsigned cursors = static_cast<unsigned>(int_at(portal, {"cursor_modes"}));
    bool restores = version >= 4;
    std::string found = "ScreenCast version " + std::to_string(version) + ", offers " +
                        ((types & 1) && (types & 2) ? "screens and windows"
                         : (types & 1)              ? "screens only"
                         : (types & 2)              ? "windows only"
                                                    : "nothing") +
                        ", pointer modes " + cursor_modes(cursors) + ", restore tokens " +
                        (restores ? "honoured" : "not supported (the picker asks every time)");
    portal["restore_tokens"] = restores;
    if (!(types & 1))
        return make("portal", status::fail, found,
                    "use a portal backend that casts monitors (xdg-desktop-portal-gnome, -kde or -wlr)", portal);
    if (!restores)
        return make("portal", status::warn, found, "update xdg-desktop-portal to 1.12 or newer (ScreenCast 4)", portal);
    if (!(cursors & 2))
        return make("portal", status::warn, found + " (the pointer is not drawn into the picture)",
                    "a portal backend that embeds the pointer (GNOME, KDE, wlroots do)", portal);
    return make("portal", status::ok, found, {}, portal);
}

item pipewire_item(obs::capture_route route, const Json& desktop)
{
    const Json& pipewire = json::at(desktop, {"pipewire"});
    bool connected = bool_at(pipewire, {"connected"});
    std::string library = "library " + string_at(pipewire, {"library"});
    if (route != obs::capture_route::portal)
        return make("pipewire", status::ok,
                    std::string(connected ? "running" : "not running") + " (" + library + "), not needed on X11", {},
                    pipewire);
    if (!connected)
        return make("pipewire", status::fail, string_at(pipewire, {"error"}) + " (" + library + ")",
                    "start PipeWire and WirePlumber in this session (systemctl --user start pipewire wireplumber)",
                    pipewire);
    return make("pipewire", status::ok, "connected (" + library + ")", {}, pipewire);
}

item sound_item(const Json& desktop)
{
    const Json& sound = json::at(desktop, {"sound"});
    const char* fix_server = "start PulseAudio, or PipeWire with pipewire-pulse, in this session (or set PULSE_SERVER); "
                             "streams then carry silence and no audio device is listed";
    if (!bool_at(sound, {"connected"}))
        return make("sound", status::warn, "no sound server answers (" + string_at(sound, {"error"}) + ")", fix_server,
                    sound);
    auto device = [&](const char* name, const char* description) {
        std::string text = string_at(sound, {description});
        return text.empty() ? string_at(sound, {name}) : "\"" + text + "\"";
    };
    std::string found = string_at(sound, {"name"}) + " " + string_at(sound, {"version"});
    std::string output = device("default_output", "default_output_description");
    std::string input = device("default_input", "default_input_description");
    found += ", default output " + (output.empty() ? std::string("none") : output) + ", default input " +
             (input.empty() ? std::string("none") : input);
    if (output.empty() || input.empty())
        return make("sound", status::warn, found,
                    "choose a default output and input in the sound settings (pavucontrol) or with pactl",
                    sound);
    return make("sound", status::ok, found, {}, sound);
}

/// The desktop side asked of a worker that starts no libobs (orbweave-media-worker
/// --check-desktop), where no display lets a listing worker start; null when it does
/// not answer within desktop_call_limit.
Json probe_desktop(const settings& options, obs::capture_route route)
{
    obs::child_process::options spawn;
    spawn.argv = {options.worker_executable.empty() ? obs::worker::default_executable() : options.worker_executable,
                  "--check-desktop", "--capture", obs::capture_route_name(route)};
    spawn.pipe_stdout = true;
    try {
        obs::child_process probe(spawn);
        pollfd ready{probe.stdout_fd(), POLLIN, 0};
        int waited = ::poll(&ready, 1, static_cast<int>(desktop_call_limit.count()));
        std::string line;
        obs::pipe::line_reader reader(probe.stdout_fd(), obs::pipe::max_line_bytes);
        if (waited != 1 || reader.next(line) != obs::pipe::line_reader::status::line)
            return nullptr; // the probe is killed as it goes
        probe.wait_for(std::chrono::milliseconds(1000));
        obs::pipe::worker_line reply = obs::pipe::worker_line::parse(line);
        return reply.ok ? reply.result : Json(nullptr);
    } catch (const std::exception&) {
        return nullptr;
    }
}

/// Why a worker's call failed, for a person.
std::string call_failure(const std::exception& error, const worker_watch* watch)
{
    if (watch && watch->expired())
        return "no answer within the check's " + std::to_string(whole_check_limit.count() / 1000) + " s";
    return error.what();
}

item not_checked(const std::string& name, const std::string& why)
{
    return make(name, status::warn, "not checked: " + why, "fix the failures above first");
}

} // namespace

std::string stream_encoder_text(const std::string& hardware, bool hardware_works, std::optional<std::int32_t> kbps)
{
    // As the stream decides (media/encoders): hardware from the threshold up, where offered;
    // a hardware start that fails is retried once with x264.
    constexpr std::int32_t threshold = 5000;
    if (hardware.empty())
        return "streams use obs_x264";
    if (!kbps) {
        if (hardware_works)
            return "streams use obs_x264, and " + hardware + " at 5000 kbps or more";
        return "streams use obs_x264 (at 5000 kbps or more " + hardware + " is tried first and fails)";
    }
    std::string rate = std::to_string(*kbps) + " kbps";
    if (*kbps < threshold)
        return "streams use obs_x264 (" + rate + " is below the 5000 kbps " + hardware + " needs)";
    if (hardware_works)
        return "streams use " + hardware + " (" + rate + ")";
    return "streams try " + hardware + " first (" + rate + "), which fails, then obs_x264: a slower start";
}

void worker_watch::hold(obs::worker* worker)
{
    std::lock_guard<std::mutex> lock(mutex_);
    worker_ = worker;
    if (worker_ && expired_)
        worker_->abort();
}

void worker_watch::expire()
{
    std::lock_guard<std::mutex> lock(mutex_);
    expired_ = true;
    if (worker_)
        worker_->abort();
}

bool worker_watch::expired() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return expired_;
}

std::vector<item> desktop_checks(const settings& options, worker_watch* watch)
{
    obs::capture_route route = obs::resolve_capture_route(options.capture);
    std::vector<item> items;
    std::unique_ptr<obs::worker> worker;
    try {
        worker = std::make_unique<obs::worker>(worker_options(options, false, desktop_call_limit));
        if (watch)
            watch->hold(worker.get());
    } catch (const std::exception& error) {
        items.push_back(make("display", status::fail, start_failure(route), display_fix(route),
                             {{"route", obs::capture_route_name(route)}, {"error", error.what()}}));
        // The rest of the desktop needs no display.
        Json desktop = probe_desktop(options, route);
        if (desktop.is_object()) {
            if (route == obs::capture_route::portal)
                items.push_back(portal_item(desktop));
            items.push_back(pipewire_item(route, desktop));
            items.push_back(sound_item(desktop));
        } else {
            items.push_back(not_checked("sound", "the media worker does not start"));
        }
        items.push_back(not_checked("catalogue", "no media worker lists without a display"));
        return items;
    }
    try {
        Json desktop = worker->call({{"op", obs::pipe::op::check_desktop}});
        items.push_back(display_item(route, desktop));
        if (route == obs::capture_route::portal)
            items.push_back(portal_item(desktop));
        items.push_back(pipewire_item(route, desktop));
        items.push_back(sound_item(desktop));
    } catch (const std::exception& error) {
        items.push_back(make("display", status::fail, "the media worker could not look: " + call_failure(error, watch),
                             "run the check again; if it persists, report it with the output of --check --json"));
    }
    try {
        Json counts;
        std::size_t screens = worker->list(callback::source_type::screen).size();
        std::size_t windows = worker->list(callback::source_type::window).size();
        auto audios = worker->list_audios();
        std::size_t inputs = 0;
        for (const auto& audio : audios)
            inputs += audio.input;
        std::size_t cameras = worker->list(callback::source_type::video).size();
        counts = {{"screens", screens}, {"windows", windows}, {"audio_outputs", audios.size() - inputs},
                  {"audio_inputs", inputs}, {"cameras", cameras}};
        std::string found = plural(screens, "screen", "screens") + ", " + plural(windows, "window", "windows") +
                            ", " + plural(audios.size() - inputs, "audio output", "audio outputs") + ", " +
                            plural(inputs, "audio input", "audio inputs") + ", " +
                            plural(cameras, "camera", "cameras");
        if (route == obs::capture_route::portal && windows == 1)
            found += " (the window is the one the desktop's picker offers)";
        if (screens == 0)
            items.push_back(make("catalogue", status::fail, found, "the service has no screen to stream: see display",
                                 counts));
        else
            items.push_back(make("catalogue", status::ok, found, {}, counts));
    } catch (const std::exception& error) {
        items.push_back(make("catalogue", status::fail, "listing failed: " + call_failure(error, watch),
                             "run the check again; if it persists, report it with the output of --check --json"));
    }
    if (watch)
        watch->hold(nullptr);
    worker->shutdown();
    return items;
}

std::vector<item> encoder_checks(const settings& options, worker_watch* watch)
{
    std::vector<item> items;
    std::unique_ptr<obs::worker> worker;
    try {
        worker = std::make_unique<obs::worker>(worker_options(options, true, encoder_call_limit));
        if (watch)
            watch->hold(worker.get());
    } catch (const std::exception&) {
        for (const char* name : {"renderer", "h264", "aac"})
            items.push_back(not_checked(name, "the stream worker does not start (see display)"));
        return items;
    }
    Json found;
    try {
        found = worker->call({{"op", obs::pipe::op::check_encoders}});
    } catch (const std::exception& error) {
        if (watch)
            watch->hold(nullptr);
        items.push_back(make("h264", status::fail, "the encoders could not be tried: " + call_failure(error, watch),
                             "run the check again; if it persists, report it with the output of --check --json"));
        return items;
    }
    if (watch)
        watch->hold(nullptr);
    worker->shutdown();

    std::string renderer = string_at(found, {"renderer"});
    Json render_details{{"renderer", renderer}, {"software", bool_at(found, {"software"})},
                        {"conversion", string_at(found, {"conversion"})}};
    if (bool_at(found, {"software"}))
        items.push_back(make("renderer", status::warn,
                             renderer + ": software (no GPU), so the canvas costs CPU (about half a core a stream)",
                             "install the GPU's driver (Mesa's or the vendor's OpenGL) where there is a GPU; "
                             "X11 screens skip the canvas either way",
                             render_details));
    else
        items.push_back(make("renderer", status::ok, renderer + ": GPU", {}, render_details));

    const Json& paths = json::at(found, {"paths"});
    items.push_back(make("capture", status::ok,
                         "screen: " + string_at(paths, {"screen"}) + "; window: " + string_at(paths, {"window"}) +
                             "; audio: " + string_at(paths, {"audio"}) + "; camera: " + string_at(paths, {"camera"}),
                         {}, paths));

    // H.264: which encoders open and encode, and which one a stream takes.
    bool software_works = false, hardware_broken = false;
    std::string hardware = string_at(found, {"hardware_encoder"});
    bool hardware_works = false;
    std::vector<std::string> parts;
    for (const Json& encoder : json::at(found, {"encoders"})) {
        std::string id = string_at(encoder, {"id"});
        std::string state;
        if (!bool_at(encoder, {"registered"}))
            state = "not available";
        else if (bool_at(encoder, {"works"}))
            state = "encodes (" + std::to_string(int_at(encoder, {"packets"})) + " frames in " +
                    std::to_string(int_at(encoder, {"ms"})) + " ms)";
        else
            state = "fails: " + string_at(encoder, {"error"});
        parts.push_back(id + " " + state);
        if (id == "obs_x264")
            software_works = bool_at(encoder, {"works"});
        else if (bool_at(encoder, {"registered"}) && !bool_at(encoder, {"works"}))
            hardware_broken = true;
        if (id == hardware)
            hardware_works = bool_at(encoder, {"works"});
    }
    std::string text;
    for (const auto& part : parts)
        text += (text.empty() ? "" : ", ") + part;
    text += "; " + stream_encoder_text(hardware, hardware_works, std::nullopt);
    const Json& encoders = json::at(found, {"encoders"});
    Json h264_details{{"encoders", encoders}, {"hardware_encoder", hardware}, {"hardware_works", hardware_works}};
    if (!software_works && !hardware_works)
        items.push_back(make("h264", status::fail, text,
                             "install obs-studio's x264 plug-in (Debian: obs-studio, libx264-164)", h264_details));
    else if (hardware_broken)
        items.push_back(make("h264", status::warn, text,
                             "a hardware encoder is offered but does not encode: for VA-API install the driver "
                             "(intel-media-va-driver or mesa-va-drivers) and give this user /dev/dri/renderD128 "
                             "(group render); for NVENC the NVIDIA driver with libnvidia-encode",
                             h264_details));
    else
        items.push_back(make("h264", status::ok, text, {}, h264_details));

    const Json& aac = json::at(found, {"aac"});
    if (bool_at(aac, {"works"}))
        items.push_back(make("aac", status::ok,
                             "ffmpeg_aac encodes (" + std::to_string(int_at(aac, {"packets"})) + " packets in " +
                                 std::to_string(int_at(aac, {"ms"})) + " ms)",
                             {}, aac));
    else
        items.push_back(make("aac", status::fail,
                             "ffmpeg_aac " + (bool_at(aac, {"registered"}) ? "fails: " + string_at(aac, {"error"})
                                                                           : std::string("is not available")),
                             "install obs-studio's FFmpeg plug-in (Debian: obs-studio, libavcodec59)", aac));
    return items;
}

std::string quality_for(std::int32_t kbps)
{
    const char* best = nullptr;
    for (auto level : {profile_type::low, profile_type::medium, profile_type::high, profile_type::extreme}) {
        int caps[] = {600, 1500, 2500, 3500};
        if (kbps >= caps[level])
            best = profile_type::name(level);
    }
    if (!best)
        return "below low's 600 kbps: every stream gets 600 kbps, more than the link carries";
    return std::string("every level up to ") + best + " at its full bitrate";
}

item bandwidth_check(const settings& options, bool service_reachable)
{
    if (options.bitrate)
        return make("bandwidth", status::ok,
                    "--bitrate " + std::to_string(*options.bitrate) + " kbps given, not measured: " +
                        quality_for(*options.bitrate),
                    {}, {{"kbps", *options.bitrate}, {"measured", false}});
    if (!service_reachable)
        return make("bandwidth", status::warn,
                    "not measured (the service does not answer): streams would use " +
                        std::to_string(fallback_bitrate) + " kbps",
                    "fix the service line, or give --bitrate KBPS", {{"kbps", fallback_bitrate}, {"measured", false}});
    probe_options probe;
    probe.ca_file = options.ca_file;
    probe.timeout = bandwidth_limit;
    probe.cancelled = options.cancelled;
    auto started = std::chrono::steady_clock::now();
    std::int32_t kbps = recommended_bitrate(options.service_url, probe);
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - started).count();
    Json details{{"kbps", kbps}, {"ms", ms}, {"probe_url", probe_url_for(options.service_url)}};
    // The probe answers its fallback when it cannot measure.
    if (kbps == fallback_bitrate) {
        details["measured"] = false;
        return make("bandwidth", status::warn,
                    "the measure did not succeed within 5 s: streams use " + std::to_string(kbps) + " kbps, " +
                        quality_for(kbps),
                    "check the upload path to the service, or give --bitrate KBPS", details);
    }
    details["measured"] = true;
    std::string found = "measured " + std::to_string(kbps) + " kbps for streams: " + quality_for(kbps);
    if (kbps < 600)
        return make("bandwidth", status::warn, found, "a faster upload, or fewer streams at once", details);
    return make("bandwidth", status::ok, found, {}, details);
}

std::vector<item> run_common(const settings& options)
{
    auto deadline = std::chrono::steady_clock::now() + whole_check_limit;
    worker_watch desktop_watch, encoder_watch;
    auto desktop = std::async(std::launch::async, [&] { return desktop_checks(options, &desktop_watch); });
    auto encoders = std::async(std::launch::async, [&] { return encoder_checks(options, &encoder_watch); });
    auto network = std::async(std::launch::async, [&] {
        item service = service_check(options);
        item bandwidth = bandwidth_check(options, service.level != status::fail);
        return std::make_pair(std::move(service), std::move(bandwidth));
    });
    // A part still waiting at the deadline, or when the check is cancelled, has its worker
    // killed; it then answers at once. The network part ends within its own bounds (and
    // at once when cancelled).
    auto ready = [](auto& part) { return part.wait_for(std::chrono::seconds(0)) == std::future_status::ready; };
    while (!(ready(desktop) && ready(encoders) && ready(network))) {
        bool late = std::chrono::steady_clock::now() >= deadline;
        if (late || (options.cancelled && options.cancelled())) {
            desktop_watch.expire();
            encoder_watch.expire();
            network.wait();
            break;
        }
        network.wait_for(std::chrono::milliseconds(50));
    }
    auto [service, bandwidth] = network.get();

    std::vector<item> items = desktop.get();
    bool windows_cast = true;
    for (const item& entry : items)
        if (entry.name == "portal")
            windows_cast = int_at(entry.details, {"source_types"}) & 2;
    for (auto& entry : encoders.get()) {
        // The stream worker cannot know what the portal offers; the listing worker asked.
        if (entry.name == "capture" && !windows_cast) {
            entry.details["window"] = "none: this desktop's portal casts no windows";
            entry.found = "screen: " + string_at(entry.details, {"screen"}) + "; window: " +
                          string_at(entry.details, {"window"}) + "; audio: " + string_at(entry.details, {"audio"}) +
                          "; camera: " + string_at(entry.details, {"camera"});
        }
        // Which encoder a stream takes depends on the bitrate, known only now.
        if (entry.name == "h264" && entry.details.contains("hardware_works")) {
            auto at = entry.found.rfind("; stream");
            std::int32_t kbps = json::int_at(bandwidth.details, {"kbps"});
            if (at != std::string::npos && kbps > 0)
                entry.found = entry.found.substr(0, at) + "; " +
                              stream_encoder_text(string_at(entry.details, {"hardware_encoder"}),
                                                  bool_at(entry.details, {"hardware_works"}), kbps);
        }
        items.push_back(std::move(entry));
    }
    items.push_back(std::move(service));
    items.push_back(std::move(bandwidth));
    return items;
}

item state_folder_check(const std::string& directory)
{
    Json details{{"directory", directory}};
    struct stat folder{};
    if (::stat(directory.c_str(), &folder) != 0) {
        // secret_store makes it (0700) with the first pairing; its parent must let it.
        std::string parent = directory.substr(0, directory.find_last_of('/'));
        while (!parent.empty() && ::access(parent.c_str(), F_OK) != 0)
            parent = parent.substr(0, parent.find_last_of('/'));
        if (parent.empty())
            parent = ".";
        if (::access(parent.c_str(), W_OK) != 0)
            return make("state", status::fail, directory + " does not exist and " + parent + " is not writable",
                        "give --state-dir a folder this user may write", details);
        return make("state", status::ok, directory + " will be made (mode 0700) at the first pairing; not paired yet",
                    {}, details);
    }
    details["mode"] = folder.st_mode & 0777;
    if (!S_ISDIR(folder.st_mode) || ::access(directory.c_str(), W_OK | X_OK) != 0)
        return make("state", status::fail, directory + " is not a folder this user may write",
                    "give --state-dir a folder this user may write", details);
    char mode[8];
    std::snprintf(mode, sizeof mode, "%04o", folder.st_mode & 0777);
    std::string found = directory + " (mode " + mode + ")";
    std::string secret = directory + "/secret";
    struct stat file{};
    if (::stat(secret.c_str(), &file) != 0) {
        details["secret"] = false;
        return make("state", status::ok, found + ", not paired yet (a pairing code will be shown)", {}, details);
    }
    details["secret"] = true;
    details["secret_mode"] = file.st_mode & 0777;
    char secret_mode[8];
    std::snprintf(secret_mode, sizeof secret_mode, "%04o", file.st_mode & 0777);
    if (file.st_mode & 077)
        return make("state", status::warn,
                    found + ", the secret is readable by others (mode " + secret_mode + ")",
                    "chmod 600 " + secret + " (anyone who reads it can stream this machine)", details);
    if (folder.st_mode & 077)
        return make("state", status::warn, found + ", paired (secret mode " + secret_mode + "), the folder is open to others",
                    "chmod 700 " + directory, details);
    return make("state", status::ok, found + ", paired (secret mode " + secret_mode + ")", {}, details);
}

} // namespace orbweave::check
