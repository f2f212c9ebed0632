#include "tests/support/fault_proxy.hpp"

#include "tests/support/rtmp_ingest.hpp"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <deque>
#include <list>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

namespace orbweave::test {

namespace {

using clock = std::chrono::steady_clock;

// The most a connection holds per direction before the proxy stops reading from the
// sender: a slow receiver slows the sender down, as on a real path.
constexpr std::size_t max_held_bytes = 256 * 1024;

void set_nonblocking(int fd)
{
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
}

/// A side of a link: non-blocking, and every piece forwarded as soon as it is read.
/// Coalescing would make the proxy wait for acknowledgements that a direct path never
/// waits for, slowing a handshake's short messages by the peers' delayed acknowledgements.
void prepare_side(int fd)
{
    set_nonblocking(fd);
    int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

struct chunk {
    std::string bytes;
    clock::time_point due;
};

/// One end of a proxied connection and what waits to be written to it.
struct end {
    int fd = -1;
    std::deque<chunk> pending;
    std::size_t pending_bytes = 0;
    bool finished = false; // it closed its side
};

struct link {
    int number = 0;
    end client;
    end server;
    std::size_t carried = 0;
    std::size_t cut_after = 0; // 0: never
    bool dead = false;

    void close()
    {
        for (end* side : {&client, &server})
            if (side->fd >= 0) {
                ::close(side->fd);
                side->fd = -1;
            }
        dead = true;
    }
};

} // namespace

struct fault_proxy::state {
    std::list<link> links;
};

fault_proxy::fault_proxy(int target_port) : target_port_(target_port)
{
    // Accepted connections start with a small receive buffer, so that a stall blocks the
    // sender after a few kB rather than the megabytes loopback would take.
    listener_ = listen_on_loopback(port_, 16, 4096);
    if (::pipe2(wake_, O_CLOEXEC | O_NONBLOCK) != 0)
        throw std::runtime_error("fault_proxy: cannot make its wake-up pipe");
    set_nonblocking(listener_);
    thread_ = std::thread([this] { run(); });
}

fault_proxy::~fault_proxy()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        closing_ = true;
    }
    wake();
    thread_.join();
    ::close(listener_);
    ::close(wake_[0]);
    ::close(wake_[1]);
}

void fault_proxy::wake()
{
    char byte = 1;
    [[maybe_unused]] ssize_t ignored = ::write(wake_[1], &byte, 1);
}

