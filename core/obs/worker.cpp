#include "core/obs/worker.hpp"

#include "core/guarded.hpp"
#include "core/log.hpp"
#include "core/obs/pipe_channel.hpp"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <stdexcept>
#include <system_error>

namespace orbweave::obs {

namespace {

using namespace std::chrono_literals;

// How long a failed send waits for the reader to learn why the worker went away: its
// end of output, then the reaping it waits for.
constexpr auto gone_limit = limits::kill + limits::own_work;

std::chrono::milliseconds or_default(std::chrono::milliseconds value, std::chrono::milliseconds fallback)
{
    return value.count() > 0 ? value : fallback;
}
constexpr const char* worker_program = "orbweave-media-worker";

} // namespace

std::string worker::default_executable()
{
    if (const char* path = std::getenv("ORBWEAVE_MEDIA_WORKER"); path && *path)
        return path;
    // Beside the running program in a build tree; in the private libexec folder once installed.
    std::string beside = beside_this_program(worker_program);
    std::string installed = beside_this_program(std::string("../libexec/orbweave/") + worker_program);
    if (::access(beside.c_str(), X_OK) != 0 && ::access(installed.c_str(), X_OK) == 0)
        return installed;
    return beside;
}

stream_limits worker::options::steps() const
{
    stream_limits defaults;
    return {or_default(portal_start_limit, defaults.portal_start), or_default(source_size_limit, defaults.source_size),
            or_default(output_start_limit, defaults.output_start), or_default(output_stop_limit, defaults.output_stop),
            or_default(ingest_outage_limit, defaults.ingest_outage), or_default(send_stall_limit, defaults.send_stall)};
}

std::chrono::milliseconds worker::options::shutdown_limit() const
{
    return or_default(shutdown_timeout, stream_stop_limit(steps()));
}

worker::worker() : worker(options{}) {}

worker::worker(const options& options, cancellation* cancel) : options_(options)
{
    if (cancel && cancel->cancelled())
        throw std::runtime_error("worker failed to initialize");
    if (options_.executable.empty())
        options_.executable = default_executable();
    child_process::options spawn;
    spawn.argv = {options_.executable};
    if (options_.stream_worker)
        spawn.argv.push_back("--stream-worker");
    if (options_.capture != capture_route::automatic)
        spawn.argv.insert(spawn.argv.end(), {"--capture", capture_route_name(options_.capture)});
    if (options_.stream_worker && options_.canvas_width > 0 && options_.canvas_height > 0)
        spawn.argv.insert(spawn.argv.end(), {"--canvas", std::to_string(options_.canvas_width) + "x" +
                                                             std::to_string(options_.canvas_height) + "@30"});
    // The worker applies the bounds its parent derives its own from.
    stream_limits steps = options_.steps();
    auto limit = [&](const char* flag, std::chrono::milliseconds value) {
        spawn.argv.insert(spawn.argv.end(), {flag, std::to_string(value.count())});
    };
    limit("--portal-start-limit-ms", steps.portal_start);
    limit("--source-size-limit-ms", steps.source_size);
    limit("--output-start-limit-ms", steps.output_start);
    limit("--output-stop-limit-ms", steps.output_stop);
    limit("--ingest-outage-limit-ms", steps.ingest_outage);
    limit("--send-stall-limit-ms", steps.send_stall);
    spawn.pipe_stdin = true;
    spawn.pipe_stdout = true;
    try {
        process_ = std::make_unique<child_process>(spawn);
    } catch (const std::exception& error) {
        log::line("media worker failed to start: ", error.what());
        throw std::runtime_error("worker failed to initialize");
    }
    reader_ = std::thread([this] { read_loop(); });

    std::string reason;
    {
        // A cancelled start kills the process; the wait below then ends at once. The hook
        // runs under the cancellation's lock, so it takes none of ours.
        cancellation::registration cancelling;
        if (cancel)
            cancelling = cancel->on_cancel([this] { process_->kill(SIGKILL); });
        std::unique_lock<std::mutex> lock(state_mutex_);
        std::optional<pipe::worker_line> ready = wait_reply(lock, options_.start_timeout);
        if (!ready)
            reason = dead_ ? death_reason_ : "no answer within the start-up time";
        else if (!ready->ok)
            reason = ready->error.empty() ? "unknown reason" : ready->error;
        if (!reason.empty())
            stopping_ = true;
    }
    if (cancel && cancel->cancelled() && !reason.empty())
        reason = "cancelled";
    if (!reason.empty()) {
        log::line("media worker failed to start: ", reason);
        process_->kill_and_wait();
        ::shutdown(process_->stdout_fd(), SHUT_RDWR);
        reader_.join();
        throw std::runtime_error("worker failed to initialize");
    }
}

worker::~worker()
{
    try {
        shutdown();
    } catch (const std::exception& error) {
        log::line("media worker: shutdown failed: ", error.what());
        process_->kill_and_wait();
    }
    if (reader_.joinable()) {
        ::shutdown(process_->stdout_fd(), SHUT_RDWR);
        reader_.join();
    }
}

std::optional<pipe::worker_line> worker::wait_reply(std::unique_lock<std::mutex>& lock,
                                                    std::chrono::milliseconds timeout)
{
    state_changed_.wait_for(lock, timeout, [this] { return reply_.has_value() || dead_; });
    if (!reply_)
        return std::nullopt;
    std::optional<pipe::worker_line> reply = std::move(reply_);
    reply_.reset();
    return reply;
}

pipe::worker_line worker::exchange(const Json& request, std::chrono::milliseconds timeout)
{
    {
        std::lock_guard<std::mutex> lock(state_mutex_);
        if (dead_)
            throw std::runtime_error("media worker is gone (" + death_reason_ + ")");
        reply_.reset();
    }
    // A failed send means the worker is going away; the reader then reports why.
    bool sent = pipe::write_all(process_->stdin_fd(), json::dump(request) + "\n");
    std::unique_lock<std::mutex> lock(state_mutex_);
    std::optional<pipe::worker_line> reply = wait_reply(lock, sent ? timeout : std::chrono::milliseconds(gone_limit));
    if (reply)
        return *reply;
    if (dead_)
        throw std::runtime_error("media worker is gone (" + death_reason_ + ")");
    lock.unlock();
    // Its answer may still come, but would then be taken for the next request's.
    log::line("media worker: no answer to " + json::string_at(request, {"op"}) + " in time; killing it");
    process_->kill(SIGKILL);
    throw std::runtime_error("media worker did not answer in time");
}

Json worker::call(const Json& request)
{
    return call(request, options_.call_timeout);
}

Json worker::call(const Json& request, std::chrono::milliseconds timeout)
{
    std::lock_guard<std::mutex> serial(call_mutex_);
    {
        std::lock_guard<std::mutex> lock(state_mutex_);
        if (stopping_)
            throw std::runtime_error("media worker is shut down");
    }
    pipe::worker_line reply = exchange(request, timeout);
    if (!reply.ok)
        throw std::runtime_error(reply.error.empty() ? "media worker request failed" : reply.error);
    return std::move(reply.result);
}

void worker::abort()
{
    {
        std::lock_guard<std::mutex> lock(state_mutex_);
        stopping_ = true;
    }
    process_->kill(SIGKILL);
}

std::optional<long> worker::shutdown()
{
    std::lock_guard<std::mutex> serial(call_mutex_);
    {
        std::lock_guard<std::mutex> lock(state_mutex_);
        if (stopping_ && !reader_.joinable())
            return std::nullopt;
        stopping_ = true;
    }
    std::chrono::milliseconds limit = options_.shutdown_limit();
    auto deadline = std::chrono::steady_clock::now() + limit;
    std::optional<long> leaks;
    try {
        pipe::worker_line reply = exchange(Json{{"op", pipe::op::shutdown}}, limit);
        if (reply.ok && json::is_number_at(reply.result, {"leaks"}))
            leaks = json::int_at(reply.result, {"leaks"});
    } catch (const std::exception& error) {
        log::line("media worker: ", error.what());
    }
    // End of input also tells the worker to shut down, should the request not have got through.
    process_->close_stdin();
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (!process_->wait_for(std::max(left, std::chrono::milliseconds(0)))) {
        log::line("media worker: still running after shutdown; killing it");
        process_->kill_and_wait();
    }
    ::shutdown(process_->stdout_fd(), SHUT_RDWR);
    if (reader_.joinable())
        reader_.join();
    mark_dead("shut down");
    return leaks;
}

void worker::read_loop()
{
    pipe::line_reader lines(process_->stdout_fd(), pipe::max_line_bytes);
    // Set when the worker is killed for what it wrote: the reason its stream ends.
    std::string broken;
    std::string text;
    for (;;) {
        pipe::line_reader::status got = lines.next(text);
        if (got == pipe::line_reader::status::too_long)
            broken = "wrote a line longer than " + std::to_string(pipe::max_line_bytes) + " bytes";
        else if (got == pipe::line_reader::status::line && !on_line(text))
            broken = "wrote a line that is not a JSON object";
        if (got != pipe::line_reader::status::line || !broken.empty())
            break;
    }
    if (!broken.empty()) {
        // A corrupt worker: nothing more it says can be trusted, so it goes now, and a
        // call waiting on it fails at once.
        log::line("media worker " + std::to_string(process_->pid()) + " " + broken + "; killing it");
        process_->kill(SIGKILL);
    }

    // The worker's output ended: it exited, crashed or was killed.
    std::string reason = broken.empty() ? "its output ended" : broken;
    if (auto status = process_->wait_for(limits::kill); status && broken.empty())
        reason = child_process::describe(*status);
    bool expected;
    std::function<void(const std::string&)> handler;
    {
        std::lock_guard<std::mutex> lock(state_mutex_);
        expected = stopping_;
        handler = exit_handler_;
    }
    mark_dead(reason);
    if (expected)
        return;
    if (!handler) {
        log::line("media worker " + std::to_string(process_->pid()) + " ended: " + reason);
        return;
    }
    guarded("media worker", "the exit handler", [&] { handler(reason); });
}

bool worker::on_line(std::string_view text)
{
    pipe::worker_line line = pipe::worker_line::parse(text);
    switch (line.type) {
    case pipe::worker_line::kind::invalid:
        return false;
    case pipe::worker_line::kind::event: {
        if (line.event == health_event) {
            on_health(line.body);
            return true;
        }
        std::function<void(const std::string&, const std::string&)> handler;
        {
            std::lock_guard<std::mutex> lock(state_mutex_);
            handler = event_handler_;
        }
        if (handler)
            guarded("media worker", "the event handler", [&] { handler(line.event, line.error); });
        return true;
    }
    case pipe::worker_line::kind::reply:
        {
            std::lock_guard<std::mutex> lock(state_mutex_);
            reply_ = std::move(line);
        }
        state_changed_.notify_all();
        return true;
    }
    return false;
}

void worker::on_health(const Json& line)
{
    std::optional<health_sample> sample = health_sample::from_json(line);
    if (!sample) {
        log::line("media worker: a malformed health report was dropped");
        return;
    }
    std::function<void(const health_sample&)> handler;
    {
        std::lock_guard<std::mutex> lock(state_mutex_);
        handler = health_handler_;
    }
    if (handler)
        guarded("media worker", "the health handler", [&] { handler(*sample); });
}

void worker::set_health_handler(std::function<void(const health_sample&)> handler)
{
    std::lock_guard<std::mutex> lock(state_mutex_);
    health_handler_ = std::move(handler);
}

void worker::mark_dead(const std::string& reason)
{
    {
        std::lock_guard<std::mutex> lock(state_mutex_);
        if (dead_)
            return;
        dead_ = true;
        death_reason_ = reason;
    }
    state_changed_.notify_all();
}

void worker::set_event_handler(std::function<void(const std::string& event, const std::string& reason)> handler)
{
    std::lock_guard<std::mutex> lock(state_mutex_);
    event_handler_ = std::move(handler);
}

void worker::set_exit_handler(std::function<void(const std::string& reason)> handler)
{
    std::lock_guard<std::mutex> lock(state_mutex_);
    exit_handler_ = std::move(handler);
}

bool worker::alive() const
{
    std::lock_guard<std::mutex> lock(state_mutex_);
    return !dead_;
}

pid_t worker::pid() const
{
    return process_->pid();
}

std::vector<source_entry> worker::list(callback::source_type::type kind)
{
    const char* op = pipe::list_op(kind);
    std::vector<source_entry> entries;
    if (!op)
        return entries;
    Json listed = call(Json{{"op", op}});
    if (!listed.is_array())
        return entries;
    for (const Json& value : listed)
        if (std::optional<source_entry> entry = source_entry_from_json(value))
            entries.push_back(std::move(*entry));
    return entries;
}

std::optional<source_entry> worker::find(const source_ref& source)
{
    return source_entry_from_json(call(pipe::find_request(source)));
}

pipe::stream_result worker::stream(const pipe::stream_order& order)
{
    // The worker waits on the desktop's picker, the source and the ingest, each bounded;
    // giving up before they do would kill a start that is still within its bounds.
    return pipe::stream_result::from_json(
        call(Json{{"op", pipe::op::stream}, {"order", order.to_json()}}, stream_start_limit(options_.steps())));
}

} // namespace orbweave::obs
