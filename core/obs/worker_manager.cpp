#include "core/obs/worker_manager.hpp"

namespace orbweave::obs {

worker_manager::~worker_manager()
{
    clear();
}

void worker_manager::clear()
{
    std::map<std::string, std::shared_ptr<work_descriptor>> stopping;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping.swap(work_);
    }
}

bool worker_manager::is_empty() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return work_.empty();
}

} // namespace orbweave::obs
