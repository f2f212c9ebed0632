// Fuzz target: a line on the media worker pipe, in both directions. The client reads
// the worker's replies, events (health reports too) and catalogues; the worker reads the client's requests
// and stream orders. Neither may crash, hang or leak on any line within the limit.

#include "core/json.hpp"
#include "core/obs/entries.hpp"
#include "core/obs/pipe_protocol.hpp"
#include "core/obs/stream_health.hpp"

#include <cstddef>
#include <cstdint>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace orbweave;
    if (size > obs::pipe::max_line_bytes)
        return -1;
    std::string_view text(reinterpret_cast<const char*>(data), size);

    // The worker's side of a line.
    obs::pipe::worker_line line = obs::pipe::worker_line::parse(text);
    (void)obs::entries_from_json<obs::screen_entry>(line.result);
    (void)obs::entries_from_json<obs::window_entry>(line.result);
    (void)obs::entries_from_json<obs::audio_entry>(line.result);
    (void)obs::entries_from_json<obs::video_entry>(line.result);
    (void)obs::pipe::stream_result::from_json(line.result);
    if (auto sample = obs::health_sample::from_json(line.body)) {
        // A window of the same report: the arithmetic of the level on whatever it says.
        obs::health_window window;
        for (int i = 0; i < 12; ++i)
            window.add(*sample);
        (void)window.summary();
    }

    // The client's side of a line.
    obs::pipe::request_line request = obs::pipe::request_line::parse(text);
    if (auto order = obs::pipe::stream_order::from_json(json::at(request.body, {"order"})))
        (void)json::dump(json::redacted(order->to_json()));
    if (auto entry = obs::source_entry_from_json(request.body))
        (void)obs::to_json(*entry);
    return 0;
}
