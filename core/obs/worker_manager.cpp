#include "core/obs/worker_manager.hpp"

#include "core/guarded.hpp"
#include "core/log.hpp"
#include "core/obs/media_limits.hpp"
#include "core/obs/stream_limit.hpp"

#include <algorithm>
#include <stdexcept>
#include <system_error>

namespace orbweave::obs {

using callback::source_type;

/// One stream from its activation to the end of its worker.
struct worker_manager::stream {
    enum class phase { starting, running, stopping };

    std::string id;
    /// Where it streams: the ingest's address and the stream key.
    std::string destination;
    /// The source as the user knows it.
    callback::active_stream source;
    std::uint64_t generation = 0;
    phase state = phase::starting;
    /// Why a start was cancelled ("deactivated while starting").
    std::string cancel_reason;
    /// Why the stream ended by itself while it was still being marked running.
    std::string ended_early;
    /// Ends the stream's start while its worker is taken or spawned.
    cancellation cancel;
    /// The stream's worker once it exists; abort() reaches it to cancel a start.
    worker* process = nullptr;
    /// Its worker's health reports of the last seconds while it runs.
    health_window health;
    std::thread thread;
};

worker::options worker_manager::stream_worker_options()
{
    worker::options stream;
    stream.stream_worker = true;
    return stream;
}

worker_manager::worker_manager(post_function post, restore_tokens& tokens, options options)
    : options_(std::move(options)),
      max_streams_(options_.max_streams > 0 ? options_.max_streams : stream_limit_for(this_machine())),
      post_(std::move(post)), tokens_(tokens)
{
    if (!options_.keep_spare)
        return;
    // Started now, beside the catalogue's listing worker: the service activates soon
    // after it has listed, and the first activation should find the spare ready.
    spare_ = std::make_unique<spare_worker>(options_.stream);
    spare_->refill();
}

worker_manager::~worker_manager()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        closing_ = true;
        for (auto& [generation, record] : streams_) {
            if (record->state == stream::phase::starting)
                cancel_locked(*record, "the client is stopping");
            record->state = stream::phase::stopping;
        }
    }
    changed_.notify_all();
    // Everything stops at once: the stream threads shut their workers down, and the
    // spare shuts down on its own thread.
    if (spare_)
        spare_->close();
    {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [this] { return streams_.empty(); });
    }
    join_finished();
    // Only now: the stream threads hand the spare out and refill it until they end.
    spare_.reset();
}

void worker_manager::activate(activate_request request, source_entry source, int bitrate,
                              std::function<void(const activation&)> done)
{
    join_finished();
    std::lock_guard<std::mutex> lock(mutex_);
    if (closing_)
        return;
    // Before anything changes: a refused activation cancels or replaces nothing.
    if (std::string refused = refusal_locked(); !refused.empty()) {
        report([done, refused] { done({false, refused, false, false}); });
        return;
    }
    for (auto& [generation, record] : streams_)
        if (record->id == request.source.id && record->state == stream::phase::starting)
            cancel_locked(*record, "superseded by a later activation");

    auto record = std::make_shared<stream>();
    record->id = request.source.id;
    record->destination = request.server + " " + request.key;
    record->source = {request.source.id, entry_kind(source), entry_name(source), entry_description(source)};
    record->generation = next_generation_++;
    streams_.emplace(record->generation, record);
    // The thread waits for this lock before it reads its record.
    try {
        record->thread = std::thread(&worker_manager::run_stream, this, record, std::move(request), std::move(source),
                                     bitrate, done);
    } catch (const std::system_error& error) {
        streams_.erase(record->generation);
        report([done, reason = std::string("cannot start a thread: ") + error.what()] {
            done({false, reason, false, false});
        });
    }
}

void worker_manager::run_stream(std::shared_ptr<stream> record, activate_request request, source_entry source,
                                int bitrate, std::function<void(const activation&)> done)
{
    activation outcome;
    std::unique_ptr<worker> process;
    try {
        process = acquire_worker(*record);
        outcome = start_stream(*record, *process, request, std::move(source), bitrate);
    } catch (const std::exception& error) {
        outcome.error = error.what();
    }
    // The next spare starts once this start is over, so the two do not compete.
    if (spare_)
        spare_->refill();
    hold_until_stopped(*record, std::move(outcome), done);
    // An orderly shut-down, bounded, then SIGKILL.
    process.reset();
    {
        std::lock_guard<std::mutex> lock(mutex_);
        streams_.erase(record->generation);
        finished_.push_back(std::move(record->thread));
    }
    changed_.notify_all();
}

