// Child processes. The module never asks a shell to interpret a command: a
// command is either a Windows command line (CreateProcess semantics) or an
// argument vector.
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace zep::platform {

struct ProcessRequest {
    std::vector<std::wstring> argv;          // argv[0] is the program
    std::wstring workingDirectory;            // empty: the caller's
    std::chrono::milliseconds timeout{0};     // 0: wait without limit
    bool captureOutput = false;               // collect standard output
    std::size_t maxOutputBytes = 0;           // keep only the last this many bytes of it; 0: all
};

struct ProcessResult {
    bool started = false;     // the program could be started
    bool timedOut = false;    // ended by the time-out (the whole process group)
    int exitCode = -1;        // exit status, or -1 when killed or not started
    std::string output;       // standard output when captured, as bytes
    bool outputTruncated = false;  // more was written than maxOutputBytes: only the end is kept
};

class ProcessEnv {
public:
    virtual ~ProcessEnv() = default;

    // Runs a Windows command line. `arguments` is appended as the program's
    // argument text when not empty. With `wait` it blocks until the process
    // ends. Returns non-zero exactly when the process was started and (when
    // waited for) exited with status 0. `hostContext` is the opaque handle the
    // host passed to DiagnosticsManager::Init. After `ceiling` (0: none) the
    // process and everything it started are ended, waited for or not.
    virtual int LaunchCommandLine(const std::wstring& commandLine, const std::wstring& arguments, bool wait,
                                  void* hostContext, std::chrono::milliseconds ceiling) = 0;
    // Runs an argument vector and waits for it (or for the time-out, after
    // which the process and its children are killed). Never throws.
    virtual ProcessResult Spawn(const ProcessRequest& request) = 0;
};

}  // namespace zep::platform
