#include "media/protocol.hpp"

#include "core/log.hpp"

#include "core/obs/pipe_channel.hpp"
#include "core/obs/pipe_protocol.hpp"

namespace orbweave::obs {

bool protocol_writer::send(const Json& value)
{
    std::string line = json::dump(value);
    line += '\n';
    std::lock_guard<std::mutex> lock(mutex_);
    return pipe::write_all(fd_, line);
}

bool request_loop::run()
{
    std::string text;
    pipe::line_reader lines(in_fd_, pipe::max_line_bytes);
    for (;;) {
        pipe::line_reader::status got = lines.next(text);
        if (got == pipe::line_reader::status::too_long)
            log::line("media worker: a request line is longer than " + std::to_string(pipe::max_line_bytes) +
                      " bytes; ending");
        if (got != pipe::line_reader::status::line)
            return false;
        if (text.find_first_not_of(" \t\r") == std::string::npos)
            continue;
        pipe::request_line request = pipe::request_line::parse(text);
        if (!request.body.is_object()) {
            writer_.send(pipe::error_reply("request is not a JSON object"));
            continue;
        }
        if (request.op == pipe::op::shutdown)
            return true;
        auto found = handlers_.find(request.op);
        if (found == handlers_.end()) {
            writer_.send(pipe::error_reply("unknown op: " + request.op));
            continue;
        }
        Json reply;
        try {
            reply = pipe::ok_reply(found->second(request.body));
        } catch (const std::exception& error) {
            reply = pipe::error_reply(error.what());
        } catch (...) {
            reply = pipe::error_reply("unknown error");
        }
        if (!writer_.send(reply))
            return false;
    }
}

} // namespace orbweave::obs
