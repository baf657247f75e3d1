#include "platform/posix/PosixProcess.h"

#include "platform/posix/Fd.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <ctime>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/util/OutputTail.h"
#include "platform/util/Strings.h"
#include "platform/util/WindowsCommandLine.h"

extern char** environ;

namespace zep::platform {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;


class FileActions {
public:
    FileActions() noexcept { ok_ = ::posix_spawn_file_actions_init(&actions_) == 0; }
    ~FileActions() {
        if (ok_) ::posix_spawn_file_actions_destroy(&actions_);
    }
    FileActions(const FileActions&) = delete;
    FileActions& operator=(const FileActions&) = delete;

    bool Ok() const noexcept { return ok_; }
    posix_spawn_file_actions_t* Get() noexcept { return &actions_; }

private:
    posix_spawn_file_actions_t actions_{};
    bool ok_ = false;
};

class SpawnAttributes {
public:
    SpawnAttributes() noexcept { ok_ = ::posix_spawnattr_init(&attr_) == 0; }
    ~SpawnAttributes() {
        if (ok_) ::posix_spawnattr_destroy(&attr_);
    }
    SpawnAttributes(const SpawnAttributes&) = delete;
    SpawnAttributes& operator=(const SpawnAttributes&) = delete;

    bool Ok() const noexcept { return ok_; }
    posix_spawnattr_t* Get() noexcept { return &attr_; }

private:
    posix_spawnattr_t attr_{};
    bool ok_ = false;
};

struct Child {
    pid_t pid = -1;
    Fd output;  // read end of the child's standard output, when captured
};

int DecodeStatus(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : -1; }

// Blocks until the child is reaped. ECHILD means someone else (SIGCHLD set to
// SIG_IGN, say) already did it and the status is lost.
int ReapBlocking(pid_t pid) noexcept {
    int status = 0;
    for (;;) {
        const pid_t got = ::waitpid(pid, &status, 0);
        if (got == pid) return DecodeStatus(status);
        if (got < 0 && errno == EINTR) continue;
        return -1;
    }
}

// True once the child is gone, with its exit code.
bool TryReap(pid_t pid, int& exitCode) noexcept {
    int status = 0;
    for (;;) {
        const pid_t got = ::waitpid(pid, &status, WNOHANG);
        if (got == pid) {
            exitCode = DecodeStatus(status);
            return true;
        }
        if (got == 0) return false;
        if (errno == EINTR) continue;
        exitCode = -1;
        return true;
    }
}

// The child leads its own process group, so this reaches everything it
// started too. The group id cannot be reused before the leader is reaped.
void KillGroup(pid_t pid) noexcept {
    if (::kill(-pid, SIGKILL) != 0) ::kill(pid, SIGKILL);
}

// A descriptor that becomes readable when the child ends, so that the wait
// needs no polling; -1 on kernels without pidfd (the caller then polls).
int OpenPidFd(pid_t pid) noexcept {
#ifdef SYS_pidfd_open
    const long fd = ::syscall(SYS_pidfd_open, pid, 0);  // always close-on-exec
    return fd < 0 ? -1 : static_cast<int>(fd);
#else
    static_cast<void>(pid);
    return -1;
#endif
}

enum class ReadState { More, Finished };

// One read, so that a child that never stops writing cannot keep the wait
// from checking its time-out.
ReadState ReadOnce(int fd, OutputTail& output) {
    char buffer[16384];
    for (;;) {
        const ssize_t got = ::read(fd, buffer, sizeof buffer);
        if (got > 0) {
            output.Append(buffer, static_cast<std::size_t>(got));
            return ReadState::More;
        }
        if (got == 0) return ReadState::Finished;
        if (errno == EINTR) continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK) return ReadState::More;
        return ReadState::Finished;
    }
}

// Collects what the pipe holds once the child is gone. Only what is there now:
// a descendant that kept the pipe open may go on writing for ever. The child
// is reaped by then, so running out of memory here just shortens the output.
void DrainPending(int fd, OutputTail& output) noexcept try {
    int pending = 0;
    if (::ioctl(fd, FIONREAD, &pending) != 0 || pending <= 0) return;
    std::size_t left = static_cast<std::size_t>(pending);
    char buffer[16384];
    while (left > 0) {
        const ssize_t got = ::read(fd, buffer, std::min(left, sizeof buffer));
        if (got > 0) {
            output.Append(buffer, static_cast<std::size_t>(got));
            left -= static_cast<std::size_t>(got);
            continue;
        }
        if (got < 0 && errno == EINTR) continue;
        return;
    }
} catch (...) {
}

