#include "support/posix/ChildProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace zep::testing {

ChildProcess::ChildProcess(const std::vector<std::string>& argv, const std::filesystem::path& output) {
    std::vector<char*> args;
    for (const auto& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    // The child starts with no signal blocked and default handlers, whatever
    // the test binary has set.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &all);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    pid_t pid = -1;
    if (posix_spawnp(&pid, args[0], &actions, &attributes, args.data(), environ) == 0) pid_ = pid;
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
}

ChildProcess::~ChildProcess() {
    if (pid_ <= 0 || status_) return;
    ::kill(pid_, SIGKILL);
    int status = 0;
    ::waitpid(pid_, &status, 0);
}

void ChildProcess::Signal(int signal) const {
    if (pid_ > 0 && !status_) ::kill(pid_, signal);
}

std::optional<int> ChildProcess::Wait(std::chrono::milliseconds timeout) {
    if (pid_ <= 0 || status_) return status_;
    Eventually(
        [&] {
            int status = 0;
            if (::waitpid(pid_, &status, WNOHANG) != pid_) return false;
            status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            return true;
        },
        timeout);
    return status_;
}

int RunToEnd(const std::vector<std::string>& argv, const std::filesystem::path& output, std::chrono::milliseconds timeout) {
    ChildProcess child(argv, output);
    return child.Wait(timeout).value_or(-1);
}

}  // namespace zep::testing
