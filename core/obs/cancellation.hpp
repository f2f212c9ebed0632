#pragma once

#include <functional>
#include <list>
#include <mutex>

namespace orbweave::obs {

/// Ends a start from another thread at once: cancel() runs what the start registered to
/// end itself (kill the process being spawned, wake a wait), and a start that registers
/// after it is ended right away. Thread-safe; cancelled once, for good.
class cancellation {
    using hooks = std::list<std::function<void()>>;

public:
    /// Keeps a hook registered while it lives; its destruction waits for a running hook.
    class registration {
    public:
        registration() = default;
        registration(registration&& other) noexcept;
        registration& operator=(registration&& other) noexcept;
        ~registration() { reset(); }

    private:
        friend class cancellation;
        void reset() noexcept;
        registration(cancellation* owner, hooks::iterator hook) : owner_(owner), hook_(hook) {}
        cancellation* owner_ = nullptr;
        hooks::iterator hook_;
    };

    cancellation() = default;
    cancellation(const cancellation&) = delete;
    cancellation& operator=(const cancellation&) = delete;

    void cancel();
    bool cancelled() const;

    /// Runs hook once, on cancel() (at once when cancelled already), until the registration
    /// is destroyed. The hook runs with this object's lock held: it must only signal.
    [[nodiscard]] registration on_cancel(std::function<void()> hook);

private:
    mutable std::mutex mutex_;
    bool cancelled_ = false;
    hooks hooks_;
};

} // namespace orbweave::obs
