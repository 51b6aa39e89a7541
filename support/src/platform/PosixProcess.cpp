// posix_spawn rather than fork: a host with a large memory footprint must not
// pay for copying its page tables on every tool run. Only a tool that is to
// run as another user is forked, since its ids must be set between fork and
// exec: posix_spawn offers no portable way to set them.
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <new>
#include <thread>

#include "KALDO/Result.h"
#include "platform/Process.h"

namespace KALDO::platform {
namespace {

class Fd {
public:
    Fd() = default;
    explicit Fd(int fd) : fd_(fd) {}
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    ~Fd() { reset(); }
    int get() const { return fd_; }
    void reset() {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }
    void adopt(int fd) {
        reset();
        fd_ = fd;
    }

private:
    int fd_ = -1;
};

// A descriptor numbered 3 or above (close-on-exec), so that placing the
// child's standard streams can never overwrite it: a host that closed its own
// standard input would otherwise get 0 for a pipe.
bool AboveStdio(Fd& fd) {
    if (fd.get() < 0) return false;
    if (fd.get() > 2) return true;
    const int moved = ::fcntl(fd.get(), F_DUPFD_CLOEXEC, 3);
    if (moved < 0) return false;
    fd.adopt(moved);
    return true;
}

bool MakePipe(Fd& readEnd, Fd& writeEnd) {
    int fds[2];
#if defined(__APPLE__)
    if (::pipe(fds) != 0) return false;
    for (int fd : fds) ::fcntl(fd, F_SETFD, FD_CLOEXEC);
#else
    if (::pipe2(fds, O_CLOEXEC) != 0) return false;
#endif
    readEnd.adopt(fds[0]);
    writeEnd.adopt(fds[1]);
    return AboveStdio(readEnd) && AboveStdio(writeEnd);
}

class SpawnSetup {
public:
    SpawnSetup() {
        ::posix_spawn_file_actions_init(&actions_);
        ::posix_spawnattr_init(&attr_);
    }
    ~SpawnSetup() {
        ::posix_spawn_file_actions_destroy(&actions_);
        ::posix_spawnattr_destroy(&attr_);
    }
    SpawnSetup(const SpawnSetup&) = delete;
    SpawnSetup& operator=(const SpawnSetup&) = delete;
    posix_spawn_file_actions_t actions_;
    posix_spawnattr_t attr_;
};

std::vector<char*> CStrings(const std::vector<std::string>& strings) {
    std::vector<char*> out;
    out.reserve(strings.size() + 1);
    for (const std::string& s : strings) out.push_back(const_cast<char*>(s.c_str()));
    out.push_back(nullptr);
    return out;
}

int WaitFor(pid_t pid, bool block, int& status) {
    for (;;) {
        const pid_t r = ::waitpid(pid, &status, block ? 0 : WNOHANG);
        if (r >= 0) return r;
        if (errno != EINTR) return -1;
    }
}

int ExitCodeOf(int status) {
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return -1;
}

}  // namespace

bool IsExecutableFile(const std::string& hostPath) {
    struct stat st {};
    return ::stat(hostPath.c_str(), &st) == 0 && S_ISREG(st.st_mode) &&
           ::access(hostPath.c_str(), X_OK) == 0;
}

namespace {

struct Streams {
    int in = -1, out = -1, err = -1;
};

int SpawnFailure(const std::string& hostPath, int error, ToolRun& run) {
    run.diagnostic = hostPath + ": " + std::strerror(error);
    return error == ENOENT                       ? kNotFound
           : error == EACCES || error == ENOEXEC ? kAccessDenied
                                                 : kFailed;
}

int Spawn(const std::string& hostPath, const std::vector<std::string>& argv,
          const std::vector<std::string>& env, const Streams& streams, pid_t& pid, ToolRun& run) {
    SpawnSetup setup;
    ::posix_spawn_file_actions_adddup2(&setup.actions_, streams.in, 0);
    ::posix_spawn_file_actions_adddup2(&setup.actions_, streams.out, 1);
    ::posix_spawn_file_actions_adddup2(&setup.actions_, streams.err, 2);
    short flags = POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
#if defined(__APPLE__)
    // Descriptors the host opened without close-on-exec must not leak either.
    flags |= POSIX_SPAWN_CLOEXEC_DEFAULT;
#else
    ::posix_spawn_file_actions_addclosefrom_np(&setup.actions_, 3);
#endif
    ::posix_spawnattr_setflags(&setup.attr_, flags);
    ::posix_spawnattr_setpgroup(&setup.attr_, 0);
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    ::posix_spawnattr_setsigmask(&setup.attr_, &none);
    ::posix_spawnattr_setsigdefault(&setup.attr_, &all);

    std::vector<char*> cargv = CStrings(argv);
    std::vector<char*> cenv = CStrings(env);
    const int error = ::posix_spawn(&pid, hostPath.c_str(), &setup.actions_, &setup.attr_,
                                    cargv.data(), cenv.data());
    return error == 0 ? kOk : SpawnFailure(hostPath, error, run);
}

// What a forked child reports through its error pipe when it cannot become
// the tool; nothing arrives when the exec succeeds.
struct ChildFailure {
    int stage = 0;  // kSwitchFailed or kExecFailed
    int error = 0;
};
constexpr int kSwitchFailed = 1;
constexpr int kExecFailed = 2;

// Everything the child needs, made before the fork: between fork and exec the
// child of a threaded host may only make async-signal-safe calls, so it
// neither allocates nor looks anything up.
struct ChildPlan {
    const char* path;
    char* const* argv;
    char* const* envp;
    Streams streams;
    int report;  // write end of the error pipe
    long maxFd;  // descriptors below this are closed (where there is no closefrom)
    const RunAs* runAs;
    const gid_t* groups;
    int groupCount;
};

// Every descriptor from 3 up but `keep` (itself 3 or above).
void CloseAllBut(int keep, long maxFd) {
#if defined(__linux__)
    const auto k = static_cast<unsigned>(keep);
    if ((k == 3 || ::close_range(3, k - 1, 0) == 0) && ::close_range(k + 1, ~0u, 0) == 0) return;
#endif
    for (long fd = 3; fd < maxFd; ++fd)
        if (fd != keep) ::close(static_cast<int>(fd));
}

[[noreturn]] void Fail(int report, int stage) {
    const ChildFailure failure{stage, errno};
    ssize_t ignored = ::write(report, &failure, sizeof failure);
    (void)ignored;
    _exit(127);
}

// The forked child: signals as a new program has them, its own process
// group, the three streams, no other descriptor, the user's groups, group id
// and user id (real, effective and saved alike), then the tool.
[[noreturn]] void BecomeTool(const ChildPlan& plan) {
    struct sigaction dfl {};
    dfl.sa_handler = SIG_DFL;
    for (int sig = 1; sig < NSIG; ++sig) ::sigaction(sig, &dfl, nullptr);
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    ::setpgid(0, 0);
    // The streams are all 3 or above (AboveStdio), so none is overwritten here.
    ::dup2(plan.streams.in, 0);
    ::dup2(plan.streams.out, 1);
    ::dup2(plan.streams.err, 2);
    CloseAllBut(plan.report, plan.maxFd);
    if (plan.runAs != nullptr) {
        const auto uid = static_cast<uid_t>(plan.runAs->uid);
        const auto gid = static_cast<gid_t>(plan.runAs->gid);
        if (::setgroups(plan.groupCount, plan.groups) != 0 || ::setgid(gid) != 0 ||
            ::setuid(uid) != 0)
            Fail(plan.report, kSwitchFailed);
        // A user other than root must not be able to take root back.
        if (uid != 0 && ::setuid(0) == 0) {
            errno = EPERM;
            Fail(plan.report, kSwitchFailed);
        }
    }
    ::execve(plan.path, plan.argv, plan.envp);
    Fail(plan.report, kExecFailed);
}

int ForkAs(const std::string& hostPath, const std::vector<std::string>& argv,
           const std::vector<std::string>& env, const Streams& streams, const RunAs& runAs,
           pid_t& pid, ToolRun& run) {
    Fd reportRead, reportWrite;
    if (!MakePipe(reportRead, reportWrite)) return SpawnFailure(hostPath, errno, run);

    // The primary group first, then the others once each, as many as the
    // system takes.
    std::vector<gid_t> groups{static_cast<gid_t>(runAs.gid)};
    for (const int g : runAs.groups)
        if (std::find(groups.begin(), groups.end(), static_cast<gid_t>(g)) == groups.end())
            groups.push_back(static_cast<gid_t>(g));
    const long groupLimit = ::sysconf(_SC_NGROUPS_MAX);
    if (groupLimit > 0 && groups.size() > static_cast<size_t>(groupLimit))
        groups.resize(static_cast<size_t>(groupLimit));
    long maxFd = ::sysconf(_SC_OPEN_MAX);
    if (maxFd < 0 || maxFd > (1L << 20)) maxFd = 1L << 20;

    std::vector<char*> cargv = CStrings(argv);
    std::vector<char*> cenv = CStrings(env);
    const ChildPlan plan{hostPath.c_str(), cargv.data(),      cenv.data(),
                         streams,          reportWrite.get(), maxFd,
                         &runAs,           groups.data(),     static_cast<int>(groups.size())};

    // No host signal handler may run in the child before it has reset them.
    sigset_t all, previous;
    sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &previous);
    pid = ::fork();
    if (pid == 0) BecomeTool(plan);
    const int forkError = errno;
    ::pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    if (pid < 0) return SpawnFailure(hostPath, forkError, run);

