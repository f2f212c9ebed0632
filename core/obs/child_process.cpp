#include "core/obs/child_process.hpp"

#include "core/log.hpp"
#include "core/obs/media_limits.hpp"
#include "core/serial_executor.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <future>
#include <system_error>
#include <thread>

extern char** environ;

namespace orbweave::obs {

namespace {

[[noreturn]] void throw_errno(int error, const std::string& what)
{
    throw std::system_error(error, std::generic_category(), what);
}

// PR_SET_PDEATHSIG fires when the *thread* that forked ends, not the process. Children
// are therefore forked on one thread that lives as long as the process, so a worker
// made on a short-lived thread (a permission answer, a test thread) is not killed with it.
template <class F>
auto on_spawner_thread(F&& job) -> decltype(job())
{
    // Never destroyed: a thread still running when the process exits (a client that was
    // not stopped before exit, a listing thread mid-spawn) must find it intact.
    static serial_executor* const spawner = new serial_executor;
    std::packaged_task<decltype(job())()> task(std::forward<F>(job));
    auto result = task.get_future();
    if (!spawner->post([&task] { task(); }))
        throw std::runtime_error("the spawner thread has stopped");
    return result.get();
}

/// What fork() gave on the spawner thread, with its errno from that thread.
struct forked {
    pid_t pid = -1;
    int error = 0;
};

struct fd_pair {
    int ours = -1;
    int theirs = -1;
    ~fd_pair()
    {
        if (ours >= 0)
            ::close(ours);
        if (theirs >= 0)
            ::close(theirs);
    }
};

void make_socket_pair(fd_pair& pair)
{
    int fds[2];
    // A socket rather than a pipe, so our writes can use MSG_NOSIGNAL instead of raising SIGPIPE.
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) < 0)
        throw_errno(errno, "socketpair");
    pair.ours = fds[0];
    pair.theirs = fds[1];
}

int open_pidfd(pid_t pid)
{
#ifdef SYS_pidfd_open
    return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
#else
    (void)pid;
    return -1;
#endif
}

/// Strings and the null-terminated array of pointers to them that exec takes.
class c_strings {
public:
    explicit c_strings(std::vector<std::string> strings) : strings_(std::move(strings))
    {
        for (auto& text : strings_)
            pointers_.push_back(text.data());
        pointers_.push_back(nullptr);
    }
    c_strings(const c_strings&) = delete;
    c_strings& operator=(const c_strings&) = delete;
    char* const* pointers() const { return pointers_.data(); }

private:
    std::vector<std::string> strings_;
    std::vector<char*> pointers_;
};

/// Ours, less what options replaces or removes, plus what it sets.
std::vector<std::string> child_environment(const child_process::options& options)
{
    std::vector<std::string> environment;
    for (char** entry = environ; entry && *entry; ++entry) {
        std::string text = *entry;
        std::string name = text.substr(0, text.find('='));
        bool replaced = std::any_of(options.environment.begin(), options.environment.end(),
                                    [&](const auto& var) { return var.first == name; }) ||
                        std::find(options.unset_environment.begin(), options.unset_environment.end(), name) !=
                            options.unset_environment.end();
        if (!replaced)
            environment.push_back(std::move(text));
    }
    for (const auto& [name, value] : options.environment)
        environment.push_back(name + "=" + value);
    return environment;
}

/// The descriptors a child is given: its standard streams (our socket ends, or
/// /dev/null), the ones options passes on, and the pipe it reports a failed exec on.
struct child_descriptors {
    fd_pair in, out, status;
    int null_fd = -1;
    /// What the child keeps, as (ours, the number it gets in the child).
    std::vector<std::pair<int, int>> mapping;

    explicit child_descriptors(const child_process::options& options)
    {
        if (options.pipe_stdin)
            make_socket_pair(in);
        if (options.pipe_stdout)
            make_socket_pair(out);
        int fds[2];
        if (::pipe2(fds, O_CLOEXEC) < 0)
            throw_errno(errno, "pipe2");
        status.ours = fds[0];
        status.theirs = fds[1];
        if (options.quiet || !options.pipe_stdin) {
            null_fd = ::open("/dev/null", O_RDWR | O_CLOEXEC);
            if (null_fd < 0)
                throw_errno(errno, "open /dev/null");
        }
        mapping.push_back({options.pipe_stdin ? in.theirs : null_fd, 0});
        if (options.pipe_stdout)
            mapping.push_back({out.theirs, 1});
        else if (options.quiet)
            mapping.push_back({null_fd, 1});
        if (options.quiet)
            mapping.push_back({null_fd, 2});
        for (const auto& pass : options.pass_fds)
            mapping.push_back(pass);
    }
    ~child_descriptors() { close_null(); }

    /// The highest descriptor number on either side of the mapping (at least 2).
    int highest_target() const
    {
        int highest = 2;
        for (const auto& [source, target] : mapping)
            highest = std::max({highest, source, target});
        return highest;
    }
    void close_null()
    {
        if (null_fd >= 0)
            ::close(std::exchange(null_fd, -1));
    }
};

