// The system's well-known folders and the interactive user.
#pragma once

#include "platform/env/SystemEnv.h"

namespace zep::platform {

class WindowsSystem : public SystemEnv {
public:
    // %ProgramData%\Quorin\Zep, when that folder exists.
    std::optional<std::wstring> AppDataRoot() override;
    // GetTempPathW.
    std::wstring TempFolder() override;
    // GetSystemDirectoryW.
    std::wstring SystemDirectory() override;
    // GetWindowsDirectoryW into MAX_PATH characters, as the agent reads it:
    // empty when it does not fit.
    std::wstring WindowsDirectory() override;
    // The user of the active console session (WTSQueryUserToken). Only a
    // service running as LocalSystem may ask for that token; anyone else gets
    // the user this process runs as. Empty when nobody is logged on.
    std::wstring LoggedInUserSid() override;
};

}  // namespace zep::platform
