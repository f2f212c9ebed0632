#include "core/end_notice.hpp"

namespace orbweave {

bool end_notice::end(const std::string& reason) {
    handler deliver_to;
    {
        std::lock_guard lock(mutex_);
        if (reason_)
            return false;
        reason_ = reason;
        if (handler_) {
            delivered_ = true;
            deliver_to = handler_;
        }
    }
    if (deliver_to)
        deliver_to(reason);
    return true;
}

void end_notice::on_end(handler on_end) {
    handler deliver_to;
    std::string reason;
    {
        std::lock_guard lock(mutex_);
        handler_ = std::move(on_end);
        if (reason_ && !delivered_ && handler_) {
            delivered_ = true;
            deliver_to = handler_;
            reason = *reason_;
        }
    }
    if (deliver_to)
        deliver_to(reason);
}

void end_notice::silence() {
    std::lock_guard lock(mutex_);
    handler_ = nullptr;
}

bool end_notice::ended() const {
    std::lock_guard lock(mutex_);
    return reason_.has_value();
}

std::optional<std::string> end_notice::reason() const {
    std::lock_guard lock(mutex_);
    return reason_;
}

} // namespace orbweave
