// ProcessEnv with CreateProcessW. A command line runs exactly as given (no
// shell, never re-quoted); an argument vector becomes the command line that
// CommandLineToArgvW splits back into it. Every child starts suspended, is
// put into a job object of its own that ends all its processes when the job
// closes, and only then runs: a time-out or the ceiling ends the whole tree,
// and so does the end of the child (nothing it started outlives it) or of
// this process. Standard input is NUL; standard output and error go to NUL
// unless the output is captured (through a pipe drained by a thread).
#pragma once

#include "platform/env/ProcessEnv.h"

namespace zep::platform {

class WindowsProcess : public ProcessEnv {
public:
    // `hostContext` is not needed to start a process here: the child runs
    // as this process's user.
    int LaunchCommandLine(const std::wstring& commandLine, const std::wstring& arguments, bool wait,
                          void* hostContext, std::chrono::milliseconds ceiling) override;
    // The exit code is the child's 32-bit exit status as an int (an NTSTATUS
    // such as 0xC0000005 reads as negative); -1 when ended by the time-out.
    ProcessResult Spawn(const ProcessRequest& request) override;
};

}  // namespace zep::platform