std::unique_ptr<worker> worker_manager::acquire_worker(stream& record)
{
    std::uint64_t generation = record.generation;
    // A deactivate, a later activation or the client's stop cancels the wait for the
    // spare or the spawn of a worker at once.
    std::unique_ptr<worker> process = spare_ ? spare_->take(&record.cancel) : nullptr;
    if (!process && record.cancel.cancelled())
        throw std::runtime_error("cancelled");
    if (!process)
        process = std::make_unique<worker>(options_.stream, &record.cancel);
    // Watched from the start: a death right after the start is still noticed.
    process->set_exit_handler(
        [this, generation](const std::string& reason) { on_stream_ended(generation, "its media worker " + reason); });
    process->set_event_handler([this, generation](const std::string& event, const std::string& reason) {
        if (event == pipe::stopped_event)
            on_stream_ended(generation, reason);
    });
    process->set_health_handler(
        [this, generation](const health_sample& sample) { on_stream_health(generation, sample); });
    return process;
}

worker_manager::activation worker_manager::start_stream(stream& record, worker& process,
                                                        const activate_request& request, source_entry source,
                                                        int bitrate)
{
    {
        std::unique_lock<std::mutex> lock(mutex_);
        // "Success" for a deactivate is answered at once, while its worker still stops:
        // an ingest turns a second publisher of a key away, so a stream to the
        // destination of one that is stopping waits until that one has let go.
        // That one's shutdown is bounded, then it is killed.
        changed_.wait_for(lock, options_.stream.shutdown_limit() + limits::kill, [&] {
            return record.state == stream::phase::stopping || destination_released_locked(record);
        });
        if (record.state == stream::phase::stopping)
            return {}; // cancelled; hold_until_stopped gives the reason
        record.process = &process;
    }
    const std::string& id = request.source.id;
    bool has_video = entry_kind(source) != source_type::audio;
    std::uint64_t consent = tokens_.consent();
    pipe::stream_result result = process.stream(pipe::stream_order::of(request, std::move(source), bitrate, tokens_.get(id)));
    // The old token was used up by this start; the desktop hands out a new one (unless the
    // pairing it was granted under has gone meanwhile).
    if (!result.restore_token.empty())
        tokens_.put(id, result.restore_token, consent);
    if (spare_ && result.started && has_video && result.width > 0 && result.height > 0)
        spare_->prefer_canvas(result.width, result.height);
    return {result.started, result.error, result.rejected, false};
}

void worker_manager::hold_until_stopped(stream& record, activation outcome,
                                        const std::function<void(const activation&)>& done)
{
    std::unique_lock<std::mutex> lock(mutex_);
    if (record.state == stream::phase::stopping) {
        outcome = {false, record.cancel_reason, false, false};
    } else if (outcome.started) {
        outcome.first = !any_running_locked();
        record.state = stream::phase::running;
        // The new stream runs before an earlier one of the same source stops.
        for (auto& [generation, other] : streams_)
            if (other.get() != &record && other->id == record.id && other->state == stream::phase::running)
                other->state = stream::phase::stopping;
        changed_.notify_all();
    } else {
        record.state = stream::phase::stopping;
        if (outcome.error.empty())
            outcome.error = "the stream did not start";
    }
    // Reported under the lock, so the owner hears of the start before any end of it.
    report([done, outcome] { done(outcome); });
    if (outcome.started && !record.ended_early.empty())
        end_locked(record, record.ended_early);
    report_streams_locked();

    // The stream runs until it is deactivated, replaced, cleared or ends by itself.
    changed_.wait(lock, [&] { return record.state == stream::phase::stopping; });
    record.process = nullptr;
}

void worker_manager::on_stream_ended(std::uint64_t generation, const std::string& reason)
{
    std::lock_guard<std::mutex> lock(mutex_);
    auto found = streams_.find(generation);
    // Only the stream that ended: its id may have been started again since.
    if (found == streams_.end())
        return;
    stream& record = *found->second;
    if (record.state == stream::phase::starting)
        record.ended_early = reason; // acted on once it counts as running, should its start succeed
    else if (record.state == stream::phase::running)
        end_locked(record, reason);
}