void SleepBriefly(milliseconds duration) noexcept {
    timespec left{0, static_cast<long>(duration.count()) * 1000000L};
    while (::nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

bool HasNul(const std::string& bytes) { return bytes.find('\0') != std::string::npos; }

// Starts the child without a shell. False (and nothing left behind) when it
// could not be started.
bool StartChild(const ProcessRequest& request, Child& child) {
    if (request.argv.empty()) return false;

    std::vector<std::string> args;
    args.reserve(request.argv.size());
    for (const auto& arg : request.argv) {
        args.push_back(text::EncodeFileName(arg));
        // The child would see a truncated argument: refuse rather than run
        // something other than what was asked for.
        if (HasNul(args.back())) return false;
    }
    if (args.front().empty()) return false;
    std::vector<char*> argv;
    argv.reserve(args.size() + 1);
    for (auto& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);

    const std::string directory = text::EncodeFileName(request.workingDirectory);
    if (HasNul(directory)) return false;

    Fd readEnd;
    Fd writeEnd;
    if (request.captureOutput) {
        int fds[2];
        // Close-on-exec: a child spawned by another thread at the same moment
        // must not inherit this pipe, or it would hold it open.
        if (::pipe2(fds, O_CLOEXEC) != 0) return false;
        readEnd = Fd(fds[0]);
        writeEnd = Fd(fds[1]);
    }

    FileActions actions;
    if (!actions.Ok()) return false;
    if (::posix_spawn_file_actions_addopen(actions.Get(), STDIN_FILENO, "/dev/null", O_RDONLY, 0) != 0) return false;
    if (request.captureOutput &&
        ::posix_spawn_file_actions_adddup2(actions.Get(), writeEnd.Get(), STDOUT_FILENO) != 0) {
        return false;
    }
    if (!directory.empty() && ::posix_spawn_file_actions_addchdir_np(actions.Get(), directory.c_str()) != 0) {
        return false;
    }

    SpawnAttributes attributes;
    if (!attributes.Ok()) return false;
    // A group of its own so that a time-out ends the whole tree; a clean
    // signal state because ignored signals (SIGPIPE, typically, in a host)
    // and the blocked mask of the calling thread survive exec.
    sigset_t noSignals;
    sigset_t allSignals;
    sigemptyset(&noSignals);
    sigfillset(&allSignals);
    sigdelset(&allSignals, SIGKILL);
    sigdelset(&allSignals, SIGSTOP);
    const auto flags = static_cast<short>(POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    if (::posix_spawnattr_setflags(attributes.Get(), flags) != 0 ||
        ::posix_spawnattr_setpgroup(attributes.Get(), 0) != 0 ||
        ::posix_spawnattr_setsigmask(attributes.Get(), &noSignals) != 0 ||
        ::posix_spawnattr_setsigdefault(attributes.Get(), &allSignals) != 0) {
        return false;
    }

    pid_t pid = -1;
    const char* program = argv.front();
    const bool hasSlash = args.front().find('/') != std::string::npos;
    const int rc = hasSlash ? ::posix_spawn(&pid, program, actions.Get(), attributes.Get(), argv.data(), environ)
                            : ::posix_spawnp(&pid, program, actions.Get(), attributes.Get(), argv.data(), environ);
    if (rc != 0) return false;

    // The parent's copy of the write end would keep the pipe from ever
    // reporting end of file.
    writeEnd.Reset();
    if (readEnd.Valid()) {
        const int fl = ::fcntl(readEnd.Get(), F_GETFL);
        if (fl >= 0) ::fcntl(readEnd.Get(), F_SETFL, fl | O_NONBLOCK);
    }
    child.pid = pid;
    child.output = std::move(readEnd);
    return true;
}

ProcessResult TimedOut(pid_t pid, Fd& output, OutputTail& tail, ProcessResult& result) {
    KillGroup(pid);
    ReapBlocking(pid);
    if (output.Valid()) DrainPending(output.Get(), tail);
    tail.MoveInto(result);
    result.timedOut = true;
    result.exitCode = -1;
    return std::move(result);
}

// Waits for a started child: until it ends or `limit` (0: none) passes, when
// its process group is killed. The child is reaped on every path.
ProcessResult WaitChild(pid_t pid, Fd output, milliseconds limit, std::size_t maxOutputBytes) noexcept {
    try {
        ProcessResult result;
        result.started = true;
        OutputTail tail(maxOutputBytes);
        const auto start = Clock::now();
        const Fd exitSignal(OpenPidFd(pid));
        milliseconds slice{1};

        for (;;) {
            int exitCode = -1;
            if (TryReap(pid, exitCode)) {
                if (output.Valid()) DrainPending(output.Get(), tail);
                tail.MoveInto(result);
                result.exitCode = exitCode;
                return result;
            }

            int timeoutMs = -1;
            if (limit.count() > 0) {
                const auto elapsed = std::chrono::duration_cast<milliseconds>(Clock::now() - start);
                if (elapsed >= limit) return TimedOut(pid, output, tail, result);
                timeoutMs = static_cast<int>(std::min<milliseconds::rep>((limit - elapsed).count(), INT_MAX));
            }
            if (!exitSignal.Valid()) {
                // No pidfd: look at the child again after a growing slice.
                const auto sliceMs = static_cast<int>(slice.count());
                timeoutMs = timeoutMs < 0 ? sliceMs : std::min(timeoutMs, sliceMs);
                slice = std::min(slice * 2, milliseconds{50});
            }

            pollfd fds[2] = {};
            nfds_t count = 0;
            if (exitSignal.Valid()) fds[count++] = pollfd{exitSignal.Get(), POLLIN, 0};
            const nfds_t pipeIndex = count;
            if (output.Valid()) fds[count++] = pollfd{output.Get(), POLLIN, 0};

            const int ready = ::poll(fds, count, timeoutMs);
            if (ready < 0) {
                if (errno != EINTR) SleepBriefly(milliseconds{10});
                continue;
            }
            if (output.Valid() && (fds[pipeIndex].revents & (POLLIN | POLLHUP | POLLERR)) != 0) {
                if (ReadOnce(output.Get(), tail) == ReadState::Finished) output.Reset();
            }
        }
    } catch (...) {
        // Out of memory for the output (the child is not reaped yet on this
        // path, so its group id is still its own): do not leave it behind.
        KillGroup(pid);
        ReapBlocking(pid);
        return ProcessResult{};
    }
}

}  // namespace

ProcessResult PosixProcess::Spawn(const ProcessRequest& request) {
    try {
        Child child;
        if (!StartChild(request, child)) return ProcessResult{};
        return WaitChild(child.pid, std::move(child.output), request.timeout, request.maxOutputBytes);
    } catch (...) {
        return ProcessResult{};
    }
}

int PosixProcess::LaunchCommandLine(const std::wstring& commandLine, const std::wstring& arguments, bool wait,
                                    void* /*hostContext*/, milliseconds ceiling) {
    try {
        const std::wstring line = WithArguments(commandLine, arguments);
        ProcessRequest request;
        request.argv = SplitWindowsCommandLine(line);
        if (request.argv.empty()) return 0;

        request.timeout = ceiling;
        if (wait) {
            const ProcessResult result = Spawn(request);
            return result.started && !result.timedOut && result.exitCode == 0 ? 1 : 0;
        }

        Child child;
        if (!StartChild(request, child)) return 0;
        const pid_t pid = child.pid;
        try {
            // Nobody waits for the result, but someone must reap the child
            // (and end it at the ceiling).
            std::thread([pid, ceiling]() noexcept { WaitChild(pid, Fd{}, ceiling, 0); }).detach();
        } catch (...) {
            // No thread to be had: reap here rather than leave a zombie.
            WaitChild(pid, Fd{}, ceiling, 0);
        }
        return 1;
    } catch (...) {
        return 0;
    }
}

}  // namespace zep::platform
