#include "tests/support/processes.hpp"

#include "tests/support/eventually.hpp"
#include "tests/support/temp_dir.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

namespace orbweave::test {

obs::child_process::options command(std::vector<std::string> argv)
{
    obs::child_process::options options;
    options.argv = std::move(argv);
    return options;
}

std::vector<int> children_running(int parent, const std::vector<std::string>& words)
{
    std::vector<int> found;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        std::string name = entry.path().filename().string();
        if (name.find_first_not_of("0123456789") != std::string::npos)
            continue;
        std::ifstream stat(entry.path() / "stat");
        std::string line;
        if (!std::getline(stat, line))
            continue;
        // pid (comm) state ppid ...: comm may hold spaces, so read after the last ')'.
        auto close = line.rfind(')');
        if (close == std::string::npos)
            continue;
        char state = 0;
        int ppid = 0;
        if (std::sscanf(line.c_str() + close + 1, " %c %d", &state, &ppid) != 2 || ppid != parent)
            continue;
        std::string cmdline = command_line(std::stoi(name));
        if (std::all_of(words.begin(), words.end(),
                        [&](const std::string& word) { return cmdline.find(word) != std::string::npos; }))
            found.push_back(std::stoi(name));
    }
    return found;
}

std::string command_line(int pid)
{
    std::string text = file_text("/proc/" + std::to_string(pid) + "/cmdline");
    std::replace(text.begin(), text.end(), '\0', ' ');
    return text;
}

std::vector<int> stream_workers()
{
    return children_running(::getpid(), {"--stream-worker"});
}

std::vector<int> child_pids()
{
    return children_running(::getpid());
}

bool process_gone(int pid)
{
    auto children = child_pids();
    return std::find(children.begin(), children.end(), pid) == children.end() && ::kill(pid, 0) == -1 &&
           errno == ESRCH;
}

std::string how_it_ended(obs::child_process& program, std::chrono::milliseconds timeout)
{
    auto status = program.wait_for(timeout);
    return status ? obs::child_process::describe(*status) : "still running";
}

bool read_all(int fd, std::string& out, std::chrono::milliseconds timeout)
{
    auto deadline = std::chrono::steady_clock::now() + timeout;
    char chunk[65536];
    for (;;) {
        pollfd poller{fd, POLLIN, 0};
        int ready = ::poll(&poller, 1, static_cast<int>(time_left(deadline).count()));
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready <= 0)
            return false;
        ssize_t got = ::read(fd, chunk, sizeof chunk);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return got == 0;
        out.append(chunk, static_cast<std::size_t>(got));
    }
}

std::string output_of(obs::child_process::options options, std::chrono::milliseconds timeout, int* exit_code,
                      std::string* error_output)
{
    using namespace std::chrono_literals;
    auto deadline = std::chrono::steady_clock::now() + timeout;
    temp_dir directory("orbweave-program");
    int error_fd = ::open(directory.file("stderr").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    if (error_fd < 0)
        throw std::runtime_error("cannot create a file for standard error");
    options.pipe_stdout = true;
    options.pass_fds = {{error_fd, 2}};
    std::unique_ptr<obs::child_process> program;
    try {
        program = std::make_unique<obs::child_process>(options);
    } catch (...) {
        ::close(error_fd);
        throw;
    }
    ::close(error_fd);
    std::string output;
    bool finished = read_all(program->stdout_fd(), output, time_left(deadline));
    if (!finished)
        program->kill(SIGKILL);
    auto status = program->wait_for(finished ? std::max(time_left(deadline), 1000ms) : 5000ms);
    if (!status)
        status = program->kill_and_wait();
    if (error_output)
        *error_output = file_text(directory.file("stderr"));
    if (exit_code)
        *exit_code = finished && status && WIFEXITED(*status) ? WEXITSTATUS(*status) : -1;
    return output;
}

std::string run_program(const std::vector<std::string>& argv, std::chrono::milliseconds timeout, int* exit_code,
                        std::string* error_output)
{
    return output_of(command(argv), timeout, exit_code, error_output);
}

long status_field(int pid, const std::string& name)
{
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind(name + ":", 0) == 0)
            return std::stol(line.substr(name.size() + 1));
    return -1;
}

std::optional<double> cpu_seconds_in(const std::string& stat_file)
{
    std::ifstream stat(stat_file);
    std::string line;
    if (!std::getline(stat, line) || line.rfind(')') == std::string::npos)
        return std::nullopt;
    // After "pid (comm) ": state is field 3, utime 14, stime 15.
    std::istringstream fields(line.substr(line.rfind(')') + 2));
    std::string field;
    unsigned long long utime = 0, stime = 0;
    for (int number = 3; number <= 15 && fields >> field; ++number) {
        if (number == 14)
            utime = std::stoull(field);
        else if (number == 15)
            stime = std::stoull(field);
    }
    return static_cast<double>(utime + stime) / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

} // namespace orbweave::test