void worker_manager::on_stream_health(std::uint64_t generation, const health_sample& sample)
{
    std::lock_guard<std::mutex> lock(mutex_);
    auto found = streams_.find(generation);
    if (found == streams_.end() || found->second->state != stream::phase::running)
        return;
    stream& record = *found->second;
    record.health.add(sample);
    if (health_handler_)
        report([handler = health_handler_, source = record.source, summary = record.health.summary()] {
            handler(source, summary);
        });
}

void worker_manager::end_locked(stream& record, const std::string& reason)
{
    record.state = stream::phase::stopping;
    changed_.notify_all();
    if (ended_handler_)
        report([handler = ended_handler_, id = record.id, reason, now_empty = !any_running_locked()] {
            handler(id, reason, now_empty);
        });
    report_streams_locked();
}

void worker_manager::cancel_locked(stream& record, const std::string& reason)
{
    record.state = stream::phase::stopping;
    record.cancel_reason = reason;
    // A start cannot be interrupted inside the worker; ending the worker ends the start,
    // whether it is spawning or starting the stream.
    record.cancel.cancel();
    if (record.process)
        record.process->abort();
    changed_.notify_all();
}

worker_manager::deactivation worker_manager::deactivate(const deactivate_request& request)
{
    deactivation outcome;
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto& [generation, record] : streams_) {
        if (record->state == stream::phase::stopping || (!request.all && record->id != request.id))
            continue;
        outcome.known = true;
        if (record->state == stream::phase::starting)
            cancel_locked(*record, "deactivated while starting");
        record->state = stream::phase::stopping;
    }
    changed_.notify_all();
    outcome.known = outcome.known || request.all;
    outcome.now_empty = !any_running_locked();
    report_streams_locked();
    return outcome;
}

void worker_manager::clear()
{
    deactivate({true, {}});
}

bool worker_manager::destination_released_locked(const stream& record) const
{
    return std::none_of(streams_.begin(), streams_.end(), [&](const auto& item) {
        const stream& other = *item.second;
        return other.generation < record.generation && other.state == stream::phase::stopping &&
               other.destination == record.destination;
    });
}

bool worker_manager::any_running_locked() const
{
    return std::any_of(streams_.begin(), streams_.end(),
                       [](const auto& item) { return item.second->state == stream::phase::running; });
}

void worker_manager::report_streams_locked()
{
    std::vector<callback::active_stream> running;
    for (const auto& [generation, record] : streams_) // generations grow: oldest first
        if (record->state == stream::phase::running)
            running.push_back(record->source);
    if (!streams_handler_ || running == streams_told_)
        return;
    streams_told_ = running;
    report([handler = streams_handler_, running = std::move(running)] { handler(running); });
}

std::string worker_manager::refusal() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return refusal_locked();
}

std::string worker_manager::refusal_locked() const
{
    // Streams still stopping count too: their workers are alive until they have stopped.
    if (streams_.size() < max_streams_)
        return {};
    return "too many streams: at most " + std::to_string(max_streams_) + " run at once on this machine";
}

bool worker_manager::is_empty() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return !any_running_locked();
}

std::vector<std::string> worker_manager::active_ids() const
{
    std::vector<std::string> ids;
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& [generation, record] : streams_)
        if (record->state == stream::phase::running && std::find(ids.begin(), ids.end(), record->id) == ids.end())
            ids.push_back(record->id);
    return ids;
}

void worker_manager::join_finished()
{
    std::vector<std::thread> finished;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        finished.swap(finished_);
    }
    for (auto& thread : finished)
        thread.join();
}

void worker_manager::set_stream_ended_handler(ended_handler handler)
{
    std::lock_guard<std::mutex> lock(mutex_);
    ended_handler_ = std::move(handler);
}

void worker_manager::set_streams_handler(streams_handler handler)
{
    std::lock_guard<std::mutex> lock(mutex_);
    streams_handler_ = std::move(handler);
}

void worker_manager::set_health_handler(health_handler handler)
{
    std::lock_guard<std::mutex> lock(mutex_);
    health_handler_ = std::move(handler);
}

void worker_manager::report(std::function<void()> task) const noexcept
{
    // Called on the manager's own threads, whose loops must not end on an exception.
    guarded("The work manager", "a report to the network thread", [&] { post_(std::move(task)); });
}

} // namespace orbweave::obs
