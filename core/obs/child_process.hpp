#pragma once

// A child program with optional pipes to its standard input and output.
// Standard error is inherited; every other descriptor is closed in the child
// unless passed explicitly. The child is sent SIGKILL when the parent process
// dies, so nothing outlives a crashed client or test.

#include <sys/types.h>

#include <chrono>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace orbweave::obs {

class child_process {
public:
    struct options {
        /// argv[0] is the program: a path, or a name looked up in PATH.
        std::vector<std::string> argv;
        /// Variables set (or replaced) in the child's environment, on top of ours.
        std::vector<std::pair<std::string, std::string>> environment;
        /// Variables removed from the child's environment.
        std::vector<std::string> unset_environment;
        /// Give the child a stream socket as standard input / output, reachable as stdin_fd()/stdout_fd().
        bool pipe_stdin = false;
        bool pipe_stdout = false;
        /// Send the child's standard output and error to /dev/null (when not piped).
        bool quiet = false;
        /// Descriptors of ours to pass on: (our fd, the number it gets in the child).
        std::vector<std::pair<int, int>> pass_fds;
        /// Start the child in its own process group (so kill_group() reaches its children).
        bool new_process_group = false;
    };

    /// Starts the program; throws std::system_error when it cannot be started
    /// (including when exec fails, e.g. a missing program).
    explicit child_process(const options& options);
    /// Kills the child with SIGKILL if it still runs and reaps it (bounded, as kill_and_wait).
    ~child_process();

    // kill(), wait_for(), status() and kill_and_wait() may be called from different threads.
    child_process(const child_process&) = delete;
    child_process& operator=(const child_process&) = delete;

    pid_t pid() const { return pid_; }
    /// Our ends of the standard streams; -1 when not piped (or closed).
    int stdin_fd() const { return stdin_fd_; }
    int stdout_fd() const { return stdout_fd_; }
    /// Closes our end of the child's standard input: the child reads end of file.
    void close_stdin();
    /// Closes our end of the child's standard output.
    void close_stdout();

    /// Sends a signal unless the child has been reaped; false when it is gone.
    bool kill(int signal);
    /// Waits at most timeout for the child to end and reaps it; its wait status, or none on time-out.
    std::optional<int> wait_for(std::chrono::milliseconds timeout);
    /// The wait status once reaped.
    std::optional<int> status() const;
    /// Kills with SIGKILL and reaps; the wait status. A child the kernel has not ended
    /// within limits::kill (stuck in an uninterruptible wait) is left to it with a log
    /// line: none then, and this object no longer signals or waits for it.
    std::optional<int> kill_and_wait();

    /// "exited with code N" or "killed by signal NAME".
    static std::string describe(int wait_status);

private:
    bool try_reap();

    pid_t pid_ = -1;
    int pidfd_ = -1;
    int stdin_fd_ = -1;
    int stdout_fd_ = -1;
    std::optional<int> status_;
    bool abandoned_ = false; // left to the kernel after SIGKILL did not end it in time
    mutable std::mutex mutex_; // guards pid_ reaping, status_ and abandoned_: kill and wait may race
};

/// path, or the first executable file named path in $PATH when it has no slash; "" when none.
std::string find_program(const std::string& path);
/// The path of name in the running program's folder (name alone when that is unknown).
std::string beside_this_program(const std::string& name);

} // namespace orbweave::obs
