#include "agent/terminal_prompt.hpp"

#include "core/log.hpp"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cctype>
#include <system_error>

namespace orbweave::agent {

namespace {

bool is_yes(std::string answer)
{
    for (auto& c : answer)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    while (!answer.empty() && std::isspace(static_cast<unsigned char>(answer.back())))
        answer.pop_back();
    return answer == "y" || answer == "yes";
}

void deliver(const callback::request& request, bool allowed)
{
    try {
        request.answer(allowed);
    } catch (const std::exception& error) {
        log::line("Could not deliver an answer to the service: ", error.what());
    } catch (...) {
        log::line("Could not deliver an answer to the service");
    }
}

} // namespace

terminal_prompt::terminal_prompt(int input_fd, std::function<void(const std::string&)> write)
    : input_fd_(input_fd), write_(std::move(write))
{
    if (::pipe2(wake_, O_CLOEXEC) != 0)
        throw std::system_error(errno, std::generic_category(), "pipe");
    thread_ = std::thread(&terminal_prompt::run, this);
}

terminal_prompt::~terminal_prompt()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        closing_ = true;
    }
    changed_.notify_all();
    [[maybe_unused]] auto ignored = ::write(wake_[1], "x", 1);
    thread_.join();
    ::close(wake_[0]);
    ::close(wake_[1]);
}

void terminal_prompt::ask(std::string text, callback::request request)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!closing_) {
            questions_.push_back({std::move(text), std::move(request)});
            changed_.notify_all();
            return;
        }
    }
    deliver(request, false);
}

bool terminal_prompt::read_line(std::string& line)
{
    for (;;) {
        if (auto end = buffered_.find('\n'); end != std::string::npos) {
            line = buffered_.substr(0, end);
            buffered_.erase(0, end + 1);
            return true;
        }
        pollfd fds[2] = {{input_fd_, POLLIN, 0}, {wake_[0], POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        if (fds[1].revents)
            return false;
        char chunk[256];
        ssize_t got = ::read(input_fd_, chunk, sizeof chunk);
        if (got <= 0)
            return false;
        buffered_.append(chunk, static_cast<size_t>(got));
    }
}

void terminal_prompt::run()
{
    bool input_open = true;
    for (;;) {
        question next;
        {
            std::unique_lock<std::mutex> lock(mutex_);
            changed_.wait(lock, [this] { return closing_ || !questions_.empty(); });
            if (questions_.empty())
                return;
            next = std::move(questions_.front());
            questions_.pop_front();
            if (closing_) {
                lock.unlock();
                deliver(next.request, false);
                continue;
            }
        }
        bool allowed = false;
        if (input_open) {
            write_(next.text + " [y/N] ");
            std::string answer;
            input_open = read_line(answer);
            allowed = input_open && is_yes(answer);
        }
        deliver(next.request, allowed);
    }
}

} // namespace orbweave::agent
