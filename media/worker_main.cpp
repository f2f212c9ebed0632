// orbweave-media-worker: hosts one libobs instance for the client and serves
// its requests over stdin/stdout (one JSON object per line each way; the
// requests are in core/obs/pipe_protocol.hpp). "stats" answers read-only frame
// counters ({"frames","dropped","rendered","lagged","video_frames","skipped"}).
//
//   orbweave-media-worker --check-desktop [--capture auto|x11|portal]
//   orbweave-media-worker [--stream-worker] [--canvas WxH@FPS] [--capture auto|x11|portal]
//                         [--portal-start-limit-ms N] [--source-size-limit-ms N]
//                         [--output-start-limit-ms N] [--output-stop-limit-ms N]
//                         [--ingest-outage-limit-ms N] [--send-stall-limit-ms N]
//
// Without --stream-worker the worker lists: it loads only the capture plug-ins and starts
// no video. A stream worker loads the encoders and outputs too and starts its graphics on a placeholder canvas, remade once at the stream's size;
// --canvas WxH@FPS sets the start-up canvas instead; --capture chooses how screens are captured
// (default: portal on a Wayland session, X11 otherwise). The limits shorten or lengthen
// the bounds of a stream's steps (core/obs/media_limits.hpp has them and their defaults):
// the desktop's picker, the source's size, the output's start and stop, a vanished
// ingest, and data the ingest does not take.
// --check-desktop writes one line, check_desktop's reply (media/system_check.hpp), and
// exits without starting libobs: --check's probe where no display lets libobs start.
// ORBWEAVE_OBS_LOG=error|warning|info|debug sets how much of libobs's log reaches
// standard error (default warning).

#include "core/log.hpp"
#include "core/obs/pipe_protocol.hpp"
#include "core/version.hpp"
#include "media/catalogue.hpp"
#include "media/direct_video.hpp"
#include "media/output.hpp"
#include "media/protocol.hpp"
#include "media/runtime.hpp"
#include "media/system_check.hpp"

#include <obs.h>
#include <util/base.h>
#include <util/bmem.h>

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <tuple>

namespace {

int log_level_from_environment()
{
    const char* level = std::getenv("ORBWEAVE_OBS_LOG");
    if (!level)
        return LOG_WARNING;
    if (!std::strcmp(level, "error"))
        return LOG_ERROR;
    if (!std::strcmp(level, "info"))
        return LOG_INFO;
    if (!std::strcmp(level, "debug"))
        return LOG_DEBUG;
    return LOG_WARNING;
}

/// What the command line asks of this worker.
struct worker_arguments {
    orbweave::obs::runtime_options runtime;
    orbweave::obs::stream_limits limits;
    orbweave::obs::capture_route route = orbweave::obs::capture_route::automatic;
    bool stream_worker = false;
    bool check_desktop = false;
};

worker_arguments parse_arguments(int argc, char** argv)
{
    using namespace orbweave;
    worker_arguments parsed;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        obs::canvas canvas;
        // "--NAME-ms N" with a positive N sets that limit and takes its value.
        auto limit = [&](const char* name, std::chrono::milliseconds& field) {
            long long milliseconds = 0;
            if (arg != name || i + 1 >= argc || std::sscanf(argv[i + 1], "%lld", &milliseconds) != 1 ||
                milliseconds <= 0)
                return false;
            field = std::chrono::milliseconds(milliseconds);
            ++i;
            return true;
        };
        if (arg == "--stream-worker")
            parsed.stream_worker = true;
        else if (arg == "--check-desktop")
            parsed.check_desktop = true;
        else if (limit("--portal-start-limit-ms", parsed.limits.portal_start) ||
                 limit("--source-size-limit-ms", parsed.limits.source_size) ||
                 limit("--output-start-limit-ms", parsed.limits.output_start) ||
                 limit("--output-stop-limit-ms", parsed.limits.output_stop) ||
                 limit("--ingest-outage-limit-ms", parsed.limits.ingest_outage) ||
                 limit("--send-stall-limit-ms", parsed.limits.send_stall))
            continue;
        else if (arg == "--capture" && i + 1 < argc && obs::parse_capture_route(argv[i + 1]))
            parsed.route = *obs::parse_capture_route(argv[++i]);
        else if (arg == "--canvas" && i + 1 < argc &&
                 std::sscanf(argv[i + 1], "%ux%u@%u", &canvas.width, &canvas.height, &canvas.fps) == 3)
            parsed.runtime.video = canvas, ++i;
        else
            log::line("media worker: unknown argument " + arg);
    }
    if (!parsed.stream_worker)
        parsed.runtime.modules = obs::capture_modules();
    else if (!parsed.runtime.video)
        parsed.runtime.video = obs::placeholder_canvas;
    // Without --capture (a worker started by hand), the session decides, as for the client.
    parsed.runtime.route = obs::resolve_capture_route(parsed.route);
    return parsed;
}

