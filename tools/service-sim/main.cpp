// orbweave-service-sim: the service simulator as a program, for trying the client by
// hand or from scripts. Event lines go to stdout, flushed one by one; commands are
// read from stdin; SIGINT or SIGTERM ends it with status 0.

#include "tools/service-sim/service_sim.hpp"

#include <boost/asio/ip/address.hpp>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <mutex>
#include <sstream>
#include <string>

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace {

using orbweave::sim::service_sim;

std::mutex output_mutex;

void print(const std::string& line)
{
    std::lock_guard<std::mutex> lock(output_mutex);
    std::fputs(line.c_str(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

const char* usage =
    "usage: orbweave-service-sim [--port N] [--address A] [--cert FILE --key FILE | --ca-dir DIR]\n"
    "                            [--auto-claim NAME] [--avatar URL] [--no-console]\n"
    "console commands: claim CODE NAME | list KIND | activate ID PROFILE SERVER KEY |\n"
    "                  deactivate [ID] | reset | identify | send JSON | drop | quit\n";

std::string read_file(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        throw std::runtime_error("cannot read " + path);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::string rest_of(std::istringstream& in)
{
    std::string rest;
    std::getline(in >> std::ws, rest);
    return rest;
}

// Runs one console line; false when the line asks to quit.
bool run_command(service_sim& sim, const std::string& line, const std::string& avatar)
{
    std::istringstream in(line);
    std::string command;
    if (!(in >> command))
        return true;
    auto report = [&command](const std::optional<std::string>& state) {
        print(state ? command + " sent" + (state->empty() ? "" : " state " + *state) : command + " failed: no client connected");
    };
    if (command == "quit" || command == "exit")
        return false;
    if (command == "claim") {
        std::string code;
        in >> code;
        std::string name = rest_of(in);
        if (code.empty() || name.empty())
            print("usage: claim CODE NAME");
        else if (!sim.claim(code, {name, avatar}))
            print("claim failed: no connected client holds code " + code);
    } else if (command == "list") {
        std::string kind;
        in >> kind;
        report(sim.list(kind));
    } else if (command == "activate") {
        orbweave::sim::activation request;
        if (!(in >> request.source_id >> request.profile >> request.server >> request.key))
            print("usage: activate ID PROFILE SERVER KEY");
        else
            report(sim.activate(request));
    } else if (command == "deactivate") {
        std::string id;
        in >> id;
        report(id.empty() ? sim.deactivate_all() : sim.deactivate(id));
    } else if (command == "reset") {
        report(sim.reset());
    } else if (command == "identify") {
        report(sim.identify());
    } else if (command == "send") {
        if (!sim.send_raw(rest_of(in)))
            print("send failed: no client connected");
    } else if (command == "drop") {
        sim.drop_connections();
    } else if (command == "help") {
        print(usage);
    } else {
        print("unknown command: " + command + " (try help)");
    }
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    orbweave::sim::options options;
    std::string cert_file, key_file, ca_dir, avatar;
    std::optional<std::string> auto_claim;
    bool console = true;
    try {
        for (int i = 1; i < argc; ++i) {
            std::string arg = argv[i];
            auto value = [&]() -> std::string {
                if (i + 1 >= argc)
                    throw std::runtime_error(arg + " needs a value");
                return argv[++i];
            };
            if (arg == "--port")
                options.port = static_cast<std::uint16_t>(std::stoul(value()));
            else if (arg == "--address")
                options.address = value();
            else if (arg == "--cert")
                cert_file = value();
            else if (arg == "--key")
                key_file = value();
            else if (arg == "--ca-dir")
                ca_dir = value();
            else if (arg == "--auto-claim")
                auto_claim = value();
            else if (arg == "--avatar")
                avatar = value();
            else if (arg == "--no-console")
                console = false;
            else if (arg == "--help" || arg == "-h") {
                std::fputs(usage, stdout);
                return 0;
            } else
                throw std::runtime_error("unknown option " + arg);
        }
        if (cert_file.empty() != key_file.empty())
            throw std::runtime_error("--cert and --key go together");
        // It hands out machine secrets to whoever connects: loopback only.
        boost::system::error_code bad_address;
        auto address = boost::asio::ip::make_address(options.address, bad_address);
        if (bad_address || !address.is_loopback())
            throw std::runtime_error("--address must be a loopback address, not " + options.address);
        if (!cert_file.empty() && !ca_dir.empty())
            throw std::runtime_error("--cert/--key and --ca-dir exclude each other");
    } catch (const std::exception& e) {
        std::fprintf(stderr, "orbweave-service-sim: %s\n%s", e.what(), usage);
        return 2;
    }

    // SIGINT and SIGTERM are read from a signalfd by the main loop; blocking them before
    // any thread starts keeps every thread from taking them. A shell starts background
    // jobs with SIGINT ignored, and an ignored signal never reaches the signalfd.
    ::signal(SIGINT, SIG_DFL);
    ::signal(SIGTERM, SIG_DFL);
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    ::signal(SIGPIPE, SIG_IGN);
    int signal_fd = ::signalfd(-1, &signals, SFD_CLOEXEC);
    if (signal_fd < 0) {
        std::fprintf(stderr, "orbweave-service-sim: signalfd: %s\n", std::strerror(errno));
        return 1;
    }

    std::unique_ptr<service_sim> sim;
    try {
        if (!cert_file.empty()) {
            options.identity = orbweave::wss::tls_identity{"", read_file(cert_file), read_file(key_file)};
        } else {
            options.identity = orbweave::wss::tls_identity::generate();
            if (!ca_dir.empty()) {
                options.identity->write(ca_dir);
                print("ca-file " + ca_dir + "/ca.pem");
            }
        }
        if (auto_claim)
            options.auto_claim = orbweave::sim::owner{*auto_claim, avatar};
        options.on_event = print;
        sim = std::make_unique<service_sim>(std::move(options));
    } catch (const std::exception& e) {
        std::fprintf(stderr, "orbweave-service-sim: %s\n", e.what());
        return 1;
    }

    std::string pending;
    bool input_open = console;
    for (;;) {
        pollfd fds[2] = {{signal_fd, POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
        if (::poll(fds, input_open ? 2 : 1, -1) < 0) {
            if (errno == EINTR)
                continue;
            break;
        }
        if (fds[0].revents & POLLIN) {
            signalfd_siginfo info;
            if (::read(signal_fd, &info, sizeof info) == static_cast<ssize_t>(sizeof info))
                print(std::string("signal ") + strsignal(static_cast<int>(info.ssi_signo)));
            break;
        }
        if (input_open && (fds[1].revents & (POLLIN | POLLHUP | POLLERR))) {
            char buffer[4096];
            ssize_t n = ::read(STDIN_FILENO, buffer, sizeof buffer);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0) {
                // Scripts often start it with stdin closed or at EOF: keep serving.
                input_open = false;
                continue;
            }
            pending.append(buffer, static_cast<std::size_t>(n));
            bool quit = false;
            for (std::size_t end; !quit && (end = pending.find('\n')) != std::string::npos;) {
                std::string line = pending.substr(0, end);
                pending.erase(0, end + 1);
                if (!line.empty() && line.back() == '\r')
                    line.pop_back();
                quit = !run_command(*sim, line, avatar);
            }
            if (quit)
                break;
        }
    }
    sim->stop();
    sim.reset();
    ::close(signal_fd);
    print("bye");
    return 0;
}
