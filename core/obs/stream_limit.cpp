#include "core/obs/stream_limit.hpp"

#include <unistd.h>

#include <algorithm>
#include <limits>
#include <thread>

namespace orbweave::obs {

namespace {

constexpr std::uint64_t memory_per_stream = 235ull * 1000 * 1000;
constexpr unsigned streams_per_core = 2;

} // namespace

machine_resources this_machine()
{
    machine_resources machine;
    long pages = ::sysconf(_SC_PHYS_PAGES);
    long page_size = ::sysconf(_SC_PAGESIZE);
    if (pages > 0 && page_size > 0)
        machine.memory_bytes = static_cast<std::uint64_t>(pages) * static_cast<std::uint64_t>(page_size);
    machine.cores = std::thread::hardware_concurrency();
    return machine;
}

int stream_limit_for(const machine_resources& machine)
{
    std::uint64_t limit = std::numeric_limits<int>::max();
    if (machine.cores > 0)
        limit = std::min<std::uint64_t>(limit, std::uint64_t{machine.cores} * streams_per_core);
    if (machine.memory_bytes > 0)
        limit = std::min<std::uint64_t>(limit, machine.memory_bytes / 2 / memory_per_stream);
    return static_cast<int>(std::max<std::uint64_t>(limit, 1));
}

std::string describe_stream_limit(const machine_resources& machine)
{
    return std::to_string(machine.cores) + " cores and " + std::to_string(machine.memory_bytes / 1000000) +
           " MB of memory, at 235 MB and half a core a stream";
}

} // namespace orbweave::obs
