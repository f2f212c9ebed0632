#pragma once

// This process's TCP sockets, found through /proc/self/fd. libobs's RTMP output
// cannot be stopped while it connects (stopping joins its connect thread), and a
// server that accepts the connection and never answers holds that thread in a
// blocking read for half a minute; shutting the stream's socket down ends the read
// at once, and the connection then fails the ordinary way. Likewise, libobs never
// notices a path that stops taking data: the kernel's view of the stream's socket
// (what the peer acknowledged, what still waits) shows it.

#include <sys/types.h>

#include <cstdint>
#include <vector>

namespace orbweave::obs {

/// The inodes of this process's TCP sockets (IPv4 and IPv6).
std::vector<ino_t> tcp_socket_inodes();

/// How far the peers of this process's newer TCP sockets have taken what was sent.
struct tcp_progress {
    std::vector<ino_t> sockets;
    /// Bytes the peers acknowledged, summed over the sockets.
    std::uint64_t acknowledged = 0;
    /// Whether anything waits for the peers: unacknowledged segments or unsent bytes.
    bool waiting = false;
    /// Bytes written to the sockets that the kernel has not sent yet, summed.
    std::uint64_t unsent = 0;
};

/// The progress of every TCP socket of this process not in before.
tcp_progress tcp_progress_since(const std::vector<ino_t>& before);

/// The descriptors of this process's TCP sockets not in before.
std::vector<int> tcp_descriptors_since(const std::vector<ino_t>& before);

/// Turns off small-packet coalescing (Nagle) on these sockets; bytes held back go out at
/// once. libobs's RTMP library leaves it on, so a frame's last segment, or a command
/// written right after another, could wait for the peer's delayed acknowledgement.
void send_without_delay(const std::vector<int>& sockets);

/// Acknowledges what these sockets received at once, and from now on until the kernel
/// decides by itself that the exchange is interactive again: a peer that coalesces its
/// short replies waits for that acknowledgement before sending the next.
void acknowledge_at_once(const std::vector<int>& sockets);

/// Shuts down every TCP socket of this process not in before. A worker carries one
/// stream, so the sockets made since it started connecting are that stream's.
void interrupt_connections_since(const std::vector<ino_t>& before);

} // namespace orbweave::obs
