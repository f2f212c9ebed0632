#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace orbweave::obs {

/// The registry of running streams, keyed by the service's source id.
class worker_manager {
public:
    /// One running stream.
    struct work_descriptor {
        virtual ~work_descriptor() = default;
    };

    worker_manager() = default;
    ~worker_manager();

    worker_manager(const worker_manager&) = delete;
    worker_manager& operator=(const worker_manager&) = delete;

    /// Stops and removes every stream.
    void clear();
    /// Whether no stream runs.
    bool is_empty() const;

private:
    mutable std::mutex mutex_;
    std::map<std::string, std::shared_ptr<work_descriptor>> work_;
};

} // namespace orbweave::obs