void fault_proxy::run()
{
    state current;
    char buffer[65536];
    // Throttled: what may be forwarded now, refilled at the rate, at most a tenth of a
    // second's worth at once.
    double allowance = 0;
    clock::time_point refilled = clock::now();
    for (;;) {
        bool stalled, sliced;
        std::size_t rate;
        std::chrono::milliseconds latency;
        tap_function tap;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (closing_)
                break;
            if (std::exchange(cut_requested_, false))
                for (auto& l : current.links)
                    l.close();
            stalled = stalled_;
            sliced = sliced_;
            rate = bytes_per_second_;
            latency = latency_;
            tap = tap_;
        }
        current.links.remove_if([](const link& l) { return l.dead; });

        // What to wait for: the wake pipe, new connections, reads, and due writes.
        std::vector<pollfd> polled{{wake_[0], POLLIN, 0}, {listener_, POLLIN, 0}};
        auto now = clock::now();
        std::optional<clock::time_point> next_due;
        double burst = std::max(1024.0, rate / 10.0);
        allowance = std::min(burst, allowance + std::chrono::duration<double>(now - refilled).count() * rate);
        refilled = now;
        // A slow path holds little: the sender feels it at once, not after a big buffer fills.
        std::size_t held_limit = rate ? std::max<std::size_t>(4096, rate / 4) : max_held_bytes;
        // Writes wait until a worthwhile piece may go (not byte by byte).
        bool may_write = !rate || allowance >= std::min(burst, 512.0);
        if (!may_write)
            next_due = now + std::chrono::microseconds(
                                 static_cast<long>((std::min(burst, 512.0) - allowance) * 1e6 / rate) + 1);
        std::vector<std::pair<link*, end*>> owners{{nullptr, nullptr}, {nullptr, nullptr}};
        for (auto& l : current.links)
            for (end* side : {&l.client, &l.server}) {
                const end& other = side == &l.client ? l.server : l.client;
                short events = side->finished || stalled || other.pending_bytes >= held_limit ? 0 : POLLIN;
                if (!stalled && may_write && !side->pending.empty()) {
                    if (side->pending.front().due <= now)
                        events |= POLLOUT;
                    else if (!next_due || side->pending.front().due < *next_due)
                        next_due = side->pending.front().due;
                }
                polled.push_back({side->fd, events, 0});
                owners.push_back({&l, side});
            }
        int timeout = -1;
        if (next_due)
            timeout = static_cast<int>(
                std::max<long>(1, std::chrono::duration_cast<std::chrono::milliseconds>(*next_due - now).count()));
        if (::poll(polled.data(), polled.size(), timeout) < 0)
            continue;

        if (polled[0].revents & POLLIN)
            while (::read(wake_[0], buffer, sizeof buffer) > 0) {
            }
        if (polled[1].revents & POLLIN) {
            int client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            if (client >= 0) {
                ++accepted_;
                bool refusing;
                std::size_t cut_after;
                {
                    std::lock_guard<std::mutex> lock(mutex_);
                    refusing = refusing_;
                    cut_after = std::exchange(cut_after_, 0);
                }
                int server = refusing ? -1 : connect_loopback(target_port_);
                if (server < 0) {
                    ::close(client);
                } else {
                    prepare_side(client);
                    prepare_side(server);
                    link added;
                    added.number = accepted_;
                    added.client.fd = client;
                    added.server.fd = server;
                    added.cut_after = cut_after;
                    current.links.push_back(std::move(added));
                }
            }
        }

        now = clock::now();
        for (std::size_t i = 2; i < polled.size(); ++i) {
            auto [l, side] = owners[i];
            if (l->dead)
                continue;
            end& other = side == &l->client ? l->server : l->client;
            if (polled[i].revents & (POLLIN | POLLHUP | POLLERR)) {
                ssize_t got = ::recv(side->fd, buffer, sizeof buffer, 0);
                if (got > 0) {
                    // Acknowledged at once, as the far end might: a sender that holds
                    // short messages back for an acknowledgement must not wait for the
                    // proxy's delayed one (the kernel turns quick acknowledgement off
                    // again by itself, so it is asked for after every read).
                    int on = 1;
                    ::setsockopt(side->fd, IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
                    if (tap && side == &l->client)
                        tap(l->number, std::string_view(buffer, static_cast<std::size_t>(got)));
                    other.pending.push_back({std::string(buffer, static_cast<std::size_t>(got)), now + latency});
                    other.pending_bytes += static_cast<std::size_t>(got);
                }
                else if (got == 0 || (errno != EAGAIN && errno != EINTR))
                    side->finished = true;
            }
            if (l->dead || side->fd < 0)
                continue;
            if ((polled[i].revents & POLLOUT) && !side->pending.empty()) {
                chunk& head = side->pending.front();
                std::size_t size = sliced ? 1 : head.bytes.size();
                if (rate)
                    size = std::min(size, static_cast<std::size_t>(std::max(1.0, allowance)));
                ssize_t sent = ::send(side->fd, head.bytes.data(), size, MSG_NOSIGNAL);
                if (sent > 0) {
                    if (rate)
                        allowance -= static_cast<double>(sent);
                    head.bytes.erase(0, static_cast<std::size_t>(sent));
                    side->pending_bytes -= static_cast<std::size_t>(sent);
                    if (head.bytes.empty())
                        side->pending.pop_front();
                    forwarded_ += static_cast<std::uint64_t>(sent);
                    l->carried += static_cast<std::size_t>(sent);
                    if (l->cut_after && l->carried >= l->cut_after)
                        l->close();
                } else if (sent < 0 && errno != EAGAIN && errno != EINTR) {
                    l->close();
                }
            }
            // A side that closed ends the connection once what it sent has gone on.
            if (!l->dead && side->finished && other.pending.empty())
                l->close();
        }
    }
    for (auto& l : current.links)
        l.close();
}

} // namespace orbweave::test
