// A test program that hangs is killed by ctest at its time limit, and all its log then
// shows is what it printed before it hung. Linked into every test program: when
// ORBWEAVE_TEST_TIMEOUT (the program's ctest limit, in seconds) is set, shortly before
// that limit this names the test that is running and prints every thread's stack
// (through gdb) and the program's child processes, on the standard error the program
// started with: a test may have redirected its standard error meanwhile.

#include "core/obs/pipe_channel.hpp"
#include "tests/support/processes.hpp"
#include "tests/support/temp_dir.hpp"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using clock_type = std::chrono::steady_clock;

/// The stderr this program started with, kept open for the report.
int original_stderr = -1;

void say(const std::string& text)
{
    orbweave::obs::pipe::write_all(original_stderr, text);
}

std::string first_line_of(const std::filesystem::path& file)
{
    std::string text = orbweave::test::file_text(file);
    return text.substr(0, text.find('\n'));
}

/// Runs a program with its output on the original stderr and waits for it (bounded by its
/// own time limit); false when it could not be started or did not succeed.
bool run_to_report(std::vector<std::string> command)
{
    auto options = orbweave::test::command(std::move(command));
    options.pass_fds = {{original_stderr, STDOUT_FILENO}, {original_stderr, STDERR_FILENO}};
    try {
        orbweave::obs::child_process program(options);
        auto status = program.wait_for(std::chrono::seconds(90));
        return status && WIFEXITED(*status) && WEXITSTATUS(*status) == 0;
    } catch (const std::exception&) {
        return false;
    }
}

/// Every thread's stack by gdb (bounded: a gdb that cannot attach must not use up the
/// time left), or at least each thread's name and where the kernel has it waiting.
void report_threads()
{
    // Where ptrace is limited to descendants, a child may attach to us only when told.
    ::prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY, 0, 0, 0);
    std::string pid = std::to_string(::getpid());
    if (run_to_report({"timeout", "60", "gdb", "-nx", "-batch", "-p", pid, "-ex", "set pagination off", "-ex",
                       "thread apply all bt"}))
        return;
    say("(gdb could not report the stacks: scripts/setup installs it; each thread's wait instead)\n");
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task"))
        say("  thread " + task.path().filename().string() + " " + first_line_of(task.path() / "comm") + ": " +
            first_line_of(task.path() / "wchan") + "\n");
}

void report_children()
{
    for (int pid : orbweave::test::child_pids())
        say("  child " + std::to_string(pid) + ": " + orbweave::test::command_line(pid) + "\n");
}

class hang_report : public ::testing::EmptyTestEventListener {
public:
    explicit hang_report(std::chrono::seconds limit) : started_(clock_type::now()), limit_(limit)
    {
        // Before ctest's limit, with time left for gdb; a short limit still gets half.
        auto margin = std::min<std::chrono::seconds>(std::chrono::seconds(25), limit / 2);
        watchdog_ = std::thread([this, report_at = started_ + limit - margin] { watch(report_at); });
    }

    ~hang_report() override { stop_watching(); }

    void OnTestStart(const ::testing::TestInfo& test) override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        running_ = std::string(test.test_suite_name()) + "." + test.name();
    }

    void OnTestEnd(const ::testing::TestInfo&) override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        running_ = "(between tests)";
    }

    // gtest never destroys its listeners, so the watch ends here.
    void OnTestProgramEnd(const ::testing::UnitTest&) override { stop_watching(); }

private:
    void stop_watching()
    {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            finished_ = true;
        }
        changed_.notify_all();
        if (watchdog_.joinable())
            watchdog_.join();
    }

    void watch(clock_type::time_point report_at)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        if (changed_.wait_until(lock, report_at, [this] { return finished_; }))
            return;
        std::string test = running_;
        lock.unlock();
        auto ran = std::chrono::duration_cast<std::chrono::seconds>(clock_type::now() - started_);
        say("\n*** HANG: " + test + " is still running after " + std::to_string(ran.count()) + " s of the program's " +
            std::to_string(limit_.count()) + " s; its threads and children follow\n");
        report_children();
        report_threads();
        say("*** end of the hang report\n");
    }

    clock_type::time_point started_;
    std::chrono::seconds limit_;
    std::mutex mutex_;
    std::condition_variable changed_;
    bool finished_ = false;
    std::string running_ = "(before the first test)";
    std::thread watchdog_;
};

/// Appended to gtest's listeners (which own it) when the program has a limit.
const bool installed = [] {
    const char* limit = std::getenv("ORBWEAVE_TEST_TIMEOUT");
    int seconds = limit ? std::atoi(limit) : 0;
    if (seconds <= 0)
        return false;
    original_stderr = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
    if (original_stderr < 0)
        return false;
    ::testing::UnitTest::GetInstance()->listeners().Append(new hang_report(std::chrono::seconds(seconds)));
    return true;
}();

} // namespace