    reportWrite.reset();
    ChildFailure failure;
    ssize_t got = 0;
    do {
        got = ::read(reportRead.get(), &failure, sizeof failure);
    } while (got < 0 && errno == EINTR);
    if (got != static_cast<ssize_t>(sizeof failure)) return kOk;  // the tool runs

    int status = 0;
    WaitFor(pid, true, status);
    if (failure.stage == kSwitchFailed) {
        run.diagnostic = hostPath + ": cannot run as user " + std::to_string(runAs.uid) + ": " +
                         std::strerror(failure.error);
        return kAccessDenied;
    }
    return SpawnFailure(hostPath, failure.error, run);
}

using Clock = std::chrono::steady_clock;

// When a tool's time is up; never, for a tool without a limit.
struct Deadline {
    explicit Deadline(double seconds)
        : limited(seconds > 0),
          at(limited ? Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                          std::chrono::duration<double>(seconds))
                     : Clock::time_point::max()) {}
    bool limited;
    Clock::time_point at;
};

// A started tool: its process, in a group of its own, and the read ends of
// its output pipes (err stays closed when the streams are merged).
struct Child {
    pid_t pid = -1;
    Fd out;
    Fd err;
};

// How far a run got: whether the tool has been reaped (and its status), and
// whether it is to be killed.
struct Progress {
    int status = 0;
    bool reaped = false;
    bool timedOut = false;
    bool overflowed = false;  // printed past the output limit, or past what memory holds
};

