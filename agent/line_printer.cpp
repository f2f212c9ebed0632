#include "agent/line_printer.hpp"

#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

namespace orbweave::agent {

struct line_printer::state {
    int fd;
    std::size_t capacity;
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<std::string> lines;
    std::size_t dropped = 0;
    bool closing = false;
    bool writing = false;
    std::thread writer;

    /// The whole text, or false once the reader is gone.
    bool write_all(const std::string& text)
    {
        std::size_t done = 0;
        while (done < text.size()) {
            ssize_t written = ::write(fd, text.data() + done, text.size() - done);
            if (written < 0 && errno == EINTR)
                continue;
            if (written <= 0)
                return false;
            done += static_cast<std::size_t>(written);
        }
        return true;
    }

    void run()
    {
        // A reader that has gone makes write fail with EPIPE instead of ending the agent.
        sigset_t pipe_signal;
        sigemptyset(&pipe_signal);
        sigaddset(&pipe_signal, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &pipe_signal, nullptr);

        bool reader_gone = false;
        std::unique_lock<std::mutex> lock(mutex);
        for (;;) {
            changed.wait(lock, [&] { return closing || !lines.empty(); });
            if (lines.empty())
                break;
            std::string text;
            while (!lines.empty()) {
                text += lines.front();
                text += '\n';
                lines.pop_front();
            }
            if (dropped > 0) {
                text += "(" + std::to_string(dropped) + " status lines dropped: standard output was not read)\n";
                dropped = 0;
            }
            writing = true;
            lock.unlock();
            if (!reader_gone)
                reader_gone = !write_all(text);
            lock.lock();
            writing = false;
            changed.notify_all();
        }
    }
};

line_printer::line_printer(int fd, std::size_t capacity) : state_(std::make_shared<state>())
{
    state_->fd = fd;
    state_->capacity = capacity;
    state_->writer = std::thread([shared = state_] { shared->run(); });
}

line_printer::~line_printer()
{
    std::unique_lock<std::mutex> lock(state_->mutex);
    state_->closing = true;
    state_->changed.notify_all();
    bool drained = state_->changed.wait_for(lock, std::chrono::seconds(2),
                                            [&] { return state_->lines.empty() && !state_->writing; });
    lock.unlock();
    // A writer still blocked on a reader that never reads keeps the state alive and
    // ends with the process.
    if (drained)
        state_->writer.join();
    else
        state_->writer.detach();
}

void line_printer::print(const std::string& line)
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    if (state_->lines.size() >= state_->capacity) {
        ++state_->dropped;
        return;
    }
    state_->lines.push_back(line);
    state_->changed.notify_all();
}

} // namespace orbweave::agent
