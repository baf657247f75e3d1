// Well-known folders and the interactive user. All results are in the running
// system's path form; none of the operations throws.
#pragma once

#include <optional>
#include <string>

namespace zep::platform {

class SystemEnv {
public:
    virtual ~SystemEnv() = default;

    // The agent's application-data root, without a trailing separator;
    // nullopt when the agent's installation cannot be found.
    virtual std::optional<std::wstring> AppDataRoot() = 0;
    // The system's temporary folder, ending with a separator.
    virtual std::wstring TempFolder() = 0;
    // The system directory (System32 on Windows), without a trailing separator.
    virtual std::wstring SystemDirectory() = 0;
    // The Windows directory, without a trailing separator.
    virtual std::wstring WindowsDirectory() = 0;
    // The security identifier of the logged-in user; empty when nobody is.
    virtual std::wstring LoggedInUserSid() = 0;
};

}  // namespace zep::platform
