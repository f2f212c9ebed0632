#pragma once

#include "core/obs/cancellation.hpp"
#include "core/obs/entries.hpp"
#include "core/obs/worker.hpp"
#include "core/serial_executor.hpp"

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace orbweave::obs {

/// The sources this machine offers, as the listing worker sees them. One media worker,
/// started when first needed (or at once) and again after it died, serves every listing
/// and lookup on the catalogue's own thread; the last listing of each kind is kept, so an
/// activation finds its source without asking the worker again.
///
/// Every operation returns at once; results go through the post function, which the
/// client points at its network loop.
class source_catalogue {
public:
    /// Runs a task on the owner's thread, or drops it once the owner has stopped.
    using post_function = std::function<void(std::function<void()>)>;

    /// One kind's catalogue; error says why it could not be read.
    struct listing {
        std::vector<source_entry> entries;
        std::string error;
    };

    /// A source looked up by the listing worker.
    struct lookup {
        std::optional<source_entry> entry;
        std::string error;
    };

    /// With start_now, the listing worker starts at once: the service lists right after
    /// connecting, and should not wait for libobs to start.
    source_catalogue(post_function post, worker::options listing, bool start_now);
    /// Closes, then waits for the listing thread (a listing worker shuts down, bounded).
    ~source_catalogue();

    source_catalogue(const source_catalogue&) = delete;
    source_catalogue& operator=(const source_catalogue&) = delete;

    /// Lists one kind on the listing thread; done gets the result through post.
    void list(callback::source_type::type kind, std::function<void(const listing&)> done);
    /// The source as the last listing of its kind had it; none when it had no such id
    /// (or that kind was not listed yet).
    std::optional<source_entry> listed_source(const source_ref& source) const;
    /// Asks the listing worker for that one source on the listing thread; done gets the
    /// result through post.
    void find_source(source_ref source, std::function<void(const lookup&)> done);

    /// Returns at once: a listing worker still starting is killed, and the listing worker
    /// shuts down on the listing thread; requests after it are dropped.
    void close();

private:
    /// On the listing thread: the worker, started if there is none alive.
    worker& listing_worker();
    /// Hands a result to the owner's thread through post_; never throws.
    void report(std::function<void()> task) const noexcept;

    const post_function post_;
    const worker::options options_;
    // Cancelled on close: a listing worker still starting then ends at once.
    cancellation closing_;

    // Used only on the listing thread (and by the destructor once that has ended).
    std::unique_ptr<worker> worker_;

    // The last listing of each kind, written on the listing thread.
    mutable std::mutex listed_mutex_;
    std::map<callback::source_type::type, std::vector<source_entry>> listed_;

    // Last: its tasks use everything above, so it ends first.
    std::unique_ptr<serial_executor> thread_ = std::make_unique<serial_executor>();
};

} // namespace orbweave::obs
