#include "agent/agent.hpp"
#include "agent/check_command.hpp"
#include "agent/line_printer.hpp"
#include "core/version.hpp"

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <iostream>
#include <thread>

int main(int argc, char** argv)
{
    using namespace orbweave;

    agent::options options;
    try {
        options = agent::parse_options(std::vector<std::string>(argv + 1, argv + argc));
    } catch (const std::invalid_argument& error) {
        std::cerr << "orbweave-agent: " << error.what() << "\n";
        return 2;
    }
    if (options.show_help) {
        std::cout << agent::usage();
        return 0;
    }
    if (options.show_version) {
        std::cout << "orbweave-agent " << client_version << "\n";
        return 0;
    }
    if (options.check)
        return agent::run_check(options);

    // Signals are taken by sigwait below; every thread started after this inherits the mask.
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);

    // Status lines are written from a thread of their own: a standard output nobody
    // reads must not stop the network thread that prints them.
    agent::line_printer printer(STDOUT_FILENO);
    auto print = [&printer](const std::string& line) { printer.print(line); };
    int prompt_fd = isatty(STDIN_FILENO) ? STDIN_FILENO : -1;
    agent::agent agent(options, print, prompt_fd);

    std::atomic<bool> stopping{false};
    std::atomic<bool> started{false};
    std::thread starter([&] { started = agent.start([&] { return stopping.load(); }); });

    int signal = 0;
    sigwait(&stop_signals, &signal);
    stopping = true;
    starter.join();
    print(std::string("stopping on ") + (signal == SIGINT ? "SIGINT" : "SIGTERM"));
    agent.stop();
    print("stopped");
    return 0;
}
