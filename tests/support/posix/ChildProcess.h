// A program the integration tests run beside them (the broker, zepdiag, the
// publisher), with its output in a file. Every wait is bounded; a process
// still running when the object goes is killed.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace zep::testing {

class ChildProcess {
public:
    // Starts `argv` (argv[0] looked up in PATH) with standard output and
    // error appended to `output`. Check Started().
    ChildProcess(const std::vector<std::string>& argv, const std::filesystem::path& output);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    bool Started() const { return pid_ > 0; }
    void Signal(int signal) const;
    // The exit status (128 + signal when killed by one) once it has ended
    // within `timeout`; nothing while it still runs.
    std::optional<int> Wait(std::chrono::milliseconds timeout);

private:
    pid_t pid_ = -1;
    std::optional<int> status_;
};

// Runs `argv` to its end (at most `timeout`): its exit status, or -1.
int RunToEnd(const std::vector<std::string>& argv, const std::filesystem::path& output,
        std::chrono::milliseconds timeout = std::chrono::seconds(30));

// Polls `condition` every 20 ms until it holds or `timeout` passes.
template <typename Condition>
bool Eventually(Condition condition, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        if (condition()) return true;
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

}  // namespace zep::testing
