#include "tests/support/processes.hpp"

#include "tests/support/temp_dir.hpp"

#include <signal.h>
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
