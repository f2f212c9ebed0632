#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace orbweave::test {

/// Reads lines from a descriptor (a child's standard output) with deadlines.
class line_reader {
public:
    explicit line_reader(int fd) : fd_(fd) {}

    /// The next line; nullopt at the deadline or at end of input.
    std::optional<std::string> next(std::chrono::milliseconds timeout);
    /// The first line from now on that match accepts; nullopt at the deadline.
    std::optional<std::string> wait_for(const std::function<bool(const std::string&)>& match,
                                        std::chrono::milliseconds timeout);
    /// The first line starting with prefix.
    std::optional<std::string> wait_for_prefix(const std::string& prefix, std::chrono::milliseconds timeout);
    /// Every line read so far.
    const std::vector<std::string>& lines() const { return lines_; }

private:
    int fd_;
    std::string buffered_;
    std::vector<std::string> lines_;
};

} // namespace orbweave::test