// Spawn step: checks that hostPath can be run, makes the pipes and starts
// the tool (forked when it is to run as another user).
int StartTool(const std::string& hostPath, const std::vector<std::string>& argv,
              const std::vector<std::string>& env, bool mergeErr, const RunAs* runAs, Child& child,
              ToolRun& run) {
    struct stat st {};
    if (::stat(hostPath.c_str(), &st) != 0) {
        run.diagnostic = hostPath + ": " + std::strerror(errno);
        return errno == ENOENT || errno == ENOTDIR ? kNotFound : ResultFromErrno(errno);
    }
    if (!S_ISREG(st.st_mode) || ::access(hostPath.c_str(), X_OK) != 0) {
        run.diagnostic = hostPath + ": not an executable file";
        return kAccessDenied;
    }

    Fd devNull(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    Fd outWrite, errWrite;
    if (!AboveStdio(devNull) || !MakePipe(child.out, outWrite) ||
        (!mergeErr && !MakePipe(child.err, errWrite))) {
        run.diagnostic = std::string("cannot create pipes: ") + std::strerror(errno);
        return kFailed;
    }
    const Streams streams{devNull.get(), outWrite.get(),
                          mergeErr ? outWrite.get() : errWrite.get()};
    return runAs != nullptr ? ForkAs(hostPath, argv, env, streams, *runAs, child.pid, run)
                            : Spawn(hostPath, argv, env, streams, child.pid, run);
}

// Drain step: reads both pipes into run.out and run.err until the tool has
// closed them, its time is up or it has printed past the limit (0: none).
// Closes the pipes.
void DrainOutput(Child& child, const Deadline& deadline, size_t outputLimit, ToolRun& run,
                 Progress& progress) {
    struct Stream {
        Fd* fd;
        std::string* text;
    };
    Stream streams[2] = {{&child.out, &run.out}, {&child.err, &run.err}};
    char buffer[65536];
    while (!progress.overflowed) {
        pollfd fds[2];
        int count = 0;
        Stream* polled[2];
        for (Stream& s : streams) {
            if (s.fd->get() < 0) continue;
            fds[count] = {s.fd->get(), POLLIN, 0};
            polled[count++] = &s;
        }
        if (count == 0) break;
        // Wake up now and then: a tool may exit while a daemon it started
        // keeps our pipe open, and the deadline must be noticed.
        int waitMs = 200;
        if (deadline.limited) {
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(deadline.at - Clock::now())
                    .count();
            if (left <= 0) {
                progress.timedOut = true;
                break;
            }
            if (left < waitMs) waitMs = static_cast<int>(left);
        }
        const int ready = ::poll(fds, count, progress.reaped ? 0 : waitMs);
        if (ready < 0) {
            if (errno == EINTR) continue;
            break;
        }
        if (ready == 0) {
            if (progress.reaped) break;  // exited and nothing more to read right now
            if (WaitFor(child.pid, false, progress.status) == child.pid) progress.reaped = true;
            continue;
        }
        for (int i = 0; i < count; ++i) {
            if (fds[i].revents == 0) continue;
            const ssize_t n = ::read(fds[i].fd, buffer, sizeof buffer);
            if (n > 0) {
                try {
                    polled[i]->text->append(buffer, static_cast<size_t>(n));
                } catch (const std::bad_alloc&) {
                    progress.overflowed = true;
                    break;
                }
                if (outputLimit > 0 && run.out.size() + run.err.size() > outputLimit) {
                    progress.overflowed = true;
                    break;
                }
            } else if (n == 0 || (errno != EINTR && errno != EAGAIN)) {
                polled[i]->fd->reset();
            }
        }
    }
    child.out.reset();
    child.err.reset();
}

// A tool may close its output and go on running (or hang): the deadline
// holds until it has ended. Its end usually follows the pipes' closing
// within some tens of microseconds, less than the shortest sleep the
// system's timer gives, so for the first two milliseconds the looks only
// yield the processor (to the tool, on a machine with one core); then they
// sleep, longer each time.
void AwaitEnd(pid_t pid, const Deadline& deadline, Progress& progress) {
    const Clock::time_point yieldUntil = Clock::now() + std::chrono::milliseconds(2);
    for (auto pause = std::chrono::microseconds(50);
         deadline.limited && !progress.reaped && !progress.timedOut && !progress.overflowed;) {
        if (WaitFor(pid, false, progress.status) == pid) {
            progress.reaped = true;
        } else if (const Clock::time_point now = Clock::now(); now >= deadline.at) {
            progress.timedOut = true;
        } else if (now < yieldUntil) {
            std::this_thread::yield();
        } else {
            std::this_thread::sleep_for(std::min<Clock::duration>(pause, deadline.at - now));
            pause = std::min(pause * 2, std::chrono::microseconds(20000));
        }
    }
}

// Reap step: kills the tool's group when it is over its time or output,
// waits for it and makes the run's result.
int Reap(const std::string& hostPath, pid_t pid, const ToolLimits& limits, Progress& progress,
         ToolRun& run) {
    if ((progress.timedOut || progress.overflowed) && !progress.reaped) {
        ::kill(-pid, SIGKILL);
        ::kill(pid, SIGKILL);
    }
    if (!progress.reaped && WaitFor(pid, true, progress.status) != pid) {
        run.diagnostic = std::string("waitpid failed: ") + std::strerror(errno);
        return kFailed;
    }
    run.exitCode = ExitCodeOf(progress.status);
    run.signal = WIFSIGNALED(progress.status) ? WTERMSIG(progress.status) : 0;
    if (progress.timedOut) {
        run.diagnostic = hostPath + ": killed after " + std::to_string(limits.seconds) + " s";
        return kTimedOut;
    }
    if (progress.overflowed) {
        // The text is no answer to read: let its memory go at once.
        std::string().swap(run.out);
        std::string().swap(run.err);
        run.diagnostic = hostPath + ": killed after printing more than " +
                         std::to_string(limits.outputBytes) + " bytes";
        return kTooLarge;
    }
    return kOk;
}

}  // namespace

int RunTool(const std::string& hostPath, const std::vector<std::string>& argv,
            const std::vector<std::string>& env, bool mergeErr, const ToolLimits& limits,
            ToolRun& run, const RunAs* runAs) {
    Child child;
    const int started = StartTool(hostPath, argv, env, mergeErr, runAs, child, run);
    if (started != kOk) return started;
    const Deadline deadline(limits.seconds);
    Progress progress;
    DrainOutput(child, deadline, limits.outputBytes, run, progress);
    AwaitEnd(child.pid, deadline, progress);
    return Reap(hostPath, child.pid, limits, progress, run);
}

}  // namespace KALDO::platform
