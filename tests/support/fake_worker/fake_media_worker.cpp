// A media worker that misbehaves on request, for the client's worker-fault tests.
// It speaks the pipe protocol well enough to start, list two screens ("Display 1" and
// "Display 2", 1280x720 each) and take a stream order; what it does with the order
// depends on the order's stream key (every request's op is written to standard error,
// so a test can tell which requests reached a worker):
//
//   "ok"               reports the stream started and carries it until shut down
//   "garbage"          writes bytes that are not JSON instead of a reply
//   "huge-line"        writes a line longer than the pipe allows, with no end
//   "exit"             exits (status 3) without a reply
//   "started-garbage"  reports the stream started, then writes garbage
//   "ingest-gone"      reports the stream started, then that it ended because the
//                      ingest did not come back (as the real worker does)
//   "hang-on-shutdown" reports the stream started, then never answers the shutdown
//                      nor ends by itself (SIGTERM ignored): only SIGKILL ends it
//
// Test-only: never installed.

#include "core/obs/entries.hpp"
#include "core/obs/pipe_protocol.hpp"

#include <csignal>

#include <unistd.h>

#include <iostream>
#include <string>

namespace {

using namespace orbweave;

void send(const Json& line)
{
    std::cout << json::dump(line) << '\n' << std::flush;
}

void write_garbage()
{
    std::cout << "\x01\xff not json at all {\"ok\":\n" << std::string(4096, '\xfe') << "\n[1,2,3]\n" << std::flush;
}

void write_endless_line()
{
    std::string chunk(1 << 16, 'x');
    for (std::size_t written = 0; written <= obs::pipe::max_line_bytes + chunk.size(); written += chunk.size())
        if (!(std::cout << chunk))
            return;
    std::cout.flush();
}

} // namespace

int main()
{
    send(obs::pipe::ok_reply(nullptr));
    bool hang_on_shutdown = false;
    std::string text;
    while (std::getline(std::cin, text)) {
        obs::pipe::request_line request = obs::pipe::request_line::parse(text);
        std::cerr << "fake media worker: " << request.op << std::endl;
        if (request.op == obs::pipe::op::shutdown)
            break;
        const obs::screen_entry displays[] = {{0, "Display 1", "1280x720", 0, 0, 1280, 720},
                                              {1, "Display 2", "1280x720", 1280, 0, 1280, 720}};
        if (request.op == obs::pipe::op::list_screens) {
            send(obs::pipe::ok_reply(Json::array({displays[0].to_json(), displays[1].to_json()})));
        } else if (request.op == obs::pipe::op::find) {
            Json found;
            for (const auto& display : displays)
                if (display.id == obs::pipe::find_target(request.body).id)
                    found = display.to_json();
            send(obs::pipe::ok_reply(found));
        } else if (request.op.rfind("list_", 0) == 0) {
            send(obs::pipe::ok_reply(Json::array()));
        } else if (request.op == obs::pipe::op::stream) {
            auto order = obs::pipe::stream_order::from_json(json::at(request.body, {"order"}));
            std::string key = order ? order->key : "";
            if (key == "garbage") {
                write_garbage();
            } else if (key == "huge-line") {
                write_endless_line();
            } else if (key == "exit") {
                ::_exit(3);
            } else {
                obs::pipe::stream_result started;
                started.started = true;
                send(obs::pipe::ok_reply(started.to_json()));
                if (key == "started-garbage")
                    write_garbage();
                if (key == "ingest-gone")
                    send(obs::pipe::event_line(obs::pipe::stopped_event,
                                               "rtmp disconnected: the ingest did not come back within 30 s"));
                hang_on_shutdown = key == "hang-on-shutdown";
            }
        } else {
            send(obs::pipe::error_reply("unknown op"));
        }
    }
    if (hang_on_shutdown) {
        std::signal(SIGTERM, SIG_IGN);
        for (;;)
            ::pause();
    }
    send(obs::pipe::ok_reply(Json{{"leaks", 0}}));
    return 0;
}