/// Everything the child does after fork, prepared before it.
struct exec_plan {
    const char* program;
    char* const* argv;
    char* const* envp;
    const std::pair<int, int>* mapping;
    std::size_t mapping_size;
    int highest; // of every descriptor in mapping
    int status_fd;
    bool new_process_group;
    pid_t parent;
};

constexpr std::size_t max_mapped = 64;

/// In the child after fork: async-signal-safe calls only, nothing that allocates or
/// takes a lock (another thread of the parent may have held one at the fork). Sets the
/// child up as the plan says and executes the program; on failure the errno goes up the
/// status pipe and the child exits.
[[noreturn]] void exec_in_child(const exec_plan& plan) noexcept
{
    int status_fd = plan.status_fd;
    auto fail = [&status_fd](int error) {
        ssize_t ignored = ::write(status_fd, &error, sizeof error);
        (void)ignored;
        ::_exit(127);
    };
    if (::prctl(PR_SET_PDEATHSIG, SIGKILL) < 0)
        fail(errno);
    if (::getppid() != plan.parent) // the parent died before prctl took effect
        ::_exit(127);
    if (plan.new_process_group)
        ::setpgid(0, 0);
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    ::signal(SIGPIPE, SIG_DFL);

    // The status pipe first goes above every target, so no target can overwrite it; then
    // every source goes above too, so no dup2 below overwrites a source not yet moved.
    int spare = plan.highest + 1;
    status_fd = ::fcntl(status_fd, F_DUPFD_CLOEXEC, spare);
    if (status_fd < 0)
        fail(errno);
    spare = status_fd + 1;
    if (plan.mapping_size > max_mapped)
        fail(EINVAL);
    int moved[max_mapped];
    for (std::size_t i = 0; i < plan.mapping_size; ++i) {
        moved[i] = ::fcntl(plan.mapping[i].first, F_DUPFD, spare);
        if (moved[i] < 0)
            fail(errno);
        spare = moved[i] + 1;
    }
    for (std::size_t i = 0; i < plan.mapping_size; ++i)
        if (::dup2(moved[i], plan.mapping[i].second) < 0)
            fail(errno);

    // Close every descriptor from 3 up except the targets and the status pipe.
    int keep[max_mapped + 1];
    std::size_t kept = 0;
    for (std::size_t i = 0; i < plan.mapping_size; ++i)
        if (plan.mapping[i].second >= 3)
            keep[kept++] = plan.mapping[i].second;
    keep[kept++] = status_fd;
    std::sort(keep, keep + kept);
    unsigned from = 3;
    for (std::size_t i = 0; i < kept; ++i) {
        unsigned fd = static_cast<unsigned>(keep[i]);
        if (fd > from)
            ::syscall(SYS_close_range, from, fd - 1, 0);
        from = std::max(from, fd + 1);
    }
    ::syscall(SYS_close_range, from, ~0U, 0);
    ::execve(plan.program, plan.argv, plan.envp);
    fail(errno);
    ::_exit(127); // not reached: fail() exits
}

/// The child's exec status, read from our end of its status pipe: none once the program
/// runs (exec closed the pipe), else the errno of what failed.
std::optional<int> read_exec_status(int fd)
{
    int exec_error = 0;
    ssize_t got;
    do {
        got = ::read(fd, &exec_error, sizeof exec_error);
    } while (got < 0 && errno == EINTR);
    if (got > 0)
        return exec_error;
    return std::nullopt;
}

// Children left to the kernel after SIGKILL did not end them in time. Nothing waits for
// them; they are reaped in passing, whenever a child is started or destroyed, so
// they do not stay behind as zombies.
std::mutex abandoned_mutex;
std::vector<pid_t> abandoned;

void reap_abandoned()
{
    std::lock_guard<std::mutex> lock(abandoned_mutex);
    abandoned.erase(std::remove_if(abandoned.begin(), abandoned.end(),
                                   [](pid_t pid) { return ::waitpid(pid, nullptr, WNOHANG) != 0; }),
                    abandoned.end());
}

void abandon(pid_t pid)
{
    std::lock_guard<std::mutex> lock(abandoned_mutex);
    abandoned.push_back(pid);
}

} // namespace

std::string find_program(const std::string& path)
{
    if (path.find('/') != std::string::npos)
        return path;
    const char* search = std::getenv("PATH");
    std::string dirs = search ? search : "/usr/local/bin:/usr/bin:/bin";
    std::size_t start = 0;
    while (start <= dirs.size()) {
        std::size_t end = dirs.find(':', start);
        if (end == std::string::npos)
            end = dirs.size();
        std::string dir = dirs.substr(start, end - start);
        std::string candidate = (dir.empty() ? "." : dir) + "/" + path;
        if (::access(candidate.c_str(), X_OK) == 0)
            return candidate;
        start = end + 1;
    }
    return {};
}

