#include "core/obs/source_catalogue.hpp"

#include "core/guarded.hpp"
#include "core/log.hpp"

#include <stdexcept>

namespace orbweave::obs {

source_catalogue::source_catalogue(post_function post, worker::options listing, bool start_now)
    : post_(std::move(post)), options_(std::move(listing))
{
    if (!start_now)
        return;
    thread_->post([this] {
        try {
            listing_worker();
        } catch (const std::exception&) {
            // Logged by the worker; the first list tries again.
        }
    });
}

source_catalogue::~source_catalogue()
{
    close();
    thread_.reset();
    worker_.reset();
}

void source_catalogue::close()
{
    if (closing_.cancelled())
        return;
    closing_.cancel();
    // Behind a request in progress; the requests queued after it see the cancellation.
    thread_->post([this] { worker_.reset(); });
}

worker& source_catalogue::listing_worker()
{
    if (closing_.cancelled())
        throw std::runtime_error("the client is stopping");
    // Started on first use, and again after it died, so a crashed plug-in costs one request.
    if (!worker_ || !worker_->alive())
        worker_ = std::make_unique<worker>(options_, &closing_);
    return *worker_;
}

void source_catalogue::list(callback::source_type::type kind, std::function<void(const listing&)> done)
{
    thread_->post([this, kind, done = std::move(done)] {
        listing result;
        try {
            result.entries = listing_worker().list(kind);
            std::lock_guard<std::mutex> lock(listed_mutex_);
            listed_[kind] = result.entries;
        } catch (const std::exception& error) {
            result.error = error.what();
        }
        report([done, result = std::move(result)] { done(result); });
    });
}

std::optional<source_entry> source_catalogue::listed_source(const source_ref& source) const
{
    std::lock_guard<std::mutex> lock(listed_mutex_);
    auto kind = listed_.find(source.kind);
    if (kind == listed_.end())
        return std::nullopt;
    for (const source_entry& entry : kind->second)
        if (entry_id(entry) == source.id)
            return entry;
    return std::nullopt;
}

void source_catalogue::find_source(source_ref source, std::function<void(const lookup&)> done)
{
    thread_->post([this, source = std::move(source), done = std::move(done)] {
        lookup result;
        try {
            result.entry = listing_worker().find(source);
        } catch (const std::exception& error) {
            result.error = error.what();
        }
        report([done, result = std::move(result)] { done(result); });
    });
}

void source_catalogue::report(std::function<void()> task) const noexcept
{
    // Called on the listing thread, whose loop must not end on an exception.
    guarded("The source catalogue", "a report to the network thread", [&] { post_(std::move(task)); });
}

} // namespace orbweave::obs
