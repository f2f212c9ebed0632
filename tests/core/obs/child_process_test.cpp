// The child process helper the media worker handle and the test fixtures are built on.

#include "core/obs/child_process.hpp"
#include "core/obs/media_limits.hpp"
#include "tests/support/line_reader.hpp"
#include "tests/support/processes.hpp"
#include "tests/support/scoped_environment.hpp"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <system_error>
#include <thread>

namespace orbweave::obs {
namespace {

using namespace std::chrono_literals;

// Everything the child writes to its standard output until it closes it, read with a deadline.
std::string read_all(int fd)
{
    std::string text;
    EXPECT_TRUE(test::read_all(fd, text, 10s)) << "no end of output in time";
    return text;
}

child_process::options shell(const std::string& script)
{
    auto options = test::command({"sh", "-c", script});
    options.pipe_stdout = true;
    return options;
}

TEST(ChildProcess, TalksThroughItsStandardStreamsAndReportsItsExit)
{
    auto options = test::command({"cat"});
    options.pipe_stdin = true;
    options.pipe_stdout = true;
    child_process cat(options);
    ASSERT_GT(cat.pid(), 0);
    std::string line = "hello worker\n";
    ASSERT_EQ(::send(cat.stdin_fd(), line.data(), line.size(), MSG_NOSIGNAL), static_cast<ssize_t>(line.size()));
    cat.close_stdin();
    EXPECT_EQ(read_all(cat.stdout_fd()), line);
    EXPECT_EQ(test::how_it_ended(cat, 10s), "exited with code 0");
    child_process failing(shell("exit 3"));
    EXPECT_EQ(test::how_it_ended(failing, 10s), "exited with code 3");
}

TEST(ChildProcess, KillIsReportedAndWaitIsBounded)
{
    auto options = test::command({"sleep", "60"});
    child_process sleeper(options);
    EXPECT_FALSE(sleeper.wait_for(50ms)) << "a running child has no status yet";
    EXPECT_TRUE(sleeper.kill(SIGTERM));
    EXPECT_EQ(test::how_it_ended(sleeper, 10s), "killed by signal SIGTERM");
    EXPECT_FALSE(sleeper.kill(SIGTERM)) << "a reaped child is not signalled";
    EXPECT_EQ(::kill(sleeper.pid(), 0), -1);
}

TEST(ChildProcess, AStoppedChildIsEndedWithinTheKillBound)
{
    // A frozen worker that ignores SIGTERM: stopped, nothing it could do ends it. (A child
    // the kernel cannot end at all, stuck in an uninterruptible wait, cannot be made here;
    // kill_and_wait leaves such a one to the kernel after the bound.)
    auto options = shell("trap '' TERM; echo ignoring; exec sleep 60");
    child_process frozen(options);
    ASSERT_EQ(test::line_reader(frozen.stdout_fd()).next(10s), "ignoring");
    ASSERT_EQ(::kill(frozen.pid(), SIGSTOP), 0);
    EXPECT_TRUE(frozen.kill(SIGTERM));
    EXPECT_FALSE(frozen.wait_for(200ms)) << "a child ignoring SIGTERM ended on it";
    auto begun = std::chrono::steady_clock::now();
    auto status = frozen.kill_and_wait();
    EXPECT_LT(std::chrono::steady_clock::now() - begun, limits::kill);
    ASSERT_TRUE(status);
    EXPECT_EQ(child_process::describe(*status), "killed by signal SIGKILL");
    EXPECT_EQ(frozen.kill_and_wait(), status) << "a second wait finds the same end";

    // Its owner's destruction is bounded the same way.
    auto owned = std::make_unique<child_process>(options);
    pid_t pid = owned->pid();
    ASSERT_EQ(test::line_reader(owned->stdout_fd()).next(10s), "ignoring");
    ASSERT_EQ(::kill(pid, SIGSTOP), 0);
    begun = std::chrono::steady_clock::now();
    owned.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - begun, limits::kill);
    EXPECT_EQ(::kill(pid, 0), -1);
}

TEST(ChildProcess, InheritsOnlyTheStandardStreamsAndPassedDescriptors)
{
    int fds[2];
    ASSERT_EQ(::pipe2(fds, O_CLOEXEC), 0);
    int leaky = ::open("/dev/null", O_RDONLY); // not close-on-exec: must still not reach the child
    // The passed end gets a number none of ours has. Which of these are open in the child:
    std::string passed = std::to_string(std::max({leaky, fds[0], fds[1]}) + 1);
    std::string probe = "for n in " + passed + " " + std::to_string(leaky) + " " + std::to_string(fds[0]) +
                        "; do [ -e /proc/$$/fd/$n ] && echo $n; done; true";
    auto options = shell(probe);
    options.pass_fds = {{fds[1], std::stoi(passed)}};
    child_process lister(options);
    ::close(fds[1]);
    EXPECT_EQ(read_all(lister.stdout_fd()), passed + "\n");
    ::close(fds[0]);
    ::close(leaky);
    EXPECT_TRUE(lister.wait_for(10s));
}

TEST(ChildProcess, RunsInOurEnvironmentWithTheGivenChanges)
{
    test::scoped_environment kept("ORBWEAVE_TEST_KEPT", "ours");
    test::scoped_environment replaced("ORBWEAVE_TEST_REPLACED", "ours");
    test::scoped_environment removed("ORBWEAVE_TEST_REMOVED", "ours");
    auto options = shell("echo \"$ORBWEAVE_TEST_KEPT $ORBWEAVE_TEST_REPLACED $ORBWEAVE_TEST_ADDED "
                         "${ORBWEAVE_TEST_REMOVED-unset}\"");
    options.environment = {{"ORBWEAVE_TEST_REPLACED", "theirs"}, {"ORBWEAVE_TEST_ADDED", "new"}};
    options.unset_environment = {"ORBWEAVE_TEST_REMOVED"};
    child_process child(options);
    EXPECT_EQ(read_all(child.stdout_fd()), "ours theirs new unset\n");
    EXPECT_TRUE(child.wait_for(10s));
}

TEST(ChildProcess, AProgramThatCannotRunThrowsWhyAndLeavesNoChild)
{
    auto options = test::command({"/dev/null"}); // exists, but exec refuses it
    try {
        child_process child(options);
        ADD_FAILURE() << "a program that cannot run was started";
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code().value(), EACCES);
        EXPECT_NE(std::string(error.what()).find("cannot start /dev/null"), std::string::npos) << error.what();
    }
    // Reaped already: nothing is left for us to wait for.
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
}

TEST(ChildProcess, OutlivesTheThreadThatStartedItButNotItsOwner)
{
    // The parent-death signal follows the forking thread; children must survive the end of
    // the thread that asked for them (a permission answer thread, say).
    std::unique_ptr<child_process> child;
    std::thread starter([&] {
        auto options = test::command({"sleep", "60"});
        child = std::make_unique<child_process>(options);
    });
    starter.join();
    ASSERT_TRUE(child);
    EXPECT_FALSE(child->wait_for(200ms)) << "the child died with the thread that started it";
    pid_t pid = child->pid();
    child.reset();
    EXPECT_EQ(::kill(pid, 0), -1) << "destroying the owner kills and reaps the child";
}

} // namespace
} // namespace orbweave::obs
