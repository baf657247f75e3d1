// ProcessEnv with posix_spawn: argument vectors only, never a shell.
#pragma once

#include <string>

#include "platform/env/ProcessEnv.h"

namespace zep::platform {

class PosixProcess : public ProcessEnv {
public:
    // A Windows command line cannot run here as it is: it is split into an
    // argument vector by the rules of CommandLineToArgvW and spawned without
    // a shell. The whole process group is ended at the time-out or ceiling.
    int LaunchCommandLine(const std::wstring& commandLine, const std::wstring& arguments, bool wait,
                          void* hostContext, std::chrono::milliseconds ceiling) override;
    ProcessResult Spawn(const ProcessRequest& request) override;
};

}  // namespace zep::platform
