#include "media/protocol.hpp"

#include "core/log.hpp"

#include "core/obs/pipe_protocol.hpp"

#include <unistd.h>

#include <cerrno>

namespace orbweave::obs {

bool protocol_writer::send(const Json& value)
{
    std::string line = json::dump(value);
    line += '\n';
    std::lock_guard<std::mutex> lock(mutex_);
    const char* data = line.data();
    std::size_t left = line.size();
    while (left > 0) {
        ssize_t written = ::write(fd_, data, left);
        if (written < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        data += written;
        left -= static_cast<std::size_t>(written);
    }
    return true;
}

bool request_loop::next_line(std::string& line)
{
    std::size_t searched = 0;
    for (;;) {
        auto end = buffer_.find('\n', searched);
        if (end != std::string::npos) {
            line = buffer_.substr(0, end);
            buffer_.erase(0, end + 1);
            return true;
        }
        searched = buffer_.size();
        if (buffer_.size() > pipe::max_line_bytes) {
            log::line("media worker: a request line is longer than " + std::to_string(pipe::max_line_bytes) +
                      " bytes; ending");
            return false;
        }
        char chunk[4096];
        ssize_t got = ::read(in_fd_, chunk, sizeof chunk);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return false;
        buffer_.append(chunk, static_cast<std::size_t>(got));
    }
}

bool request_loop::run()
{
    std::string text;
    while (next_line(text)) {
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
    return false;
}

} // namespace orbweave::obs
