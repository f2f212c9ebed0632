// A media worker that misbehaves on request, for the client's worker-fault tests.
// It speaks the pipe protocol well enough to start, list two screens ("Display 1" and
// "Display 2", 1280x720 each) and eight microphones ("Microphone 1" to "Microphone 8"),
// and take a stream order; what it does with the order
// depends on the order's stream key (every request's op is written to standard error,
// so a test can tell which requests reached a worker; the --check probes, check_desktop
// and check_encoders, are never answered, as by a worker stuck in a driver):
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
//   "picker-N"         stands for a desktop whose user answers the screen-share picker
//                      after N ms: started then, or, when N is past the worker's
//                      --portal-start-limit-ms, not started once that limit has passed
//                      (as the real worker gives up on the picker)
//
// ORBWEAVE_FAKE_WORKER_START_MS=N makes its start-up (libobs's, in the real worker) take
// N ms before it reports itself ready.
//
// Test-only: never installed.

#include "core/obs/entries.hpp"
#include "core/obs/pipe_protocol.hpp"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <thread>

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

int main(int argc, char** argv)
{
    long long portal_limit_ms = 120000;
    for (int i = 1; i + 1 < argc; ++i)
        if (!std::strcmp(argv[i], "--portal-start-limit-ms"))
            portal_limit_ms = std::atoll(argv[i + 1]);
    // The time taken is what is simulated here, so it is slept through.
    if (const char* start_ms = std::getenv("ORBWEAVE_FAKE_WORKER_START_MS"))
        std::this_thread::sleep_for(std::chrono::milliseconds(std::atoll(start_ms)));
    send(obs::pipe::ok_reply(nullptr));
    bool hang_on_shutdown = false;
    std::string text;
    while (std::getline(std::cin, text)) {
        obs::pipe::request_line request = obs::pipe::request_line::parse(text);
        // One write: the tests count these lines in a file that other processes write to.
        std::string said = "fake media worker: " + request.op + "\n";
        [[maybe_unused]] ssize_t written = ::write(STDERR_FILENO, said.data(), said.size());
        if (request.op == obs::pipe::op::shutdown)
            break;
        const obs::screen_entry displays[] = {{0, "Display 1", "1280x720", 0, 0, 1280, 720},
                                              {1, "Display 2", "1280x720", 1280, 0, 1280, 720}};
        Json microphones = Json::array();
        for (int i = 1; i <= 8; ++i)
            microphones.push_back(
                obs::audio_entry("Microphone " + std::to_string(i), "A microphone", "mic" + std::to_string(i), true)
                    .to_json());
        if (request.op == obs::pipe::op::list_screens) {
            send(obs::pipe::ok_reply(Json::array({displays[0].to_json(), displays[1].to_json()})));
        } else if (request.op == obs::pipe::op::list_audios) {
            send(obs::pipe::ok_reply(microphones));
        } else if (request.op == obs::pipe::op::find) {
            Json found;
            std::string id = obs::pipe::find_target(request.body).id;
            for (const auto& display : displays)
                if (display.id == id)
                    found = display.to_json();
            for (const Json& microphone : microphones)
                if (microphone.value("id", "") == id)
                    found = microphone;
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
            } else if (key.rfind("picker-", 0) == 0) {
                long long answered_ms = std::atoll(key.c_str() + 7);
                std::this_thread::sleep_for(std::chrono::milliseconds(std::min(answered_ms, portal_limit_ms)));
                obs::pipe::stream_result result;
                result.started = answered_ms <= portal_limit_ms;
                if (!result.started)
                    result.error = "the desktop did not start the screen cast within " +
                                   std::to_string(portal_limit_ms / 1000) + " s";
                send(obs::pipe::ok_reply(result.to_json()));
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
        } else if (request.op.rfind("check_", 0) == 0) {
            // No answer: the caller's bound has to end it.
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
