// Runs the real zepdiag program in a child process, as a user or a second
// run would, for the tests that need more than one process.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

namespace zep::testing {

// The zepdiag binary the tests were built with.
std::string ZepdiagBinary();

class ZepdiagProcess {
public:
    // Starts `zepdiag args...` with its output going to `outputFile`.
    ZepdiagProcess(const std::vector<std::string>& args, const std::filesystem::path& outputFile);
    ~ZepdiagProcess();
    ZepdiagProcess(const ZepdiagProcess&) = delete;
    ZepdiagProcess& operator=(const ZepdiagProcess&) = delete;

    // Its exit status; -1 when it did not exit within `limit` (it is killed
    // then) or was killed.
    int Wait(std::chrono::milliseconds limit = std::chrono::seconds(60));
    // True while it runs.
    bool Running();
    void Kill();

private:
    pid_t pid_ = -1;
    int status_ = -1;
};

// Runs zepdiag to its end; its exit status, -1 on a time-out.
int RunZepdiag(const std::vector<std::string>& args, const std::filesystem::path& outputFile);

}  // namespace zep::testing
