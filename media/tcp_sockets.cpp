#include "media/tcp_sockets.hpp"

#include <dirent.h>
#include <linux/tcp.h> // tcp_info with tcpi_bytes_acked and tcpi_notsent_bytes
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <utility>

namespace orbweave::obs {

namespace {

/// This process's TCP sockets: descriptor and inode.
std::vector<std::pair<int, ino_t>> tcp_sockets()
{
    std::vector<std::pair<int, ino_t>> sockets;
    DIR* directory = ::opendir("/proc/self/fd");
    if (!directory)
        return sockets;
    int own = ::dirfd(directory);
    while (dirent* item = ::readdir(directory)) {
        char* end = nullptr;
        long fd = std::strtol(item->d_name, &end, 10);
        if (end == item->d_name || *end != '\0' || fd == own)
            continue;
        struct stat status;
        if (::fstat(static_cast<int>(fd), &status) < 0 || !S_ISSOCK(status.st_mode))
            continue;
        int domain = 0, type = 0;
        socklen_t length = sizeof domain;
        if (::getsockopt(static_cast<int>(fd), SOL_SOCKET, SO_DOMAIN, &domain, &length) < 0)
            continue;
        length = sizeof type;
        if (::getsockopt(static_cast<int>(fd), SOL_SOCKET, SO_TYPE, &type, &length) < 0)
            continue;
        if ((domain == AF_INET || domain == AF_INET6) && type == SOCK_STREAM)
            sockets.emplace_back(static_cast<int>(fd), status.st_ino);
    }
    ::closedir(directory);
    return sockets;
}

} // namespace

std::vector<ino_t> tcp_socket_inodes()
{
    std::vector<ino_t> inodes;
    for (const auto& socket : tcp_sockets())
        inodes.push_back(socket.second);
    return inodes;
}

std::vector<int> tcp_descriptors_since(const std::vector<ino_t>& before)
{
    std::vector<int> descriptors;
    for (const auto& [fd, inode] : tcp_sockets())
        if (std::find(before.begin(), before.end(), inode) == before.end())
            descriptors.push_back(fd);
    return descriptors;
}

void send_without_delay(const std::vector<int>& sockets)
{
    int on = 1;
    for (int fd : sockets)
        ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

void acknowledge_at_once(const std::vector<int>& sockets)
{
    int on = 1;
    for (int fd : sockets)
        ::setsockopt(fd, IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
}

void interrupt_connections_since(const std::vector<ino_t>& before)
{
    for (const auto& [fd, inode] : tcp_sockets())
        if (std::find(before.begin(), before.end(), inode) == before.end())
            ::shutdown(fd, SHUT_RDWR);
}

tcp_progress tcp_progress_since(const std::vector<ino_t>& before)
{
    tcp_progress progress;
    for (const auto& [fd, inode] : tcp_sockets()) {
        if (std::find(before.begin(), before.end(), inode) != before.end())
            continue;
        tcp_info info{};
        socklen_t length = sizeof info;
        if (::getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &length) < 0)
            continue;
        progress.sockets.push_back(inode);
        progress.acknowledged += info.tcpi_bytes_acked;
        progress.waiting = progress.waiting || info.tcpi_unacked > 0 || info.tcpi_notsent_bytes > 0;
        progress.unsent += info.tcpi_notsent_bytes;
    }
    return progress;
}

} // namespace orbweave::obs
