#include "tests/tools/wss_test_client.hpp"
#include "tests/support/temp_dir.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace orbweave::test {
namespace {

using namespace std::chrono_literals;
using steady = std::chrono::steady_clock;
constexpr duration deadline = 5s;

// The simulator program on pipes: commands in, event lines out.
class sim_process {
public:
    explicit sim_process(std::vector<std::string> args)
    {
        int in[2], out[2];
        if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0)
            throw std::runtime_error("pipe2");
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
        posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
        args.insert(args.begin(), ORBWEAVE_SERVICE_SIM_PROGRAM);
        std::vector<char*> argv;
        for (auto& arg : args)
            argv.push_back(arg.data());
        argv.push_back(nullptr);
        int rc = ::posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        ::close(in[0]);
        ::close(out[1]);
        stdin_ = in[1];
        stdout_ = out[0];
        if (rc != 0)
            throw std::runtime_error("posix_spawn failed");
    }

    ~sim_process()
    {
        close_stdin();
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
        ::close(stdout_);
    }

    void write_line(const std::string& line)
    {
        std::string text = line + "\n";
        ASSERT_EQ(::write(stdin_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }

    void close_stdin()
    {
        if (stdin_ >= 0)
            ::close(stdin_);
        stdin_ = -1;
    }

    /// The next output line that starts with prefix (every line read is kept in lines()).
    std::optional<std::string> wait_for_line(const std::string& prefix, duration timeout)
    {
        auto until = steady::now() + timeout;
        for (;;) {
            for (; scanned_ < lines_.size(); ++scanned_)
                if (lines_[scanned_].rfind(prefix, 0) == 0)
                    return lines_[scanned_++];
            if (!read_some(until))
                return std::nullopt;
        }
    }

    /// Reads to end of output, then reaps the process; its exit status, or -1.
    int wait_for_exit(duration timeout)
    {
        auto until = steady::now() + timeout;
        while (read_some(until)) {
        }
        if (!eof_)
            return -1;
        int status = 0;
        // Output closes as the process exits, so this wait is short.
        if (::waitpid(pid_, &status, 0) != pid_)
            return -1;
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    void signal(int number) { ::kill(pid_, number); }
    const std::vector<std::string>& lines() const { return lines_; }

private:
    // Reads what is available before the deadline; false at EOF or the deadline.
    bool read_some(steady::time_point until)
    {
        if (eof_)
            return false;
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - steady::now()).count();
        pollfd fd{stdout_, POLLIN, 0};
        if (left <= 0 || ::poll(&fd, 1, static_cast<int>(left)) <= 0)
            return false;
        char buffer[4096];
        ssize_t n = ::read(stdout_, buffer, sizeof buffer);
        if (n <= 0) {
            eof_ = true;
            return false;
        }
        pending_.append(buffer, static_cast<std::size_t>(n));
        for (std::size_t end; (end = pending_.find('\n')) != std::string::npos;) {
            lines_.push_back(pending_.substr(0, end));
            pending_.erase(0, end + 1);
        }
        return true;
    }

    pid_t pid_ = -1;
    int stdin_ = -1;
    int stdout_ = -1;
    bool eof_ = false;
    std::string pending_;
    std::vector<std::string> lines_;
    std::size_t scanned_ = 0;
};

std::string read_text(const std::filesystem::path& path)
{
    std::ifstream in(path);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

TEST(ServiceSimProgram, ServesWithAGeneratedCaTakesConsoleCommandsAndOutlivesStdin)
{
    test::temp_dir scratch("orbweave-sim");
    std::filesystem::path dir = scratch.path() / "ca";

    sim_process program({"--port", "0", "--ca-dir", dir.string()});
    auto listening = program.wait_for_line("listening wss://127.0.0.1:", deadline);
    ASSERT_TRUE(listening);
    std::string url = listening->substr(std::string("listening ").size());
    EXPECT_EQ(url.substr(url.rfind('/')), "/client");
    std::string ca = read_text(dir / "ca.pem");
    ASSERT_FALSE(ca.empty());
    EXPECT_EQ(std::filesystem::status(dir / "server.key").permissions() & std::filesystem::perms::all,
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);

    wss_test_client client(ca);
    ASSERT_TRUE(client.connect(url, deadline));
    auto identify = client.wait_for_json(deadline);
    ASSERT_TRUE(identify);
    EXPECT_EQ(json::string_at(*identify, {"id"}), "identify");
    EXPECT_TRUE(program.wait_for_line("connected", deadline));

    client.send(Json({{"id", "code"}, {"url", "/api/client/connect"}, {"method", "GET"}}));
    auto code_message = client.wait_for_json(deadline);
    ASSERT_TRUE(code_message);
    std::string code = json::string_at(*code_message, {"payload", "code"});
    EXPECT_EQ(program.wait_for_line("code ", deadline), "code " + code);

    program.write_line("claim " + code + " Bob Builder");
    auto ready = client.wait_for_json(deadline);
    ASSERT_TRUE(ready);
    std::string secret = json::string_at(*ready, {"payload", "secret"});
    EXPECT_EQ(secret.size(), 64u);
    EXPECT_EQ(json::string_at(*ready, {"payload", "owner", "displayName"}), "Bob Builder");
    EXPECT_TRUE(program.wait_for_line("claimed " + code + " by Bob Builder", deadline));

    program.write_line("list audio");
    auto list = client.wait_for_json(deadline);
    ASSERT_TRUE(list);
    EXPECT_EQ(json::string_at(*list, {"payload", "type"}), "audio");
    client.send(Json({{"id", "list"}, {"state", (*list)["state"]}, {"payload", {{"status", "Rejected"}}}}));
    EXPECT_TRUE(program.wait_for_line("reply ", deadline));

    // With stdin gone the simulator keeps serving until it is signalled.
    program.close_stdin();
    client.send(Json({{"id", "code"}, {"url", "/api/client/connect"}, {"payload", {{"secret", secret}}}}));
    auto again = client.wait_for_json(deadline);
    ASSERT_TRUE(again);
    EXPECT_EQ(json::string_at(*again, {"id"}), "ready");

    program.signal(SIGTERM);
    EXPECT_EQ(program.wait_for_exit(deadline), 0);
    for (const auto& line : program.lines())
        EXPECT_EQ(line.find(secret), std::string::npos) << "secret printed: " << line;
}

} // namespace
} // namespace orbweave::test
