#include "core/obs/worker_manager.hpp"

#include "core/log.hpp"
#include "core/websocket/connection.hpp"
#include "core/websocket/message_handler.hpp"

namespace orbweave::obs {

namespace {

std::string source_id(const Json& request)
{
    return json::string_at(request, {"payload", "source", "id"});
}

} // namespace

worker::options worker_manager::stream_worker_options()
{
    worker::options stream;
    stream.defer_video = true;
    return stream;
}

worker_manager::worker_manager()
    : worker_manager(options{})
{
}

worker_manager::worker_manager(options options)
    : options_(std::move(options)), reaper_(&worker_manager::reap_loop, this)
{
}

worker_manager::~worker_manager()
{
    clear();
    {
        std::lock_guard<std::mutex> lock(reap_mutex_);
        reaper_stopping_ = true;
    }
    reap_changed_.notify_all();
    reaper_.join();
    std::lock_guard<std::mutex> lock(listing_mutex_);
    listing_worker_.reset();
}

worker_manager::activation worker_manager::activate(const Json& request, const encode_profile& profile)
{
    std::string id = source_id(request);
    std::lock_guard<std::mutex> lock(mutex_);

    auto descriptor = std::make_shared<work_descriptor>();
    descriptor->owner = this;
    const work_descriptor* watched = descriptor.get();
    try {
        descriptor->stream_worker = std::make_unique<worker>(options_.stream);
        // Watched from the start: a death right after the start is still noticed.
        descriptor->stream_worker->set_exit_handler(
            [this, id, watched](const std::string& reason) { on_worker_died(id, watched, reason); });
        Json result = descriptor->stream_worker->call(
            Json{{"op", "activate"}, {"request", request}, {"bitrate", profile.bitrate}});
        if (!json::bool_at(result, {"started"})) {
            std::string error = json::string_at(result, {"error"});
            return {false, error.empty() ? "the stream did not start" : error};
        }
    } catch (const std::exception& error) {
        return {false, error.what()};
    }

    // The new stream runs before an earlier one of the same source stops.
    std::shared_ptr<work_descriptor> replaced = std::move(work_[id]);
    work_[id] = std::move(descriptor);
    publish_active_ids();
    replaced.reset();
    return {true, {}};
}

void worker_manager::deactivate(const websocket::connection& connection, const Json& request)
{
    const Json& payload = json::at(request, {"payload"});
    if (!payload.is_object()) {
        clear();
    } else {
        std::string id = source_id(request);
        if (!is_active(id))
            return; // not streaming: no answer at all, and no wait for a start in progress
        std::lock_guard<std::mutex> lock(mutex_);
        auto found = work_.find(id);
        if (found == work_.end())
            return;
        std::shared_ptr<work_descriptor> stopping = std::move(found->second);
        work_.erase(found);
        publish_active_ids();
        stopping.reset(); // stops the stream while the map is still locked
    }
    connection.send(websocket::reply_to(request, {{"status", "Success"}}));
}

void worker_manager::clear()
{
    std::lock_guard<std::mutex> lock(mutex_);
    auto stopping = std::move(work_);
    work_.clear();
    publish_active_ids();
    stopping.clear(); // stops the streams while the map is still locked
}

void worker_manager::publish_active_ids()
{
    std::set<std::string> ids;
    for (const auto& entry : work_)
        ids.insert(entry.first);
    std::lock_guard<std::mutex> lock(view_mutex_);
    active_ids_.swap(ids);
}

bool worker_manager::is_active(const std::string& id) const
{
    std::lock_guard<std::mutex> lock(view_mutex_);
    return active_ids_.count(id) > 0;
}

bool worker_manager::is_empty() const
{
    std::lock_guard<std::mutex> lock(view_mutex_);
    return active_ids_.empty();
}

std::vector<std::string> worker_manager::active_ids() const
{
    std::lock_guard<std::mutex> lock(view_mutex_);
    return {active_ids_.begin(), active_ids_.end()};
}

template <class Entry>
std::vector<Entry> worker_manager::mark_active(std::vector<Entry> entries) const
{
    std::lock_guard<std::mutex> lock(view_mutex_);
    for (auto& entry : entries)
        entry.is_active = active_ids_.count(entry.id) > 0;
    return entries;
}

template <class Result>
Result worker_manager::with_listing_worker(const std::function<Result(worker&)>& use)
{
    std::lock_guard<std::mutex> lock(listing_mutex_);
    // Started on first use, and again after it died, so a crashed plug-in costs one request.
    if (!listing_worker_ || !listing_worker_->alive())
        listing_worker_ = std::make_unique<worker>(options_.listing);
    return use(*listing_worker_);
}

std::vector<screen_entry> worker_manager::list_screens()
{
    return mark_active(with_listing_worker<std::vector<screen_entry>>([](worker& w) { return w.list_screens(); }));
}

std::vector<window_entry> worker_manager::list_windows()
{
    return mark_active(with_listing_worker<std::vector<window_entry>>([](worker& w) { return w.list_windows(); }));
}

std::vector<audio_entry> worker_manager::list_audios()
{
    return mark_active(with_listing_worker<std::vector<audio_entry>>([](worker& w) { return w.list_audios(); }));
}

std::vector<video_entry> worker_manager::list_videos()
{
    return mark_active(with_listing_worker<std::vector<video_entry>>([](worker& w) { return w.list_videos(); }));
}

Json worker_manager::get_source_info(const Json& request)
{
    return with_listing_worker<Json>([&](worker& w) { return w.get_source_info(request); });
}

void worker_manager::set_stream_lost_handler(std::function<void(const std::string&, bool)> handler)
{
    std::lock_guard<std::mutex> lock(reap_mutex_);
    stream_lost_handler_ = std::move(handler);
}

void worker_manager::on_worker_died(const std::string& id, const work_descriptor* descriptor, const std::string& reason)
{
    log::line("The stream of source " + id + " ended: its media worker " + reason);
    {
        std::lock_guard<std::mutex> lock(reap_mutex_);
        to_reap_.emplace_back(id, descriptor);
    }
    reap_changed_.notify_all();
}

void worker_manager::reap_loop()
{
    std::unique_lock<std::mutex> lock(reap_mutex_);
    for (;;) {
        reap_changed_.wait(lock, [this] { return reaper_stopping_ || !to_reap_.empty(); });
        if (to_reap_.empty())
            return;
        auto [id, descriptor] = to_reap_.front();
        to_reap_.pop_front();
        auto handler = stream_lost_handler_;
        lock.unlock();

        bool removed = false;
        bool now_empty = false;
        {
            std::lock_guard<std::mutex> work_lock(mutex_);
            auto found = work_.find(id);
            // Only the stream that died: the id may have been restarted since.
            if (found != work_.end() && found->second.get() == descriptor) {
                work_.erase(found);
                publish_active_ids();
                removed = true;
            }
            now_empty = work_.empty();
        }
        if (removed && handler)
            handler(id, now_empty);
        lock.lock();
    }
}

} // namespace orbweave::obs
