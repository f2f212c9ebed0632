#pragma once

#include "core/callback.hpp"

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace orbweave::agent {

/// Asks the person at the terminal, one question at a time, on a thread of its
/// own, so the network thread never waits for a person. Questions still open
/// when the prompt closes, or when input ends, are answered "no".
class terminal_prompt {
public:
    /// Reads answers from input_fd; write prints each question.
    terminal_prompt(int input_fd, std::function<void(const std::string&)> write);
    ~terminal_prompt();
    terminal_prompt(const terminal_prompt&) = delete;
    terminal_prompt& operator=(const terminal_prompt&) = delete;

    void ask(std::string question, callback::request request);

private:
    struct question {
        std::string text;
        callback::request request;
    };
    void run();
    /// A line from the input; false at end of input or when closing.
    bool read_line(std::string& line);

    int input_fd_;
    std::function<void(const std::string&)> write_;
    int wake_[2] = {-1, -1};
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<question> questions_;
    bool closing_ = false;
    std::string buffered_;
    std::thread thread_;
};

} // namespace orbweave::agent
