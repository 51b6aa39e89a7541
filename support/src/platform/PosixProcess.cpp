// posix_spawn rather than fork: a host with a large memory footprint must not
// pay for copying its page tables on every tool run.
#include <fcntl.h>
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
    return true;
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

int RunTool(const std::string& hostPath, const std::vector<std::string>& argv,
            const std::vector<std::string>& env, bool mergeErr, double timeoutSeconds,
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
    Fd outRead, outWrite, errRead, errWrite;
    if (devNull.get() < 0 || !MakePipe(outRead, outWrite) ||
        (!mergeErr && !MakePipe(errRead, errWrite))) {
        run.diagnostic = std::string("cannot create pipes: ") + std::strerror(errno);
        return kFailed;
    }

    SpawnSetup setup;
    ::posix_spawn_file_actions_adddup2(&setup.actions_, devNull.get(), 0);
    ::posix_spawn_file_actions_adddup2(&setup.actions_, outWrite.get(), 1);
    ::posix_spawn_file_actions_adddup2(&setup.actions_, mergeErr ? outWrite.get() : errWrite.get(),
                                       2);
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
    pid_t pid = -1;
    const int spawnError = ::posix_spawn(&pid, hostPath.c_str(), &setup.actions_, &setup.attr_,
                                         cargv.data(), cenv.data());
    outWrite.reset();
    errWrite.reset();
    devNull.reset();
    if (spawnError != 0) {
        run.diagnostic = hostPath + ": " + std::strerror(spawnError);
        return spawnError == ENOENT                            ? kNotFound
               : spawnError == EACCES || spawnError == ENOEXEC ? kAccessDenied
                                                               : kFailed;
    }

    using Clock = std::chrono::steady_clock;
    const bool limited = timeoutSeconds > 0;
    const Clock::time_point deadline =
        limited ? Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                     std::chrono::duration<double>(timeoutSeconds))
                : Clock::time_point::max();

    struct Stream {
        Fd* fd;
        std::string* text;
    };
    Stream streams[2] = {{&outRead, &run.out}, {&errRead, &run.err}};
    int status = 0;
    bool reaped = false;
    bool timedOut = false;
    char buffer[65536];
    for (;;) {
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
        if (limited) {
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now())
                    .count();
            if (left <= 0) {
                timedOut = true;
                break;
            }
            if (left < waitMs) waitMs = static_cast<int>(left);
        }
        const int ready = ::poll(fds, count, reaped ? 0 : waitMs);
        if (ready < 0) {
            if (errno == EINTR) continue;
            break;
        }
        if (ready == 0) {
            if (reaped) break;  // exited and nothing more to read right now
            if (WaitFor(pid, false, status) == pid) reaped = true;
            continue;
        }
        for (int i = 0; i < count; ++i) {
            if (fds[i].revents == 0) continue;
            const ssize_t n = ::read(fds[i].fd, buffer, sizeof buffer);
            if (n > 0) {
                polled[i]->text->append(buffer, static_cast<size_t>(n));
            } else if (n == 0 || (errno != EINTR && errno != EAGAIN)) {
                polled[i]->fd->reset();
            }
        }
    }
    outRead.reset();
    errRead.reset();

    // A tool may close its output and go on running (or hang): the deadline
    // holds until it has ended. Its end usually follows the pipes' closing
    // within some tens of microseconds, less than the shortest sleep the
    // system's timer gives, so for the first two milliseconds the looks only
    // yield the processor (to the tool, on a machine with one core); then they
    // sleep, longer each time.
    const Clock::time_point yieldUntil = Clock::now() + std::chrono::milliseconds(2);
    for (auto pause = std::chrono::microseconds(50); limited && !reaped && !timedOut;) {
        if (WaitFor(pid, false, status) == pid) {
            reaped = true;
        } else if (const Clock::time_point now = Clock::now(); now >= deadline) {
            timedOut = true;
        } else if (now < yieldUntil) {
            std::this_thread::yield();
        } else {
            std::this_thread::sleep_for(std::min<Clock::duration>(pause, deadline - now));
            pause = std::min(pause * 2, std::chrono::microseconds(20000));
        }
    }

    if (timedOut && !reaped) {
        ::kill(-pid, SIGKILL);
        ::kill(pid, SIGKILL);
    }
    if (!reaped && WaitFor(pid, true, status) != pid) {
        run.diagnostic = std::string("waitpid failed: ") + std::strerror(errno);
        return kFailed;
    }
    run.exitCode = ExitCodeOf(status);
    if (timedOut) {
        run.diagnostic = hostPath + ": killed after " + std::to_string(timeoutSeconds) + " s";
        return kTimedOut;
    }
    return kOk;
}

}  // namespace KALDO::platform
