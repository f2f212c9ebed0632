#include "tests/support/stderr_capture.hpp"

#include "tests/support/temp_dir.hpp"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <stdexcept>

namespace orbweave::test {

stderr_capture::stderr_capture()
{
    char name[] = "/tmp/orbweave-stderr-XXXXXX";
    int fd = mkstemp(name);
    if (fd < 0)
        throw std::runtime_error("cannot create a capture file");
    path_ = name;
    std::fflush(stderr);
    saved_fd_ = dup(STDERR_FILENO);
    dup2(fd, STDERR_FILENO);
    close(fd);
}

stderr_capture::~stderr_capture()
{
    std::fflush(stderr);
    dup2(saved_fd_, STDERR_FILENO);
    close(saved_fd_);
    // Replay what was captured so a failing test still shows it.
    std::string captured = text();
    if (!captured.empty())
        [[maybe_unused]] auto ignored = write(STDERR_FILENO, captured.data(), captured.size());
    unlink(path_.c_str());
}

std::string stderr_capture::text() const
{
    return file_text(path_);
}

int stderr_capture::count_lines_starting(const std::string& prefix) const
{
    std::istringstream lines(text());
    std::string line;
    int count = 0;
    while (std::getline(lines, line))
        if (line.compare(0, prefix.size(), prefix) == 0)
            ++count;
    return count;
}

} // namespace orbweave::test