std::string beside_this_program(const std::string& name)
{
    char self[4096];
    ssize_t length = ::readlink("/proc/self/exe", self, sizeof self - 1);
    if (length <= 0)
        return name;
    std::string path(self, static_cast<std::size_t>(length));
    return path.substr(0, path.rfind('/') + 1) + name;
}

child_process::child_process(const options& options)
{
    if (options.argv.empty())
        throw std::invalid_argument("child_process: empty argv");
    reap_abandoned();
    std::string program = find_program(options.argv[0]);
    if (program.empty())
        throw_errno(ENOENT, "cannot find " + options.argv[0]);

    // Everything the child needs is prepared before fork: after it, only
    // async-signal-safe calls are allowed.
    c_strings environment(child_environment(options));
    c_strings argv(options.argv);
    child_descriptors fds(options);
    exec_plan plan{program.c_str(), argv.pointers(), environment.pointers(), fds.mapping.data(), fds.mapping.size(),
                   fds.highest_target(), fds.status.theirs, options.new_process_group, ::getpid()};

    forked fork_result = on_spawner_thread([&plan]() -> forked {
        pid_t child = ::fork();
        if (child == 0)
            exec_in_child(plan);
        return {child, child < 0 ? errno : 0};
    });
    fds.close_null();
    if (fork_result.pid < 0)
        throw_errno(fork_result.error, "fork");
    pid_ = fork_result.pid;
    pidfd_ = open_pidfd(pid_);

    ::close(std::exchange(fds.status.theirs, -1));
    if (std::optional<int> exec_error = read_exec_status(fds.status.ours)) {
        kill_and_wait();
        if (pidfd_ >= 0)
            ::close(pidfd_);
        throw_errno(*exec_error, "cannot start " + program);
    }

    stdin_fd_ = std::exchange(fds.in.ours, -1);
    stdout_fd_ = std::exchange(fds.out.ours, -1);
}

child_process::~child_process()
{
    kill_and_wait();
    reap_abandoned();
    close_stdin();
    close_stdout();
    if (pidfd_ >= 0)
        ::close(pidfd_);
}

void child_process::close_stdin()
{
    if (stdin_fd_ >= 0)
        ::close(std::exchange(stdin_fd_, -1));
}

void child_process::close_stdout()
{
    if (stdout_fd_ >= 0)
        ::close(std::exchange(stdout_fd_, -1));
}

bool child_process::kill(int signal)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (status_ || abandoned_ || pid_ <= 0)
        return false;
    return ::kill(pid_, signal) == 0;
}

bool child_process::try_reap()
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (status_ || abandoned_)
        return true;
    int status = 0;
    pid_t got;
    do {
        got = ::waitpid(pid_, &status, WNOHANG);
    } while (got < 0 && errno == EINTR);
    if (got == pid_) {
        status_ = status;
        return true;
    }
    if (got < 0) { // not our child any more (reaped elsewhere): nothing to wait for
        status_ = -1;
        return true;
    }
    return false;
}

std::optional<int> child_process::status() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return status_;
}

std::optional<int> child_process::wait_for(std::chrono::milliseconds timeout)
{
    auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        if (try_reap())
            return status();
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            return std::nullopt;
        if (pidfd_ >= 0) {
            // The pidfd becomes readable when the child ends: no polling.
            pollfd entry{pidfd_, POLLIN, 0};
            ::poll(&entry, 1, static_cast<int>(left.count()) + 1);
        } else {
            // Kernels without pidfd: check again shortly, still bounded by the deadline.
            ::poll(nullptr, 0, static_cast<int>(std::min<long long>(left.count(), 10)));
        }
    }
}

std::optional<int> child_process::kill_and_wait()
{
    if (pid_ <= 0)
        return std::nullopt;
    kill(SIGKILL);
    // SIGKILL cannot be caught: the child ends as soon as the kernel gets to it, unless it
    // is stuck in an uninterruptible wait (a hung device or file system). No thread may
    // wait for that without end.
    if (std::optional<int> status = wait_for(limits::kill))
        return status;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (abandoned_)
            return std::nullopt;
        abandoned_ = true;
    }
    abandon(pid_);
    log::line("child process " + std::to_string(pid_) + " did not end within " +
              std::to_string(limits::kill.count()) + " ms of SIGKILL; left to the kernel");
    return std::nullopt;
}

std::string child_process::describe(int wait_status)
{
    if (wait_status == -1)
        return "reaped elsewhere";
    if (WIFEXITED(wait_status))
        return "exited with code " + std::to_string(WEXITSTATUS(wait_status));
    if (WIFSIGNALED(wait_status)) {
        const char* name = ::sigabbrev_np(WTERMSIG(wait_status));
        return std::string("killed by signal ") + (name ? std::string("SIG") + name : std::to_string(WTERMSIG(wait_status)));
    }
    return "status " + std::to_string(wait_status);
}

} // namespace orbweave::obs
