#include "process/ZepdiagProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

namespace zep::testing {

std::string ZepdiagBinary() { return ZEPDIAG_BINARY; }

ZepdiagProcess::ZepdiagProcess(const std::vector<std::string>& args, const std::filesystem::path& outputFile) {
    std::vector<std::string> argv{ZepdiagBinary()};
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<char*> raw;
    for (auto& arg : argv) raw.push_back(arg.data());
    raw.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, outputFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    if (posix_spawn(&pid_, raw[0], &actions, nullptr, raw.data(), environ) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
}

ZepdiagProcess::~ZepdiagProcess() {
    if (Running()) Kill();
}

bool ZepdiagProcess::Running() {
    if (pid_ < 0) return false;
    int status = 0;
    const pid_t done = ::waitpid(pid_, &status, WNOHANG);
    if (done == 0) return true;
    status_ = done == pid_ && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    pid_ = -1;
    return false;
}

int ZepdiagProcess::Wait(std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (Running()) {
        if (std::chrono::steady_clock::now() > end) {
            Kill();
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return status_;
}

void ZepdiagProcess::Kill() {
    if (pid_ < 0) return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
    status_ = -1;
}

int RunZepdiag(const std::vector<std::string>& args, const std::filesystem::path& outputFile) {
    return ZepdiagProcess(args, outputFile).Wait();
}

}  // namespace zep::testing
