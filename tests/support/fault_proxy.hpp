#pragma once

// A loopback TCP proxy that tests place between a client and its peer (the service
// simulator, an RTMP ingest) to inject network faults: cut every connection, stall
// (take bytes, forward none), slice writes into single bytes, add latency, refuse new
// connections, or cut a connection once it has carried a number of bytes. Faults
// apply at once, to both directions. One thread serves all connections.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

namespace orbweave::test {

class fault_proxy {
public:
    /// Listens on a free loopback port and forwards to 127.0.0.1:target_port.
    explicit fault_proxy(int target_port);
    /// Closes everything and joins its thread.
    ~fault_proxy();
    fault_proxy(const fault_proxy&) = delete;
    fault_proxy& operator=(const fault_proxy&) = delete;

    int port() const { return port_; }

    /// Closes every open connection, both sides, without a word.
    void cut() { update(cut_requested_, true); }
    /// While on, nothing is read or forwarded: the kernel takes a few kB more, then the
    /// senders' writes block, as on a path that went dark. Turning it off forwards
    /// what was held.
    void stall(bool on) { update(stalled_, on); }
    /// While on, every byte is written on its own.
    void slice(bool on) { update(sliced_, on); }
    /// Each chunk is forwarded this long after it arrived.
    void delay(std::chrono::milliseconds latency) { update(latency_, latency); }
    /// Forwards at most this many bytes a second, all connections and both directions
    /// together, as a slow path would (0: as fast as the peers take them).
    void throttle(std::size_t bytes_per_second) { update(bytes_per_second_, bytes_per_second); }
    /// While on, new connections are closed as soon as they are accepted.
    void refuse(bool on) { update(refusing_, on); }
    /// The next connection is cut once it has carried this many bytes (both ways).
    void cut_next_after(std::size_t bytes) { update(cut_after_, bytes); }

    /// Called on the proxy's thread with what each client sends, as it arrives and before it
    /// is forwarded: the connection's number (1 for the first accepted) and the bytes.
    using tap_function = std::function<void(int connection, std::string_view bytes)>;
    void tap(tap_function watch) { update(tap_, std::move(watch)); }

    /// Connections accepted so far (refused ones included).
    int accepted() const { return accepted_; }
    /// Bytes forwarded so far, both ways.
    std::uint64_t forwarded() const { return forwarded_; }

private:
    struct state;
    void run();
    void wake();
    /// Changes a setting under the lock and wakes the proxy's thread to act on it.
    template <class T, class U>
    void update(T& setting, U&& value)
    {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            setting = std::forward<U>(value);
        }
        wake();
    }

    int target_port_;
    int listener_ = -1;
    int port_ = 0;
    int wake_[2] = {-1, -1};
    std::atomic<int> accepted_{0};
    std::atomic<std::uint64_t> forwarded_{0};
    std::mutex mutex_; // the settings below and the cut request
    bool cut_requested_ = false;
    bool stalled_ = false;
    bool sliced_ = false;
    bool refusing_ = false;
    std::chrono::milliseconds latency_{0};
    std::size_t bytes_per_second_ = 0;
    std::size_t cut_after_ = 0;
    tap_function tap_;
    bool closing_ = false;
    std::thread thread_;
};

} // namespace orbweave::test