/// The catalogue's ops: a list per kind, and one source by id.
void serve_catalogue(orbweave::obs::request_loop& loop, orbweave::obs::capture_route route)
{
    using namespace orbweave;
    namespace op = obs::pipe::op;
    bool portal = route == obs::capture_route::portal;
    loop.on(op::list_screens, [portal](const Json&) {
        return obs::to_json(portal ? obs::list_portal_screens() : obs::list_screens());
    });
    // XWayland's windows are not the desktop's: the portal route lists only what its
    // picker can offer.
    loop.on(op::list_windows, [portal](const Json&) {
        return obs::to_json(portal ? obs::list_portal_windows() : obs::list_windows());
    });
    loop.on(op::list_audios, [](const Json&) { return obs::to_json(obs::list_audios()); });
    loop.on(op::list_videos, [](const Json&) { return obs::to_json(obs::list_videos()); });
    // One source by id, for an activation whose kind was not listed first: only that
    // entry crosses the pipe.
    loop.on(op::find, [&loop](const Json& request) -> Json {
        obs::source_ref source = obs::pipe::find_target(request);
        const char* list = obs::pipe::list_op(source.kind);
        if (!list)
            return nullptr;
        for (const Json& entry : loop.call(list))
            if (json::string_at(entry, {"id"}) == source.id)
                return entry;
        return nullptr;
    });
}

/// The one stream this worker carries, once started; stopped before libobs shuts down.
void serve_stream(orbweave::obs::request_loop& loop, orbweave::obs::protocol_writer& writer,
                  std::unique_ptr<orbweave::obs::output>& stream, const worker_arguments& arguments)
{
    using namespace orbweave;
    loop.on(obs::pipe::op::stream, [&stream, &writer, limits = arguments.limits,
                                    route = arguments.runtime.route](const Json& request) {
        std::optional<obs::pipe::stream_order> order = obs::pipe::stream_order::from_json(json::at(request, {"order"}));
        if (!order)
            throw std::invalid_argument("the stream order names no source");
        if (stream)
            throw std::logic_error("this worker already carries a stream");
        auto started = std::make_unique<obs::output>(limits, route);
        started->set_stopped_handler([&writer](const std::string& error) {
            writer.send(obs::pipe::event_line(obs::pipe::stopped_event, error));
        });
        obs::pipe::stream_result result;
        result.started = started->start(*order);
        result.error = started->error();
        result.rejected = started->rejected();
        result.restore_token = started->restore_token();
        std::tie(result.width, result.height) = started->canvas_size();
        if (result.started) {
            // Once a second, what the stream did: the client derives its health from it.
            started->report_health([&writer](const obs::health_sample& sample) { writer.send(sample.to_json()); });
            stream = std::move(started);
        }
        return result.to_json();
    });
}

/// Read-only counters for benchmarks: frames the outputs sent and dropped (network),
/// frames the canvas rendered and lagged (render late), frames the encoders skipped.
orbweave::Json frame_counters()
{
    struct totals {
        long long frames = 0;
        long long dropped = 0;
    } sent;
    obs_enum_outputs(
        [](void* data, obs_output_t* output) {
            auto* sum = static_cast<totals*>(data);
            sum->frames += obs_output_get_total_frames(output);
            sum->dropped += obs_output_get_frames_dropped(output);
            return true;
        },
        &sent);
    video_t* video = obs_get_video();
    // A screen fed past the canvas lags when its grab comes after its frame's time.
    return orbweave::Json{{"frames", sent.frames},
                          {"dropped", sent.dropped},
                          {"rendered", obs_get_total_frames()},
                          {"lagged", obs_get_lagged_frames() + orbweave::obs::direct_feed_late_frames()},
                          {"video_frames", video ? video_output_get_total_frames(video) : 0u},
                          {"skipped", video ? video_output_get_skipped_frames(video) : 0u}};
}

} // namespace

int main(int argc, char** argv)
{
    using namespace orbweave;

    if (argc == 2 && !std::strcmp(argv[1], "--version")) {
        std::printf("orbweave-media-worker %s\n", client_version);
        return 0;
    }

    // The protocol owns the real stdout; anything libobs or a plug-in prints goes to stderr.
    int protocol_fd = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
    if (protocol_fd < 0 || ::dup2(STDERR_FILENO, STDOUT_FILENO) < 0) {
        log::line("media worker: cannot set up the protocol stream");
        return 2;
    }
    // A parent that goes away must not kill us in the middle of a write; shut down instead.
    ::signal(SIGPIPE, SIG_IGN);

    worker_arguments arguments = parse_arguments(argc, argv);
    obs::protocol_writer writer(protocol_fd);
    obs::route_log_to_stderr(log_level_from_environment());
    if (arguments.check_desktop) {
        writer.send(obs::pipe::ok_reply(obs::check_desktop(arguments.runtime.route)));
        return 0;
    }

    std::unique_ptr<obs::runtime> runtime;
    try {
        runtime = std::make_unique<obs::runtime>(arguments.runtime);
    } catch (const std::exception& error) {
        log::line("media worker: start-up failed: ", error.what());
        writer.send(obs::pipe::error_reply(error.what()));
        return 1;
    }
    writer.send(obs::pipe::ok_reply(nullptr));

    obs::request_loop loop(STDIN_FILENO, writer);
    serve_catalogue(loop, arguments.runtime.route);
    std::unique_ptr<obs::output> stream;
    serve_stream(loop, writer, stream, arguments);
    loop.on(obs::pipe::op::stats, [](const Json&) { return frame_counters(); });
    obs::serve_checks(loop, arguments.runtime.route);

    bool asked = loop.run();
    stream.reset();
    runtime.reset();
    if (asked)
        writer.send(obs::pipe::ok_reply({{"leaks", bnum_allocs()}}));
    return 0;
}
