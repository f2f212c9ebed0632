#pragma once

#include <string>

namespace orbweave::test {

/// Sends this process's standard error to a private file while it lives, so a
/// test can read exactly the lines the code under test wrote.
class stderr_capture {
public:
    stderr_capture();
    ~stderr_capture();
    stderr_capture(const stderr_capture&) = delete;
    stderr_capture& operator=(const stderr_capture&) = delete;

    /// Everything written so far.
    std::string text() const;
    /// How many lines start with prefix.
    int count_lines_starting(const std::string& prefix) const;

private:
    int saved_fd_ = -1;
    std::string path_;
};

} // namespace orbweave::test
